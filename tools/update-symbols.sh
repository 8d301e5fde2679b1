#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Writes packaging/libwidgetengine1.symbols anew from a built library: every
# exported symbol of the interface by its C++ name (or its C name), with the
# version that first had it, and one optional pattern per namespace of the tools'
# private facade (engine/ToolsFacade.h; it may change in any release, and
# widgetctl depends on exactly its library's version). A symbol already in
# the file keeps its version; a new one gets VERSION (default: the project's
# version). tools/package.sh checks the file against the library with
# dpkg-gensymbols, which fails on any difference.
#
# Usage: tools/update-symbols.sh [LIBRARY [VERSION]]
#        (default LIBRARY: build/libwidgetengine.so.1)
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
library=${1:-$source_dir/build/libwidgetengine.so.1}
version=${2:-$(sed -n 's/^project(widgetengine VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")}
symbols="$source_dir/packaging/libwidgetengine1.symbols"
map="$source_dir/engine/widgetengine.map"
[ -r "$library" ] || { echo "update-symbols: no library at $library; run make build first" >&2; exit 1; }

# The tools' facade: the Name::* lines of the version script other than the
# interface's two classes.
private=$(sed -n 's/^ *\([A-Za-z0-9_]*\)::\*;$/\1/p' "$map" |
          grep -vx -e WidgetEngineDelegate -e WidgetsData | paste -sd'|')

declare -A known
if [ -f "$symbols" ]; then
  while IFS= read -r line; do
    case "$line" in " "*) ;; *) continue ;; esac
    entry=${line% *}
    known[$entry]=${line##* }
  done <"$symbols"
fi

entries=$(nm -D --defined-only "$library" | awk '{print $3}' | sort -u |
  while read -r raw; do
    name=$(c++filt "$raw")
    if [[ "$name" =~ ^($private):: ]]; then continue; fi
    if [ "$name" != "$raw" ]; then entry=" (c++)\"$name@Base\""; else entry=" $raw@Base"; fi
    echo "$entry ${known[$entry]:-$version}"
  done | LC_ALL=C sort -u)

{
  echo "libwidgetengine.so.1 libwidgetengine1 #MINVER#"
  echo "* Build-Depends-Package: libwidgetengine-dev"
  echo "$entries"
  for class in ${private//|/ }; do
    entry=" (c++|regex|optional)\"^$class::\""
    echo "$entry ${known[$entry]:-$version}"
  done
} >"$symbols"
echo "update-symbols: wrote $symbols"
