# Sourced by the packaging checks: a temporary directory that goes with the
# check (and the stand-in daemon whose pid is in $tmp/daemon.pid with it), and
# failures counted rather than fatal, so one run reports every gap.
#   . common.sh NAME BUILD_DIR
set -euo pipefail
check=$1
build=$(cd "${2:?usage: $check.sh BUILD_DIR}" && pwd)
tmp=$(mktemp -d "${TMPDIR:-/tmp}/tavel-$check-XXXXXX")
cleanup() {
    # A stand-in daemon left behind by a failed check must not outlive us.
    if [ -s "$tmp/daemon.pid" ]; then kill "$(cat "$tmp/daemon.pid")" 2>/dev/null || true; fi
    rm -rf "$tmp"
}
trap cleanup EXIT
# The agent's own delete commands, in its order.
rules=("-D INPUT_FW_LEVEL -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT"
    "-D INPUT_WAN_REMOTE_ACCESS -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT")
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
finish() {
    [ "$failures" -eq 0 ] || { echo "$check: $failures failure(s)" >&2; exit 1; }
    echo "$check: ok"
}
