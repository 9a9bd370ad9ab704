#!/bin/sh
# Runs a command with a private session bus of its own (never the user's), which starts no
# services: what is on it, the command puts there. DBUS_SESSION_BUS_ADDRESS names it; the bus
# stops after.
set -u
name=with-dbus
. "$(dirname "$0")/server.sh"
need_server dbus-daemon
dbus-daemon --config-file="$(dirname "$0")/private-bus.conf" --address="unix:path=$dir/bus" \
    --nofork --nopidfile --print-address=3 3>"$dir/address" 2>"$dir/log" &
server=$!
wait_for_server test -s "$dir/address"
DBUS_SESSION_BUS_ADDRESS=$(head -n 1 "$dir/address")
export DBUS_SESSION_BUS_ADDRESS
run_then_stop "$@"
