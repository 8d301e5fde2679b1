#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fills OUT/<target>/ with the seed corpora: what make_seeds builds, and the
# packages, configuration documents and signature documents of the shared
# corpus (read where it is, ../shared/corpus beside the repository, never
# copied into it).
#
# Usage: fuzz/seeds.sh BUILD OUT
set -euo pipefail
build=${1:?build directory}
out=${2:?output directory}
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
corpus=${WIDGETENGINE_CORPUS:-$source_dir/../shared/corpus}

rm -rf "$out"
"$build/make_seeds" "$out"
if [ -d "$corpus" ]; then
  n=0
  while IFS= read -r -d '' file; do
    n=$((n + 1))
    cp "$file" "$out/extractor/corpus$n.wgt"
    cp "$file" "$out/install/corpus$n.wgt"
  done < <(find "$corpus" -name '*.wgt' -size -2M -print0)
  # The signature documents at a package's root, as the author's and,
  # after a "d", as a distributor's.
  n=0
  while IFS= read -r -d '' file; do
    while IFS= read -r name; do
      n=$((n + 1))
      unzip -p "$file" "$name" >"$out/signature/corpus$n.xml" || continue
      { printf d; cat "$out/signature/corpus$n.xml"; } >"$out/signature/corpus$n-d.xml"
    done < <(unzip -Z1 "$file" 2>/dev/null | grep -E '^(author-signature|signature[1-9][0-9]*)\.xml$' || true)
  done < <(find "$corpus" -name '*.wgt' -size -2M -print0)
  n=0
  while IFS= read -r -d '' file; do
    n=$((n + 1))
    cp "$file" "$out/config_parser/corpus$n.xml"
  done < <(find "$corpus" -name 'config.xml' -size -1M -print0)
else
  echo "seeds: no corpus at $corpus; only the built seeds are used" >&2
fi
