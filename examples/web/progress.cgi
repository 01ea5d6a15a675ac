#!/bin/sh
# Server-sent events for index.html: the progress lines of the download
# started with the same ?run=ID, one event each, until its last line.
run=$(printf '%s' "$QUERY_STRING" | sed -n 's/^\(.*&\)\{0,1\}run=\([A-Za-z0-9]\{1,64\}\)\(&.*\)\{0,1\}$/\2/p')
file="${QUELVANE_PROGRESS_DIR:-/run/lighttpd/quelvane}/$run.progress"
printf 'Content-Type: text/event-stream\r\nCache-Control: no-cache\r\n\r\n'
if [ -z "$run" ]; then
    printf 'data: FAIL 1 no-run\n\n'
    exit 0
fi
# The download may start a moment after this stream.
tries=0
while [ ! -f "$file" ]; do
    tries=$((tries + 1))
    if [ $tries -gt 300 ]; then
        printf 'data: FAIL 1 not-started\n\n'
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
rm -f "$file"
