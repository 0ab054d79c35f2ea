#!/bin/sh
# Builds the agent if needed and runs the benchmarks (table on standard
# output, figures in bench/results.json).  Arguments go to bench.py.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")
build=${TAVEL_BUILD_DIR:-$src/build}
if [ ! -x "$build/tavelAgent" ] || [ ! -x "$build/tavelctl" ]; then
    cmake -S "$src" -B "$build" -G Ninja
    cmake --build "$build"
fi
TAVEL_BUILD_DIR=$build exec python3 "$here/bench.py" "$@"
