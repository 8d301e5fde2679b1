#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages of the committed tree into BUILD/ with CPack.
# A tree with uncommitted changes, or a machine without the Debian tools,
# gets one line that says what is missing.
#
# Usage: tools/package.sh BUILD [ARCH]
# With ARCH (arm64, armhf, s390x), the packages are cross-built for it
# against the sysroot of `make cross ARCH=...`.
set -euo pipefail
build=${1:-build-package}
arch=${2:-}
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
[ "$arch" = "$(dpkg --print-architecture)" ] && arch=

for tool in dpkg-deb dpkg-shlibdeps fakeroot; do
  if ! command -v "$tool" >/dev/null; then
    echo "package: $tool is missing; install dpkg-dev and fakeroot (apt-get install dpkg-dev fakeroot)" >&2
    exit 1
  fi
done
if [ -n "$(git -C "$source_dir" status --porcelain --untracked-files=normal 2>/dev/null)" ]; then
  echo "package: the tree has uncommitted changes; commit or stash them first (git status)" >&2
  exit 1
fi

cross=()
library_path=
if [ -n "$arch" ]; then
  bash "$source_dir/tools/setup-cross.sh" "$arch"
  sysroot="$source_dir/build-cross/sysroot-$arch"
  bash "$source_dir/tools/cross-sysroot.sh" "$arch" "$sysroot"
  multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
  # The multiarch library folder, as a native build on Debian gets it.
  cross=(-DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/toolchains/$arch.cmake"
         -DCMAKE_SYSROOT="$sysroot" -DCMAKE_INSTALL_LIBDIR="lib/$multiarch")
  # dpkg-shlibdeps looks the libraries up in the sysroot and their packages
  # in the sysroot's dpkg database (tools/cross-sysroot.sh).
  library_path=":$sysroot/lib/$multiarch:$sysroot/usr/lib/$multiarch"
  export DEB_HOST_ARCH="$arch" DPKG_ADMINDIR="$sysroot/var/lib/dpkg"
fi

cmake -S "$source_dir" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF -DWIDGETENGINE_WERROR=ON \
  ${cross[@]+"${cross[@]}"} >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
# dpkg-shlibdeps finds the library that widget-browser links in the build
# tree (it searches LD_LIBRARY_PATH); the dependency on its package is
# written in the control data, as the library's package is built alongside.
(cd "$build" && LD_LIBRARY_PATH="$(pwd)$library_path" cpack -G DEB >/dev/null)
ls "$build"/*.deb
