#!/usr/bin/env bash
# Checks layout (clang-format), code (clang-tidy), shell scripts (shellcheck) and Python (flake8).
# With --fix it writes the layout instead of checking it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
for tool in clang-format clang-tidy shellcheck flake8; do
  command -v "$tool" >/dev/null || { echo "lint: $tool is missing: run scripts/setup.sh" >&2; exit 1; }
done

files() { git ls-files --cached --others --exclude-standard --deduplicate -- "$@"; }

mapfile -t sources < <(files '*.cpp' '*.h' '*.c')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${sources[@]}"
  exit
fi
clang-format --dry-run --Werror "${sources[@]}"
mapfile -t shell < <(files '*.sh' .ci/run)
shellcheck "${shell[@]}"
mapfile -t python < <(files '*.py')
flake8 "${python[@]}"

# Generated files must exist before a compiler front end can read what includes them; what the
# release build leaves out has no compile command to be read with.
scripts/build.sh release
mapfile -t units < <(printf '%s\n' "${sources[@]}" | grep -E '\.(cpp|c)$' |
  while read -r unit; do
    grep -qF "\"file\": \"$PWD/$unit\"" build/release/compile_commands.json && echo "$unit"
  done)
# Its standard error only counts the warnings of third-party headers that it suppressed.
printf '%s\0' "${units[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p build/release --warnings-as-errors='*' 2>/dev/null ||
  { echo "lint: clang-tidy has objections (above)" >&2; exit 1; }
echo "lint: ${#sources[@]} sources, ${#python[@]} Python files and ${#shell[@]} scripts are clean"
