#!/usr/bin/env bash
# lint.sh [--fix]: sets up and builds what is missing, then checks layout (clang-format), shell scripts
# (shellcheck), Python (flake8), includes and sizes (check_structure.py), pages against sources
# (check_pages.py) and code (clang-tidy), each to its end. With --fix it writes the layout instead.
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"
if [ $# -gt 1 ] || [ "${1:---fix}" != --fix ]; then refuse "${@: -1}"; fi
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/setup.sh lint

files() { git ls-files --cached --others --exclude-standard --deduplicate -- "$@"; }

mapfile -t sources < <(files '*.cpp' '*.h' '*.c')
mapfile -t shell < <(files '*.sh' '*.sbatch' .ci/run)
mapfile -t python < <(files '*.py')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${sources[@]}"
  exit
fi

failed=()
clang-format --dry-run --Werror "${sources[@]}" || failed+=(clang-format)
shellcheck "${shell[@]}" || failed+=(shellcheck)
flake8 "${python[@]}" || failed+=(flake8)
scripts/lint/check_structure.py || failed+=(check_structure.py)
scripts/lint/check_pages.py || failed+=(check_pages.py)

# Generated files must exist before a compiler front end can read what includes them; what the
# release build leaves out has no compile command to be read with.
scripts/build.sh release
compiled_units() {
  local unit
  for unit in "${sources[@]}"; do
    if grep -qF "\"file\": \"$PWD/$unit\"" build/release/compile_commands.json; then
      printf '%s\0' "$unit"
    fi
  done
}
# Its standard error only counts the warnings that it suppressed in third-party headers.
compiled_units | xargs -0 -n 1 -P "$(nproc)" \
  clang-tidy --quiet -p build/release --warnings-as-errors='*' 2>/dev/null || failed+=(clang-tidy)

if [ ${#failed[@]} -gt 0 ]; then
  echo "lint: objections of ${failed[*]} above" >&2
  exit 1
fi
echo "lint: ${#sources[@]} sources, ${#shell[@]} scripts and ${#python[@]} Python files are clean"
