#!/bin/sh
# The library's main job end to end, off the television: builds and installs
# the project into build/default-install, starts a private bus and the
# context-service simulator with the sample scenario, shows the command-line
# client at work, and stops both. Exits non-zero when any step fails.
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
watch_pid=
stop_all() {
  [ -z "$watch_pid" ] || kill -TERM "$watch_pid" 2>/dev/null || true
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
# One command of the client or the simulator's control, shown as typed.
run() {
  tool=$1
  shift
  echo
  echo "\$ $tool$(shown "$@")"
  "$prefix/bin/$tool" "$@"
}
lumora() { run lumora "$@"; }
ctl() { run lumora-sim ctl "$@"; }

# The client's settings store lives with the demo, not in the home folder.
export LUMORA_SETTINGS_DB="$work/settings.db"

lumora status
lumora --pretty read Ctx/Media/Source/Info/Current
lumora --pretty read Ctx/Media/Broadcast/Program/Current
lumora channels --source rf
lumora --pretty channels --source stb
lumora channels reorder '[{"major":11,"minor":1},{"major":7,"minor":1}]'

# The channel callback: a programme change reaches "lumora channels watch".
echo
echo "\$ lumora channels watch &    # one JSON line per channel event"
"$prefix/bin/lumora" channels watch >"$work/watch.out" &
watch_pid=$!
# Emitted until the watcher has subscribed: "sent 0" means nobody listened.
emit_programme() {
  "$prefix/bin/lumora-sim" ctl event program '{"ChName":"MBC","major":9,"minor":1,"ProgramTitle":"Evening Drama"}' \
    >"$work/event.out" && ! grep -qx 'sent 0' "$work/event.out"
}
wait_for emit_programme
echo "\$ lumora-sim ctl event program '{\"ChName\":\"MBC\",...,\"ProgramTitle\":\"Evening Drama\"}'"
cat "$work/event.out"
wait_for test -s "$work/watch.out"
kill -INT "$watch_pid"
status=0
wait "$watch_pid" || status=$?
watch_pid=
[ "$status" -eq 0 ] || { echo "lumora channels watch exited with status $status" >&2; exit 1; }
cat "$work/watch.out"
grep -q '"event":"program","code":2,"count":1' "$work/watch.out"
lumora request Ctx/App/Info/Current
lumora --pretty stats app
lumora write Ctx/Sound/Volume/Level/Current '{"Level":25,"Mute":false}'
lumora read Ctx/Sound/Volume/Level/Current
ctl set Ctx/App/Info/Current '{"AppId":"com.streamly.tv","AppName":"Streamly","Status":"Foreground"}'
lumora read Ctx/App/Info/Current
lumora settings set db/lumora-service/source_hintlist '["HDMI1","TV","USB"]'
lumora --pretty hints source
lumora settings get db/lumora-service/source_hintlist
ctl code Data/Weather/Forecast -5
echo
echo "\$ lumora read Data/Weather/Forecast    # fails: the service answers code -5"
if "$prefix/bin/lumora" read Data/Weather/Forecast; then
  echo "expected a failure" >&2
  exit 1
fi

echo
echo "Stopping lumora-sim with SIGTERM (it says BYE and removes the marker)"
kill -TERM "$sim_pid"
status=0
wait "$sim_pid" || status=$?
sim_pid=
[ "$status" -eq 0 ] || { echo "lumora-sim exited with status $status" >&2; exit 1; }
[ ! -e /tmp/lmf_service_ready ] || { echo "/tmp/lmf_service_ready is still there" >&2; exit 1; }
echo "lumora-sim exited with status 0; /tmp/lmf_service_ready is gone"
echo "demo ok"
