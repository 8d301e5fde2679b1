#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes (once) a sysroot of Debian's libraries for a foreign architecture:
# the C and C++ runtimes and the -dev packages the library and its tests
# build against, extracted from the archive, never installed on the host.
# The compiler, the linker and qemu-user all take their libraries from it,
# so that one glibc build serves the whole program.
#   tools/cross-sysroot.sh ARCH DIRECTORY
# A sysroot made from the same list of packages is kept; one made from
# another list, or left half-made, is made anew.
#
# The sysroot's dpkg database (var/lib/dpkg) records the extracted packages
# with their shlibs and symbols files, their files named by their path on
# this machine (the sysroot's path in front): dpkg-shlibdeps, given it as
# DPKG_ADMINDIR and the sysroot's library folders as LD_LIBRARY_PATH, finds
# the package of each library a cross-built program needs.
set -euo pipefail

# Called by mmdebstrap's extract hook with the new sysroot, while the
# downloaded packages are still in its apt cache.
if [ "$1" = --register ]; then
  root=$2
  admin="$root/var/lib/dpkg"
  real=$(cd "$root" && pwd)
  control=$(mktemp -d)
  # Info files named <package>:<architecture> where Multi-Arch says same.
  echo 1 >"$admin/info/format"
  for deb in "$root"/var/cache/apt/archives/*.deb; do
    package=$(dpkg-deb -f "$deb" Package)
    name=$package
    [ "$(dpkg-deb -f "$deb" Multi-Arch)" = same ] && name="$package:$(dpkg-deb -f "$deb" Architecture)"
    { dpkg-deb -f "$deb" | grep -v '^Status:'; echo "Status: install ok installed"; echo; } >>"$admin/status"
    rm -rf "$control" && mkdir "$control"
    dpkg-deb -e "$deb" "$control"
    for file in shlibs symbols; do
      [ -e "$control/$file" ] && cp "$control/$file" "$admin/info/$name.$file"
    done
    dpkg-deb --fsys-tarfile "$deb" | tar -t | sed -e 's|^\./|/|' -e 's|/$||' |
      grep -v '^/\?$' | sed "s|^|$real|" >"$admin/info/$name.list"
  done
  rm -rf "$control"
  exit 0
fi

arch=$1
dir=$2
packages=(
  libc6-dev libstdc++-12-dev
  libcurl4-openssl-dev libzip-dev zlib1g-dev libxml2-dev libsqlite3-dev
  libxmlsec1-dev libssl-dev
  libgtest-dev libgmock-dev nlohmann-json3-dev
)
stamp="$dir/.complete"
made="${packages[*]}, with its dpkg database, relative links"
[ "$(cat "$stamp" 2>/dev/null)" = "$made" ] && exit 0
# The same mirror and suite as the host's own package sources.
mirror=$(grep -hE '^(URIs:|deb )' /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null |
  grep -v -- '-security' | head -1 | sed -E 's/^deb +(\[[^]]*\] +)?//; s/^URIs: *//; s/ .*//' || true)
suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
[ -n "$mirror" ] || mirror=http://deb.debian.org/debian

rm -rf "$dir"
mkdir -p "$(dirname "$dir")"
echo "cross-sysroot: $arch from $mirror $suite into $dir"
# extract: the packages and what they depend on are unpacked, no maintainer
# script runs, nothing foreign executes.
mmdebstrap --quiet --mode=auto --variant=extract --architectures="$arch" \
  --include="$(IFS=,; echo "${packages[*]}")" \
  --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
  --dpkgopt='path-exclude=/usr/share/locale/*' \
  --extract-hook="bash '$(cd "$(dirname "$0")" && pwd)/cross-sysroot.sh' --register \"\$1\"" \
  "$suite" "$dir" "$mirror"
# Links that name an absolute path (libz.so -> /lib/<triplet>/libz.so.1...)
# would lead out of the sysroot, into this machine's libraries or nowhere: a
# broken libz.so has the linker take libz.a instead. They are made relative.
find "$dir" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$dir$(readlink "$link")")" "$link"
done
# qemu-user looks a path up in the sysroot before the real file system: a
# sysroot /tmp or /dev would stand in front of the real ones.
rm -rf "$dir/tmp" "$dir/dev"
echo "$made" >"$stamp"
