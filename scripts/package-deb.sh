#!/usr/bin/env bash
# Builds the Debian package as the distribution builds its own: the project's
# hardening plus dpkg-buildflags (hardening=+all), MinSizeRel as the device
# ships.  Then checks the packaged binaries' hardening (readelf) and the
# package's architecture and dependencies, and prints where the package is.
#   scripts/package-deb.sh           for this host's architecture
#   scripts/package-deb.sh armhf     cross-built against Debian's armhf
#                                    packages: the multiarch ones, or where
#                                    they cannot be installed, the private
#                                    sysroot build-arm-sysroot/ (as
#                                    scripts/build-arm.sh builds)
# TAVEL_ARM_SUITE=trixie (armhf only): against that Debian release's
# packages instead, in a sysroot of its own (build-arm-sysroot-trixie/, made
# by mmdebstrap); the package lands in build-deb-armhf-trixie/.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
# shellcheck source=scripts/arm-target.sh
. "$src/scripts/arm-target.sh"
# shellcheck disable=SC2086
tavel_ensure_packages $TAVEL_DEPS

host=$(dpkg --print-architecture)
arch=${1:-$host}
dir="$src/build-deb-$arch"
cross=()
if [ "$arch" != "$host" ]; then
    triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
    cross=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/cross-linux.cmake" -DTAVEL_CROSS_TRIPLET="$triplet")
    if [ "$arch" = armhf ]; then
        # shellcheck disable=SC2086
        tavel_ensure_packages $TAVEL_ARM_HOST_DEPS
        if [ -n "${TAVEL_ARM_SUITE:-}" ]; then
            tavel_ensure_packages mmdebstrap
            dir="$dir-$TAVEL_ARM_SUITE"
            TAVEL_ARM_SYSROOT_DIR="$src/build-arm-sysroot-$TAVEL_ARM_SUITE"
            arm_sysroot_release "$TAVEL_ARM_SYSROOT_DIR" "$TAVEL_ARM_SUITE"
            cross+=(-DTAVEL_SYSROOT_ONLY=ON)
        else
            tavel_arm_target_root "$src/build-arm-sysroot"
        fi
        cross+=(-DCMAKE_SYSROOT="$TAVEL_ARM_SYSROOT_DIR")
    fi
    # dpkg-buildflags gives the flags of the architecture built for.
    export DEB_HOST_ARCH=$arch CC=$triplet-gcc
fi
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
flag() { dpkg-buildflags --get "$1"; }
# CMake takes no CPPFLAGS: the preprocessor flags go with the compilers'.
cppflags=$(flag CPPFLAGS)
rm -rf "$dir"
mkdir -p "$dir"
log="$dir/package.log"
CFLAGS="$(flag CFLAGS) $cppflags" CXXFLAGS="$(flag CXXFLAGS) $cppflags" LDFLAGS="$(flag LDFLAGS)" \
    cmake -S "$src" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DTAVEL_BUILD_TESTS=OFF \
    "${cross[@]}" >"$log"
cmake --build "$dir" -j "$(nproc)" --target tavelAgent tavelctl >>"$log"
(cd "$dir" && cpack -G DEB >>"$log")
deb=$(find "$dir" -maxdepth 1 -name "tavelagent_*_$arch.deb" | head -n 1)
[ -n "$deb" ] || { echo "no $arch package in $dir (see $log)" >&2; exit 1; }

status=0
# Every distribution flag reached the compiler.
echo "dpkg-buildflags CXXFLAGS: $(flag CXXFLAGS)"
for f in $(flag CXXFLAGS) $cppflags; do
    grep -Fq -- "$f" "$dir/compile_commands.json" || { echo "the build does not use $f" >&2; status=1; }
done
rm -rf "$dir/unpacked"
dpkg-deb -x "$deb" "$dir/unpacked"
readelf=$(sed -n 's/^CMAKE_READELF:FILEPATH=//p' "$dir/CMakeCache.txt")
bash "$src/tests/packaging/check_hardening.sh" --readelf "${readelf:-readelf}" \
    "$dir/unpacked/usr/sbin/tavelAgent" "$dir/unpacked/usr/bin/tavelctl" || status=1
depends=$(dpkg-deb -f "$deb" Depends)
[ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || { echo "package is not $arch" >&2; status=1; }
# Releases with a 64-bit time_t on 32-bit targets name libcurl4t64.
for p in libc6 libcurl4 libdbus-1-3 libstdc++6 iptables; do
    echo "$depends" | grep -Eq "(^|, )${p//+/\\+}(t64)?( |,|$)" || { echo "package does not depend on $p: $depends" >&2; status=1; }
done
echo "Depends: $depends"
echo "package: $deb ($(stat -c %s "$deb") bytes; tavelAgent $(stat -c %s "$dir/unpacked/usr/sbin/tavelAgent") bytes)"
exit $status
