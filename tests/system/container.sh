# shellcheck shell=bash disable=SC2154  # $root, $work, $image: set by scripts/system-test.sh
# Sourced by scripts/system-test.sh: boots a Debian root directory with
# systemd-nspawn (systemd as PID 1, a private network) and runs commands in
# it.  Uses $root (the root directory) and $work (logs).  The container is
# reached through its init's namespaces (nsenter), so neither machined nor a
# systemd on the host is needed.

ct_nspawn=""
ct_pid=""

# The host pid of the container's init, once systemd-nspawn has started it.
ct_find_init() {
    local child
    for child in $(pgrep -P "$ct_nspawn" 2>/dev/null); do
        if [ "$(cat "/proc/$child/comm" 2>/dev/null)" = systemd ]; then
            echo "$child"
            return 0
        fi
    done
    return 1
}

in_ct() {
    # A container that is gone must fail every check, the negative ones too.
    # (Checks run in subshells: there the whole check ends.)
    if [ -z "$ct_pid" ] || ! kill -0 "$ct_pid" 2>/dev/null; then
        echo "the container is not running" >&2
        if [ "$BASH_SUBSHELL" -gt 0 ]; then exit 1; fi
        return 1
    fi
    nsenter -t "$ct_pid" -m -u -i -n -p -r -w -- \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 HOME=/root "$@"
}

ct_write() { # path: the device file replaced by standard input
    cat >"$root$1.new" && mv "$root$1.new" "$root$1"
}

# Boots the container and waits until its boot has finished.
ct_boot() {
    # A host whose PID 1 is not systemd has no machined to register with and
    # no unit to put the container in.
    systemd-nspawn -D "$root" -M tavelsys -b --private-network --register=no --keep-unit \
        --console=pipe </dev/null >>"$work/console.log" 2>&1 &
    ct_nspawn=$!
    ct_pid=""
    boot_wait "$ct_nspawn" 30 "systemd-nspawn did not start systemd" ct_find_init || return 1
    ct_pid=$(ct_find_init)
    # systemd's own socket appears a moment after it starts.
    wait_for 30 in_ct test -S /run/systemd/private || true
    boot_ended "the container" 60
}

# Shuts the container down as a reboot's first half does; killed after 30 s.
ct_halt() {
    [ -n "$ct_nspawn" ] || return 0
    in_ct systemctl poweroff >/dev/null 2>&1 || kill -TERM "$ct_nspawn" 2>/dev/null || true
    halted "$ct_nspawn" 30
    ct_nspawn=""
    ct_pid=""
}
