#!/usr/bin/env bash
# package.sh: sets up what is missing, makes the TGZ, the DEB, an image of the tree and an archive of the
# launcher alone in build/package, with their SHA256SUMS, and checks them: what they hold, that a second
# build in another folder gives the same bytes, and that they run in a minimal Debian. Times in the
# packages are SOURCE_DATE_EPOCH, the last commit's unless it is set.
set -euo pipefail
# shellcheck source=scripts/setup/help.sh
. "$(dirname "${BASH_SOURCE[0]}")/setup/help.sh"
[ $# -eq 0 ] || refuse "$1"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
say() { printf 'package: %s\n' "$*" >&2; }
die() { say "$*"; exit 1; }

if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null) ||
    die "this is no git clone: set SOURCE_DATE_EPOCH to the release's date in seconds (date +%s)"
fi
export SOURCE_DATE_EPOCH
scripts/setup.sh package

# Two at once would build over one another. A compiler cache that is started may keep a descriptor.
mkdir -p build
exec 9>build/package.lock
flock --nonblock 9 || { say "waiting for another package.sh"; flock 9; }

# make_launcher FOLDER: the archive of the launcher alone, from the build in FOLDER.
make_launcher() {
  local name
  name=$(basename "$1"/tavrel-[0-9]*.tar.gz .tar.gz)
  name=tavrel-launcher-${name#tavrel-}
  cmake --install "$1" --component launcher --prefix "$1/launcher/$name" &&
    tar --create --sort=name --format=ustar --numeric-owner --owner=0 --group=0 \
      --mtime="@$SOURCE_DATE_EPOCH" --directory "$1/launcher" "$name" | gzip -9n >"$1/$name.tar.gz"
}

# make_packages FOLDER: a build from nothing with its packages, in FOLDER. cpack writes its umask into
# the DEB.
make_packages() {
  local log=$1.log
  rm -rf "$1"
  mkdir -p "$(dirname "$1")"
  { cmake --preset release -B "$1" -D BUILD_TESTING=OFF && cmake --build "$1" &&
    (umask 022 && cd "$1" && cpack) && (umask 022 && make_launcher "$1"); } >"$log" 2>&1 9>&- || { tail -n 20 "$log" >&2; die "can't make the packages; see $log"; }
}

first=build/package second=build/package-again
say "building twice"
make_packages "$first"
# Whatever the builder's machine brings along must not matter, and no compiler cache may answer.
(umask 077 && export TZ=Pacific/Auckland LC_ALL=C CCACHE_DISABLE=1 && make_packages "$second")

tgz=$(echo "$first"/tavrel-[0-9]*.tar.gz) deb=$(echo "$first"/tavrel_*.deb)
launcher=$(echo "$first"/tavrel-launcher-*.tar.gz)
for package in "$tgz" "$deb" "$launcher"; do
  cmp "$package" "$second/$(basename "$package")" ||
    die "two builds differ in $(basename "$package"): compare what $first and $second hold"
done
say "two builds give the same bytes"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
tar -C "$scratch" -xzf "$tgz"
# The tree as one file, for nodes that share a file system. Times and owners are the TGZ's.
image=${tgz%.tar.gz}.squashfs
mksquashfs "$scratch/$(basename "$tgz" .tar.gz)" "$image" -noappend -quiet -no-progress -comp zstd \
  -all-root -no-xattrs >&2
# A tree without the launcher's files, into which the launcher's archive is unpacked, is the TGZ's again:
# what is looked at below holds for it, too.
tree=$scratch/$(basename "$tgz" .tar.gz)
cp -a "$tree" "$scratch/merged"
tar -xzOf "$launcher" --wildcards '*/MANIFEST.launcher' >"$scratch/launcher-files"
(cd "$scratch/merged" && cut -c 67- "$scratch/launcher-files" | xargs -d '\n' rm --)
tar -C "$scratch/merged" --strip-components=1 -xzf "$launcher"
(cd "$scratch/merged" && sha256sum --check --strict --quiet "$scratch/launcher-files" && rm MANIFEST.launcher)
diff -r --no-dereference "$tree" "$scratch/merged" >&2 || die "the launcher's archive does not complete the tree (above)"

mkdir "$scratch/deb"
dpkg-deb --extract "$deb" "$scratch/deb"
# The working folder as it is written, and as it is when links are followed.
for unpacked in "$scratch/$(basename "$tgz" .tar.gz)" "$scratch/deb"; do
  python3 -B scripts/package/check_package.py --build "$first" --depends "$(dpkg-deb --field "$deb" Depends)" \
    --build-place "$PWD" --build-place "$(pwd -P)" --home "$HOME" "$unpacked" >&2
done
desktop-file-validate "$scratch/deb/usr/share/applications/tavrel.desktop"
appstreamcli validate --no-net "$scratch/deb/usr/share/metainfo/com.zendrik.tavrel.metainfo.xml" >&2

lintian --fail-on error "$deb" >&2 ||
  die "lintian objects (above); what has a reason goes into packaging/lintian-overrides"

status=0
scripts/package/try_in_minimal_root.sh "$tgz" "$deb" || status=$?
[ "$status" -eq 0 ] || [ "$status" -eq 77 ] || exit 1
rm -rf "$second" "$second.log"
made=("$tgz" "$deb" "$launcher" "$image")
(cd "$first" && sha256sum "${made[@]##*/}" >SHA256SUMS)
ls -l "${made[@]}" "$first/SHA256SUMS"
