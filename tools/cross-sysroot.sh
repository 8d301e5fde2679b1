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
set -euo pipefail
arch=$1
dir=$2
packages=(
  libc6-dev libstdc++-12-dev
  libcurl4-openssl-dev libzip-dev zlib1g-dev libxml2-dev libsqlite3-dev
  libgtest-dev libgmock-dev nlohmann-json3-dev
)
stamp="$dir/.complete"
[ "$(cat "$stamp" 2>/dev/null)" = "${packages[*]}" ] && exit 0
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
  "$suite" "$dir" "$mirror"
# qemu-user looks a path up in the sysroot before the real file system: a
# sysroot /tmp or /dev would stand in front of the real ones.
rm -rf "$dir/tmp" "$dir/dev"
echo "${packages[*]}" >"$stamp"
