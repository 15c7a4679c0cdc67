#!/bin/sh
# Runs the read benchmark interleaved over repetitions and prints the ratios
# to raw GDBus. Usage: bench/run-read-benchmark.sh [BUILD_DIR] [REPETITIONS]
set -eu
cd "$(dirname "$0")/.."
. bench/interleaved.sh
run_interleaved "${1:-build/default}" read_benchmark "${2:-15}" 0.5
