#!/usr/bin/env bash
# Sets up and builds whatever is missing, then becomes the launcher: its arguments, its exit status.
set -euo pipefail
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
"$scripts/setup.sh"
log=$(mktemp)
"$scripts/build.sh" release >"$log" 2>&1 || { cat "$log" >&2; rm -f "$log"; exit 1; }
rm -f "$log"
exec "$scripts/../build/release/tree/bin/tavrel" "$@"
