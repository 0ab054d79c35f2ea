#!/usr/bin/env bash
# The demo: one complete simulated onboarding of a gateway in its factory
# state, on a private bus against the onboarding-server simulator, in seconds.
# Installs what is missing, builds the agent, then hands over to the driver.
#   scripts/demo.sh [--server-status CODE] [--mapp] [--bootstrap-fail]
#                   [--keep] [--time-scale N] [--verbose] [--help]
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"

for arg in "$@"; do
    case "$arg" in
        -h|--help) exec "$(tavel_python)" "$src/tools/demo/demo.py" --help ;;
    esac
done

# Configuring the tree needs the test framework too (the tests are on by default).
tavel_ensure_packages build-essential cmake ninja-build g++ pkg-config libcurl4-openssl-dev \
    libdbus-1-dev dbus-daemon libgtest-dev googletest openssl python3
py=$(tavel_python)

# The build's chatter is shown only when it fails, so the demo's own report
# starts at the top of the screen.
quiet() {
    local log
    if ! log=$("$@" 2>&1); then
        printf '%s\n' "$log" >&2
        echo "demo: '$*' failed" >&2
        exit 1
    fi
}

# A tree configured before keeps its generator; asking for another would fail.
gen=(-G Ninja)
[ -f "$src/build/CMakeCache.txt" ] && gen=()
echo "Building build/tavelAgent and build/tavelctl ..." >&2
quiet cmake -S "$src" -B "$src/build" "${gen[@]}" -DPython3_EXECUTABLE="$py"
quiet cmake --build "$src/build" --target tavelAgent tavelctl

exec "$py" "$src/tools/demo/demo.py" --build-dir "$src/build" "$@"
