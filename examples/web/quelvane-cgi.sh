# Shared by the CGI programs (sourced, not run).

# Only a POST starts a collection; anything else is told so and ends here.
require_post()
{
    if [ "$REQUEST_METHOD" != POST ]; then
        printf 'Status: 405 Method Not Allowed\r\nAllow: POST\r\nContent-Type: text/plain\r\n\r\n'
        printf 'A collection starts only with POST (the page at index.html sends one).\n'
        exit 0
    fi
}

# The host's name, kept to what a file name may safely hold.
host_name()
{
    hostname | tr -c 'A-Za-z0-9._\n-' '_'
}

# The response's headers: the type, no caching or sniffing, and the name
# to save under (RFC 6266).
send_headers()
{
    printf 'Content-Type: %s\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n' "$1"
    printf 'Content-Disposition: attachment; filename="%s"\r\n\r\n' "$2"
}

# The tool, in place of this shell. With QUELVANE_SUDO=1 it runs as root
# through sudo, which must allow exactly these arguments and keep
# descriptors 3 and 4 open (README gives the sudoers lines).
run_tool()
{
    if [ "${QUELVANE_SUDO:-}" = 1 ]; then
        exec sudo -n "$@"
    fi
    exec "$@"
}
