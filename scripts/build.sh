#!/usr/bin/env bash
# Builds one preset (release unless another is named) into build/PRESET; the runnable tree is
# build/PRESET/tree.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
preset=${1:-release}
if [ ! -f "build/$preset/build.ninja" ]; then
  mkdir -p "build/$preset"
  cmake --preset "$preset" >"build/$preset/configure.log" 2>&1 ||
    { cat "build/$preset/configure.log" >&2; echo "build: cmake could not configure the preset '$preset'" >&2; exit 1; }
fi
cmake --build --preset "$preset" >&2
