#!/bin/sh
# Builds an example application against the installed tree the way its
# directory says (tv-watcher: its Makefile and pkg-config; tv-dashboard: its
# CMakeLists.txt and find_package), runs it beside the installed lumora-sim on
# a private bus, changes the simulated set with `lumora-sim ctl`, and checks
# what it prints and that Ctrl-C stops it with status 0. A cross build's
# example is built with its compilers and toolchain file, and the example and
# lumora-sim run under its emulator (build-tools.sh of the build tree).
# tv-app-tests is built with its CMakeLists.txt too and its own tests run
# with ctest: GoogleTest tests that start a simulator each through the
# installed fixture header, and its program under `lumora-sim run`.
# Usage: run-example-test.sh BUILD_DIR [tv-watcher|tv-dashboard|tv-app-tests]
set -eu
build_dir=$1
example=${2:-tv-watcher}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
. "$build_dir/tests/build-tools.sh"
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
  echo "--- $example output:" >&2
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
lumora_pkg_config "$libdir/pkgconfig"
export LD_LIBRARY_PATH=$libdir
case $example in
  tv-watcher)
    (cd "$work" && make -s -f "$source_dir/examples/tv-watcher/Makefile" CC="$lumora_cc" \
      CFLAGS="-O2 -Wall -Wextra -Werror")
    app=$work/tv-watcher ;;
  tv-dashboard)
    # shellcheck disable=SC2086
    cmake -S "$source_dir/examples/tv-dashboard" -B "$work/dashboard" $lumora_cmake_args \
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS=-Werror >/dev/null
    cmake --build "$work/dashboard" >/dev/null
    app=$work/dashboard/tv-dashboard ;;
  tv-app-tests)
    # shellcheck disable=SC2086
    cmake -S "$source_dir/examples/tv-app-tests" -B "$work/app-tests" $lumora_cmake_args \
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS=-Werror >/dev/null
    cmake --build "$work/app-tests" >/dev/null
    # The fixture finds the installed lumora-sim (the example's CMake names
    # it), run under the emulator of a cross build.
    LUMORA_SIM_LAUNCHER=$lumora_emulator ctest --test-dir "$work/app-tests" --output-on-failure >"$work/out" 2>&1 ||
      fail "the example's tests failed"
    grep -q "^100% tests passed" "$work/out" || fail "not every test of the example passed"
    grep -q "tv-source-badge-under-lumora-sim-run .* Passed" "$work/out" || [ -n "$lumora_emulator" ] ||
      fail "the program under lumora-sim run did not run"
    cat "$work/out"
    echo "example ok"
    exit 0 ;;
  *) fail "unknown example $example" ;;
esac

dbus-daemon --config-file="$source_dir/data/dbus/lumora-private-bus.conf" --nofork --nopidfile --print-address=3 \
  3>"$work/address" 2>/dev/null &
bus_pid=$!
wait_for test -s "$work/address" || fail "no private bus"
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
export DBUS_SYSTEM_BUS_ADDRESS
export LUMORA_LOG_FILE=$work/log
rm -f /tmp/lmf_service_ready
(lumora_exec "$prefix/bin/lumora-sim" --scenario "$prefix/share/lumora-sim/sample-tv.json") &
sim_pid=$!
wait_for test -e /tmp/lmf_service_ready || fail "lumora-sim did not start"

(lumora_exec "$app" >"$work/out" 2>&1) &
app_pid=$!
sim() { lumora_run "$prefix/bin/lumora-sim" "$@"; }
emit() { sim ctl emit "$1" "$2" >/dev/null; }
case $example in
  tv-watcher)
    wait_for printed "programme now: .*Nine O'Clock News" || fail "no current programme"
    emit Ctx/Media/Source/Changed '{"Source":"HDMI1"}'
    wait_for printed 'source changed: {"Source":"HDMI1"}' || fail "no source change"
    emit Ctx/Media/Broadcast/Program/Changed '{"ProgramTitle":"Late Movie"}'
    wait_for printed 'programme changed: {"ProgramTitle":"Late Movie"}' || fail "no programme change"
    printed 'service available (ready)' || fail "no availability line"
    # The programme changes while the service restarts: nothing is emitted,
    # yet the watcher hears it once the service is back.
    sim ctl set Ctx/Media/Broadcast/Program/Changed '{"ProgramTitle":"Weather"}' >/dev/null
    sim ctl restart 300 >/dev/null
    wait_for printed 'service unavailable (bye)' || fail "no unavailable line"
    wait_for printed 'service available (hello)' || fail "no available line after the restart"
    wait_for printed 'programme changed: {"ProgramTitle":"Weather"}' || fail "no catch-up of the programme"
    ;;
  tv-dashboard)
    wait_for printed 'source now: {.*"Source":"TV"' || fail "no current source"
    emit Ctx/Media/Source/Changed '{"Source":"HDMI1"}'
    wait_for printed 'source tally: 1 change' || fail "no source tally"
    emit Ctx/Sound/Volume/Level/Changed '{"Level":20}'
    wait_for printed 'volume tally: 1 change' || fail "no volume tally"
    emit Ctx/Sound/Volume/Level/Changed '{"Level":21}'
    wait_for printed 'volume tally: 2 change' || fail "no second volume tally"
    # Both callbacks of a subject hear each change, the printer first.
    grep -v '^waiting' "$work/out" | grep -A1 'source changed: {"Source":"HDMI1"}' | grep -q 'source tally: 1 change' ||
      fail "the source callbacks did not run in subscription order"
    [ "$(grep -c '^volume changed: ' "$work/out")" -eq 2 ] || fail "volume changes printed other than twice"
    ;;
esac

kill -INT "$app_pid"
status=0
wait "$app_pid" || status=$?
app_pid=
[ "$status" -eq 0 ] || fail "$example exited with status $status"
printed "$example: stopped" || fail "no stop line"
cat "$work/out"
echo "example ok"
