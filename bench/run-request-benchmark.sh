#!/bin/sh
# Runs the benchmark of asynchronous requests in flight with its variants
# interleaved over repetitions, so that machine drift hits all of them alike,
# and prints the figures per request and their ratios to raw GDBus calls of
# the same batch size.
# Usage: bench/run-request-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
reps=${2:-15}
out=$(mktemp /tmp/lumora-bench-XXXXXX.json)
"$build/bench/request_benchmark" \
  --benchmark_repetitions="$reps" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_min_time=0.3 \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$out" --benchmark_out_format=json
python3 bench/ratios.py "$out" --baseline "raw=BM_RawRequest/requests:{requests}"
rm -f "$out"
