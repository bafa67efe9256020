#!/bin/sh
# Runs every benchmark of a Google Benchmark program once, for a minimal time,
# and fails when any of them reports an error or the program fails.
set -eu
bench="$1"
out="${TMPDIR:-/tmp}/kest_bench_once.$$.json"
trap 'rm -f "$out"' EXIT
"$bench" --benchmark_min_time=0.001 --benchmark_repetitions=1 \
  --benchmark_out="$out" --benchmark_out_format=json >/dev/null
if grep -q '"error_occurred": true' "$out"; then
  grep -B2 -A2 '"error_message"' "$out" >&2
  exit 1
fi
count="$(grep -c '"run_name"' "$out" || true)"
echo "$count benchmark runs, none failed"
