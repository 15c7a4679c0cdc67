#!/bin/sh
# Runs the benchmark of subscriptions with the current value interleaved over
# repetitions and prints the ratios to raw GDBus: the first value against a
# subscribe-then-call by hand, the catch-up of 1,000 subscriptions after
# "HELLO" against 1,000 raw calls in flight together.
# Usage: bench/run-current-value-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
. bench/interleaved.sh
run_interleaved "${1:-build/default}" current_value_benchmark "${2:-10}" 0.3 \
  --baseline "raw=BM_RawSubscribeThenCall" \
  --baseline "inflight=BM_RawCallsInFlight/1000/iterations:20"
