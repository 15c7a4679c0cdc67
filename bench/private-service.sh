# Sourced by the benchmark scripts: a private dbus-daemon and lumora-sim with
# the sample scenario, both stopped (and $work removed) when the script exits.
# Needs $build (the build folder) and $work (a scratch folder); exports
# DBUS_SYSTEM_BUS_ADDRESS and returns once the service is ready.
bus_pid=
sim_pid=
stop_private_service() {
  # The service first, and waited for, so that it says "BYE" on a bus that
  # is still there.
  if [ -n "$sim_pid" ]; then
    kill -TERM "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  [ -z "$bus_pid" ] || kill -TERM "$bus_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap stop_private_service EXIT

dbus-daemon --config-file=data/dbus/lumora-private-bus.conf --nofork --nopidfile --print-address=3 \
  3>"$work/address" 2>/dev/null &
bus_pid=$!
while [ ! -s "$work/address" ]; do sleep 0.05; done
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
export DBUS_SYSTEM_BUS_ADDRESS
LUMORA_LOG_LEVEL=none "$build/tools/sim/lumora-sim" --scenario data/scenarios/sample-tv.json &
sim_pid=$!
while [ ! -e /tmp/lmf_service_ready ]; do sleep 0.05; done
