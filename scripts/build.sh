#!/usr/bin/env bash
# build.sh [PRESET [TARGET...]]: builds one preset (release unless another is named) into
# build/PRESET; the runnable tree is build/PRESET/tree. Everything is built unless targets are named.
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
say() { printf 'build: %s\n' "$*" >&2; }
preset=${1:-release}
shift || true
command -v cmake >/dev/null || { say "cmake is missing: run scripts/setup.sh"; exit 1; }
presets=$(cmake --list-presets | sed -n 's/^ *"\(.*\)".*/\1/p')
grep -qxF -e "$preset" <<<"$presets" || {
  say "there is no preset '$preset', only $(xargs <<<"$presets")"
  exit 2
}

# Two builds in one folder would write over one another. The lock is not handed to the build: a
# compiler cache that it starts may stay behind.
mkdir -p build
exec 9>"build/$preset.lock"
flock --nonblock 9 || { say "waiting for another build of $preset"; flock 9; }

# A clone that was moved or copied carries a folder that was configured for its former place.
configured_for=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "build/$preset/CMakeCache.txt" 2>/dev/null || true)
if [ -n "$configured_for" ] && [ "$configured_for" != "$PWD" ]; then
  say "build/$preset was made for $configured_for: starting anew"
  rm -rf "build/$preset"
fi
# Packages that were installed since may bring what tests or benchmarks were left out for.
if [ ! -f "build/$preset/build.ninja" ] || [ .deps/.packages -nt "build/$preset/configure.log" ]; then
  mkdir -p "build/$preset"
  cmake --preset "$preset" >"build/$preset/configure.log" 2>&1 9>&- ||
    { cat "build/$preset/configure.log" >&2; say "cmake could not configure the preset '$preset'"; exit 1; }
fi
cmake --build "build/$preset" ${1:+--target "$@"} >&2 9>&-
