#!/bin/sh
# Builds the Debian packages liblumora-api1, liblumora-api-dev and
# lumora-tools from the tree into build/packages (a Release build of its own,
# with the API reference, installed to /usr with the multiarch libdir
# lib/<DEB_HOST_MULTIARCH>), then checks each with lintian when it is
# installed: any error or warning fails (what is accepted, the packages'
# lintian overrides say, with the reason). Says what it skipped.
# Usage: scripts/package.sh [OUTPUT_DIR]
set -eu
cd "$(dirname "$0")/.."
out=${1:-build/packages}
build=build/package
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
# The files outside the multiarch libdir must be the same bytes in every
# architecture's build of one commit: their dates are the commit's.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null); then
  export SOURCE_DATE_EPOCH
fi
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_BUILD_TESTS=OFF \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" >/dev/null
cmake --build "$build"
if cmake --build "$build" --target docs >/dev/null 2>&1; then
  echo "package: API reference built"
else
  echo "package: the API reference was not built (doxygen missing?); liblumora-api-dev goes without it"
fi
mkdir -p "$out"
out=$(cd "$out" && pwd)
# Packages of an earlier version would be checked (and installed) alongside.
rm -f "$out"/liblumora-api1_*.deb "$out"/liblumora-api-dev_*.deb "$out"/lumora-tools_*.deb
(cd "$build" && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
ls "$out"/*.deb
if command -v lintian >/dev/null 2>&1; then
  lintian --fail-on error,warning --tag-display-limit 0 "$out"/*.deb
  echo "package: lintian found no error or warning"
else
  echo "package: lintian is not installed: the packages were not checked (apt-get install lintian)"
fi
