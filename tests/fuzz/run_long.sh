#!/usr/bin/env bash
# Runs all or the given fuzz targets for SECONDS each and prints the number of executed inputs. Exits with an
# error when a target fails; the input is then in BUILD/tests/fuzz/crashes.
#
# Usage: tests/fuzz/run_long.sh SECONDS [TARGET...]
# Variables: BUILD (default build/fuzz), JOBS (concurrent targets, default 2). Build the preset `fuzz` and run
# its test `fuzz.seeds` first: ctest --preset fuzz
set -euo pipefail

seconds=${1:?seconds for each target}
shift
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
folder=${BUILD:-$root/build/fuzz}/tests/fuzz
mkdir -p -- "$folder/crashes" "$folder/logs"
export seconds folder

run_target() {
  local target=$1 max_bytes=$2 log=$folder/logs/$1.log begin=$SECONDS status=0
  mkdir -p -- "$folder/found/$target"
  "$folder/fuzz_$target" -max_total_time="$seconds" -max_len="$max_bytes" -timeout=20 -rss_limit_mb=1024 \
    -print_final_stats=1 -artifact_prefix="$folder/crashes/$target-" \
    "$folder/found/$target" "$folder/seeds/$target" >"$log" 2>&1 || status=$?
  local executions
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  printf '%-14s %5d s %12s executions  %s\n' "$target" $((SECONDS - begin)) "${executions:-unknown}" \
    "$([[ $status -eq 0 ]] && echo passed || echo "FAILED, see $log")"
  return "$status"
}
export -f run_target

# xargs ends with 123 when any of the runs fails.
while read -r target max_bytes; do
  if [[ $# -eq 0 || " $* " == *" $target "* ]]; then
    printf '%s\0%s\0' "$target" "$max_bytes"
  fi
done <"$folder/targets.txt" | xargs -0 -n 2 -P "${JOBS:-2}" bash -c 'set -euo pipefail; run_target "$@"' run
