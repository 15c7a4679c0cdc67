#!/bin/sh
# The library's main job end to end, off the television: builds and installs
# the project into build/default-install, starts a private bus and the
# context-service simulator with the sample scenario, shows a few calls, and
# stops both. Exits non-zero when any step fails.
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

work=$(mktemp -d /tmp/lumora-demo-XXXXXX)
bus_pid=
sim_pid=
stop_all() {
  [ -z "$sim_pid" ] || kill -TERM "$sim_pid" 2>/dev/null || true
  [ -z "$bus_pid" ] || kill -TERM "$bus_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

# Waits up to 10 s for a condition given as a command.
wait_for() {
  tries=0
  until "$@"; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || { echo "timed out waiting for: $*" >&2; return 1; }
    sleep 0.1
  done
}

dbus-daemon --config-file=data/dbus/lumora-private-bus.conf --nofork --nopidfile --print-address=3 \
  3>"$work/address" 2>"$work/bus.log" &
bus_pid=$!
wait_for test -s "$work/address"
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
export DBUS_SYSTEM_BUS_ADDRESS
echo
echo "Private bus: $DBUS_SYSTEM_BUS_ADDRESS"

name_owned() {
  gdbus call --address "$DBUS_SYSTEM_BUS_ADDRESS" --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.NameHasOwner org.verdin.tv.lumora2 2>/dev/null | grep -q true
}
LUMORA_LOG_FILE=$work/sim.log "$prefix/bin/lumora-sim" --scenario "$prefix/share/lumora-sim/sample-tv.json" &
sim_pid=$!
wait_for name_owned
wait_for test -e /tmp/lmf_service_ready
echo "lumora-sim (pid $sim_pid) owns org.verdin.tv.lumora2; /tmp/lmf_service_ready exists"

# The arguments as one would type them, quoted where the shell needs it.
shown() {
  for arg in "$@"; do
    case $arg in
      '' | *[!A-Za-z0-9/._:=-]*) printf " '%s'" "$arg" ;;
      *) printf ' %s' "$arg" ;;
    esac
  done
}
# One call of the service interface, shown as typed.
service() {
  method=$1
  shift
  echo
  echo "\$ gdbus call --address \$DBUS_SYSTEM_BUS_ADDRESS --dest org.verdin.tv.lumora2 \\"
  echo "    --object-path /org/verdin/tv/lumora2 --method org.verdin.tv.lumora.interface2.$method$(shown "$@")"
  gdbus call --address "$DBUS_SYSTEM_BUS_ADDRESS" --dest org.verdin.tv.lumora2 --object-path /org/verdin/tv/lumora2 \
    --method "org.verdin.tv.lumora.interface2.$method" "$@"
}
ctl() {
  echo
  echo "\$ lumora-sim ctl$(shown "$@")"
  "$prefix/bin/lumora-sim" ctl "$@"
}

pid=$$
service ServiceEnable
service RequestSync "$pid" 1 1 Ctx/Media/Source/Info/Current ''
service RequestSync "$pid" 1 2 Ctx/Media/Broadcast/Program/Current ''
service Write "$pid" 2 3 Ctx/Sound/Volume/Level/Current '{"Level":25,"Mute":false}'
service RequestSync "$pid" 1 4 Ctx/Sound/Volume/Level/Current ''
service RequestAsync "$pid" 5 5 I/TallyDB/Onoff/Duration ''
ctl set Ctx/App/Info/Current '{"AppId":"com.streamly.tv","AppName":"Streamly","Status":"Foreground"}'
service RequestSync "$pid" 1 6 Ctx/App/Info/Current ''
ctl code Data/Weather/Forecast -5
service RequestSync "$pid" 1 7 Data/Weather/Forecast ''

echo
echo "Stopping lumora-sim with SIGTERM (it says BYE and removes the marker)"
kill -TERM "$sim_pid"
status=0
wait "$sim_pid" || status=$?
sim_pid=
[ "$status" -eq 0 ] || { echo "lumora-sim exited with status $status" >&2; exit 1; }
[ ! -e /tmp/lmf_service_ready ] || { echo "/tmp/lmf_service_ready is still there" >&2; exit 1; }
echo "lumora-sim exited with status 0; /tmp/lmf_service_ready is gone"
echo
echo "Not there yet: the command-line client (lumora)."
echo "demo ok"
