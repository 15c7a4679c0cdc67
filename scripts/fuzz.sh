#!/usr/bin/env bash
# Builds the "fuzz" preset (clang, libFuzzer) and runs every fuzz target for
# SECONDS (default 600), one after the other: fuzz_<name> for each seed corpus
# fuzz/corpus/<name>/, each in a fresh work folder that starts from that
# corpus, with the dictionary fuzz/dict/<name>.dict when there is one. Prints
# per target the executions run and any crash file (kept in
# build/fuzz/artifacts/, with the end of the target's output); exits non-zero
# when a target crashed or failed.
#
#   ./scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: $0 [SECONDS]   (a whole number of seconds per target, default 600)" >&2
  exit 2
fi

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

bin=build/fuzz/fuzz
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
failed=0

for corpus in fuzz/corpus/*/; do
  name=$(basename "$corpus")
  fuzzer=$bin/fuzz_$name
  if [[ ! -x $fuzzer ]]; then
    echo "fuzz_$name: FAILED: no such target ($fuzzer) for $corpus"
    failed=1
    continue
  fi
  work=$(mktemp -d)
  log=$(mktemp)
  status=0
  options=(-max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts/$name-")
  # A dictionary libFuzzer cannot parse ends the target at once, non-zero.
  dict=fuzz/dict/$name.dict
  words=""
  if [[ -f $dict ]]; then
    options+=(-dict="$dict")
    words=", dictionary $dict"
  fi
  "$fuzzer" "${options[@]}" "$work" "$corpus" >"$log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  # Crashes, leaks, time-outs and running out of memory all leave a file.
  mapfile -t found < <(sed -n 's/.*Test unit written to //p' "$log")
  if [[ $status -eq 0 && ${#found[@]} -eq 0 ]]; then
    echo "fuzz_$name: ${executions:-0} executions in ${seconds} s, no crash$words"
  else
    failed=1
    echo "fuzz_$name: FAILED (exit $status) after ${executions:-?} executions"
    for file in "${found[@]}"; do echo "  crash file: $file"; done
    tail -n 40 "$log" | sed 's/^/  | /'
  fi
  rm -rf "$work" "$log"
done

exit "$failed"
