# Sourced by the with-*.sh wrappers, which start a private server as $server logging to
# $dir/log. Named for the wrapper's messages: $name.

# Fails at once when the server's program is not installed, and makes the server's folder $dir,
# removed at exit.
need_server() {
    if ! command -v "$1" >/dev/null 2>&1; then
        echo "$name: $1 is not installed (bash scripts/bootstrap.sh installs it)" >&2
        exit 1
    fi
    dir=$(mktemp -d)
    trap 'rm -rf "$dir"' EXIT
}

# Waits up to ten seconds for the test "$@" to hold; when it does not, shows the server's log,
# stops it and exits 1.
wait_for_server() {
    i=0
    while ! "$@" && [ $i -lt 200 ]; do
        sleep 0.05
        i=$((i + 1))
    done
    if ! "$@"; then
        echo "$name: the server did not start:" >&2
        cat "$dir/log" >&2
        kill "$server" 2>/dev/null
        exit 1
    fi
}

# Runs the command, stops the server, and exits with the command's status.
run_then_stop() {
    "$@"
    status=$?
    kill "$server" 2>/dev/null
    wait "$server" 2>/dev/null
    exit $status
}
