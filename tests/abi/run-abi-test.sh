#!/bin/sh
# The interface check both ways: the built libraries against the committed
# baseline pass (additions only), and the baseline read as the newer side,
# which lacks what was added since, fails as a removal would; a changed type
# fails and an addition passes on a tiny library of two versions (built for
# the build machine, whatever the build's architecture).
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
"$check" --dump "$build" "$work"
baseline=$source_dir/$("$check" --baseline "$build")
if "$check" --compare "$work/liblumora-api.so.1.abi" "$baseline/liblumora-api.so.1.abi" >"$work/report" 2>&1; then
  echo "abi test: a baseline without this build's additions was not refused" >&2
  exit 1
fi
grep -q "Removed" "$work/report" || { echo "abi test: no removal reported" >&2; exit 1; }

# A public type that changes its layout fails too, while an added function
# passes: two versions of a tiny library.
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
