#!/usr/bin/env bash
# Sets up and builds whatever is missing, then runs every test. The first argument may name a
# preset (release unless given); further arguments go to ctest.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
preset=release
case "${1:-}" in "" | -*) ;; *) preset=$1; shift ;; esac
scripts/setup.sh
scripts/build.sh "$preset"
exec ctest --preset "$preset" "$@"
