#!/bin/sh
# Builds the project and runs every test (unit tests, integration tests on a
# private dbus-daemon, the installed-tree consumers). Exits non-zero when a
# test fails. Usage: scripts/test.sh [PRESET]   (default, debug, asan, tsan)
set -eu
cd "$(dirname "$0")/.."
preset=${1:-default}
./scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
