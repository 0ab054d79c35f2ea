#!/usr/bin/env bash
# scripts/system-test.sh --arm: the armhf package in Debian armhf systems
# booted in qemu-system-arm (tests/system/vm.sh), three runs:
#   1. Debian 12 (bookworm), today's date: the checks of the x86-64 run, with
#      the armhf package cross-built against bookworm's libraries.
#   2. Debian 13 (trixie), whose 32-bit userland has a 64-bit time_t, the
#      VM's clock at 2038-02-01: the package built against trixie's
#      libraries (TAVEL_ARM_SUITE=trixie scripts/package-deb.sh armhf),
#      installed, a complete onboarding over TLS with its PUT.
#   3. Debian 12 with the clock at 2038-02-01: bookworm's 32-bit time_t
#      libraries are the limit there; the run shows which one stops what.
# The onboarding-server simulator runs on the host, with certificates valid
# past 2040; the VMs reach it at 10.0.2.2, qemu's address for the host.
# Prints one PASS/FAIL line per check, the date inside each VM, a summary;
# exits non-zero on any failure.  Needs root.  Arguments name the runs to
# do (bookworm, trixie-2038, bookworm-2038; default: all three).
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
runs=("$@")
[ $# -gt 0 ] || runs=(bookworm trixie-2038 bookworm-2038)
for run in "${runs[@]}"; do
    case "$run" in
        bookworm | trixie-2038 | bookworm-2038) ;;
        *) echo "usage: scripts/system-test.sh --arm [bookworm|trixie-2038|bookworm-2038]..." >&2; exit 2 ;;
    esac
done
[ "$(id -u)" -eq 0 ] || { echo "FAIL armhf system test: needs root (debootstrap, package builds)" >&2; exit 1; }
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
# shellcheck source=scripts/arm-target.sh
. "$src/scripts/arm-target.sh"
# shellcheck disable=SC2086
tavel_ensure_packages $TAVEL_ARM_VM_DEPS
started=$SECONDS
work="$src/build-systest-arm"
cache=${TAVEL_SYSTEST_CACHE:-/var/cache/tavel-systest}
image="$src/tests/system/image"
rm -rf "$work"
mkdir -p "$work"
# shellcheck source=tests/system/vm.sh
. "$src/tests/system/vm.sh"
# shellcheck source=tests/system/checks.sh
. "$src/tests/system/checks.sh"

sim="$work/obsim"
sim_pid=""
# TCG emulates the ARM CPU roughly ten times slower than a gateway's own,
# on a host other work shares: the configured device's exit at boot, 3 s
# in a container, gets 10 s here.
quick_exit_ms=10000
cleanup() {
    ct_halt
    [ -z "$sim_pid" ] || kill "$sim_pid" 2>/dev/null || true
}
trap cleanup EXIT
# A stop by a signal ends through the exit, so the VM and the simulator go too.
trap 'exit 143' TERM
trap 'exit 130' INT

declare -A debs
for suite in bookworm trixie; do
    suite_env=()
    [ "$suite" = bookworm ] || suite_env=(TAVEL_ARM_SUITE="$suite")
    env "${suite_env[@]}" bash "$src/scripts/package-deb.sh" armhf >"$work/package-$suite.log" 2>&1 ||
        { echo "FAIL package ($suite armhf): scripts/package-deb.sh (see $work/package-$suite.log)"; exit 1; }
    debs[$suite]=$(sed -n 's/^package: \([^ ]*\) .*/\1/p' "$work/package-$suite.log")
    echo "package ($suite): $(basename "${debs[$suite]}"), Depends: $(dpkg-deb -f "${debs[$suite]}" Depends)"
done

mkdir -p "$sim"
reply full
python3 "$src/tools/obsim/obsim.py" --dir "$sim" --script "$sim/reply.json" --record "$sim/requests.jsonl" \
    --port-file "$sim/port" --days 7300 --cert-ip 10.0.2.2 >"$sim/obsim.log" 2>&1 &
sim_pid=$!
wait_for 30 test -s "$sim/port" || { echo "FAIL simulator: no port (see $sim/obsim.log)"; exit 1; }
factory_store="$work/datamodel.conf"
sed "s|^Device.X_TAVEL_Agent.URL=.*|Device.X_TAVEL_Agent.URL=https://10.0.2.2:$(cat "$sim/port")/onboard|" \
    "$image/datamodel.conf" >"$factory_store"

# What the device image brings (as the container's root gets it), and the
# package, put in place on the first boot of each run.
make_payload() { # deb clock
    local p="$work/payload"
    rm -rf "$p"
    install -D -m 644 "$factory_store" "$p/flash/dml/datamodel.conf"
    install -D -m 644 "$image/timezonemapping.csv" "$p/usr/configs/timezonemapping.csv"
    install -D -m 644 "$sim/ca.pem" "$p/etc/obsim/ca.pem"
    mkdir -p "$p/configs" "$p/etc/systemd/system/multi-user.target.wants" "$p/etc/systemd/system/sysinit.target.wants"
    install -m 644 "$image/device-firewall.service" "$image/rtc-clock.service" "$p/etc/systemd/system/"
    ln -s ../device-firewall.service "$p/etc/systemd/system/multi-user.target.wants/"
    [ "$2" != rtc ] || ln -s ../rtc-clock.service "$p/etc/systemd/system/sysinit.target.wants/"
    install -D -m 644 "$1" "$p/var/tmp/tavelagent.deb"
    tar -C "$p" -cf "$work/payload.tar" --owner=0 --group=0 .
    vm_payload="$work/payload.tar"
}

# One VM run: the image of SUITE, a fresh copy of its disk, the RTC at RTC
# (empty: now), the checks of FUNCTION; CLOCK "rtc": the system clock is set
# from the RTC at boot.
vm_run() { # suite rtc function clock
    echo "== Debian $1 armhf VM${2:+, clock at $2}"
    if ! vm_image "$1" >"$work/image-$1.log" 2>&1; then
        checks=$((checks + 1))
        verdict "image: Debian $1 armhf" 1 "$(cat "$work/image-$1.log")"
        return 0
    fi
    cp --sparse=always "$vm_dir/disk.img" "$work/disk.img"
    # The simulator outlives the runs: each starts it from its full reply.
    reply full
    : >"$sim/requests.jsonl"
    make_payload "${debs[$1]}" "$4"
    vm_rtc=$2
    vm_clock=$4
    echo "== $1${2:+ at $2}" >>"$work/console.log"
    "$3"
    ct_halt
}

Y2038=$(date -u -d 2038-01-19T03:14:08Z +%s)

# The boot and the clock as the VM's own date -u prints it (on its console
# too): past 2038-01-19 for the runs that need it.
check_boot_at() { # name
    checks=$((checks + 1))
    if ! ct_boot >"$work/boot.out" 2>&1; then
        verdict "$1" 1 "$(cat "$work/boot.out")"
        return 1
    fi
    verdict "$1" 0 ""
    local now rc=0
    now=$(in_ct sh -c 'date -u | tee /dev/console') || true
    echo "date -u inside the VM: $now"
    if [ -n "$vm_rtc" ] && [ "$vm_clock" = rtc ]; then
        checks=$((checks + 1))
        [ "$(in_ct date -u +%s || echo 0)" -ge "$Y2038" ] || rc=1
        verdict "clock: the VM's date is past 2038-01-19 03:14:07 UTC" "$rc" "date -u: $now"
    fi
}

c_onboarding_2038() {
    c_onboarding_get
    local status
    status=$(in_ct tavelctl status --json) || why "tavelctl status failed"
    grep -Eq '"since": *"20(3[89]|[4-9][0-9])-' <<<"$status" || why "the agent's own time is not past 2038: $status"
}

run_2038() {
    check_boot_at "boot: Debian 13 armhf (64-bit time_t), systemd as PID 1, in 2038" || return 0
    check "install: apt resolves the trixie package's Depends (libcurl4t64), unit started" c_install
    check "onboarding in 2038: GET over TLS (certificate checked at the VM's time), account written, the agent's status dated 2038" c_onboarding_2038
    check "onboarding in 2038: PUT ?status=SUCCESS after the bootstrap signal" c_onboarding_put root
    check "exit in 2038: status 0 after onboarding, rules removed" c_exit_after_onboarding
}

# Debian 12's armhf userland has a 32-bit time_t.  Its systemd cannot boot
# with the clock past 2038, so the VM boots at systemd's build date (the
# kernel leaves an RTC past 2038 unread) with the package installed; then the
# clock is taken from the RTC and the agent, built with a 64-bit time_t, runs
# by hand (its log in /var/log/tavel.log through TAVEL_ROOT=/), while the
# platform's libraries meet the date.
c_limit_openssl() {
    local log
    in_ct systemctl stop tavelagent.service
    factory_state
    # shellcheck disable=SC2016  # expanded inside the VM
    log=$(in_ct sh -c 'date -u -s "@$(cat /sys/class/rtc/rtc0/since_epoch)" >/dev/null && date -u | tee /dev/console &&
        TAVEL_ROOT=/ timeout 45 /usr/sbin/tavelAgent >/dev/null 2>&1; cat /var/log/tavel.log') ||
        why "the agent could not be run past 2038"
    echo "$log" >"$work/limit-2038.log"
    grep -q "2038" <<<"$log" || why "the clock did not move: $(head -n 1 <<<"$log")"
    grep -q "state fetching" <<<"$log" || why "the agent did not ask the server: $(tail -n 3 <<<"$log")"
    [ "$(requests GET)" = 0 ] || why "a GET got through: the limit is gone, onboarding works on Debian 12 past 2038"
    local curl alert next
    curl=$(grep -m 1 -o "curl_easy_perform() failed: SSL [^:]*" <<<"$log") ||
        why "no TLS failure in the agent's log: $(grep -m 1 'curl_easy_perform() failed' <<<"$log")"
    # OpenSSL answers a certificate not valid yet (time() gives -1 past
    # 2038 with a 32-bit time_t) with the alert bad_certificate.
    alert=$(grep -o -m 1 'ALERT_BAD_CERTIFICATE' "$sim/requests.jsonl") || why "the server saw no certificate alert"
    next=$(grep -E -o -m 1 "next try 20(3[89]|[4-9][0-9])-[0-9T:-]*Z" <<<"$log") || why "the agent's own clock is not past 2038"
    curl=${curl#curl_easy_perform() failed: }
    echo "date -u in the VM: $(head -n 1 <<<"$log"); curl: ${curl% errno*}; the server saw $alert; the agent's $next"
}

c_limit_systemd() {
    wait_for 30 grep -aq "Assertion 'clock_gettime" "$work/console.log" ||
        why "systemd's services still run past 2038: the limit is gone"
    grep -a -m 1 "Assertion 'clock_gettime" "$work/console.log" | sed 's/^\[[^]]*\] //' | cut -c1-120
}

# As check, with the check's own output (the evidence) in the PASS line.
check_limit() { # name function
    local out rc=0
    checks=$((checks + 1))
    out=$("$2" 2>&1) || rc=$?
    verdict "$1${out:+: $(tail -n 1 <<<"$out")}" "$rc" "$out"
}

run_limit_2038() {
    check_boot_at "boot: Debian 12 armhf, RTC at 2038-02-01 (the kernel leaves it unread), systemd's build date" || return 0
    check "install: apt resolves Depends, group tavel, unit enabled and started" c_install
    check_limit "EXPECTED platform limit, Debian 12 armhf past 2038 (bookworm's OpenSSL, 32-bit time_t): the agent's GET fails at the certificate check" c_limit_openssl
    check_limit "EXPECTED platform limit, Debian 12 armhf past 2038 (bookworm's systemd, 32-bit time_t): its services abort" c_limit_systemd
    # PID 1 is gone: power off at once.
    in_ct sh -c 'echo o >/proc/sysrq-trigger' >/dev/null 2>&1 || true
}

boot_check="boot: Debian 12 armhf, systemd as PID 1, qemu's user network"
for run in "${runs[@]}"; do
    case "$run" in
        bookworm) vm_run bookworm "" run_checks rtc ;;
        trixie-2038) vm_run trixie 2038-02-01T00:00:00 run_2038 rtc ;;
        bookworm-2038) vm_run bookworm 2038-02-01T00:00:00 run_limit_2038 "" ;;
    esac
done
echo "armhf system test: $checks checks, $failures failed, $((SECONDS - started)) s"
[ "$failures" -eq 0 ]
