#!/usr/bin/env bash
# Builds everything and runs every test three times: a plain build, an
# ASan+UBSan build and a TSan build.  Installs what is missing first.
#   scripts/test.sh                      all three
#   scripts/test.sh plain                one variant (plain, asan or tsan)
#   scripts/test.sh -B DIR [VARIANT]     one variant in a build directory of
#                                        the user's (build, build-asan and
#                                        build-tsan by default)
# A directory configured before keeps its generator and its options; the
# variant's sanitizer option is set on top.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
# shellcheck disable=SC2086
tavel_ensure_packages $TAVEL_DEPS
py=$(tavel_python)

user_dir=""
variants=()
while [ $# -gt 0 ]; do
    case "$1" in
        -B|--build-dir) user_dir=${2:?"$1 needs a directory"}; shift 2 ;;
        *) variants+=("$1"); shift ;;
    esac
done
if [ -n "$user_dir" ]; then
    [ ${#variants[@]} -le 1 ] || { echo "-B takes one variant" >&2; exit 2; }
    [ ${#variants[@]} -eq 1 ] || variants=(plain)
    user_dir=$(mkdir -p "$user_dir" && cd "$user_dir" && pwd)
fi
[ ${#variants[@]} -eq 0 ] && variants=(plain asan tsan)

jobs=$(nproc)
status=0
for v in "${variants[@]}"; do
    case "$v" in
        plain) dir="$src/build"; flags=(-DTAVEL_SANITIZE=) ;;
        asan) dir="$src/build-asan"; flags=(-DTAVEL_SANITIZE=asan) ;;
        tsan) dir="$src/build-tsan"; flags=(-DTAVEL_SANITIZE=tsan) ;;
        *) echo "unknown variant $v (plain, asan, tsan)" >&2; exit 2 ;;
    esac
    [ -n "$user_dir" ] && dir=$user_dir
    # Asking an existing tree for another generator is an error in CMake.
    gen=()
    [ -f "$dir/CMakeCache.txt" ] || gen=(-G Ninja)
    echo "== $v build ($dir)"
    cmake -S "$src" -B "$dir" "${gen[@]}" -DPython3_EXECUTABLE="$py" "${flags[@]}" >/dev/null
    cmake --build "$dir" -j "$jobs"
    echo "== $v tests"
    # halt_on_error keeps a sanitizer finding from scrolling by unnoticed;
    # the agent exits 0 by design, so a finding must change the exit status.
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:exitcode=86" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:exitcode=86" \
    TSAN_OPTIONS="halt_on_error=1:exitcode=86:second_deadlock_stack=1:suppressions=$src/tests/tsan.supp" \
        ctest --test-dir "$dir" --output-on-failure -j "$jobs" || status=1
done
exit $status
