#!/bin/sh
# The same download encrypted whole, saved as controller-<host>.zip.enc:
# openssl enc -d -aes-128-cbc -md md5 reads it. The password comes from a
# file on descriptor 3, never the command line (a password given with -P
# would show in ps until the tool hides it). Only a POST starts it.
# QUELVANE_PASSWORD_FILE: readable by the web server's user only.
. "${0%/*}/quelvane-cgi.sh"
require_post
name="controller-$(host_name).zip"
send_headers application/octet-stream "$name.enc"
run_tool "${QUELVANE:-/usr/bin/quelvane}" -e -I 3 -L A -f "${QUELVANE_CONF:-/etc/quelvane.conf}" \
    -a "$name" -o - --deadline="${QUELVANE_DEADLINE:-300}" --keepalive=5 3< "${QUELVANE_PASSWORD_FILE:-/etc/quelvane.password}"
