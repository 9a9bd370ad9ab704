#!/bin/sh
# Runs a command on a private X server of its own (never the user's display), then stops the
# server. A missing or failing server is a failure, not a skip.
set -u
if ! command -v Xvfb >/dev/null 2>&1; then
    echo "with-xvfb: Xvfb is not installed (bash scripts/bootstrap.sh installs it)" >&2
    exit 1
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp -noreset 3>"$dir/display" 2>"$dir/log" &
server=$!
i=0
while [ ! -s "$dir/display" ] && [ $i -lt 200 ]; do
    sleep 0.05
    i=$((i + 1))
done
if [ ! -s "$dir/display" ]; then
    echo "with-xvfb: the X server did not start:" >&2
    cat "$dir/log" >&2
    kill "$server" 2>/dev/null
    exit 1
fi
DISPLAY=":$(head -n 1 "$dir/display")"
export DISPLAY
"$@"
status=$?
kill "$server" 2>/dev/null
wait "$server" 2>/dev/null
exit $status
