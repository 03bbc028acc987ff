#!/usr/bin/env bash
# test.sh [PRESET] [ARGUMENT...]: sets up and builds what is missing, then runs every test of one preset
# (release unless another is named). ARGUMENTs go to ctest: -R NAME, -L LABEL, -j N...
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# The loader takes a blank or a colon for the end of the name of a library that a test preloads.
if [[ $PWD == *[[:space:]:]* ]]; then
  echo "test: the tests can't run in '$PWD': use a clone under a path without blanks and colons" >&2
  exit 1
fi
preset=release
case "${1:-}" in "" | -*) ;; *) preset=$1; shift ;; esac
# ctest takes no notice of what it doesn't know, and runs everything.
for word in "$@"; do
  [[ $word != -* ]] || { ctest --help | grep -qE -e "[ ,]$(sed -E 's/[0-9]+$|=.*//' <<<"$word")([ ,=]|$)"; } || refuse "$word"
done
scripts/setup.sh test
scripts/build.sh "$preset"
exec ctest --preset "$preset" "$@"
