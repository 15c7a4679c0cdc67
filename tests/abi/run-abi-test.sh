#!/bin/sh
# The interface check both ways: the built libraries against the committed
# baseline pass (additions only), and the baseline read as the newer side,
# which lacks what was added since, fails as a removal would.
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
if "$check" --compare "$work/liblumora-api.so.1.abi" "$source_dir/abi/liblumora-api.so.1.abi" >"$work/report" 2>&1; then
  echo "abi test: a baseline without this build's additions was not refused" >&2
  exit 1
fi
grep -q "Removed" "$work/report" || { echo "abi test: no removal reported" >&2; exit 1; }
echo "abi test ok"
