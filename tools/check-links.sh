#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails on a relative link of a tracked Markdown file that leads nowhere:
# every [text](path) and [text](path#anchor) must name a file or folder of
# the tree, and every source place a page names must exist.
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$source_dir"
status=0
while IFS= read -r page; do
  dir=$(dirname "$page")
  while IFS= read -r target; do
    case "$target" in http://*|https://*|mailto:*|\#*) continue ;; esac
    path=${target%%#*}
    if [ ! -e "$dir/$path" ]; then
      echo "check-links: $page links to $target, which does not exist" >&2
      status=1
    fi
  done < <(grep -o '\]([^)]*)' "$page" | sed 's/^](//; s/)$//')
  # A source place the page names in backquotes (`install/Extractor.cpp`,
  # or a class pair as `base/TreeRemover`) must still be there; a name in
  # capitals (`cmake/toolchains/ARCH.cmake`) stands for any.
  while IFS= read -r place; do
    case "$place" in *[A-Z][A-Z]*) continue ;; esac
    if [ ! -e "$place" ] && [ ! -e "$place.h" ] && [ ! -e "$place.cpp" ]; then
      echo "check-links: $page names $place, which does not exist" >&2
      status=1
    fi
  done < <(grep -o '`\(base\|engine\|registry\|install\|config\|query\|signature\|host\|tools\|bench\|fuzz\|testing\|docs\|packaging\|cmake\)/[A-Za-z0-9_./-]*`' "$page" |
           tr -d '`' | sort -u)
done < <(git ls-files '*.md')
exit $status
