#!/usr/bin/env bash
# Checks, from the ELF file alone, that a binary carries the hardening the
# build promises: a position-independent executable, the whole relocation
# table read-only after start-up (RELRO with BIND_NOW), the stack protector
# and _FORTIFY_SOURCE.  Prints the evidence line of each; fails on any gap.
# Works on stripped binaries (the checks use the dynamic symbol table).
#   check_hardening.sh [--readelf READELF] BINARY...
set -euo pipefail
readelf=readelf
if [ "${1:-}" = --readelf ]; then
    readelf=$2
    shift 2
fi
[ $# -gt 0 ] || { echo "usage: check_hardening.sh [--readelf READELF] BINARY..." >&2; exit 2; }
status=0
for bin in "$@"; do
    echo "$bin"
    check() { # name evidence
        if [ -n "$2" ]; then
            printf '  %-16s ok    %s\n' "$1" "$(echo "$2" | tr -s ' ' | head -n 1)"
        else
            printf '  %-16s MISSING\n' "$1"
            status=1
        fi
    }
    header=$("$readelf" -h "$bin")
    dynamic=$("$readelf" -d "$bin")
    check PIE "$(grep -E 'Type:[[:space:]]+DYN' <<<"$header" || true)"
    check PIE-flag "$(grep -E 'FLAGS_1.*PIE' <<<"$dynamic" || true)"
    check RELRO "$("$readelf" -lW "$bin" | grep -E '^[[:space:]]*GNU_RELRO' || true)"
    check BIND_NOW "$(grep -E '\(BIND_NOW\)|FLAGS_1.*[[:space:]]NOW' <<<"$dynamic" || true)"
    symbols=$("$readelf" --dyn-syms -W "$bin" | awk '{print $8}' | sed 's/@.*//')
    check stack-canary "$(grep -x '__stack_chk_fail' <<<"$symbols" || true)"
    fortified=$(grep -E '^__[a-z0-9_]+_chk$' <<<"$symbols" | grep -vx '__stack_chk_fail' | sort -u | tr '\n' ' ' || true)
    check fortify "$fortified"
done
exit $status
