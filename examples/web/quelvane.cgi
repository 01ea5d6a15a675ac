#!/bin/sh
# CGI for a controller's web UI: the controller's state as a download named
# controller-<host>.zip, streamed while it is collected, ended in time.
# With ?run=ID (letters and digits, as index.html makes them) the progress
# lines go to a file of that run, which progress.cgi serves to the page.
# Set QUELVANE, QUELVANE_CONF, QUELVANE_DEADLINE and QUELVANE_PROGRESS_DIR in
# the server's CGI environment to move them.
name="controller-$(hostname).zip"
set -- -b -L A -f "${QUELVANE_CONF:-/etc/quelvane.conf}" -a "$name" -o - --deadline="${QUELVANE_DEADLINE:-300}"
run=$(printf '%s' "$QUERY_STRING" | sed -n 's/^\(.*&\)\{0,1\}run=\([A-Za-z0-9]\{1,64\}\)\(&.*\)\{0,1\}$/\2/p')
if [ -n "$run" ]; then
    dir="${QUELVANE_PROGRESS_DIR:-/tmp/quelvane-progress}"
    (umask 077 && mkdir -p "$dir")
    find "$dir" -name '*.progress' -mmin +60 -delete 2>/dev/null
    # noclobber: a run's file is made here, never taken over.
    set -C
    if exec 4> "$dir/$run.progress"; then
        set -- "$@" --progress-fd=4
    fi
    set +C
fi
exec "${QUELVANE:-/usr/bin/quelvane}" "$@"
