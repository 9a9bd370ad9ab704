#!/bin/sh
# Runs a command on a private X server of its own (never the user's display), then stops the
# server. A missing or failing server is a failure, not a skip.
set -u
name=with-xvfb
. "$(dirname "$0")/server.sh"
if ! command -v Xvfb >/dev/null 2>&1; then
    echo "with-xvfb: Xvfb is not installed (bash scripts/bootstrap.sh installs it)" >&2
    exit 1
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp -noreset 3>"$dir/display" 2>"$dir/log" &
server=$!
wait_for_server test -s "$dir/display"
DISPLAY=":$(head -n 1 "$dir/display")"
export DISPLAY
run_then_stop "$@"
