#!/bin/sh
# A one-shot `lumora read` as a whole process, beside `gdbus call` of the same
# "RequestSync" and a minimal GDBus program, against lumora-sim on a private
# bus. Three more commands split the difference: the minimal program asking
# "ServiceEnable" first (the protocol's start), and an empty program linked
# like the minimal one and like `lumora` (the cost of loading the library).
# hyperfine runs them in ROUNDS rounds, rotating their order, so that machine
# drift hits all alike; bench/oneshot-ratios.py prints the medians.
# Usage: bench/run-oneshot-benchmark.sh [BUILD_DIR] [ROUNDS] [RUNS_PER_ROUND]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
rounds=${2:-6}
runs=${3:-30}
work=$(mktemp -d /tmp/lumora-oneshot-XXXXXX)
. bench/private-service.sh

# The installed tool, as users run it (the build tree's search paths add
# failed library lookups of their own).
cmake --install "$build" --prefix "$work/prefix" >/dev/null
subject=Ctx/Media/Source/Info/Current
lumora="$work/prefix/bin/lumora read $subject"
gdbus="gdbus call --system --dest org.verdin.tv.lumora2 --object-path /org/verdin/tv/lumora2 --method org.verdin.tv.lumora.interface2.RequestSync 0 1 1 $subject ''"
minimal="$build/bench/minimal_read $subject"
enable_first="$build/bench/minimal_read --service-enable $subject"
floor_gio="$build/bench/startup_floor_gio"
cp "$build/bench/startup_floor_lumora" "$work/prefix/bin/"
floor_lumora="$work/prefix/bin/startup_floor_lumora"
set -- "$lumora" "$gdbus" "$minimal" "$enable_first" "$floor_gio" "$floor_lumora"
# Each command must succeed before it is timed.
for command; do
  sh -c "$command" >/dev/null
done

for round in $(seq 1 "$rounds"); do
  # Rotate the order by one place each round.
  first=$1
  shift
  set -- "$@" "$first"
  hyperfine --style none --warmup 3 --runs "$runs" -N --export-json "$work/round-$round.json" "$@" >/dev/null
done
python3 bench/oneshot-ratios.py "$work"/round-*.json
