#!/usr/bin/env bash
# Sets up and builds what a run needs and is missing, then becomes the launcher: its arguments, its
# exit status. What it does is reported on standard error, with the build's progress on a terminal.
set -euo pipefail
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
top=$(dirname "$scripts")
say() { printf 'run: %s\n' "$*" >&2; }

say "setting up"
"$scripts/setup.sh"
say "building"
if [ -t 2 ]; then
  "$scripts/build.sh" release runnable
else
  log=$(mktemp)
  trap 'rm -f "$log"' EXIT
  "$scripts/build.sh" release runnable >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
  rm -f "$log" # exec runs no trap
fi
say "starting $top/build/release/tree/bin/tavrel"
exec "$top/build/release/tree/bin/tavrel" "$@"
