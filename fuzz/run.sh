#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every fuzz target of BUILD for SECONDS each, one after the other.
# Each target starts from its seeds and from what earlier runs kept in
# BUILD/corpus/<target>/ (new inputs are added there); a crash, leak,
# timeout (over 2 s an input) or memory blow-up (over 512 MB) is written to
# BUILD/findings/<target>/. Prints one line per target: CPU seconds,
# executions, coverage (edges) and findings, and adds the CPU seconds and
# executions to BUILD/totals/<target> (all runs so far); exits 1 when any
# target found something.
#
# Usage: fuzz/run.sh BUILD SECONDS [TARGET...]   (all targets when none named)
set -uo pipefail
build=${1:?build directory}
seconds=${2:?seconds per target}
shift 2
only=("$@")
# Absolute: removing an unpacked tree moves the process's working directory.
build=$(cd "$build" && pwd)
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
status=0
summary=()
for program in "$build"/*_fuzzer; do
  [ -x "$program" ] || continue
  target=$(basename "$program" _fuzzer)
  if [ ${#only[@]} -gt 0 ] && [[ " ${only[*]} " != *" $target "* ]]; then continue; fi
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  log="$build/logs/$target.log"
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  dict=()
  case "$target" in
    config_parser|update_description) dict=(-dict="$source_dir/xml.dict") ;;
    extractor|install) dict=(-dict="$source_dir/zip.dict") ;;
    downloader) dict=(-dict="$source_dir/http.dict") ;;
    signature) dict=(-dict="$source_dir/xmldsig.dict") ;;
  esac
  before=$(find "$findings" -type f | wc -l)
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:quarantine_size_mb=16:malloc_context_size=5 \
    /usr/bin/time -f '%U %S' -o "$log.cpu" \
    "$program" "$corpus" "$build/seeds/$target" "${dict[@]}" \
    -max_total_time="$seconds" -timeout=2 -rss_limit_mb=512 \
    -artifact_prefix="$findings/" -print_final_stats=1 >"$log" 2>&1
  rc=$?
  cpu=$(awk 'END {printf "%d", $1 + $2}' "$log.cpu")
  after=$(find "$findings" -type f | wc -l)
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
  edges=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*')
  found=$((after - before))
  mkdir -p "$build/totals"
  total_cpu=0 total_runs=0
  [ -f "$build/totals/$target" ] && read -r total_cpu total_runs <"$build/totals/$target"
  total_cpu=$(( ${total_cpu:-0} + cpu ))
  total_runs=$(( ${total_runs:-0} + ${runs:-0} ))
  echo "$total_cpu $total_runs" >"$build/totals/$target"
  summary+=("$(printf '%-14s %6s CPU s %10s runs %6s edges %3s findings   (all runs: %s CPU s, %s runs)' \
    "$target" "$cpu" "${runs:-0}" "${edges:-0}" "$found" "$total_cpu" "$total_runs")")
  if [ "$rc" -ne 0 ] || [ "$found" -ne 0 ]; then
    status=1
    echo "fuzz: $target found something; see $log and $findings/" >&2
    tail -30 "$log" >&2
  fi
done
printf '%s\n' "${summary[@]}"
exit $status
