#!/bin/sh
# Compares the notification cost of two builds (another tree's and this
# one's, for instance the release before a change): their notify benchmarks
# run alternately, and each run prints the wall and CPU time per notification
# of one plain subscription and its ratio to one raw GDBus handler measured in
# the same run, so that machine drift between runs cancels out.
# Usage: bench/run-notify-ab.sh BUILD_DIR_A BUILD_DIR_B [ROUNDS]
set -eu
a=$1
b=$2
rounds=${3:-6}
filter='BM_RawSignal/handlers:1/|BM_LumoraNotify/callbacks:1/others:0/log:0'
out=$(mktemp /tmp/lumora-bench-XXXXXX.json)
trap 'rm -f "$out"' EXIT
round=0
while [ "$round" -lt "$rounds" ]; do
  round=$((round + 1))
  for build in "$a" "$b"; do
    "$build/bench/notify_benchmark" --benchmark_filter="$filter" --benchmark_min_time=0.5 \
      --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
      --benchmark_enable_random_interleaving=true --benchmark_out="$out" --benchmark_out_format=json >/dev/null
    python3 - "$out" "$build" <<'PY'
import json
import sys

rows = {b["run_name"].split("/process_time")[0]: b
        for b in json.load(open(sys.argv[1]))["benchmarks"] if b.get("aggregate_name") == "median"}
raw = rows["BM_RawSignal/handlers:1"]
lumora = rows["BM_LumoraNotify/callbacks:1/others:0/log:0"]
print(f"{sys.argv[2]}: raw {raw['wall_ns']:.0f} ns wall {raw['cpu_ns']:.0f} ns cpu; "
      f"library {lumora['wall_ns']:.0f} ns wall {lumora['cpu_ns']:.0f} ns cpu; "
      f"ratio {lumora['wall_ns'] / raw['wall_ns']:.3f} wall {lumora['cpu_ns'] / raw['cpu_ns']:.3f} cpu")
PY
  done
done
