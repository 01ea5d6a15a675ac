#!/bin/sh
# Server-sent events for index.html: the progress lines of the download
# started with the same ?run=ID, one event each, until its last line; with
# run=current those of the collection that runs now (a reload, a second
# operator), or IDLE when none does. The first event names the archive.
. "${0%/*}/quelvane-cgi.sh"
run=$(printf '%s' "$QUERY_STRING" | sed -n 's/^\(.*&\)\{0,1\}run=\([A-Za-z0-9]\{1,64\}\)\(&.*\)\{0,1\}$/\2/p')
dir="${QUELVANE_PROGRESS_DIR:-/run/lighttpd/quelvane}"
printf 'Content-Type: text/event-stream\r\nCache-Control: no-cache\r\n\r\n'
if [ "$run" = current ]; then
    run=$(readlink "$dir/current" 2>/dev/null | sed -n 's/^\([A-Za-z0-9]*\)\.progress$/\1/p')
    if [ -z "$run" ] || [ ! -f "$dir/$run.progress" ] || tail -n 1 "$dir/$run.progress" | grep -q '^\(OK\|FAIL\) '; then
        printf 'data: IDLE\n\n'
        exit 0
    fi
fi
if [ -z "$run" ]; then
    printf 'data: FAIL 1 no-run\n\n'
    exit 0
fi
file="$dir/$run.progress"
printf 'data: NAME controller-%s.zip\n\n' "$(host_name)"
# The download starts a moment after this stream, or never: a tool that
# cannot be started is reported within two seconds.
tries=0
while [ ! -f "$file" ]; do
    tries=$((tries + 1))
    if [ $tries -gt 20 ]; then
        printf 'data: FAIL 127 not-started\n\n'
        exit 0
    fi
    sleep 0.1
done
# Lines as they are appended; a part line waits for the rest.
partial=
idle=0
while :; do
    if IFS= read -r line; then
        line="$partial$line"
        partial=
        idle=0
        printf 'data: %s\n\n' "$line"
        case $line in OK\ * | FAIL\ *) break ;; esac
    else
        partial="$partial$line"
        idle=$((idle + 1))
        [ $idle -le 6000 ] || break
        sleep 0.1
    fi
done < "$file"
