#!/bin/sh
# Runs the read benchmark with its variants interleaved over repetitions, so
# that machine drift hits all of them alike, and prints the ratios to raw
# GDBus. Usage: bench/run-read-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
reps=${2:-15}
out=$(mktemp /tmp/lumora-bench-XXXXXX.json)
"$build/bench/read_benchmark" \
  --benchmark_repetitions="$reps" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_min_time=0.5 \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$out" --benchmark_out_format=json
python3 bench/ratios.py "$out"
rm -f "$out"
