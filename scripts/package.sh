#!/bin/sh
# Builds the Debian packages liblumora-api1, liblumora-api-dev and
# lumora-tools from the tree into build/packages (a Release build of its own,
# with the API reference), then checks each with lintian when it is installed
# (any error fails; warnings are shown). Says what it skipped.
# Usage: scripts/package.sh [OUTPUT_DIR]
set -eu
cd "$(dirname "$0")/.."
out=${1:-build/packages}
build=build/package
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_BUILD_TESTS=OFF >/dev/null
cmake --build "$build"
if cmake --build "$build" --target docs >/dev/null 2>&1; then
  echo "package: API reference built"
else
  echo "package: the API reference was not built (doxygen missing?); liblumora-api-dev goes without it"
fi
mkdir -p "$out"
out=$(cd "$out" && pwd)
(cd "$build" && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
ls "$out"/*.deb
if command -v lintian >/dev/null 2>&1; then
  # --fail-on error: warnings are printed, errors fail.
  lintian --fail-on error --no-tag-display-limit "$out"/*.deb
  echo "package: lintian found no error"
else
  echo "package: lintian is not installed: the packages were not checked (apt-get install lintian)"
fi
