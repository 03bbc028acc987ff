#!/usr/bin/env bash
# Checks layout (clang-format), code (clang-tidy) and scripts (shellcheck). With --fix it writes
# the layout instead of checking it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mapfile -t sources < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h' '*.c')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${sources[@]}"
  exit
fi
clang-format --dry-run --Werror "${sources[@]}"
mapfile -t shell < <(git ls-files --cached --others --exclude-standard -- '*.sh' .ci/run)
shellcheck "${shell[@]}"
# Generated files must exist before a compiler front end can read what includes them.
scripts/build.sh release
mapfile -t units < <(printf '%s\n' "${sources[@]}" | grep -E '\.(cpp|c)$')
printf '%s\0' "${units[@]}" | xargs -0 -n 4 -P "$(nproc)" clang-tidy --quiet -p build/release --warnings-as-errors='*' 2>/dev/null
echo "lint: ${#sources[@]} sources and ${#shell[@]} scripts are clean"
