#!/bin/sh
# Runs the benchmark of asynchronous requests in flight interleaved over
# repetitions and prints the figures per request and their ratios to raw
# GDBus calls of the same batch size.
# Usage: bench/run-request-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
. bench/interleaved.sh
run_interleaved "${1:-build/default}" request_benchmark "${2:-15}" 0.3 \
  --baseline "raw=BM_RawRequest/requests:{requests}"
