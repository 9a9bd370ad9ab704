#!/bin/sh
# Runs a command on a private X server of its own (never the user's display), then stops the
# server. A missing or failing server is a failure, not a skip.
set -u
name=with-xvfb
. "$(dirname "$0")/server.sh"
need_server Xvfb
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp -noreset 3>"$dir/display" 2>"$dir/log" &
server=$!
wait_for_server test -s "$dir/display"
DISPLAY=":$(head -n 1 "$dir/display")"
export DISPLAY
run_then_stop "$@"
