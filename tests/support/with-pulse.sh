#!/bin/sh
# Runs a command with a private PulseAudio server of its own (never the user's), whose only sink
# is a null sink named morvane_test, in float at 44.1 kHz: what is played to it can be recorded
# exactly from morvane_test.monitor. PULSE_SERVER names the server; the server stops after.
set -u
name=with-pulse
. "$(dirname "$0")/server.sh"
need_server pulseaudio
HOME="$dir" XDG_RUNTIME_DIR="$dir" XDG_CONFIG_HOME="$dir" DBUS_SESSION_BUS_ADDRESS=disabled: \
    pulseaudio -n --daemonize=no --exit-idle-time=-1 --disable-shm=yes --use-pid-file=no \
    --system=no -L "module-null-sink sink_name=morvane_test format=float32le rate=44100 channels=2" \
    -L "module-native-protocol-unix auth-anonymous=1 socket=$dir/native" >"$dir/log" 2>&1 &
server=$!
wait_for_server test -S "$dir/native"
PULSE_SERVER="unix:$dir/native"
export PULSE_SERVER
run_then_stop "$@"
