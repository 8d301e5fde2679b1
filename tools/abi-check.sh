#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares a built libwidgetengine.so.1 with the ABI of release 1.0, kept in
# packaging/abi/ as abidw wrote it from the 1.0 library (gzipped):
#
#   abidw --no-corpus-path --no-show-locs --no-comp-dir-path \
#     --drop-undefined-syms --type-id-style hash \
#     --headers-dir BUILD/include/widgetengine --drop-private-types \
#     --out-file libwidgetengine1-1.0-amd64.abi BUILD/libwidgetengine.so.1.0
#
# Fails on a change that breaks a program built against 1.0 (a symbol
# removed, a type or a virtual table changed); an addition is reported and
# passes. The tools' private facade (engine/ToolsFacade.h, the Name::* lines
# of engine/widgetengine.map) is left out: it may change in any release.
# The reference is of amd64; a library of another architecture is skipped
# (exit status 77).
#
# Usage: tools/abi-check.sh LIBRARY PUBLIC-HEADERS-DIR
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
library=$1
headers=$2
reference="$source_dir/packaging/abi/libwidgetengine1-1.0-amd64.abi.gz"

machine=$(LC_ALL=C readelf -h "$library" | sed -n 's/^ *Machine: *//p')
if [ "$machine" != "Advanced Micro Devices X86-64" ]; then
  echo "abi-check: the reference ABI is amd64's; $library is for $machine: skipped"
  exit 77
fi

work=$(mktemp -d /tmp/widgetengine-abi-XXXXXX)
trap 'rm -rf "$work"' EXIT
gzip -dc "$reference" >"$work/reference.abi"
private=$(sed -n 's/^ *\([A-Za-z0-9_]*\)::\*;$/\1/p' "$source_dir/engine/widgetengine.map" |
          grep -vx -e WidgetEngineDelegate -e WidgetsData | paste -sd'|')
cat >"$work/private.suppr" <<SUPPR
[suppress_function]
  name_regexp = ^($private)::
[suppress_variable]
  name_regexp = ^($private)::
SUPPR

status=0
abidiff --drop-private-types --headers-dir2 "$headers" \
  --suppressions "$work/private.suppr" "$work/reference.abi" "$library" || status=$?
# abidiff's status is a bit mask: 1 error, 2 usage, 4 a change, 8 a change
# that breaks compatibility.
if [ $((status & 11)) -ne 0 ]; then
  echo "abi-check: $library is not compatible with libwidgetengine 1.0 (abidiff status $status)" >&2
  exit 1
fi
echo "abi-check: $library keeps the ABI of libwidgetengine 1.0"
