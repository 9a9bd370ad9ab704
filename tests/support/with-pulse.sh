#!/bin/sh
# Runs a command with a private PulseAudio server of its own (never the user's), whose only sink
# is a null sink named morvane_test, in float at 44.1 kHz: what is played to it can be recorded
# exactly from morvane_test.monitor. PULSE_SERVER names the server; the server stops after.
set -u
if ! command -v pulseaudio >/dev/null 2>&1; then
    echo "with-pulse: pulseaudio is not installed (bash scripts/bootstrap.sh installs it)" >&2
    exit 1
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
HOME="$dir" XDG_RUNTIME_DIR="$dir" XDG_CONFIG_HOME="$dir" DBUS_SESSION_BUS_ADDRESS=disabled: \
    pulseaudio -n --daemonize=no --exit-idle-time=-1 --disable-shm=yes --use-pid-file=no \
    --system=no -L "module-null-sink sink_name=morvane_test format=float32le rate=44100 channels=2" \
    -L "module-native-protocol-unix auth-anonymous=1 socket=$dir/native" >"$dir/log" 2>&1 &
server=$!
i=0
while [ ! -S "$dir/native" ] && [ $i -lt 200 ]; do
    sleep 0.05
    i=$((i + 1))
done
if [ ! -S "$dir/native" ]; then
    echo "with-pulse: the sound server did not start:" >&2
    cat "$dir/log" >&2
    kill "$server" 2>/dev/null
    exit 1
fi
PULSE_SERVER="unix:$dir/native"
export PULSE_SERVER
"$@"
status=$?
kill "$server" 2>/dev/null
wait "$server" 2>/dev/null
exit $status
