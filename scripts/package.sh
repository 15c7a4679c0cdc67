#!/bin/sh
# Builds the Debian packages liblumora-api1, liblumora-api-dev,
# lumora-tools, liblumora-glib0, liblumora-glib-dev and (where introspection
# is built: not in cross builds) gir1.2-lumora-1.0 from the tree into build/packages (a Release build of its own,
# with the API reference, installed to /usr with the multiarch libdir
# lib/<DEB_HOST_MULTIARCH>), then checks each with lintian when it is
# installed: any error or warning fails (what is accepted, the packages'
# lintian overrides say, with the reason). Says what it skipped.
# Usage: scripts/package.sh [ARCH] [OUTPUT_DIR]
#   ARCH: the Debian architecture of the packages, the machine's own by
#   default; another (armhf, arm64) is cross-built with
#   cmake/toolchain-ARCH.cmake, its tools run under qemu-user for the manual
#   pages (scripts/cross-deps.sh ARCH installs what that needs). The packages
#   of several architectures can share OUTPUT_DIR: only those of ARCH are
#   replaced.
set -eu
cd "$(dirname "$0")/.."
native=$(dpkg --print-architecture)
arch=$native
case ${1:-} in
  "$native") shift ;;
  "" | */* | .*) ;;
  *)
    if [ -f "cmake/toolchain-$1.cmake" ]; then
      arch=$1
      shift
    fi
    ;;
esac
out=${1:-build/packages}
multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
if [ "$arch" = "$native" ]; then
  build=build/package
  cross=""
else
  build=build/package-$arch
  cross="-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-$arch.cmake -DLUMORA_DEB_ARCHITECTURE=$arch"
fi
# The files outside the multiarch libdir must be the same bytes in every
# architecture's build of one commit: their dates are the commit's.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null); then
  export SOURCE_DATE_EPOCH
fi
# shellcheck disable=SC2086
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_BUILD_TESTS=OFF $cross \
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
debs=""
for package in liblumora-api1 liblumora-api-dev lumora-tools liblumora-glib0 liblumora-glib-dev gir1.2-lumora-1.0; do
  debs="$debs $out/${package}_*_$arch.deb"
done
# shellcheck disable=SC2086
rm -f $debs
# dpkg-shlibdeps, which CPack runs, reads the packages' architecture from the
# environment dpkg-architecture sets (which checks it against CC's).
if [ "$arch" = "$native" ]; then
  compiler=${CC:-cc}
else
  compiler=$multiarch-gcc
fi
(cd "$build" && CC=$compiler dpkg-architecture -a"$arch" -c cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
# What was built (gir1.2-lumora-1.0 only where introspection is).
built=""
# shellcheck disable=SC2086
for deb in $debs; do
  [ ! -e "$deb" ] || built="$built $deb"
done
debs=$built
# shellcheck disable=SC2086
ls $debs
if command -v lintian >/dev/null 2>&1; then
  # shellcheck disable=SC2086
  lintian --fail-on error,warning --tag-display-limit 0 $debs
  echo "package: lintian found no error or warning"
else
  echo "package: lintian is not installed: the packages were not checked (apt-get install lintian)"
fi
