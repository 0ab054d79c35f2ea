#!/usr/bin/env bash
# Cross-builds the agent and tavelctl for the gateway's 32-bit ARM (armhf) in
# build-arm/, prints the stripped size of the agent, and with --test runs the
# unit tests, the conformance suite, the packaging check and the start-up and
# onboarding integration tests on the ARM binaries under user-mode qemu.
# Installs what is missing; the target's libraries come from Debian's armhf
# packages, installed beside the host's or, where they cannot be, unpacked
# into a private sysroot (build-arm-sysroot/).
#   scripts/build-arm.sh            build
#   scripts/build-arm.sh --test     build and test
# TAVEL_ARM_IT="test_a test_b" names the integration test modules to run
# (default: test_startup; test_onboarding: the onboarding over TLS against
# the server simulator, its happy path included; test_y2038: a complete
# onboarding with the clock in 2038 and 2040, which needs the 64-bit time_t
# the project sets for 32-bit targets).
#
# MinSizeRel (-Os): the agent's work is network- and timer-bound, and the
# device's flash is what is scarce; -O2 only buys speed nobody waits for.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
# shellcheck source=scripts/arm-target.sh
. "$src/scripts/arm-target.sh"

run_tests=0
for arg in "$@"; do
    case "$arg" in
        --test) run_tests=1 ;;
        *) echo "usage: $0 [--test]" >&2; exit 2 ;;
    esac
done

start=$SECONDS
phase() { echo "== $1 ($((SECONDS - start)) s)"; }

phase "packages"
# Host tools of the build and of the tests (integration: python3, dbus-daemon,
# openssl; packaging: systemd-analyze, dpkg-shlibdeps), the cross compiler
# and user-mode qemu: all packages of the host's own architecture.
host_deps="cmake ninja-build pkg-config python3 dbus-daemon openssl systemd dpkg-dev $TAVEL_ARM_HOST_DEPS"
# shellcheck disable=SC2086
missing=$(tavel_missing_packages $host_deps)
echo "host packages:${missing:- all present}"
# shellcheck disable=SC2086
tavel_ensure_packages $host_deps

# The target's libraries: Debian's armhf packages beside the host's, or a
# private sysroot (scripts/arm-target.sh).
tavel_arm_target_root "$src/build-arm-sysroot"
sysroot=$TAVEL_ARM_SYSROOT_DIR
py=$(tavel_python)

phase "configure"
dir="$src/build-arm"
tests=OFF
[ $run_tests -eq 1 ] && tests=ON
if [ -n "$sysroot" ]; then
    target=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/cross-linux.cmake" -DTAVEL_CROSS_TRIPLET=arm-linux-gnueabihf
        -DCMAKE_SYSROOT="$sysroot")
else
    target=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/arm-linux-gnueabihf.cmake" -DCMAKE_SYSROOT=)
fi
# A tree configured for the other kind of target root starts afresh.
fresh=()
if [ -f "$dir/CMakeCache.txt" ] &&
    [ "$(sed -n 's/^CMAKE_SYSROOT:[A-Z]*=//p' "$dir/CMakeCache.txt")" != "$sysroot" ]; then
    fresh=(--fresh)
fi
cmake "${fresh[@]}" -S "$src" -B "$dir" -G Ninja "${target[@]}" \
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DTAVEL_BUILD_TESTS=$tests \
    -DPython3_EXECUTABLE="$py" >/dev/null

phase "build"
jobs=$(nproc)
if [ $run_tests -eq 1 ]; then
    cmake --build "$dir" -j "$jobs"
else
    cmake --build "$dir" -j "$jobs" --target tavelAgent tavelctl
fi

# The record layouts asserted in src/platform_layout.cpp and main.h hold for
# this target only if it really is 32-bit ARM.
for bin in tavelAgent tavelctl; do
    header=$(arm-linux-gnueabihf-readelf -h "$dir/$bin")
    if ! grep -q 'Class:[[:space:]]*ELF32' <<<"$header" || ! grep -q 'Machine:[[:space:]]*ARM' <<<"$header"; then
        echo "$bin is not a 32-bit ARM executable:" >&2
        echo "$header" >&2
        exit 1
    fi
done

mkdir -p "$dir/stripped"
for bin in tavelAgent tavelctl; do
    arm-linux-gnueabihf-strip -o "$dir/stripped/$bin" "$dir/$bin"
done
echo "stripped tavelAgent: $(stat -c %s "$dir/stripped/tavelAgent") bytes ($dir/stripped/tavelAgent)"
echo "stripped tavelctl:   $(stat -c %s "$dir/stripped/tavelctl") bytes"

if [ $run_tests -eq 0 ]; then
    phase "done"
    exit 0
fi

# The emulator runs the target's loader and libraries from the armhf
# multiarch packages (see the toolchain file for why the prefix is /) or
# from the sysroot.
export TAVEL_EMULATOR="qemu-arm -L ${sysroot:-/}"
status=0

phase "unit tests and platform conformance under qemu-arm"
ctest --test-dir "$dir" -L "unit|conformance" -j "$jobs" --output-on-failure || status=1

phase "packaging check"
ctest --test-dir "$dir" -L packaging --output-on-failure || status=1

read -r -a modules <<<"${TAVEL_ARM_IT:-test_startup test_onboarding test_y2038}"
phase "integration tests under qemu-arm: ${modules[*]}"
regex="^it\\.($(IFS='|'; echo "${modules[*]}"))\$"
if [ "$(ctest --test-dir "$dir" -N -R "$regex" | sed -n 's/^Total Tests: //p')" != "${#modules[@]}" ]; then
    echo "not every one of ${modules[*]} is a registered integration test" >&2
    status=1
fi
ctest --test-dir "$dir" -R "$regex" --output-on-failure || status=1

phase "done"
exit $status
