#!/bin/sh
# The soak of one client (reads, notifications to several callbacks,
# subscribe/unsubscribe cycles, service restarts) with its resident memory
# and threads every tenth of each phase, then the footprint of a fresh client
# of the library beside a bare GDBus client doing the same; against lumora-sim
# on a private bus. Exits non-zero when a soak check fails or the footprint
# misses its target. Options go to the soak (soak_benchmark --help).
# Usage: bench/run-soak-benchmark.sh [BUILD_DIR] [SOAK_OPTIONS...]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
[ $# -eq 0 ] || shift
work=$(mktemp -d /tmp/lumora-soak-XXXXXX)
. bench/private-service.sh

status=0
# GLib's slice allocator (before GLib 2.76) caches blocks per thread, which
# moves resident memory by tens of kB between samples of the same load; the
# soak measures with malloc alone, as later GLib does. G_SLICE= (empty) runs
# it with the slice allocator.
G_SLICE=${G_SLICE-always-malloc} "$build/bench/soak_benchmark" "$@" || status=1
echo
"$build/bench/soak_benchmark" --footprint || status=1
exit $status
