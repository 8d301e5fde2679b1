#!/usr/bin/env bash
# Runs every benchmark program of a build tree; each writes Google
# Benchmark's JSON to <out>/<area>.json beside its console report.
# Usage: bench/run.sh <build dir> <out dir>
set -euo pipefail
build=$1
out=$2
mkdir -p "$out"
status=0
for program in "$build"/*_bench; do
  [ -x "$program" ] || continue
  area=$(basename "$program" _bench)
  echo "== $area"
  "$program" --benchmark_out="$out/$area.json" --benchmark_out_format=json || status=1
done
exit $status
