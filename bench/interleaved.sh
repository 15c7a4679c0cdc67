# Sourced by the Google Benchmark scripts: runs one benchmark program with its
# variants interleaved over repetitions, so that machine drift hits all of
# them alike, and prints bench/ratios.py's tables of the results.
# Usage: run_interleaved BUILD_DIR PROGRAM REPETITIONS MIN_TIME [RATIOS_ARGS...]
run_interleaved() {
  build=$1
  program=$2
  reps=$3
  min_time=$4
  shift 4
  out=$(mktemp /tmp/lumora-bench-XXXXXX.json)
  "$build/bench/$program" \
    --benchmark_repetitions="$reps" \
    --benchmark_enable_random_interleaving=true \
    --benchmark_min_time="$min_time" \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$out" --benchmark_out_format=json
  python3 bench/ratios.py "$out" "$@"
  rm -f "$out"
}
