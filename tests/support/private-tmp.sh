#!/bin/sh
# Runs a test program with a /tmp of its own: a private mount namespace with
# a fresh tmpfs on /tmp, which the program's children (dbus-daemon,
# lumora-sim) share. The service's readiness marker /tmp/lmf_service_ready
# is machine-wide, so tests that start the service would otherwise have to
# take turns; each now sees only its own.
#
# Usage: private-tmp.sh --check      exit 0 when this machine allows it
#        private-tmp.sh PROGRAM ARGS  run PROGRAM so (needs root)
set -eu
run_private() {
  exec unshare --mount --propagation private \
    sh -c 'mount -t tmpfs -o mode=1777,size=512m lumora-test-tmp /tmp && exec "$@"' private-tmp "$@"
}
if [ "${1:-}" = "--check" ]; then
  [ "$(id -u)" -eq 0 ] || exit 1
  probe=lumora-private-tmp-check.$$
  unshare --mount --propagation private \
    sh -c 'mount -t tmpfs lumora-test-tmp /tmp && touch "/tmp/$1"' private-tmp "$probe" >/dev/null 2>&1 || exit 1
  # What the namespace made in its /tmp stayed there.
  [ ! -e "/tmp/$probe" ]
  exit
fi
run_private "$@"
