#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that the build asks for the CMake release it really needs: no
# command, keyword or module of a release after the one cmake_minimum_required
# names (3.13) is used. Each pattern is a feature added after 3.13, with the
# release that added it (from the cmake-commands and cmake-modules manuals).
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
files=("$source_dir/CMakeLists.txt" "$source_dir"/engine/*.cmake.in)
declared=$(grep -o 'cmake_minimum_required(VERSION [0-9.]*' "$source_dir/CMakeLists.txt" | grep -o '[0-9.]*$')
later=(
  '3.14:RUNTIME_DEPENDENC'
  '3.14:file\(CREATE_LINK'
  '3.15:\$<COMPILE_LANG_AND_ID'
  '3.16:target_precompile_headers'
  '3.17:\bFindCUDAToolkit\b'
  '3.18:file\(ARCHIVE_'
  '3.18:\bcheck_linker_flag\b'
  '3.19:FILE_PERMISSIONS'
  '3.19:\bcmake_language\b'
  '3.20:cmake_path\('
  '3.21:file\(COPY_FILE'
  '3.23:FILE_SET'
  '3.24:\$<LINK_LIBRARY'
  '3.25:^block\('
)
status=0
for entry in "${later[@]}"; do
  version=${entry%%:*}
  pattern=${entry#*:}
  if grep -nE "$pattern" "${files[@]}" >/dev/null; then
    echo "cmake-features: $(grep -nE "$pattern" "${files[@]}" | head -1) needs CMake $version, above $declared" >&2
    status=1
  fi
done
[ "$declared" = 3.13 ] || { echo "cmake-features: update this list for $declared" >&2; status=1; }
exit $status
