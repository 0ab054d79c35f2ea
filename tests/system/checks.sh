# shellcheck shell=bash disable=SC2154  # $work, $image, $sim, $factory_store: set by the caller
# Sourced by scripts/system-test.sh (a container) and tests/system/arm.sh (an
# armhf VM) once the system is prepared: the checks of the package in a
# booted system, in the order a device lives them.  One line per check, PASS
# or FAIL and its name; $failures counts.  Uses $work, $image
# (tests/system/image), $sim (the host's view of the onboarding-server
# simulator's directory: reply.json, requests.jsonl), $factory_store (the
# data model as the factory leaves it) and the system's functions: in_ct,
# ct_write, ct_boot, ct_halt, ct_reboot (container.sh, vm.sh).

failures=0
checks=0
RULE="-p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT"
FACTORY_ACS_URL="https://acs.tavel.invalid:7754"
# How long a configured device's agent may run at boot; an emulated CPU
# sets its own.
quick_exit_ms=${quick_exit_ms:-3000}
SECRETS="sys-api-key-5b1e acs-pass-7d2c cfg-key-9e4a"

# Polls a command every half second until it succeeds; false after SECONDS.
wait_for() { # seconds command...
    local until=$((SECONDS + $1))
    shift
    while ! "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$until" ] || return 1
        sleep 0.5
    done
}

# Polls COMMAND until it succeeds while the system's process PID lives;
# fails after SECONDS, with the end of the console.
boot_wait() { # pid seconds what command...
    local pid=$1 until=$((SECONDS + $2)) what=$3
    shift 3
    until "$@" >/dev/null 2>&1; do
        if ! kill -0 "$pid" 2>/dev/null || [ "$SECONDS" -ge "$until" ]; then
            echo "$what (console: $work/console.log):" >&2
            tail -n 20 "$work/console.log" >&2
            return 1
        fi
        sleep 0.2
    done
}

# The end of a boot: systemd inside reaches running (or degraded).
boot_ended() { # what seconds
    local state
    state=$(in_ct timeout "$2" systemctl is-system-running --wait 2>&1) || true
    case "$state" in
        running | degraded) return 0 ;;
    esac
    echo "$1's boot ended as '$state'" >&2
    return 1
}

# Waits for the system's process to end after a poweroff; killed after SECONDS.
halted() { # pid seconds
    local until=$((SECONDS + $2))
    while kill -0 "$1" 2>/dev/null; do
        if [ "$SECONDS" -ge "$until" ]; then
            kill -KILL "$1" 2>/dev/null || true
            break
        fi
        sleep 0.2
    done
    wait "$1" 2>/dev/null || true
}

ct_reboot() {
    ct_halt
    ct_boot
}

check() { # name function [args]
    local name=$1 out rc=0
    shift
    checks=$((checks + 1))
    out=$("$@" 2>&1) || rc=$?
    verdict "$name" "$rc" "$out"
}

# A check that boots: the container's pids must stay in this shell.
check_booting() { # name function [args]
    local name=$1 rc=0
    shift
    checks=$((checks + 1))
    if ct_reboot >"$work/boot.out" 2>&1; then
        check_rest "$name" "$@"
    else
        verdict "$name" 1 "boot failed: $(cat "$work/boot.out")"
    fi
}

check_rest() {
    local name=$1 out rc=0
    shift
    out=$("$@" 2>&1) || rc=$?
    verdict "$name" "$rc" "$out"
}

verdict() { # name status output
    local name=$1 rc=$2 out=$3
    if [ "$rc" -eq 0 ]; then
        echo "PASS $name"
    else
        failures=$((failures + 1))
        echo "FAIL $name: $(printf '%s' "$out" | tail -n 5 | tr '\n' ' ' | cut -c1-400)"
    fi
}

# Ends a check (each runs in a subshell) with its reason.
why() {
    echo "$*"
    exit 1
}

prop() { in_ct systemctl show -p "$1" --value tavelagent.service; }

# Both of the agent's rules (1), or neither (0).
rules_are() { # 1|0
    local chain n
    for chain in INPUT_FW_LEVEL INPUT_WAN_REMOTE_ACCESS; do
        n=$(in_ct iptables -S "$chain" | grep -cF -- "$RULE") || true
        [ "$n" = "$1" ] || return 1
    done
}

requests() { # METHOD: how many the server has seen
    grep -c "\"method\": \"$1\"" "$sim/requests.jsonl" 2>/dev/null || true
}

store() { in_ct cat /flash/dml/datamodel.conf | sed -n "s|^$1=||p" | tail -n 1; }

# Predicates for wait_for, which runs its command again on every poll.
at_least() { [ "$(requests "$1")" -ge "$2" ]; }
store_is() { [ "$(store "$1")" = "$2" ]; }
prop_is() { [ "$(prop "$1")" = "$2" ]; }

# Read whole before grep: grep -q ending the pipe early would fail it.
journal_since() { in_ct journalctl -o cat --no-pager --since "@$1"; }
journal_has() {
    local text
    text=$(journal_since "$1") || why "the journal is unreadable"
    grep -qF -- "$2" <<<"$text"
}

reply() { # NAME: the simulator's next replies (it re-reads its script per request)
    cp "$image/reply-$1.json" "$sim/reply.json.tmp"
    mv "$sim/reply.json.tmp" "$sim/reply.json"
}

# The device as it left the factory, the agent not running.
factory_state() {
    ct_write /flash/dml/datamodel.conf <"$factory_store"
    in_ct rm -rf /flash/mcq/tavel /flash/cc_from_tavel
    : >"$sim/requests.jsonl"
}

ended_ok() {
    [ "$(prop ActiveState)" = inactive ] && [ "$(prop ExecMainStatus)" = 0 ] && [ "$(prop Result)" = success ]
}

agent_state() { echo "agent $(prop ActiveState)/$(prop Result), status $(prop ExecMainStatus)"; }

# ---------------------------------------------------------------- the checks

c_install() {
    in_ct apt-get install -y -q /var/tmp/tavelagent.deb >"$work/apt-install.log" 2>&1 ||
        why "apt-get install: $(tail -n 3 "$work/apt-install.log")"
    in_ct rm -f /var/tmp/tavelagent.deb
    in_ct getent group tavel >/dev/null || why "no group tavel"
    [ "$(in_ct systemctl is-enabled tavelagent.service)" = enabled ] || why "unit not enabled"
    [ "$(prop ExecMainStartTimestampMonotonic)" != 0 ] || why "agent not started by the installation"
    # The bus reads the policy as it is unpacked, before the group exists; the
    # postinst has it read the policy again.
    in_ct journalctl -o cat --no-pager -u dbus.service |
        awk '/Unknown group "tavel"/ { bad = 1 } /Reloaded configuration/ { bad = 0 } END { exit bad }' ||
        why "the bus still lacks the group: $(in_ct journalctl -o cat --no-pager -u dbus.service | tail -n 2)"
}

c_onboarding_get() {
    wait_for 30 at_least GET 1 || why "no GET; $(agent_state)"
    grep -qi '"x-api-key: *sys-api-key-5b1e"' "$sim/requests.jsonl" || why "GET without the API key"
    grep -q '"tls": true' "$sim/requests.jsonl" || why "GET not over TLS"
    wait_for 30 store_is Device.ManagementServer.Username cpe-new ||
        why "account not written: $(store Device.ManagementServer.URL) / $(store Device.ManagementServer.Username)"
    [ "$(store Device.ManagementServer.URL)" = https://acs.new.test:7547/cwmp ] || why "ACS URL $(store Device.ManagementServer.URL)"
}

c_rules_while_running() {
    [ "$(prop ActiveState)" = active ] || why "$(agent_state)"
    rules_are 1 || why "rules: $(in_ct iptables -S)"
}

c_bus_policy() {
    local out
    in_ct useradd -M -s /usr/sbin/nologin plainuser
    in_ct useradd -M -s /usr/sbin/nologin -G tavel member
    if out=$(in_ct runuser -u plainuser -- tavelctl call dummyFunction 0 2>&1); then
        why "a plain user's call was answered: $out"
    fi
    in_ct runuser -u plainuser -- tavelctl bootstrap 1 >/dev/null 2>&1 || true
    sleep 3
    [ "$(requests PUT)" = 0 ] || why "a plain user's bootstrap signal made the agent report"
    out=$(in_ct runuser -u member -- tavelctl call dummyFunction 0 2>&1) || why "member of tavel refused: $out"
    out=$(in_ct tavelctl call dummyFunction 0 2>&1) || why "root refused: $out"
}

c_onboarding_put() { # [user sending the bootstrap signal, default: a member of tavel]
    in_ct runuser -u "${1:-member}" -- tavelctl bootstrap 1 >/dev/null || why "bootstrap signal not sent"
    wait_for 20 at_least PUT 1 || why "no PUT; $(agent_state)"
    [ "$(grep '"method": "PUT"' "$sim/requests.jsonl" | grep -c '?status=SUCCESS')" -ge 1 ] ||
        why "PUT without ?status=SUCCESS"
}

c_exit_after_onboarding() {
    # The time zone's 60-second pause comes before the exit.
    wait_for 100 ended_ok || why "$(agent_state)"
    [ "$(prop NRestarts)" = 0 ] || why "restarted $(prop NRestarts) times"
    rules_are 0 || why "rules left: $(in_ct iptables -S)"
    in_ct test -e /flash/mcq/tavel/timezoneconfigdone.txt || why "no time-zone marker"
}

c_tavelctl() {
    local out
    out=$(in_ct tavelctl dml get Device.X_TAVEL_Agent.OnBoardStatus) || why "tavelctl dml get failed"
    [ "$out" = ConnectionSuccess ] || why "OnBoardStatus '$out'"
}

c_reboot_exits() { # GET count before the reboot
    local gets=$1 start end
    wait_for 20 ended_ok || why "$(agent_state)"
    start=$(prop ExecMainStartTimestampMonotonic)
    end=$(prop ExecMainExitTimestampMonotonic)
    [ "$start" != 0 ] || why "agent not started at boot"
    [ $((end - start)) -lt $((quick_exit_ms * 1000)) ] || why "ran $(((end - start) / 1000)) ms"
    [ "$(requests GET)" = "$gets" ] || why "a configured device asked the server again"
}

# Starts the agent on a factory device; back-off: the server is busy.
start_fresh() { # reply-name
    factory_state
    reply "$1"
    t_start=$(date +%s)
    in_ct systemctl start tavelagent.service
    wait_for 30 at_least GET 1 || why "no GET; $(agent_state)"
}

stop_cleanly() { # what the stop must have left
    local t0=$SECONDS
    in_ct systemctl stop tavelagent.service
    [ $((SECONDS - t0)) -le 5 ] || why "stop took $((SECONDS - t0)) s"
    ended_ok || why "after stop: $(agent_state)"
    rules_are 0 || why "rules left: $(in_ct iptables -S)"
}

c_stop_backoff() {
    start_fresh busy
    wait_for 10 journal_has "$t_start" "retryCount" || why "no back-off in the journal"
    stop_cleanly
}

c_stop_account_write() {
    start_fresh full
    wait_for 20 journal_has "$t_start" "Sleeping tavelAgent for 5 seconds" || why "no account pause seen"
    [ -z "$(store Device.ManagementServer.URL)" ] || why "account not emptied during its write"
    stop_cleanly
    journal_has "$t_start" "restoring the previous account" || why "no restore logged"
    [ "$(store Device.ManagementServer.URL)" = "$FACTORY_ACS_URL" ] ||
        why "account after stop: '$(store Device.ManagementServer.URL)'"
}

c_kill9_restart() {
    local pid
    start_fresh busy
    pid=$(prop MainPID)
    rules_are 1 || why "rules not inserted"
    in_ct kill -KILL "$pid"
    # ExecStopPost= takes the rules out before the restart, 10 s later.
    wait_for 5 rules_are 0 || why "rules left after SIGKILL: $(in_ct iptables -S)"
    wait_for 20 prop_is NRestarts 1 || why "not restarted: $(agent_state)"
    case "$(prop MainPID)" in "$pid" | 0) why "no new agent" ;; esac
    wait_for 10 rules_are 1 || why "the restarted agent has no rules"
}

c_remove_running() {
    [ "$(prop ActiveState)" = active ] || why "agent not running before the removal"
    in_ct apt-get remove -y -q tavelagent >"$work/apt-remove.log" 2>&1 || why "apt-get remove: $(tail -n 3 "$work/apt-remove.log")"
    ! in_ct pgrep -x tavelAgent >/dev/null || why "agent still running"
    rules_are 0 || why "rules left: $(in_ct iptables -S)"
    ! in_ct test -e /usr/sbin/tavelAgent || why "binary left"
    in_ct test -e /etc/init.d/tavelagent || why "the init script, a conffile, went with remove"
    # The mask keeps systemd's SysV generator off the left script.
    [ "$(prop LoadState)" = masked ] || why "unit not masked after remove: $(prop LoadState)"
}

c_boot_after_remove() { # time before the reboot
    local since=$1 failed
    failed=$(in_ct systemctl --failed --no-legend --plain)
    [ -z "$failed" ] || why "failed units: $failed"
    [ "$(prop LoadState)" = masked ] || why "unit not masked at boot: $(prop LoadState)"
    # What a SysV-style boot and shutdown run: quiet, status 0.
    local action out
    for action in start stop; do
        out=$(in_ct /etc/init.d/tavelagent "$action" 2>&1) || why "left init script $action failed: $out"
        [ -z "$out" ] || why "left init script $action printed: $out"
    done
    ! journal_has "$since" "not executable" || why "the left init script complained"
}

c_purge() {
    local left
    in_ct apt-get purge -y -q tavelagent >"$work/apt-purge.log" 2>&1 || why "apt-get purge: $(tail -n 3 "$work/apt-purge.log")"
    ! in_ct pgrep -x tavelAgent >/dev/null || why "agent running"
    rules_are 0 || why "rules left"
    # What stays on purpose: the device's store (/flash/dml), the group.
    left=$(in_ct find /etc /usr /var /flash /configs /run /tmp -iname '*tavel*' ! -path '/var/log/journal/*') ||
        why "find failed"
    [ -z "$left" ] || why "left after purge: $left"
    in_ct test -s /flash/dml/datamodel.conf || why "the device's store went with the purge"
}

c_no_secret_in_journal() {
    local s found="" text
    text=$(journal_since 0)
    [ -n "$text" ] || why "empty journal"
    grep -qF "tavelAgent" <<<"$text" || grep -qF "tavel: [" <<<"$text" || why "no line of the agent in the journal"
    for s in $SECRETS; do
        if grep -qF -- "$s" <<<"$text"; then found="$found $s"; fi
    done
    s=${found# }
    [ -z "$found" ] || why "in the journal:$found (e.g. $(grep -F -- "${s%% *}" <<<"$text" | head -n 1 | cut -c1-160))"
}

run_checks() {
    local boot_check=${boot_check:-"boot: systemd as PID 1 with a private network"}
    checks=$((checks + 1))
    if ! ct_boot >"$work/boot.out" 2>&1; then
        verdict "$boot_check" 1 "$(cat "$work/boot.out")"
        return 0
    fi
    verdict "$boot_check" 0 ""
    check "install: apt resolves Depends, group tavel, unit enabled and started" c_install
    check "onboarding: GET over TLS with the API key, account written" c_onboarding_get
    check "firewall: both rules inserted while the agent runs" c_rules_while_running
    check "bus policy: plain user refused, tavel member and root allowed" c_bus_policy
    check "onboarding: PUT ?status=SUCCESS after the bootstrap signal" c_onboarding_put
    check "exit: status 0 after onboarding, not restarted, rules removed" c_exit_after_onboarding
    check "tavelctl inside: reads the data model" c_tavelctl
    check_booting "reboot: a configured device's agent exits at once" c_reboot_exits "$(requests GET)"
    check "systemctl stop during back-off: exit 0, rules removed" c_stop_backoff
    check "systemctl stop inside the account write: account restored" c_stop_account_write
    check "kill -9: ExecStopPost removes the rules, restarted after 10 s" c_kill9_restart
    check "apt-get remove while running: stopped, no rule, conffile kept" c_remove_running
    check_booting "boot after remove: no failed unit" c_boot_after_remove "$(date +%s)"
    check "no secret in the journal (TAVEL_REDACT_SECRETS=1)" c_no_secret_in_journal
    check "apt-get purge: nothing running, no rule, no file but the store" c_purge
}
