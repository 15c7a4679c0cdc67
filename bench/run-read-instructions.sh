#!/bin/sh
# Instructions per read, counted by callgrind in the reading process (all its
# threads), through the library with logging off and to a file, and as raw
# GDBus: (count of N+500 reads - count of N reads) / 500. Repeatable, unlike
# times. Usage: bench/run-read-instructions.sh [BUILD_DIR]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/default}
work=$(mktemp -d /tmp/lumora-instructions-XXXXXX)
. bench/private-service.sh

count() {  # MODE N -> instructions
  valgrind --tool=callgrind --callgrind-out-file="$work/out" "$build/bench/read_instructions" "$1" "$2" 2>&1 |
    awk '/Collected/ {print $4}'
}
per_read() {  # MODE -> instructions per read
  a=$(count "$1" 100)
  b=$(count "$1" 600)
  echo $(((b - a) / 500))
}
raw=$(LUMORA_LOG_LEVEL=none per_read raw)
off=$(LUMORA_LOG_LEVEL=none per_read lib)
on=$(LUMORA_LOG_LEVEL=debug LUMORA_LOG_FILE="$work/log" per_read lib)
printf 'instructions per read: raw GDBus %s, library (logging off) %s, library (logging to a file) %s\n' \
  "$raw" "$off" "$on"
awk -v r="$raw" -v a="$off" -v b="$on" \
  'BEGIN { printf "ratio to raw: logging off %.3f, logging to a file %.3f\n", a / r, b / r }'
