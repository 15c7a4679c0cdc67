#!/bin/sh
# Builds the project for a Debian architecture of the television with
# Debian's cross compilers (preset ARCH: build/ARCH), after installing what
# that needs and is missing (scripts/install-deps.sh for the build machine's
# own tools, scripts/cross-deps.sh for the cross compilers, qemu-user and the
# target's libraries). Its tests run with scripts/test.sh ARCH.
# Usage: scripts/cross.sh ARCH     (armhf or arm64)
set -eu
cd "$(dirname "$0")/.."
arch=${1:?usage: scripts/cross.sh ARCH (armhf or arm64)}
case $arch in
  armhf | arm64) ;;
  *) echo "cross: unknown architecture $arch (armhf or arm64)" >&2; exit 2 ;;
esac
./scripts/install-deps.sh
./scripts/cross-deps.sh "$arch"
cmake --preset "$arch" >/dev/null
cmake --build --preset "$arch"
