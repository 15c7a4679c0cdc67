#!/bin/sh
# A short soak of one client under valgrind's memcheck, against lumora-sim on
# a private bus: fails on any memory error or definitely lost block. GLib's
# own suppressions cover what GLib keeps for the life of the process; resident
# memory is not checked (valgrind's own would be counted).
# Usage: bench/run-soak-valgrind.sh [BUILD_DIR]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
supp=/usr/share/glib-2.0/valgrind/glib.supp
[ -f "$supp" ] || { echo "missing $supp (libglib2.0-dev)" >&2; exit 1; }
work=$(mktemp -d /tmp/lumora-soak-valgrind-XXXXXX)
. bench/private-service.sh

# GLib's slice allocator off, so that every block is malloc's and valgrind
# sees it.
G_SLICE=always-malloc G_DEBUG=gc-friendly \
  valgrind --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite \
  --show-leak-kinds=definite --suppressions="$supp" --num-callers=30 \
  "$build/bench/soak_benchmark" --reads=2000 --notifications=200 --cycles=50 --restarts=3 --no-rss-check
