#!/usr/bin/env bash
# try_in_minimal_root.sh TGZ DEB: runs both packages in a minimal Debian 12 that holds what the DEB
# depends on and nothing else: the DEB installed by dpkg, the TGZ unpacked twice, side by side, on a
# read-only file system, both owned by root and run by nobody. Status 77 with one line if this can't
# be tried here.
#
# The roots are kept in .deps/minimal-root, so that only the first run needs the network. Every run
# works on a throw-away layer in a mount namespace of its own, which takes all mounts with it.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
readonly top
readonly roots=$top/.deps/minimal-root
readonly release=bookworm

say() { printf 'package: %s\n' "$*" >&2; }
skip() { say "not tried in a minimal Debian root: $*"; exit 77; }
die() { say "$*"; exit 1; }

# The machine's own mirror of Debian.
find_mirror() {
  # shellcheck disable=SC2016  # expanded by apt-get
  apt-get indextargets --format '$(SITE) $(ORIGIN) $(CODENAME) $(COMPONENT)' 'Created-By: Packages' |
    awk -v release="$release" '$2 == "Debian" && $3 == release && $4 == "main" { print $1; exit }'
}

# make_root FOLDER COMMAND...: COMMAND fills FOLDER.new, which is moved into place when it is whole.
make_root() {
  local folder=$1 log=$roots/log
  shift
  [ -d "$folder" ] && return
  rm -rf --one-file-system "$folder.new"
  "$@" "$folder.new" >"$log" 2>&1 || { tail -n 3 "$log" >&2; die "$1 failed; its output is in .deps/minimal-root/log"; }
  mv "$folder.new" "$folder"
}

bootstrap() {
  debootstrap --variant=minbase "$release" "$1" "$(find_mirror)"
}

# The packages that DEPENDS names, by their names alone: dpkg looks at the versions later.
add_dependencies() {
  cp -a "$roots/base" "$1"
  # shellcheck disable=SC2046  # a list of names
  DEBIAN_FRONTEND=noninteractive chroot "$1" apt-get install -y --no-install-recommends \
    $(sed -e 's/ *([^)]*)//g' -e 's/,/ /g' <<<"$depends")
  chroot "$1" apt-get clean
}

# Runs in the mount namespace: a layer over ROOT with both packages in it.
try_packages() {
  local root=$1 tgz=$2 deb=$3 scratch=$4 tree
  mount -t tmpfs -o mode=755 tavrel "$scratch"
  mkdir "$scratch/upper" "$scratch/work" "$scratch/root"
  mount -t overlay overlay -o "lowerdir=$root,upperdir=$scratch/upper,workdir=$scratch/work" "$scratch/root"
  root=$scratch/root
  mount -t proc proc "$root/proc"
  mount --bind /dev "$root/dev"
  cp "$deb" "$root/tavrel.deb"
  chroot "$root" dpkg --install /tavrel.deb >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; die "dpkg --install failed"; }
  for tree in "$root/srv/one" "$root/srv/zwei Bäume"; do
    mkdir "$tree"
    tar -C "$tree" --no-same-owner -xzf "$tgz"
  done
  mount --bind "$root/srv" "$root/srv"
  mount -o remount,bind,ro "$root/srv"
  cp "$top/scripts/package/try_modes.sh" "$root/try_modes.sh"
  for tree in /usr "/srv/one/$(basename "$tgz" .tar.gz)" "/srv/zwei Bäume/$(basename "$tgz" .tar.gz)"; do
    chroot --userspec=nobody:nogroup "$root" /usr/bin/env -i PATH=/usr/bin:/bin TAVREL_CRASH=1 \
      /bin/sh /try_modes.sh "$tree/bin/tavrel" || die "$tree does not run in the minimal root (above)"
  done
  chroot "$root" dpkg --purge tavrel >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; die "dpkg --purge failed"; }
  [ ! -e "$root/opt/tavrel" ] || die "dpkg --purge left $(find "$root/opt/tavrel" | wc -l) files in /opt/tavrel"
}

if [ "${1:-}" = --in-namespace ]; then
  shift
  try_packages "$@"
  exit
fi

tgz=$(realpath "$1") deb=$(realpath "$2")
[ "$(id -u)" -eq 0 ] || skip "chroot needs root; run this as root"
command -v debootstrap >/dev/null || skip "debootstrap is missing: apt-get install debootstrap"
unshare --mount true 2>/dev/null || skip "this machine allows no mount namespace"
depends=$(dpkg-deb --field "$deb" Depends)
mkdir -p "$roots"
make_root "$roots/base" bootstrap
with_dependencies=$roots/with-$(sha256sum <<<"$depends" | cut -c 1-16)
make_root "$with_dependencies" add_dependencies

scratch=$(mktemp -d)
trap 'rmdir "$scratch"' EXIT
unshare --mount --propagation private "${BASH_SOURCE[0]}" --in-namespace "$with_dependencies" "$tgz" "$deb" "$scratch"
say "both packages run in a minimal Debian root, read-only, for a user who does not own them"
