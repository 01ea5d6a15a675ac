#!/bin/sh
# CGI for a controller's web UI: the controller's state as a download named
# controller-<host>.zip, streamed while it is collected, ended in time.
# Only a POST starts a collection: a GET, a HEAD or a link prefetch gets 405.
# With ?run=ID (letters and digits, as index.html makes them) the progress
# lines go to a file of that run, which progress.cgi serves to the page.
# Set QUELVANE, QUELVANE_CONF, QUELVANE_DEADLINE and QUELVANE_PROGRESS_DIR in
# the server's CGI environment to move them. The tool runs as the web
# server's user, and reads only what that user may, unless QUELVANE_SUDO=1.
. "${0%/*}/quelvane-cgi.sh"
require_post
name="controller-$(host_name).zip"
set -- -L A -f "${QUELVANE_CONF:-/etc/quelvane.conf}" -a "$name" -o - \
    --deadline="${QUELVANE_DEADLINE:-300}" --keepalive=5
run=$(printf '%s' "$QUERY_STRING" | sed -n 's/^\(.*&\)\{0,1\}run=\([A-Za-z0-9]\{1,64\}\)\(&.*\)\{0,1\}$/\2/p')
dir="${QUELVANE_PROGRESS_DIR:-/run/lighttpd/quelvane}"
# The progress directory is ours alone: made 0700, refused when it belongs to
# another user or anyone may write to it (then the download goes on without
# progress). A run's file is made here, never taken over: an existing one
# (or any failure) means no progress, still a download.
if [ -n "$run" ] && (umask 077 && mkdir -p "$dir") 2>/dev/null && [ -O "$dir" ] &&
    [ -z "$(find "$dir" -maxdepth 0 -perm -0002)" ]; then
    find "$dir" -name '*.progress' -mmin +60 -delete 2>/dev/null
    if (set -C && : > "$dir/$run.progress") 2>/dev/null; then
        exec 4>> "$dir/$run.progress"
        set -- "$@" --progress-fd=4
        # The page of a second operator, or after a reload, follows this run.
        ln -sfn "$run.progress" "$dir/current"
    fi
fi
send_headers application/zip "$name"
tool="${QUELVANE:-/usr/bin/quelvane}"
if [ ! -x "$tool" ]; then
    { [ -n "$run" ] && echo "FAIL 127 not-installed" >&4; } 2>/dev/null
    exit 0
fi
run_tool "$tool" "$@"
