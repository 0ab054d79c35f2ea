#!/usr/bin/env bash
# Code hygiene: clang build with warnings as errors, clang-format, clang-tidy
# and cppcheck over the project's own sources.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/deps.sh
. "$src/scripts/deps.sh"
# shellcheck disable=SC2086
tavel_ensure_packages $TAVEL_DEPS
cd "$src"

mapfile -t files < <(git ls-files '*.cpp' '*.h' 2>/dev/null || find src platform tools tests bench fuzz -name '*.cpp' -o -name '*.h')

echo "== clang build (-Werror)"
CC=clang CXX=clang++ cmake -S . -B build-clang -G Ninja -DPython3_EXECUTABLE="$(tavel_python)" >/dev/null
cmake --build build-clang -j "$(nproc)"

echo "== clang-format"
clang-format --dry-run --Werror "${files[@]}"

echo "== clang-tidy"
mapfile -t tidy < <(printf '%s\n' "${files[@]}" | grep -E '^(src|platform|tools)/.*\.cpp$')
printf '%s\n' "${tidy[@]}" | xargs -P "$(nproc)" -n 4 clang-tidy -p build-clang --quiet 2>/dev/null

echo "== cppcheck"
cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --inline-suppr \
    --std=c++17 --suppress=missingIncludeSystem -I platform/include -I src -I src/intf \
    src platform tools
echo "lint: clean"
