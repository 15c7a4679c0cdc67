#!/bin/sh
# The exported interface of the three shared libraries against the baseline
# committed in abi/ARCH for the libraries' architecture (libabigail's abidw
# and abidiff): additions pass and are listed; a removed or changed function,
# variable or public type fails. Each Debian architecture has a baseline of
# its own (abi/amd64, abi/armhf, abi/arm64), made from the same source: type
# sizes and offsets differ between them, and a library is held to its own.
#
#   scripts/abi-check.sh [BUILD_DIR]             the built libraries against abi/ARCH
#   scripts/abi-check.sh --dump BUILD_DIR DIR    writes their dumps into DIR
#   scripts/abi-check.sh --compare OLD NEW       two dumps
#   scripts/abi-check.sh --baseline BUILD_DIR    prints the baseline folder of the build
#
# The dumps cover what the public headers (include/lumora) declare; the build
# must carry debug information (the default, armhf and arm64 presets do).
set -eu
cd "$(dirname "$0")/.."
libraries="src/liblumora-api.so.1 common/liblumora-common.so.1 platform/liblumora-platform.so.1"

# The Debian architecture of the built libraries, from their ELF header.
architecture() {
  header=$(readelf -h "$1/src/liblumora-api.so.1")
  case $header in
    *"Advanced Micro Devices X86-64"*) echo amd64 ;;
    *AArch64*) echo arm64 ;;
    *"Machine:"*" ARM"*"hard-float"*) echo armhf ;;
    *"Machine:"*" ARM"*) echo armel ;;
    *"Intel 80386"*) echo i386 ;;
    *) echo unknown ;;
  esac
}

baseline() {
  echo "abi/$(architecture "$1")"
}

if ! command -v abidiff >/dev/null 2>&1 || ! command -v abidw >/dev/null 2>&1; then
  echo "abi-check: libabigail (abidw, abidiff) is not installed: the interface was not checked" \
    "(apt-get install abigail-tools)" >&2
  exit 77
fi

dump() {
  build=$1
  dir=$2
  mkdir -p "$dir"
  for library in $libraries; do
    abidw --headers-dir include/lumora --no-corpus-path --no-show-locs --drop-private-types \
      --out-file "$dir/$(basename "$library").abi" "$build/$library"
  done
}

# 0 when NEW has everything OLD has, unchanged; prints abidiff's report.
compare() {
  old=$1
  new=$2
  status=0
  report=$(abidiff --no-unreferenced-symbols "$old" "$new") || status=$?
  printf '%s\n' "$report"
  if [ $((status & 3)) -ne 0 ]; then
    echo "abi-check: abidiff failed on $old and $new (status $status)" >&2
    return 1
  fi
  # Bit 8: incompatible (a symbol went); otherwise any removed or changed
  # entry in the summaries is a change of the interface too.
  if [ $((status & 8)) -ne 0 ] ||
    printf '%s\n' "$report" | grep -Eq '(changes summary|symbols changes summary): *[1-9][0-9]* Removed|[1-9][0-9]* Changed'; then
    echo "abi-check: $(basename "$new"): the interface changed or lost something (see above)" >&2
    return 1
  fi
  added=$(printf '%s\n' "$report" | sed -n 's/.*summary:.* \([0-9]*\) Added.*/\1/p' | awk '{ n += $1 } END { print n + 0 }')
  echo "abi-check: $(basename "$new"): nothing removed or changed; $added addition(s)"
}

case ${1:-} in
  --dump) dump "$2" "$3" ;;
  --compare) compare "$2" "$3" ;;
  --baseline) baseline "$2" ;;
  *)
    build=${1:-build/default}
    base=$(baseline "$build")
    if [ ! -d "$base" ]; then
      echo "abi-check: no baseline for $(architecture "$build") ($base): the interface was not checked" >&2
      exit 77
    fi
    echo "abi-check: $build against $base"
    work=$(mktemp -d /tmp/lumora-abi-XXXXXX)
    trap 'rm -rf "$work"' EXIT
    dump "$build" "$work"
    failed=0
    for library in $libraries; do
      name=$(basename "$library").abi
      compare "$base/$name" "$work/$name" || failed=1
    done
    exit $failed
    ;;
esac
