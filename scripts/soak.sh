#!/usr/bin/env bash
# soak.sh [STARTS] [KILLS]: builds release and starts its launcher STARTS times with endings that are
# known, crashes among them, and KILLS times with a signal at a random moment. Fails if a run ends with
# a wrong status, or if a file, a folder or a process is left.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/build.sh release
exec python3 scripts/soak.py build/release/tree "${1:-10000}" "${2:-2000}"
