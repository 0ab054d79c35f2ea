#!/usr/bin/env bash
# The Debian package in a booted system: builds the package, makes a minimal
# Debian 12 root (mmdebstrap, cached), gives it what a device image has (the
# firewall chains, the data model in its factory state, the time-zone
# mapping, the CA and the onboarding-server simulator as a unit), boots it
# with systemd-nspawn (systemd as PID 1, a private network), installs the
# package with apt and checks the agent as the packaged unit runs it.
# Prints one PASS/FAIL line per check; exits non-zero on any failure, a
# machine that cannot boot the container included.  Needs root.
#   scripts/system-test.sh            x86-64 (this host's architecture)
#   scripts/system-test.sh --keep     keep the container's root afterwards
#   scripts/system-test.sh --deb F    test the package F instead of building one
#   scripts/system-test.sh --arm [RUN...]  the armhf packages in Debian 12 and 13
#                                     armhf VMs, past 2038 too (tests/system/arm.sh)
# Environment: TAVEL_SYSTEST_CACHE (default /var/cache/tavel-systest) keeps
# the base root file systems between runs; delete it to start afresh.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
keep=0
deb=""
while [ $# -gt 0 ]; do
    case "$1" in
        --keep) keep=1 ;;
        --deb)
            deb=$(realpath "${2:?--deb needs a package file}")
            shift
            ;;
        --arm)
            shift
            exec bash "$src/tests/system/arm.sh" "$@"
            ;;
        *)
            echo "usage: $0 [--keep] [--deb FILE]" >&2
            exit 2
            ;;
    esac
    shift
done
[ "$(id -u)" -eq 0 ] || { echo "FAIL system test: needs root (systemd-nspawn, mmdebstrap)" >&2; exit 1; }
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
tavel_ensure_packages mmdebstrap systemd-container util-linux procps
started=$SECONDS

work="$src/build-systest"
rm -rf "$work"
mkdir -p "$work"

# The package, built as the distribution builds it.
arch=$(dpkg --print-architecture)
if [ -z "$deb" ]; then
    bash "$src/scripts/package-deb.sh" >"$work/package.log" 2>&1 ||
        { echo "FAIL package: scripts/package-deb.sh (see $work/package.log)"; exit 1; }
    deb=$(find "$src/build-deb-$arch" -maxdepth 1 -name "tavelagent_*_$arch.deb" | head -n 1)
fi
[ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || { echo "FAIL package: $deb is not for $arch"; exit 1; }

# The base root: what the device's other software needs (systemd, the bus,
# iptables, Python for the simulator) and the package's dependencies.  Keyed
# by its package list, so a changed list makes a new one.
suite=bookworm
packages="systemd,systemd-sysv,dbus,iptables,adduser,libcurl4,libdbus-1-3,python3,openssl,procps"
cache=${TAVEL_SYSTEST_CACHE:-/var/cache/tavel-systest}
base="$cache/$suite-$arch-$(echo "$suite $packages" | sha256sum | cut -c1-12).tar"
if [ ! -s "$base" ]; then
    mkdir -p "$cache"
    echo "making the base root $base (cached for later runs)"
    mmdebstrap --variant=minbase --include="$packages" "$suite" "${base%.tar}.part.tar" >"$cache/mmdebstrap.log" 2>&1 ||
        { echo "FAIL base root: mmdebstrap (see $cache/mmdebstrap.log)"; exit 1; }
    mv "${base%.tar}.part.tar" "$base"
fi

root="$work/root"
image="$src/tests/system/image"
sim="$root/var/lib/obsim"
factory_store="$image/datamodel.conf"
# shellcheck source=tests/system/container.sh
. "$src/tests/system/container.sh"
# shellcheck source=tests/system/checks.sh
. "$src/tests/system/checks.sh"
cleanup() {
    ct_halt
    if [ "$keep" = 0 ]; then rm -rf "$root"; fi
}
trap cleanup EXIT

mkdir -p "$root"
tar -xf "$base" -C "$root"
# What the device image brings.
install -D -m 644 "$image/datamodel.conf" "$root/flash/dml/datamodel.conf"
install -D -m 644 "$image/timezonemapping.csv" "$root/usr/configs/timezonemapping.csv"
mkdir -p "$root/configs" "$root/var/lib/obsim"
install -D -m 755 "$src/tools/obsim/obsim.py" "$root/opt/obsim/obsim.py"
python3 "$src/tools/obsim/obsim.py" --dir "$root/etc/obsim" --certs-only >/dev/null
reply full
for unit in obsim.service device-firewall.service; do
    install -D -m 644 "$image/$unit" "$root/etc/systemd/system/$unit"
    mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
    ln -sf "../$unit" "$root/etc/systemd/system/multi-user.target.wants/$unit"
done
install -m 644 "$deb" "$root/var/tmp/tavelagent.deb"
echo "tavel-gateway" >"$root/etc/hostname"
# A device keeps its machine id, and with it one journal, across reboots.
od -An -N16 -tx1 /dev/urandom | tr -d ' \n' >"$root/etc/machine-id"

run_checks
echo "system test ($arch, $(basename "$deb")): $checks checks, $failures failed, $((SECONDS - started)) s"
[ "$failures" -eq 0 ]
