#!/bin/sh
# The library's main job end to end, off the television: builds and installs
# the project into build/default-install.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
cmake --install build/default >/dev/null
prefix=$(pwd)/build/default-install
echo
echo "Installed into $prefix:"
(cd "$prefix" && find . -type f -o -type l | sort | sed 's|^\./|  |')
echo
echo "Not there yet: the context-service simulator (lumora-sim) and the"
echo "command-line client (lumora); this command will start them on a private bus."
