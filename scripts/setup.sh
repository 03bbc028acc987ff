#!/usr/bin/env bash
# setup.sh [COMMAND...]: brings what scripts/run.sh needs, and what the named commands need beyond that
# (test, lint, bench, package, screenshot): Debian packages into the system, and into .deps/ the
# third-party sources and the prepared Python 3.7. With everything in place it only looks, and needs no
# network. Each command calls it for itself.
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly top
readonly deps=$top/.deps
readonly boost_version=1.74.0+ds1
readonly boost_sha256=192f5df504d282cb81288f88232d8af45b64a9ab531e1c7cf8ae955f16f6bb28
readonly minidump_version=0.26.0
readonly minidump_sha256=0b09e132e39a5bf555324078a7f1fa2f3fe5c498f44bd80bf6fdfca92c1e2bbd
# Raised when the way a folder of .deps/ is prepared changes, so that old ones are made anew.
declare -rA recipe=([python3.7]=3 [boost_python]=3 [breakpad]=5)
# These archives end up in the project's programs.
mapfile -t hardening <"$top/cmake/hardening.flags"
readonly hardening

say() { printf 'setup: %s\n' "$*" >&2; }
die() { say "$*"; exit 1; }

# Every step is made under .deps/partial and moved into place when it is whole, so that an interrupted
# run is simply started again.

# A folder of .deps/ is there when its stamp names the version and recipe that made it.
have() { [ "$(cat "$deps/$1/.stamp" 2>/dev/null)" = "$2 recipe ${recipe[$1]}" ]; }

# install_folder NAME VERSION: moves .deps/partial/NAME into place, stamped.
install_folder() {
  echo "$2 recipe ${recipe[$1]}" >"$deps/partial/$1/.stamp"
  # Builds that share this folder may be reading the old one: it is gone for no longer than a rename.
  rm -rf "$deps/partial/$1.old"
  [ ! -e "$deps/$1" ] || mv "$deps/$1" "$deps/partial/$1.old"
  mv "$deps/partial/$1" "$deps/$1"
  rm -rf "$deps/partial/$1.old"
}

fresh_partial() {
  rm -rf "$deps/partial/$1"
  mkdir -p "$deps/partial/$1"
}

check_sha256() {
  echo "$2  $1" | sha256sum --check --status ||
    { rm -f "$1"; die "$(basename "$1") does not have the expected SHA-256 and was removed; run setup again"; }
}

# read_packages COMMAND...
read_packages() {
  local command
  for command in "$@"; do
    sed -n "s/^$command: //p" "$top/scripts/setup/debian-packages.txt"
  done | xargs -n 1 | sort -u | xargs
}

debian_packages() {
  command -v dpkg-query >/dev/null || die "this needs Debian 12 or a system like it (no dpkg found)"
  local wanted missing=()
  wanted=$(read_packages "$@")
  local installed
  # shellcheck disable=SC2086  # a list of names
  installed=" $(dpkg-query -W -f '${db:Status-Status}:${Package} ' $wanted 2>/dev/null || true)"
  for package in $wanted; do
    [[ $installed == *" installed:$package "* ]] || missing+=("$package")
  done
  if ! command -v npm >/dev/null && ! have breakpad "$minidump_version"; then missing+=(npm); fi
  [ ${#missing[@]} -eq 0 ] && return
  local sudo=
  if [ "$(id -u)" -ne 0 ]; then
    sudo -n true 2>/dev/null || die "missing Debian packages; as root: apt-get install ${missing[*]}"
    sudo=sudo
  fi
  say "installing Debian packages: ${missing[*]}"
  local log=$deps/apt.log
  { $sudo env DEBIAN_FRONTEND=noninteractive apt-get update &&
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1 || { tail -n 5 "$log" >&2; die "apt-get failed; its output is in .deps/apt.log"; }
  touch "$deps/.packages" # scripts/build.sh configures anew: what it missed may be there now
}

is_shared_python37() {
  [ -x "$1/bin/python3.7" ] && [ -f "$1/lib/libpython3.7m.so.1.0" ] && [ -f "$1/include/python3.7m/Python.h" ]
}

# Prints the prefix of a Python 3.7 with a shared library, or nothing.
find_python37() {
  local prefix
  if [ -n "${TAVREL_PYTHON37:-}" ]; then
    ! is_shared_python37 "$TAVREL_PYTHON37" || echo "$TAVREL_PYTHON37"
    return
  fi
  for prefix in "${PYENV_ROOT:-${HOME:-}/.pyenv}"/versions/3.7.*; do
    if is_shared_python37 "$prefix"; then
      echo "$prefix"
      return
    fi
  done
  if command -v python3.7 >/dev/null; then
    prefix=$(python3.7 -c 'import sys; print(sys.base_prefix)' 2>/dev/null || true)
    ! is_shared_python37 "$prefix" || echo "$prefix"
  fi
}

# Version and content of a prefix, so that another 3.7 in its place is noticed.
identity_of() {
  local version
  version=$(sed -n 's/^#define PY_VERSION  *"\(.*\)"/\1/p' "$1/include/python3.7m/patchlevel.h")
  echo "$version $(cat "$1/bin/python3.7" "$1/lib/libpython3.7m.so.1.0" | sha256sum | cut -c 1-16)"
}

python37() {
  local from version
  from=$(find_python37)
  if [ -z "$from" ]; then
    if [ -n "${TAVREL_PYTHON37:-}" ]; then
      die "TAVREL_PYTHON37=$TAVREL_PYTHON37 has no bin/python3.7, lib/libpython3.7m.so.1.0 and include/python3.7m/Python.h"
    fi
    # What was prepared once doesn't need the one that it was made from.
    [[ $(cat "$deps/python3.7/.stamp" 2>/dev/null) == *" recipe ${recipe[python3.7]}" ]] && return
    die "no Python 3.7 with a shared library found; 'env PYTHON_CONFIGURE_OPTS=--enable-shared pyenv install 3.7' builds one, or set TAVREL_PYTHON37 to the prefix of one"
  fi
  version=$(identity_of "$from")
  have python3.7 "$version" && return
  say "preparing Python from the ${version% *} found"
  rm -rf "$deps/partial/python3.7"
  python3 -I -B "$top/scripts/setup/prepare_python37.py" "$from" "$deps/partial/python3.7" >"$deps/python3.7.log" 2>&1 ||
    { tail -n 5 "$deps/python3.7.log" >&2; die "can't prepare Python; see .deps/python3.7.log"; }
  install_folder python3.7 "$version"
}

boost_python() {
  have boost_python "$boost_version" && return
  local archive=$deps/downloads/boost1.74_$boost_version.orig.tar.xz
  mkdir -p "$deps/downloads"
  if [ ! -f "$archive" ]; then
    say "fetching the source of Boost $boost_version"
    fresh_partial apt
    local apt=$deps/partial/apt source
    mkdir -p "$apt/parts" "$apt/lists/partial" "$apt/cache/archives/partial"
    for source in /etc/apt/sources.list.d/*.sources; do
      [ -f "$source" ] && sed 's/^Types:.*/Types: deb-src/' "$source" >"$apt/parts/$(basename "$source")"
    done
    for source in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
      [ -f "$source" ] && sed -n 's/^deb /deb-src /p' "$source" >"$apt/parts/$(basename "$source" .list).list"
    done
    local options=(-o Dir::Etc::sourcelist=/dev/null -o "Dir::Etc::sourceparts=$apt/parts"
      -o "Dir::State::lists=$apt/lists" -o "Dir::Cache=$apt/cache" -o APT::Sandbox::User=)
    (cd "$apt" && apt-get "${options[@]}" update && apt-get "${options[@]}" source --download-only boost1.74) \
      >"$deps/apt.log" 2>&1 || { tail -n 3 "$deps/apt.log" >&2; die "can't fetch the Boost source with apt-get; see .deps/apt.log"; }
    mv "$apt/$(basename "$archive")" "$archive"
    rm -rf "$apt"
  fi
  check_sha256 "$archive" "$boost_sha256"
  say "building Boost.Python's exception for Python 3.7"
  fresh_partial boost_python
  local to=$deps/partial/boost_python
  # The launcher uses nothing else of Boost.Python; other parts are further files. Once they are found,
  # the rest of a large archive isn't read.
  tar -C "$to" --strip-components=1 --occurrence=1 -xf "$archive" boost/libs/python/src/errors.cpp boost/LICENSE_1_0.txt
  (cd "$to/libs/python/src" && g++ -std=c++17 -O2 -fPIC -w "${hardening[@]}" -DBOOST_BIND_GLOBAL_PLACEHOLDERS \
    -DBOOST_PYTHON_SOURCE -DBOOST_PYTHON_STATIC_LIB -I"$deps/python3.7/include/python3.7m" -c errors.cpp &&
    ar rcsD "$to/libboost_python37.a" errors.o) >"$deps/boost_python.log" 2>&1 ||
    { tail -n 5 "$deps/boost_python.log" >&2; die "Boost.Python does not build; see .deps/boost_python.log"; }
  rm -rf "$to/libs"
  install_folder boost_python "$boost_version"
}

breakpad() {
  have breakpad "$minidump_version" && return
  local archive=$deps/downloads/minidump-$minidump_version.tgz
  mkdir -p "$deps/downloads"
  if [ ! -f "$archive" ]; then
    say "fetching the source of Breakpad"
    fresh_partial npm
    (cd "$deps/partial/npm" && npm pack "minidump@$minidump_version") >"$deps/npm.log" 2>&1 ||
      { tail -n 3 "$deps/npm.log" >&2; die "can't fetch Breakpad with npm; see .deps/npm.log"; }
    mv "$deps/partial/npm/$(basename "$archive")" "$archive"
    rm -rf "$deps/partial/npm"
  fi
  check_sha256 "$archive" "$minidump_sha256"
  say "building Breakpad"
  fresh_partial breakpad
  local to=$deps/partial/breakpad
  # Files are named relative to it, so nothing in the archives says where they were built.
  scratch=$deps/partial/breakpad_build
  # configure refuses a path with a blank and some other characters.
  [[ $scratch != *[!A-Za-z0-9_./+-]* ]] || scratch=$(mktemp -d)
  rm -rf "$scratch"
  mkdir -p "$scratch"
  trap 'rm -rf "$scratch"' EXIT
  tar -C "$scratch" --strip-components=1 -xf "$archive" package/deps package/bin/linux-x64
  local patch
  for patch in "$top"/scripts/setup/breakpad-*.patch; do
    patch -s -d "$scratch" -p1 <"$patch" || die "$(basename "$patch") does not apply"
  done
  mkdir -p "$scratch/build" "$to/lib" "$to/bin"
  # What reads a minidump, of a library that walks the stacks of every processor.
  local reader=(basic_code_modules convert_old_arm64_context dump_context dump_object logging minidump
    pathname_stripper proc_maps_linux)
  reader=("${reader[@]/%/.o}")
  local client=src/client/linux/libbreakpad_client.a flags="-O2 -fPIC ${hardening[*]}"
  (cd "$scratch/build" &&
    ../deps/breakpad/configure CPPFLAGS=-I../deps CFLAGS="$flags" CXXFLAGS="$flags -Wno-error=deprecated" &&
    make -j "$(nproc)" "$client" "${reader[@]/#/src/processor/}" &&
    ar rcsD "$to/lib/libbreakpad.a" "${reader[@]/#/src/processor/}") \
    >"$deps/breakpad.log" 2>&1 || { tail -n 5 "$deps/breakpad.log" >&2; die "Breakpad does not build; see .deps/breakpad.log"; }
  cp "$scratch/build/$client" "$to/lib/"
  # With these, tests read dumps; they come ready-built with the source.
  install "$scratch"/bin/linux-x64/minidump_{stackwalk,dump} "$to/bin/"
  mv "$scratch/deps/breakpad/LICENSE" "$to/"
  mv "$scratch/deps/breakpad/src" "$to/include"
  mv "$scratch/deps/third_party/lss" "$to/include/third_party/lss"
  install_folder breakpad "$minidump_version"
}

for command in "$@"; do
  grep -q "^${command//[!a-z]/!}: " "$top/scripts/setup/debian-packages.txt" || refuse "$command"
done
mkdir -p "$deps/partial"
exec 9>"$deps/.lock"
flock --nonblock 9 || { say "waiting for another set-up"; flock 9; }
debian_packages run "$@"
# Breakpad's configure and the downloads leave a processor idle.
(breakpad) &
trap wait EXIT
python37
boost_python
wait $!
