#!/usr/bin/env bash
# Coverage-guided fuzzing of the agent's input surfaces (libFuzzer, ASan,
# UBSan).  Builds build-fuzz with clang, then runs every target in turn.
#   scripts/fuzz.sh            20 seconds per target
#   scripts/fuzz.sh 600        600 seconds per target
#   FUZZ_JOBS=2 scripts/fuzz.sh 600   two targets at a time
# The committed seeds (fuzz/corpus) are copied to build-fuzz/corpus-work and
# only the copy grows.  Exits non-zero when any target finds a crash, a leak
# or a timeout; the reproducer is left in build-fuzz/findings/<target>/.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
secs=${1:-20}
jobs=${FUZZ_JOBS:-1}
build="$src/build-fuzz"
targets=(headers timezone_header timezone_mapping signals store)

# Longest input worth mutating per target: a reply's header block, one header
# line, a mapping file, a debug payload (2,112 bytes) plus its selector, a store.
max_len() {
    case "$1" in
        headers) echo 4096 ;;
        timezone_header) echo 512 ;;
        timezone_mapping) echo 2048 ;;
        signals) echo 2200 ;;
        store) echo 4096 ;;
    esac
}

command -v clang++ >/dev/null || { echo "fuzz: clang++ is needed" >&2; exit 2; }
CC=clang CXX=clang++ cmake -S "$src" -B "$build" -G Ninja -DTAVEL_FUZZ=ON -DTAVEL_BUILD_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target tavel_fuzz -j "$(nproc)"

run_target() {
    local t=$1 work="$build/corpus-work/$t" out="$build/findings/$t" log="$build/fuzz-logs/$t.log"
    mkdir -p "$work" "$out" "$(dirname "$log")"
    cp -n "$src/fuzz/corpus/$t/"* "$work/" 2>/dev/null || true
    local dict=()
    [ -f "$src/fuzz/$t.dict" ] && dict=(-dict="$src/fuzz/$t.dict")
    local rc=0
    (cd "$out" && ASAN_OPTIONS="detect_leaks=1:abort_on_error=0" UBSAN_OPTIONS="print_stacktrace=1" \
        "$build/fuzz/fuzz_$t" "$work" "$src/fuzz/corpus/$t" "${dict[@]}" \
        -max_len="$(max_len "$t")" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$out/" >"$log" 2>&1) || rc=$?
    echo "$rc" >"$log.rc"
}

rm -rf "$build/findings" "$build/fuzz-tmp"
mkdir -p "$build/fuzz-logs" "$build/fuzz-tmp"
export TAVEL_FUZZ_TMPDIR="$build/fuzz-tmp"
running=0
for t in "${targets[@]}"; do
    run_target "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait -n || true
        running=$((running - 1))
    fi
done
wait || true
rm -rf "$build/fuzz-tmp"

status=0
for t in "${targets[@]}"; do
    log="$build/fuzz-logs/$t.log"
    rc=$(cat "$log.rc" 2>/dev/null || echo 1)
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    persec=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    newcov=$(sed -n 's/^stat::new_units_added: *//p' "$log" | tail -1)
    cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1 || true)
    findings=$(find "$build/findings/$t" -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
        -o -name 'oom-*' \) | wc -l)
    verdict=ok
    if [ "$rc" != 0 ] || [ "$findings" -gt 0 ]; then
        verdict="FINDING (exit $rc, see $log)"
        status=1
    fi
    printf '%-17s execs=%s exec/s=%s new_units=%s %s findings=%s %s\n' "$t" "${execs:-?}" "${persec:-?}" \
        "${newcov:-?}" "${cov:-cov: ?}" "$findings" "$verdict"
done
exit $status
