#!/usr/bin/env bash
# Checks the installed service files: the systemd unit's exposure
# (systemd-analyze security --offline, at most 5.0), systemd-analyze verify,
# the paths the sandbox must leave writable and the firewall clean-up after
# the agent (ExecStopPost=; check_install.sh drives the init script's stop).
# Nothing outside a temporary directory is touched.
#   tests/packaging/check_service.sh BUILD_DIR
# shellcheck source=tests/packaging/common.sh
. "$(dirname "$0")/common.sh" check_service "${1:-}"
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

finish
