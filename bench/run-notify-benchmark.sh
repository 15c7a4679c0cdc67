#!/bin/sh
# Runs the notification benchmark interleaved over repetitions and prints the
# figures per notification, their ratios to the raw GDBus subscription and,
# with 1,000 other subjects subscribed, to one subject alone, and what each
# further callback (or raw handler) costs.
# Usage: bench/run-notify-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
. bench/interleaved.sh
run_interleaved "${1:-build/default}" notify_benchmark "${2:-15}" 0.3 \
  --baseline "raw=BM_RawSignal/handlers:1" \
  --baseline "alone=BM_LumoraNotify/callbacks:{callbacks}/others:0/log:{log}" \
  --slope callbacks --slope handlers
