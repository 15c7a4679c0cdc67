#!/bin/sh
# The Debian packages as a user gets them, on this machine (as root): builds
# them (scripts/package.sh, lintian included), installs them with dpkg -i,
# builds both examples against /usr (tv-watcher with pkg-config, tv-dashboard
# with find_package), runs lumora --version and a read through the installed
# lumora-sim on a private bus, removes the packages with dpkg --purge and
# checks that none of their files is left. Exits non-zero when a step fails.
set -eu
cd "$(dirname "$0")/.."
packages="lumora-tools liblumora-api-dev liblumora-api1"
work=$(mktemp -d /tmp/lumora-packages-XXXXXX)
bus_pid=
sim_pid=
installed=
cleanup() {
  for pid in $sim_pid $bus_pid; do kill -TERM "$pid" 2>/dev/null || true; done
  # A failed run leaves the machine as it found it.
  [ -z "$installed" ] || dpkg --purge $packages >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "packages: $*" >&2
  exit 1
}
wait_for() {
  tries=0
  until "$@"; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || return 1
    sleep 0.1
  done
}

./scripts/package.sh "$work/debs"
installed=yes
dpkg -i "$work"/debs/*.deb
for package in $packages; do dpkg -L "$package" >>"$work/files"; done

echo "packages: building the examples against /usr"
source_dir=$(pwd)
(cd "$work" && make -s -f "$source_dir/examples/tv-watcher/Makefile" CFLAGS="-O2 -Wall -Wextra -Werror") ||
  fail "tv-watcher does not build with pkg-config"
cmake -S examples/tv-dashboard -B "$work/dashboard" -DCMAKE_CXX_FLAGS=-Werror >/dev/null ||
  fail "tv-dashboard does not configure with find_package"
cmake --build "$work/dashboard" >/dev/null || fail "tv-dashboard does not build"
ldd "$work/tv-watcher" | grep -Eq 'liblumora-api.so.1 => /(usr/)?lib/' || fail "tv-watcher does not load /usr's library"

echo "packages: $(lumora --version)"
[ "$(lumora --version)" = "lumora $(dpkg-query -W -f '${Version}' lumora-tools)" ] || fail "lumora --version"
# In the package (a slim system may leave /usr/share/man out when installing).
for page in lumora lumora-sim; do
  dpkg-deb -c "$work"/debs/lumora-tools_*.deb | grep -q "/man1/$page.1.gz$" || fail "no manual page $page(1) in lumora-tools"
done

dbus-daemon --config-file=/usr/share/lumora-sim/lumora-private-bus.conf --nofork --nopidfile --print-address=3 \
  3>"$work/address" 2>/dev/null &
bus_pid=$!
wait_for test -s "$work/address" || fail "no private bus"
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
export DBUS_SYSTEM_BUS_ADDRESS
LUMORA_LOG_FILE=$work/sim.log lumora-sim --scenario /usr/share/lumora-sim/sample-tv.json &
sim_pid=$!
wait_for test -e /tmp/lmf_service_ready || fail "lumora-sim did not start"
value=$(lumora read Ctx/Media/Source/Info/Current) || fail "lumora read failed"
echo "packages: lumora read Ctx/Media/Source/Info/Current -> $value"
case $value in *'"Source"'*) ;; *) fail "unexpected value $value" ;; esac
timeout 5 "$work/tv-watcher" >"$work/watcher.out" 2>&1 || true
grep -q "programme now:" "$work/watcher.out" || fail "tv-watcher built against /usr printed no programme"
kill -TERM "$sim_pid"
wait "$sim_pid" || true
sim_pid=

dpkg --purge $packages
installed=
left=0
while read -r path; do
  case $path in /. | /usr | /usr/* | /etc | /etc/*) ;; *) continue ;; esac
  # Folders shared with other packages stay; the packages' own go.
  if [ -e "$path" ] && [ ! -d "$path" ]; then
    echo "packages: left behind: $path" >&2
    left=1
  fi
done <"$work/files"
for folder in /usr/share/lumora-sim /usr/include/lumora /usr/lib/cmake/LumoraApi /usr/share/doc/liblumora-api1; do
  [ ! -e "$folder" ] || { echo "packages: left behind: $folder" >&2; left=1; }
done
[ "$left" -eq 0 ] || fail "files were left after dpkg --purge"
echo "packages ok"
