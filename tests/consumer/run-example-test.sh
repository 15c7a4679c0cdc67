#!/bin/sh
# Builds examples/tv-watcher against the installed tree with its own Makefile
# (pkg-config), runs it beside the installed lumora-sim on a private bus,
# changes the simulated set with `lumora-sim ctl`, and checks what it prints
# and that Ctrl-C stops it with status 0. Usage: run-example-test.sh BUILD_DIR
set -eu
build_dir=$1
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d /tmp/lumora-example-XXXXXX)
prefix=$work/prefix
bus_pid=
sim_pid=
app_pid=
stop_all() {
  for pid in $app_pid $sim_pid $bus_pid; do kill -TERM "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap stop_all EXIT

fail() {
  echo "example test: $*" >&2
  echo "--- tv-watcher output:" >&2
  cat "$work/out" >&2 2>/dev/null || true
  exit 1
}
# Waits up to 10 s for a condition given as a command.
wait_for() {
  tries=0
  until "$@"; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || return 1
    sleep 0.1
  done
}
printed() { grep -q "$1" "$work/out"; }

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liblumora-api.so.1' | head -n 1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir
(cd "$work" && make -s -f "$source_dir/examples/tv-watcher/Makefile" CFLAGS="-O2 -Wall -Wextra -Werror")

dbus-daemon --config-file="$source_dir/data/dbus/lumora-private-bus.conf" --nofork --nopidfile --print-address=3 \
  3>"$work/address" 2>/dev/null &
bus_pid=$!
wait_for test -s "$work/address" || fail "no private bus"
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
export DBUS_SYSTEM_BUS_ADDRESS
export LUMORA_LOG_FILE=$work/log
rm -f /tmp/lmf_service_ready
"$prefix/bin/lumora-sim" --scenario "$prefix/share/lumora-sim/sample-tv.json" &
sim_pid=$!
wait_for test -e /tmp/lmf_service_ready || fail "lumora-sim did not start"

"$work/tv-watcher" >"$work/out" 2>&1 &
app_pid=$!
wait_for printed "programme now: .*Nine O'Clock News" || fail "no current programme"
"$prefix/bin/lumora-sim" ctl emit Ctx/Media/Source/Changed '{"Source":"HDMI1"}' >/dev/null
wait_for printed 'source changed: {"Source":"HDMI1"}' || fail "no source change"
"$prefix/bin/lumora-sim" ctl emit Ctx/Media/Broadcast/Program/Changed '{"ProgramTitle":"Late Movie"}' >/dev/null
wait_for printed 'programme changed: {"ProgramTitle":"Late Movie"}' || fail "no programme change"

kill -INT "$app_pid"
status=0
wait "$app_pid" || status=$?
app_pid=
[ "$status" -eq 0 ] || fail "tv-watcher exited with status $status"
printed "tv-watcher: stopped" || fail "no stop line"
cat "$work/out"
echo "example ok"
