#!/usr/bin/env bash
# Each platform library must define exactly the functions its headers
# declare, so that an integrator can swap any one of them for the device's
# own library without a duplicate or a missing symbol.  A function the header
# declares weak is optional: its absence is reported, not a failure.  Prints,
# per library, the functions declared and defined, and what is missing or
# extra; fails on any difference.  Also fails when a header's records carry a
# type whose size a 32-bit build's _FILE_OFFSET_BITS/_TIME_BITS would change.
# One library may stand for several headers: HEADER+HEADER=LIBRARY.
#   check_seams.sh NM HEADER_DIR HEADER[+HEADER...]=LIBRARY...
set -euo pipefail
nm=${1:?usage: check_seams.sh NM HEADER_DIR HEADER=LIBRARY...}
hdir=${2:?usage: check_seams.sh NM HEADER_DIR HEADER=LIBRARY...}
shift 2
tmp=$(mktemp -d "${TMPDIR:-/tmp}/tavel-seams-XXXXXX")
trap 'rm -rf "$tmp"' EXIT
status=0

# The functions a header declares, as the C compiler sees them: -aux-info
# writes one prototype per declaration with the file it came from.
declared() {
    local aux="$tmp/aux"
    : >"$aux"
    gcc -fsyntax-only -aux-info "$aux" -I "$hdir" -x c "$hdir/$1" 2>"$tmp/gcc.err" ||
        { cat "$tmp/gcc.err" >&2; return 1; }
    grep -F "/$1:" "$aux" | sed -n 's/^[^*]*\*\/ *//; s/^.*[ *]\([A-Za-z_][A-Za-z0-9_]*\) (.*$/\1/p' | sort -u
}

# Strong global definitions, and weak ones with C linkage (an optional
# function the header declares weak, such as dml_releaseCache).  Weak C++
# symbols (inline functions, template instances of the C++ library) are
# merged by the linker and never clash, so they do not count.
defined() {
    "$nm" -g --defined-only "$1" |
        awk 'NF == 3 && ($2 ~ /^[TDBRGSi]$/ || ($2 ~ /^[VW]$/ && $3 ~ /^[A-Za-z][A-Za-z0-9_]*$/)) { print $3 }' | sort -u
}

# Functions declared with __attribute__((weak)): optional.
optional() {
    perl -0ne 'while (/(\w+)\s*\((?:[^()]|\([^()]*\))*\)\s*__attribute__\s*\(\(\s*weak\s*\)\)/g) { print "$1\n" }' "$hdir/$1"
}

words() { if [ -s "$1" ]; then tr '\n' ' ' <"$1" | sed 's/ $//'; else printf -- '-'; fi; }

for pair in "$@"; do
    headers=${pair%%=*}
    lib=${pair#*=}
    : >"$tmp/declared.all"
    : >"$tmp/optional.all"
    for header in ${headers//+/ }; do
        declared "$header" >>"$tmp/declared.all" || { echo "FAIL: cannot parse $header" >&2; status=1; }
        optional "$header" >>"$tmp/optional.all"
    done
    sort -u "$tmp/declared.all" >"$tmp/declared"
    sort -u "$tmp/optional.all" >"$tmp/optional"
    defined "$lib" >"$tmp/defined"
    comm -23 "$tmp/declared" "$tmp/defined" >"$tmp/absent"
    comm -23 "$tmp/absent" "$tmp/optional" >"$tmp/missing"
    comm -12 "$tmp/absent" "$tmp/optional" >"$tmp/unprovided"
    # C++ names demangled, so an extra helper is recognisable.
    comm -13 "$tmp/declared" "$tmp/defined" | c++filt >"$tmp/extra"
    echo "$headers ($(basename "$lib"))"
    echo "  declared ($(wc -l <"$tmp/declared")): $(words "$tmp/declared")"
    echo "  defined  ($(wc -l <"$tmp/defined")): $(words "$tmp/defined")"
    echo "  missing  ($(wc -l <"$tmp/missing")): $(words "$tmp/missing")"
    echo "  extra    ($(wc -l <"$tmp/extra")): $(words "$tmp/extra")"
    [ -s "$tmp/unprovided" ] && echo "  optional, not provided: $(words "$tmp/unprovided")"
    if [ -s "$tmp/missing" ] || [ -s "$tmp/extra" ]; then
        echo "FAIL: $(basename "$lib") does not define exactly what $headers declare" >&2
        status=1
    fi
    # Comments aside, no record or prototype may use these types.
    for header in ${headers//+/ }; do
        if perl -0pe 's{/\*.*?\*/}{}gs; s{//[^\n]*}{}g' "$hdir/$header" |
            grep -Enw 'time_t|off_t|ino_t|blkcnt_t|timespec|timeval|stat' >"$tmp/abi"; then
            echo "FAIL: $header uses a type whose size depends on the build's time/offset width:" >&2
            cat "$tmp/abi" >&2
            status=1
        fi
    done
done
exit $status
