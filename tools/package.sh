#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages of the committed tree into BUILD/ with CPack.
# A tree with uncommitted changes, or a machine without the Debian tools,
# gets one line that says what is missing.
#
# Usage: tools/package.sh BUILD
set -euo pipefail
build=${1:-build-package}
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

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

cmake -S "$source_dir" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF -DWIDGETENGINE_WERROR=ON >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
# dpkg-shlibdeps finds the library that widget-browser links in the build
# tree (it searches LD_LIBRARY_PATH); the dependency on its package is
# written in the control data, as the library's package is built alongside.
(cd "$build" && LD_LIBRARY_PATH="$(pwd)" cpack -G DEB >/dev/null)
ls "$build"/*.deb
