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

# Debian's build flags, with every hardening feature: stack protector,
# fortified functions, read-only relocations and immediate binding (CMake
# reads no CPPFLAGS, so they join the compiler flags). dpkg-buildflags
# answers for the host architecture, a cross build's too.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
cppflags=$(dpkg-buildflags --get CPPFLAGS)
ldflags=$(dpkg-buildflags --get LDFLAGS)
cmake -S "$source_dir" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF -DWIDGETENGINE_WERROR=ON \
  -DCMAKE_C_FLAGS="$(dpkg-buildflags --get CFLAGS) $cppflags" \
  -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CXXFLAGS) $cppflags" \
  -DCMAKE_EXE_LINKER_FLAGS="$ldflags" -DCMAKE_SHARED_LINKER_FLAGS="$ldflags" \
  -DCMAKE_MODULE_LINKER_FLAGS="$ldflags" ${cross[@]+"${cross[@]}"} >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
# The library exports what its symbols file says, no more and no less
# (tools/update-symbols.sh writes the file anew after a deliberate change);
# the package carries the list that dpkg-gensymbols makes of it.
version=$(dpkg-parsechangelog -l "$source_dir/packaging/changelog" -S Version)
if ! dpkg-gensymbols -plibwidgetengine1 -v"$version" \
     -P"$build/packaging" -e"$build/libwidgetengine.so.1" \
     -I"$source_dir/packaging/libwidgetengine1.symbols" \
     -O"$build/packaging/symbols" -c4; then
  echo "package: libwidgetengine.so.1 does not export what packaging/libwidgetengine1.symbols says; after a deliberate change run tools/update-symbols.sh $build/libwidgetengine.so.1" >&2
  exit 1
fi
# dpkg-shlibdeps finds the library that widget-browser links in the build
# tree (it searches LD_LIBRARY_PATH); the dependency on its package is
# written in the control data, as the library's package is built alongside.
(cd "$build" && LD_LIBRARY_PATH="$(pwd)$library_path" cpack -G DEB >/dev/null)
# CPack's debug-symbols packages list build-tree paths in their md5sums and
# lack the link that points their documentation to their package's, as
# Debian's have (usr/share/doc/P-dbgsym -> P): both are put right here.
for ddeb in "$build"/*-dbgsym_*.ddeb; do
  tree="$build/ddeb-tree"
  rm -rf "$tree"
  dpkg-deb -R "$ddeb" "$tree"
  package=$(dpkg-deb -f "$ddeb" Package)
  mkdir -p "$tree/usr/share/doc"
  ln -s "${package%-dbgsym}" "$tree/usr/share/doc/$package"
  find "$tree/usr/lib/debug" -type f -exec chmod 0644 {} +
  (cd "$tree" && find usr -type f | LC_ALL=C sort | xargs md5sum) >"$tree/DEBIAN/md5sums"
  chmod 0644 "$tree/DEBIAN/md5sums"
  dpkg-deb --root-owner-group --build "$tree" "$ddeb" >/dev/null
  rm -rf "$tree"
done
ls "$build"/*.deb "$build"/*.ddeb 2>/dev/null || true
