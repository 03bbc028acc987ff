#!/usr/bin/env bash
# screenshot.sh [PNG]: sets up and builds what is missing, opens the window with examples/graph.py on an
# X server of its own, has it render a preview, and writes the picture to docs/window.png, or to the PNG
# file that is named.
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"
if [ $# -gt 1 ] || [[ ${1:-} == -* ]]; then refuse "${@: -1}"; fi
cd "$(dirname "${BASH_SOURCE[0]}")/.."
picture=${1:-docs/window.png}
scripts/setup.sh screenshot
scripts/build.sh release

scratch=$(mktemp -d)
server=
window=
finish() {
  local process
  for process in $window $server; do
    kill "$process" 2>/dev/null || continue
    wait "$process" 2>/dev/null || true
  done
  rm -rf "$scratch"
}
trap finish EXIT
die() { echo "screenshot: $*" >&2; exit 1; }

# The server picks its display number and says it when it is ready.
mkfifo "$scratch/display"
Xvfb -noreset -nolisten tcp -screen 0 1280x1024x24 -displayfd 3 3>"$scratch/display" 2>"$scratch/server.log" &
server=$!
read -r display <"$scratch/display" || { cat "$scratch/server.log" >&2; die "Xvfb did not start"; }

# Nothing of the caller's X settings, show or shot gets into the picture.
env -i PATH="$PATH" LANG=C.UTF-8 HOME="$scratch" TMPDIR="$scratch" DISPLAY=":$display" \
  TAVREL_CRASH_HANDLING=0 build/release/tree/bin/tavrel examples/graph.py >"$scratch/tavrel.log" 2>&1 &
window=$!

# Fails as long as the window isn't shown: asked for one that isn't there, import waits for a click.
capture() {
  DISPLAY=":$display" xwininfo -name 'untitled - Tavrel' 2>/dev/null | grep -q IsViewable &&
    DISPLAY=":$display" timeout 20 import -window 'untitled - Tavrel' -strip -define png:exclude-chunks=date,time "$1" 2>/dev/null
}
# A server without a window manager gives no window the keyboard.
render() { DISPLAY=":$display" xdotool search --name ' - Tavrel$' windowfocus --sync key ctrl+r; }
deadline=$((SECONDS + 60))
go_on() {
  kill -0 "$window" 2>/dev/null || { cat "$scratch/tavrel.log" >&2; die "the launcher ended"; }
  [ "$SECONDS" -lt "$deadline" ] || die "the window didn't come to rest within 60 s"
}
until capture "$scratch/first.png" && render; do
  go_on
  sleep 0.2
done
# Ready when two pictures in a row are the same: until then the window is being drawn.
until capture "$scratch/second.png" && cmp -s "$scratch/first.png" "$scratch/second.png"; do
  go_on
  if [ -e "$scratch/second.png" ]; then mv "$scratch/second.png" "$scratch/first.png"; fi
  sleep 0.2
done
mkdir -p "$(dirname "$picture")"
cp "$scratch/second.png" "$picture"
