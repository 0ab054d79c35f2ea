#!/usr/bin/env bash
# Installs a build tree into temporary staging directories (DESTDIR) and
# checks what lands there: the files, their modes and the final paths they
# name, the systemd unit's settings the agent relies on, the init script
# driven against a stand-in daemon (its stop removes the firewall rules once
# the agent is gone), and the Debian package.  Nothing outside
# a temporary directory is touched.
#   tests/packaging/check_install.sh BUILD_DIR
# shellcheck source=tests/packaging/common.sh
. "$(dirname "$0")/common.sh" check_install "${1:-}"

# ---- staged installs ----
# As a packager stages: DESTDIR, with the final prefix.  The files land under
# the staging directory but name the final paths only; a /usr installation
# keeps its init script in /etc, any other in PREFIX/etc.
staged_install() { # stage prefix sysconfdir
    local stage=$1 prefix=$2 etc=$3 entry mode f
    DESTDIR="$stage" cmake --install "$build" --prefix "$prefix" >"$tmp/install.log"
    for entry in "755:$prefix/sbin/tavelAgent" "755:$prefix/bin/tavelctl" \
        "644:$prefix/share/dbus-1/system.d/velka.tavel.conf" "644:$prefix/lib/systemd/system/tavelagent.service" \
        "755:$etc/init.d/tavelagent" "644:$prefix/share/man/man1/tavelctl.1.gz" \
        "644:$prefix/share/man/man8/tavelAgent.8.gz"; do
        mode=$(stat -c %a "$stage/${entry#*:}" 2>/dev/null) || mode=missing
        [ "$mode" = "${entry%%:*}" ] || fail "${entry#*:} has mode $mode, expected ${entry%%:*} (prefix $prefix)"
    done
    [ -z "$(find "$stage" -type f ! -path "$stage$prefix/*" ! -path "$stage$etc/*")" ] ||
        fail "files outside $prefix and $etc: $(find "$stage" -type f ! -path "$stage$prefix/*" ! -path "$stage$etc/*")"
    [ "$(sed -n 's/^ExecStart=//p' "$stage$prefix/lib/systemd/system/tavelagent.service")" = "$prefix/sbin/tavelAgent" ] ||
        fail "unit does not start $prefix/sbin/tavelAgent (prefix $prefix)"
    grep -qx "DAEMON=\${DAEMON:-$prefix/sbin/tavelAgent}" "$stage$etc/init.d/tavelagent" ||
        fail "init script does not run $prefix/sbin/tavelAgent (prefix $prefix)"
    for f in "$stage$prefix/lib/systemd/system/tavelagent.service" "$stage$etc/init.d/tavelagent"; do
        if grep -Fq "$stage" "$f"; then fail "$f names the staging directory"; fi
    done
}
staged_install "$tmp/opt" /opt/tavel /opt/tavel/etc
stage="$tmp/stage"
staged_install "$stage" /usr /etc

# ---- systemd unit ----
unit="$stage/usr/lib/systemd/system/tavelagent.service"
if [ -f "$unit" ]; then
    # The last assignment of a key is the one systemd uses.
    setting() { sed -n "s/^$1=//p" "$unit" | tail -n 1; }
    [ "$(setting Type)" = simple ] || fail "Type is '$(setting Type)', expected simple"
    # The agent exits 0 when done: restarting on success would loop for ever.
    [ "$(setting Restart)" = on-failure ] || fail "Restart is '$(setting Restart)', expected on-failure"
    [ "$(setting ExecStart)" = /usr/sbin/tavelAgent ] ||
        fail "ExecStart is '$(setting ExecStart)', expected the installed agent without arguments"
    for dep in dbus.service network-online.target; do
        grep -Eq "^After=(.* )?$dep( |$)" "$unit" || fail "unit is not ordered after $dep"
        grep -Eq "^Wants=(.* )?$dep( |$)" "$unit" || fail "unit does not pull in $dep"
    done
    # Other modules look for the agent's marker in the real /tmp.
    case "$(setting PrivateTmp)" in yes | true | on | 1) fail "PrivateTmp hides /tmp/onboarding_in_progress" ;; esac
fi

# ---- init script, driven against a stand-in daemon ----
init="$stage/etc/init.d/tavelagent"
if [ -f "$init" ]; then
    if command -v dash >/dev/null; then dash -n "$init" || fail "init script is not POSIX sh"; fi

    # The stand-in behaves as $tmp/mode says: run until stopped (taking a
    # moment to end), exit 0 at once (a finished onboarding) or exit 1 (a
    # crash).
    mkdir -p "$tmp/bin" "$tmp/run"
    cat >"$tmp/bin/tavelAgent" <<STUB
#!/bin/sh
echo "\$\$" >>"$tmp/starts"
echo "\$\$" >"$tmp/daemon.pid"
case "\$(cat "$tmp/mode")" in
    exit0) exit 0 ;;
    exit1) exit 1 ;;
esac
trap 'sleep 1; exit 0' TERM
while :; do sleep 0.1; done
STUB
    # stop removes the firewall rules through PATH, never the host's: each
    # run is recorded, marked when the stand-in was still alive then.
    cat >"$tmp/bin/iptables" <<STUB
#!/bin/sh
if kill -0 "\$(cat "$tmp/daemon.pid" 2>/dev/null)" 2>/dev/null; then
    echo "while running: \$*"
else
    echo "\$*"
fi >>"$tmp/iptables.log"
STUB
    chmod 755 "$tmp/bin/tavelAgent" "$tmp/bin/iptables"
    export DAEMON="$tmp/bin/tavelAgent" PIDFILE="$tmp/run/tavelagent.pid" STOP_TIMEOUT=5 PATH="$tmp/bin:$PATH"
    removed() { # what: the agent's delete commands once, after it is gone
        [ "$(cat "$tmp/iptables.log" 2>/dev/null || true)" = "$(printf '%s\n' "${rules[@]}")" ] ||
            fail "stop ($1) ran iptables as:"$'\n'"$(cat "$tmp/iptables.log" 2>/dev/null || true)"
        rm -f "$tmp/iptables.log"
    }
    run_init() { # expected-status action
        local rc=0
        sh "$init" "$2" >"$tmp/init.out" 2>&1 || rc=$?
        [ "$rc" = "$1" ] || fail "init $2 exited $rc, expected $1: $(cat "$tmp/init.out")"
    }
    alive() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null; }
    wait_gone() { # pid or file
        local _
        for _ in $(seq 50); do
            if [ -e "$1" ] || alive "$1"; then sleep 0.1; else return 0; fi
        done
        return 1
    }

    echo run >"$tmp/mode"
    run_init 3 status
    run_init 0 start
    pid=$(cat "$PIDFILE" 2>/dev/null || true)
    alive "$pid" || fail "start left no running daemon behind its pid file"
    run_init 0 status
    run_init 0 start
    [ "$(wc -l <"$tmp/starts")" = 1 ] || fail "a second start launched another daemon"
    [ "$(cat "$PIDFILE" 2>/dev/null)" = "$pid" ] || fail "a second start replaced the pid file"
    run_init 0 restart
    newpid=$(cat "$PIDFILE" 2>/dev/null || true)
    rm -f "$tmp/iptables.log"
    wait_gone "$pid" || fail "restart left the old daemon running"
    if ! alive "$newpid" || [ "$newpid" = "$pid" ]; then fail "restart did not start a new daemon"; fi
    run_init 0 stop
    wait_gone "$newpid" || fail "stop left the daemon running"
    [ ! -e "$PIDFILE" ] || fail "stop left the pid file"
    removed running
    run_init 3 status
    run_init 0 stop
    [ ! -e "$tmp/iptables.log" ] || fail "a second stop ran iptables again"

    echo exit0 >"$tmp/mode"
    run_init 0 start
    wait_gone "$PIDFILE" || fail "a daemon that ended with status 0 left its pid file"
    run_init 3 status

    echo exit1 >"$tmp/mode"
    run_init 0 start
    sleep 0.5
    [ -s "$PIDFILE" ] || fail "a daemon that failed lost its pid file"
    run_init 1 status
    run_init 0 stop
    removed crashed

    # Removed, not purged: the script stays and boot runs it without its agent.
    for action in start stop status; do
        DAEMON="$tmp/bin/missing" run_init 0 "$action"
        [ ! -s "$tmp/init.out" ] || fail "init $action without its agent printed: $(cat "$tmp/init.out")"
    done
    run_init 3 bogus
fi

# ---- Debian package ----
if command -v dpkg-deb >/dev/null; then
    (cd "$tmp" && cpack -G DEB -B "$tmp/deb" --config "$build/CPackConfig.cmake" >"$tmp/cpack.log" 2>&1) ||
        fail "cpack -G DEB: $(tail -5 "$tmp/cpack.log")"
    deb=$(find "$tmp/deb" -maxdepth 1 -name '*.deb' | head -n 1)
    if [ -n "$deb" ]; then
        # Each listing read whole first: grep -q ending a pipe early would
        # fail its writer with SIGPIPE, and pipefail with it, at random.
        # Exactly the agent's files: the platform stand-ins are linked into
        # it, and their headers and archives have no place on the device.
        shipped=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sort)
        expected=$(printf '%s\n' ./usr/sbin/tavelAgent ./usr/bin/tavelctl ./usr/lib/systemd/system/tavelagent.service \
            ./etc/init.d/tavelagent ./usr/share/dbus-1/system.d/velka.tavel.conf ./usr/share/man/man1/tavelctl.1.gz \
            ./usr/share/man/man8/tavelAgent.8.gz ./usr/share/doc/tavelagent/changelog.gz ./usr/share/doc/tavelagent/copyright \
            ./usr/share/lintian/overrides/tavelagent | sort)
        [ "$shipped" = "$expected" ] || fail "package files (-missing, +unexpected):"$'\n'"$(diff <(echo "$expected") \
            <(echo "$shipped") | sed -n 's/^</-/p; s/^>/+/p')"
        depends=$(dpkg-deb -f "$deb" Depends)
        for p in libcurl4 libdbus-1-3 iptables; do
            grep -Eq "(^|, )$p( |,|$)" <<<"$depends" || fail "package does not depend on $p: $depends"
        done
        unit_text=$(dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/systemd/system/tavelagent.service)
        grep -qx 'ExecStart=/usr/sbin/tavelAgent' <<<"$unit_text" || fail "packaged unit does not start /usr/sbin/tavelAgent"
        conffiles=$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles)
        grep -qx /etc/init.d/tavelagent <<<"$conffiles" || fail "the init script is not a conffile"
        # The packaged (stripped) binaries keep the build's hardening.
        if grep -q '^TAVEL_HARDEN:BOOL=ON$' "$build/CMakeCache.txt" &&
            grep -q '^TAVEL_SANITIZE:STRING=$' "$build/CMakeCache.txt" &&
            grep -Eq '^CMAKE_BUILD_TYPE:STRING=(Release|RelWithDebInfo|MinSizeRel)$' "$build/CMakeCache.txt"; then
            readelf=$(sed -n 's/^CMAKE_READELF:FILEPATH=//p' "$build/CMakeCache.txt")
            mkdir -p "$tmp/unpacked"
            dpkg-deb -x "$deb" "$tmp/unpacked"
            bash "$(dirname "$0")/check_hardening.sh" --readelf "${readelf:-readelf}" \
                "$tmp/unpacked/usr/sbin/tavelAgent" "$tmp/unpacked/usr/bin/tavelctl" >"$tmp/hardening.log" ||
                fail "packaged binaries lack hardening: $(grep MISSING "$tmp/hardening.log")"
        fi
    else
        fail "cpack produced no package"
    fi
else
    fail "dpkg-deb missing"
fi

finish
