#!/usr/bin/env bash
# Checks the installed service files: the systemd unit's exposure
# (systemd-analyze security --offline, at most 5.0), systemd-analyze verify,
# the paths the sandbox must leave writable, the firewall clean-up after the
# agent (the unit's ExecStopPost= and the init script's stop, the latter run
# against a stand-in daemon with a recording iptables first in PATH).
# Nothing outside a temporary directory is touched.
#   tests/packaging/check_service.sh BUILD_DIR
# shellcheck source=tests/packaging/common.sh
. "$(dirname "$0")/common.sh" check_service "${1:-}"
# The agent's own delete commands, in its order.
rules=("-D INPUT_FW_LEVEL -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT"
    "-D INPUT_WAN_REMOTE_ACCESS -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT")

stage="$tmp/stage"
cmake --install "$build" --prefix "$stage" >"$tmp/install.log"
unit="$stage/lib/systemd/system/tavelagent.service"
init="$stage/etc/init.d/tavelagent"

# ---- systemd unit ----
report=$(systemd-analyze security --offline=true "$unit" 2>&1) || true
overall=$(grep 'Overall exposure level' <<<"$report" || true)
echo "${overall:-no overall exposure line}"
score=$(sed -n 's/.*: \([0-9][0-9.]*\) .*/\1/p' <<<"$overall")
if [ -z "$score" ]; then
    fail "systemd-analyze security gave no score: $report"
elif ! awk -v s="$score" 'BEGIN { exit !(s <= 5.0) }'; then
    fail "exposure $score is above 5.0:"$'\n'"$(grep '✗' <<<"$report")"
fi
if ! out=$(systemd-analyze verify "$unit" 2>&1) || [ -n "$out" ]; then
    fail "systemd-analyze verify: ${out:-non-zero exit}"
fi
# Under ProtectSystem=strict these must stay writable: the markers and the
# store (/flash), cc_configured_by (/configs), onboarding_in_progress (/tmp).
writable=" $(sed -n 's/^ReadWritePaths=//p' "$unit" | tr '\n' ' ') "
for p in /flash /configs /tmp /var/log; do
    case "$writable" in *" $p "* | *" -$p "*) ;; *) fail "ReadWritePaths lacks $p:$writable" ;; esac
done
expected=$(printf 'ExecStopPost=-/usr/sbin/iptables %s\n' "${rules[@]}")
[ "$(grep '^ExecStopPost=' "$unit")" = "$expected" ] ||
    fail "ExecStopPost lines are:"$'\n'"$(grep '^ExecStopPost=' "$unit")"$'\n'"expected:"$'\n'"$expected"

# ---- init script: stop removes the rules once the agent is gone ----
mkdir -p "$tmp/bin" "$tmp/run"
# Records each run, marked when the stand-in agent was still alive then.
cat >"$tmp/bin/iptables" <<EOF
#!/bin/sh
if kill -0 "\$(cat "$tmp/daemon.pid" 2>/dev/null)" 2>/dev/null; then
    echo "while running: \$*"
else
    echo "\$*"
fi >>"$tmp/iptables.log"
EOF
# The stand-in runs until TERM, taking a moment to end, or crashes at once.
cat >"$tmp/bin/tavelAgent" <<EOF
#!/bin/sh
echo "\$\$" >"$tmp/daemon.pid"
[ "\$(cat "$tmp/mode")" = crash ] && exit 1
trap 'sleep 1; exit 0' TERM
while :; do sleep 0.1; done
EOF
chmod 755 "$tmp/bin/iptables" "$tmp/bin/tavelAgent"
export DAEMON="$tmp/bin/tavelAgent" PIDFILE="$tmp/run/taveldaemon.pid" STOP_TIMEOUT=5 PATH="$tmp/bin:$PATH"
expected=$(printf '%s\n' "${rules[@]}")
for mode in run crash; do
    echo "$mode" >"$tmp/mode"
    rm -f "$tmp/iptables.log" "$tmp/daemon.pid"
    sh "$init" start >/dev/null
    for _ in $(seq 50); do [ -s "$tmp/daemon.pid" ] && break; sleep 0.1; done
    [ "$mode" = crash ] && sleep 0.5
    sh "$init" stop >/dev/null
    [ "$(cat "$tmp/iptables.log" 2>/dev/null || true)" = "$expected" ] ||
        fail "stop ($mode) ran iptables as:"$'\n'"$(cat "$tmp/iptables.log" 2>/dev/null || true)"
    # Nothing left to clean up: a second stop runs nothing.
    before=$(cat "$tmp/iptables.log" 2>/dev/null || true)
    sh "$init" stop >/dev/null
    [ "$(cat "$tmp/iptables.log" 2>/dev/null || true)" = "$before" ] || fail "a second stop ($mode) ran iptables again"
done

finish
