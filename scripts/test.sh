#!/bin/sh
# Builds the project and runs every test (unit tests, integration tests on a
# private dbus-daemon, the installed-tree consumers). Exits non-zero when a
# test fails. Usage: scripts/test.sh [PRESET]   (default, debug, asan, tsan,
# and armhf or arm64: a cross build of scripts/cross.sh whose tests run under
# qemu-user). Arguments after the preset go to ctest (-R REGEX, say).
set -eu
cd "$(dirname "$0")/.."
preset=${1:-default}
[ $# -eq 0 ] || shift
case $preset in
  armhf | arm64) ./scripts/cross.sh "$preset" ;;
  *)
    ./scripts/install-deps.sh
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ;;
esac
ctest --preset "$preset" "$@"
