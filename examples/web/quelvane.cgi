#!/bin/sh
# CGI for a controller's web UI: the controller's state as a download named
# controller-<host>.zip, streamed while it is collected.
# Set QUELVANE and QUELVANE_CONF in the server's CGI environment to move them.
name="controller-$(hostname).zip"
exec "${QUELVANE:-/usr/bin/quelvane}" -b -L A -f "${QUELVANE_CONF:-/etc/quelvane.conf}" -a "$name" -o -
