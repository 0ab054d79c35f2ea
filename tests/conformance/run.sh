#!/bin/sh
# Runs a conformance binary on a simulated device: an empty TAVEL_ROOT and a
# private dbus-daemon (the stand-in bus takes DBUS_SYSTEM_BUS_ADDRESS).
#   run.sh [EMULATOR...] BINARY [gtest options]
set -eu
[ $# -gt 0 ] || { echo "usage: run.sh [EMULATOR...] BINARY [gtest options]" >&2; exit 2; }
root=$(mktemp -d "${TMPDIR:-/tmp}/tavel-conformance-XXXXXX")
pid=""
trap 'if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; fi; rm -rf "$root"' EXIT
addr=$(dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=3 3>"$root/bus.pid")
pid=$(cat "$root/bus.pid")
TAVEL_ROOT=$root TAVEL_CONFORMANCE_FRESH=1 DBUS_SYSTEM_BUS_ADDRESS=$addr "$@"
