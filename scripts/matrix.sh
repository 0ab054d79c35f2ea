#!/usr/bin/env bash
# Builds the agent, tavelctl and the unit tests with every compiler of the
# toolchain matrix (warnings are errors) and runs the unit tests with each.
# MinSizeRel, as the device ships.  Installs the compilers when missing.
# Prints one line per compiler and writes the table to build-matrix/matrix.txt.
#   scripts/matrix.sh                   every compiler
#   scripts/matrix.sh clang-16 gcc-11   some of them
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
# shellcheck disable=SC2086
tavel_ensure_packages $TAVEL_DEPS $TAVEL_MATRIX_DEPS
py=$(tavel_python)

compilers=("$@")
[ ${#compilers[@]} -eq 0 ] && compilers=(gcc-11 gcc-12 clang-13 clang-16)
out="$src/build-matrix"
mkdir -p "$out"
table="$out/matrix.txt"
printf '%-9s %-9s %-6s %-12s %s\n' compiler version build "unit tests" seconds | tee "$table"
jobs=$(nproc)
status=0
for c in "${compilers[@]}"; do
    case "$c" in
        gcc-*) cc=$c cxx=g++-${c#gcc-} ;;
        clang-*) cc=$c cxx=clang++-${c#clang-} ;;
        *) echo "unknown compiler $c (gcc-N or clang-N)" >&2; exit 2 ;;
    esac
    dir="$out/$c"
    start=$SECONDS
    version=$("$cc" -dumpversion 2>/dev/null || echo missing)
    build=FAIL tests=-
    if CC=$cc CXX=$cxx cmake -S "$src" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DTAVEL_WERROR=ON \
        -DPython3_EXECUTABLE="$py" >"$dir.log" 2>&1 &&
        cmake --build "$dir" -j "$jobs" --target tavelAgent tavelctl tavel_unit_tests >>"$dir.log" 2>&1; then
        build=ok
        if ctest --test-dir "$dir" -L unit -j "$jobs" --output-on-failure >>"$dir.log" 2>&1; then
            tests=pass
        else
            tests=FAIL
        fi
    fi
    line=$(printf '%-9s %-9s %-6s %-12s %s' "$c" "$version" "$build" \
        "$tests$(sed -n 's/^[0-9]*% tests passed, \([0-9]*\) tests failed out of \([0-9]*\)$/ (\2, \1 failed)/p' "$dir.log" | tail -n 1)" \
        $((SECONDS - start)))
    echo "$line" | tee -a "$table"
    if [ "$build" != ok ] || [ "$tests" != pass ]; then
        status=1
        echo "--- $c: last lines of $dir.log" >&2
        tail -n 30 "$dir.log" >&2
    fi
done
exit $status
