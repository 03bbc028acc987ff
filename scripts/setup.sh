#!/usr/bin/env bash
# Brings everything that a build and its tests need: Debian packages into the system, and into
# .deps/ the third-party sources and the prepared Python 3.7. Every step is made under .deps/partial
# and moved into place when it is whole, so that an interrupted run is simply started again.
# With everything in place it only looks, and needs no network.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly top
readonly deps=$top/.deps
readonly boost_version=1.74.0+ds1
readonly boost_sha256=192f5df504d282cb81288f88232d8af45b64a9ab531e1c7cf8ae955f16f6bb28
readonly minidump_version=0.26.0
readonly minidump_sha256=0b09e132e39a5bf555324078a7f1fa2f3fe5c498f44bd80bf6fdfca92c1e2bbd
# Raised when the way a folder of .deps/ is prepared changes, so that old ones are made anew.
declare -rA recipe=([python3.7]=3 [boost_python]=2 [breakpad]=3)
# As cmake/Toolchain.cmake has it for code of the project: these archives end up in its programs.
readonly hardening="-fstack-protector-strong -fstack-clash-protection -fcf-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2"

say() { printf 'setup: %s\n' "$*" >&2; }
die() { say "$*"; exit 1; }

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

read_packages() { sed -e 's/#.*//' "$top/scripts/setup/debian-packages.txt" | xargs; }

debian_packages() {
  command -v dpkg-query >/dev/null || die "this needs Debian 12 or a system like it (no dpkg found)"
  local wanted missing=()
  wanted=$(read_packages)
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
  say "building Boost.Python for Python 3.7"
  fresh_partial boost_python
  local to=$deps/partial/boost_python
  tar -C "$to" --strip-components=1 -xf "$archive" boost/libs/python/src boost/LICENSE_1_0.txt
  # shellcheck disable=SC2016  # expanded by the shell of each file
  (cd "$to/libs/python/src" && find . -name '*.cpp' ! -path '*numpy*' -print0 |
    xargs -0 -P "$(nproc)" -I{} sh -c 'g++ -std=c++17 -O2 -fPIC -w $3 -DBOOST_BIND_GLOBAL_PLACEHOLDERS \
      -DBOOST_PYTHON_SOURCE -DBOOST_PYTHON_STATIC_LIB -I"$1" -c "$2" -o "${2%.cpp}.o"' sh "$deps/python3.7/include/python3.7m" {} "$hardening") ||
    die "Boost.Python does not build"
  (cd "$to/libs/python/src" && find . -name '*.o' | LC_ALL=C sort | xargs ar rcsD "$to/libboost_python37.a")
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
  tar -C "$to" --strip-components=1 -xf "$archive" package/deps
  patch -s -d "$to" -p1 <"$top/scripts/setup/breakpad-strings.patch" || die "the patch of Breakpad does not apply"
  mkdir -p "$to/build" "$to/lib" "$to/bin"
  # The file names that end up in the archives must not tell where they were built.
  (cd "$to/build" && ../deps/breakpad/configure CPPFLAGS="-I../deps" \
    CXXFLAGS="-O2 -g -fPIC $hardening -Wno-error=deprecated -ffile-prefix-map=$to=breakpad" CFLAGS="-O2 -g -fPIC $hardening -ffile-prefix-map=$to=breakpad" &&
    make -j "$(nproc)" src/client/linux/libbreakpad_client.a src/libbreakpad.a src/third_party/libdisasm/libdisasm.a \
      src/processor/minidump_stackwalk src/processor/minidump_dump src/tools/linux/dump_syms/dump_syms) \
    >"$deps/breakpad.log" 2>&1 || { tail -n 5 "$deps/breakpad.log" >&2; die "Breakpad does not build; see .deps/breakpad.log"; }
  cp "$to/build/src/client/linux/libbreakpad_client.a" "$to/build/src/libbreakpad.a" \
    "$to/build/src/third_party/libdisasm/libdisasm.a" "$to/lib/"
  cp "$to/build/src/processor/minidump_stackwalk" "$to/build/src/processor/minidump_dump" \
    "$to/build/src/tools/linux/dump_syms/dump_syms" "$to/bin/"
  mv "$to/deps/breakpad/LICENSE" "$to/"
  mv "$to/deps/breakpad/src" "$to/include"
  mv "$to/deps/third_party/lss" "$to/include/third_party/lss"
  rm -rf "$to/build" "$to/deps"
  install_folder breakpad "$minidump_version"
}

mkdir -p "$deps/partial"
exec 9>"$deps/.lock"
flock --nonblock 9 || { say "waiting for another set-up"; flock 9; }
debian_packages
python37
boost_python
breakpad
