#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails on a relative link of a tracked Markdown file that leads nowhere:
# every [text](path) and [text](path#anchor) must name a file or folder of
# the tree.
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
done < <(git ls-files '*.md')
exit $status
