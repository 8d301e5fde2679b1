#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every benchmark program of a build: bench/<area>_bench.cpp is built as
# <area>_bench, prints its table and writes Google Benchmark's JSON to
# <outdir>/<area>.json.
set -euo pipefail
build=${1:?build directory}
outdir=${2:?output directory}
mkdir -p "$outdir"
outdir=$(cd "$outdir" && pwd)
status=0
for program in "$build"/*_bench; do
  [ -x "$program" ] || continue
  area=$(basename "$program" _bench)
  echo "== $area =="
  # The browser benchmark shows pages: on a machine without a display it
  # gets a virtual one.
  runner=()
  if [ "$area" = browser ] && [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    runner=(xvfb-run -a -n 611 -s "-screen 0 1280x1024x24 -noreset")
  fi
  "${runner[@]}" "$program" --benchmark_out="$outdir/$area.json" --benchmark_out_format=json \
    --benchmark_counters_tabular=true || status=$?
done
exit $status
