#!/usr/bin/env bash
# Runs every benchmark program of a build and keeps Google Benchmark's JSON
# of each as <out>/<area>.json (the program foo_bench writes foo.json).
set -euo pipefail
build=$1
out=$2
mkdir -p "$out"
for program in "$build"/*_bench; do
  [ -x "$program" ] || continue
  area=$(basename "$program")
  area=${area%_bench}
  echo "== $area"
  "$program" --benchmark_out="$out/$area.json" --benchmark_out_format=json
done
