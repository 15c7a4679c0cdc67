#!/bin/sh
# The interface check both ways: the built libraries against the committed
# baseline of their architecture pass (nothing removed or changed), and on a
# tiny library of three versions (built for the build machine, whatever the
# build's architecture) a removed function and a changed type fail while an
# added function passes and is listed.
# Usage: run-abi-test.sh BUILD_DIR
set -eu
build=$1
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
check=$source_dir/scripts/abi-check.sh
status=0
"$check" "$build" || status=$?
[ "$status" -ne 77 ] || exit 77
[ "$status" -eq 0 ] || { echo "abi test: the built interface fails against the baseline" >&2; exit 1; }
work=$(mktemp -d /tmp/lumora-abi-test-XXXXXX)
trap 'rm -rf "$work"' EXIT

# A function that goes and a public type that changes its layout fail, while
# an added function passes: versions of a tiny library.
cat >"$work/v1.c" <<'C'
struct Point { int x; };
int Norm(struct Point* p) { return p->x; }
C
cat >"$work/v2.c" <<'C'
struct Point { int x; int y; };
int Norm(struct Point* p) { return p->x + p->y; }
C
cat >"$work/v3.c" <<'C'
struct Point { int x; };
int Norm(struct Point* p) { return p->x; }
int Twice(struct Point* p) { return 2 * p->x; }
C
for version in v1 v2 v3; do
  cc -g -shared -fPIC -o "$work/lib$version.so" "$work/$version.c"
  abidw --no-corpus-path --no-show-locs --out-file "$work/$version.abi" "$work/lib$version.so"
done
if "$check" --compare "$work/v3.abi" "$work/v1.abi" >"$work/removed" 2>&1; then
  echo "abi test: a removed function was not refused" >&2
  cat "$work/removed" >&2
  exit 1
fi
grep -q "Removed" "$work/removed" || { echo "abi test: no removal reported" >&2; exit 1; }
if "$check" --compare "$work/v1.abi" "$work/v2.abi" >"$work/changed" 2>&1; then
  echo "abi test: a changed public type was not refused" >&2
  cat "$work/changed" >&2
  exit 1
fi
"$check" --compare "$work/v1.abi" "$work/v3.abi" >"$work/added" 2>&1 || {
  echo "abi test: an added function was refused" >&2
  cat "$work/added" >&2
  exit 1
}
grep -q "1 addition" "$work/added" || { echo "abi test: the addition was not listed" >&2; exit 1; }
echo "abi test ok"
