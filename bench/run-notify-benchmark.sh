#!/bin/sh
# Runs the notification benchmark with its variants interleaved over
# repetitions, so that machine drift hits all of them alike, and prints the
# figures per notification, their ratios to the raw GDBus subscription and,
# with 1,000 other subjects subscribed, to one subject alone, and what each
# further callback (or raw handler) costs.
# Usage: bench/run-notify-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
reps=${2:-15}
out=$(mktemp /tmp/lumora-bench-XXXXXX.json)
"$build/bench/notify_benchmark" \
  --benchmark_repetitions="$reps" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_min_time=0.3 \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$out" --benchmark_out_format=json
python3 bench/ratios.py "$out" \
  --baseline "raw=BM_RawSignal/handlers:1" \
  --baseline "alone=BM_LumoraNotify/callbacks:{callbacks}/others:0/log:{log}" \
  --slope callbacks --slope handlers
rm -f "$out"
