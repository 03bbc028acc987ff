#!/usr/bin/env bash
# bench.sh [NAME...]: sets up and builds what is missing, runs the benchmarks of the release build, or
# only those that are named, and ends with one table of ratios. Exit status 1 if a ratio is above its
# limit or a benchmark failed.
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"
[[ ${1:-} != -* ]] || refuse "$1"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/setup.sh bench
scripts/build.sh release
names=$(cut -f 1 build/release/benchmarks/commands | xargs)
for name in "$@"; do
  [[ " $names " == *" $name "* ]] || { echo "bench: there is no benchmark '$name', only $names" >&2; exit 2; }
done
cmake --build build/release --target benchmarks >&2

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
: >"$scratch/results"
failed=0
while IFS=$'\t' read -r -a words; do
  name=${words[0]:-}
  if [ -z "$name" ] || { [ $# -gt 0 ] && [[ " $* " != *" $name "* ]]; }; then continue; fi
  echo "== $name" >&2
  "${words[@]:1}" </dev/null >"$scratch/output" || { echo "bench: $name failed" >&2; failed=1; }
  awk -F '\t' 'NF != 5' "$scratch/output" >&2
  awk -F '\t' 'NF == 5' "$scratch/output" >>"$scratch/results"
done <build/release/benchmarks/commands

awk -F '\t' -v failed="$failed" '
  BEGIN { printf "%-52s %14s %14s %7s %7s\n", "", "measured", "floor", "ratio", "limit" }
  NF == 5 {
    over = $5 != "-" && $4 + 0 > $5 + 0
    printf "%-52s %14s %14s %7s %7s%s\n", $1, $2, $3, $4, $5, over ? "  OVER" : ""
    if (over) failed = 1
  }
  END { exit failed }' "$scratch/results"
