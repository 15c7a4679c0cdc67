#!/bin/sh
# The steps of scripts/test-packages.sh inside a minimal Debian root. Runs in
# a mount and PID namespace of its own (unshare --mount --pid --fork
# --kill-child, as test-packages.sh starts it): the mounts made here (/proc,
# the shared apt cache) vanish with the namespace, and every process started
# in the root ends with it, on every exit path.
#
#   package-root.sh create ROOT MIRROR SUITE ARCH SOURCES_LIST APT_CACHE TOOLS
#     debootstrap --variant=minbase into ROOT, the sources of SOURCES_LIST,
#     then the packages TOOLS.
#   package-root.sh test ROOT DEBS_DIR SOURCE_DIR APT_CACHE [CROSS_ARCH CROSS_DEBS_DIR]
#     installs the .deb files of DEBS_DIR with apt-get, builds the examples
#     of SOURCE_DIR against them, runs tv-watcher against lumora-sim on a
#     private bus and the tests of tv-app-tests; with CROSS_ARCH, installs that architecture's library and
#     development packages of CROSS_DEBS_DIR beside them with Debian's cross
#     compilers, and cross-builds the examples against them; then purges the
#     packages and checks what is left.
set -eu
command=$1
root=$2
packages="liblumora-api1 liblumora-api-dev lumora-tools"

fail() {
  echo "packages: $*" >&2
  exit 1
}
# Seconds since test-packages.sh started, like its own lines.
say() { echo "packages: [$(($(date +%s) - ${LUMORA_PACKAGES_START:-$(date +%s)})) s] $*"; }
# A command in the root, with none of this machine's environment (a
# PKG_CONFIG_PATH or CMAKE_PREFIX_PATH of the build machine would hide a
# missing file).
in_root() {
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@"
}
# The same, replacing the calling (background) shell, so that $! is the
# program itself and a signal sent to it reaches it.
exec_in_root() {
  exec chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"
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
# What the root needs to run apt and the packages' programs: /proc, the
# machine's name servers, the shared cache of downloaded packages (apt checks
# each against the archive's index before using it) and no service started
# by a package's maintainer scripts.
enter_root() {
  apt_cache=$1
  mount -t proc proc "$root/proc"
  mount --bind "$apt_cache" "$root/var/cache/apt/archives"
  cat /etc/resolv.conf >"$root/etc/resolv.conf"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
}
# apt-get in the root, its output kept in LOG and shown when it fails.
apt_in_root() {
  log=$1
  shift
  in_root apt-get -q -y -o Dpkg::Use-Pty=0 "$@" >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    fail "apt-get $* failed in the root"
  }
}

create() {
  mirror=$3 suite=$4 arch=$5 sources_list=$6 apt_cache=$7 tools=$8
  include=
  case $mirror in https:*) include=--include=ca-certificates ;; esac
  mkdir -p "$root"
  # shellcheck disable=SC2086
  debootstrap --variant=minbase --arch="$arch" --cache-dir="$apt_cache" $include "$suite" "$root" "$mirror" \
    >"$root.log" 2>&1 || {
    tail -n 40 "$root.log" >&2
    fail "debootstrap --variant=minbase $suite failed (log: $root.log)"
  }
  rm -f "$root.log"
  # debootstrap leaves a copy of what it unpacked in the root; the shared
  # cache has them, and the root is kept smaller without.
  find "$root/var/cache/apt/archives" -maxdepth 1 -name '*.deb' -delete
  cp "$sources_list" "$root/etc/apt/sources.list"
  enter_root "$apt_cache"
  apt_in_root "$root/tmp/apt.log" update
  # shellcheck disable=SC2086
  apt_in_root "$root/tmp/apt.log" install --no-install-recommends $tools
  rm -f "$root/tmp/apt.log"
  # apt makes its caches again when it needs them.
  rm -f "$root"/var/cache/apt/*.bin
}

# Whether a package is installed in the root.
installed() { [ "$(in_root dpkg-query -W -f '${db:Status-Abbrev}' "$1" 2>/dev/null)" = "ii " ]; }

# The library and development packages of another architecture installed
# beside the machine's own (multiarch), as a developer cross-building for the
# television has them, and the examples cross-built against them: tv-watcher
# with pkg-config on the target's .pc files, tv-dashboard with find_package
# through the project's toolchain file.
cross_packages() {
  cross=$1 cross_debs=$2
  cross_triplet=$(dpkg-architecture -a"$cross" -qDEB_HOST_MULTIARCH 2>/dev/null)
  say "$cross: the library and development packages beside the $arch ones"
  mkdir -p "$test/cross-debs" "$test/cmake"
  cp "$cross_debs"/liblumora-api1_*_"$cross".deb "$cross_debs"/liblumora-api-dev_*_"$cross".deb "$test/cross-debs/"
  cp "$source_dir/scripts/multiarch-install.sh" "$test/"
  cp "$source_dir/cmake/toolchain-debian-cross.cmake" "$source_dir/cmake/toolchain-$cross.cmake" "$test/cmake/"
  chmod -R a+rX "$test"
  in_root dpkg --add-architecture "$cross"
  # An index that fails to download (one architecture of the security
  # archive, say) leaves apt with the others, which multiarch-install.sh
  # lines up.
  in_root apt-get -q update >"$test/apt-cross-update.log" 2>&1 || {
    echo "packages: apt-get update reported errors; going on with the indexes that were read:" >&2
    grep -E '^(E|W):' "$test/apt-cross-update.log" | head -n 5 >&2
  }
  files=
  for deb in "$test"/cross-debs/*.deb; do files="$files /tmp/lumora-test/cross-debs/${deb##*/}"; done
  # First as on a developer's machine: when the target's index lags, the
  # root's own libraries would move down, which is refused. The root is
  # thrown away afterwards, so then they may.
  # shellcheck disable=SC2086
  if ! in_root sh /tmp/lumora-test/multiarch-install.sh "$cross" "crossbuild-essential-$cross" $files \
    >"$test/cross-install.log" 2>&1; then
    grep -q "index lags the machine's" "$test/cross-install.log" || {
      tail -n 40 "$test/cross-install.log" >&2
      fail "the $cross packages could not be installed beside the $arch ones"
    }
    ! installed "liblumora-api1:$cross" ||
      fail "the refused install of the $cross packages installed them all the same"
    say "$cross: its index lags the root's; moving $(grep -c 'would move' "$test/cross-install.log") of the root's" \
      "packages down was refused without LUMORA_ALLOW_DOWNGRADES=1, as it must be; allowed now"
    # shellcheck disable=SC2086
    in_root env LUMORA_ALLOW_DOWNGRADES=1 sh /tmp/lumora-test/multiarch-install.sh "$cross" \
      "crossbuild-essential-$cross" $files >"$test/cross-install.log" 2>&1 || {
      tail -n 40 "$test/cross-install.log" >&2
      fail "the $cross packages could not be installed beside the $arch ones"
    }
  fi
  sed -n 's/^multiarch-install: //p' "$test/cross-install.log" | sed "s/^/packages: /"
  for package in liblumora-api1 liblumora-api-dev; do
    for a in "$arch" "$cross"; do
      installed "$package:$a" || fail "$package:$a is not installed"
    done
    in_root dpkg -L "$package:$cross" >>"$test/files"
  done
  # Both architectures' libraries, each of its own machine. (This machine's
  # ldconfig caches its own machine's libraries only; the target's dynamic
  # loader finds its libraries in its multiarch folders without the cache.)
  machine() { in_root readelf -h "$1" | sed -n 's/^ *Machine: *//p'; }
  native_machine=$(machine "/usr/lib/$triplet/liblumora-api.so.1")
  cross_machine=$(machine "/usr/lib/$cross_triplet/liblumora-api.so.1")
  say "liblumora-api.so.1: /usr/lib/$triplet ($native_machine), /usr/lib/$cross_triplet ($cross_machine)"
  [ -n "$native_machine" ] && [ -n "$cross_machine" ] && [ "$native_machine" != "$cross_machine" ] ||
    fail "the two architectures' liblumora-api.so.1 are not both there, each of its own machine"

  # pkg-config on the target's .pc files, as a cross build points it there.
  pc_libdir="/usr/lib/$cross_triplet/pkgconfig:/usr/share/pkgconfig"
  flags=$(in_root env PKG_CONFIG_LIBDIR="$pc_libdir" pkg-config --cflags --libs lumora-api) ||
    fail "pkg-config --cflags --libs lumora-api on the $cross .pc files failed"
  say "$cross: pkg-config --cflags --libs lumora-api: $flags"
  [ "$(in_root env PKG_CONFIG_LIBDIR="$pc_libdir" pkg-config --variable=libdir lumora-api)" = "/usr/lib/$cross_triplet" ] ||
    fail "the $cross lumora-api.pc: libdir is not /usr/lib/$cross_triplet"
  mkdir -p "$test/cross"
  in_root sh -c "cd /tmp/lumora-test/cross && PKG_CONFIG_LIBDIR=$pc_libdir make -s -f ../examples/tv-watcher/Makefile \
    CC=$cross_triplet-gcc CFLAGS='-O2 -Wall -Wextra -Werror'" || fail "tv-watcher does not cross-build for $cross with pkg-config"
  # find_package through the toolchain file.
  in_root cmake -S /tmp/lumora-test/examples/tv-dashboard -B /tmp/lumora-test/cross/dashboard \
    -DCMAKE_TOOLCHAIN_FILE="/tmp/lumora-test/cmake/toolchain-$cross.cmake" -DCMAKE_CXX_FLAGS=-Werror \
    >"$test/cross-dashboard.log" 2>&1 || {
    cat "$test/cross-dashboard.log" >&2
    fail "tv-dashboard does not configure for $cross with find_package"
  }
  grep -qx "LumoraApi_DIR:PATH=/usr/lib/$cross_triplet/cmake/LumoraApi" "$test/cross/dashboard/CMakeCache.txt" ||
    fail "find_package(LumoraApi) did not find /usr/lib/$cross_triplet/cmake/LumoraApi"
  in_root cmake --build /tmp/lumora-test/cross/dashboard >>"$test/cross-dashboard.log" 2>&1 || {
    cat "$test/cross-dashboard.log" >&2
    fail "tv-dashboard does not cross-build for $cross"
  }
  for app in tv-watcher dashboard/tv-dashboard; do
    [ "$(machine "/tmp/lumora-test/cross/$app")" = "$cross_machine" ] || fail "$app is not a $cross program"
    in_root readelf -d "/tmp/lumora-test/cross/$app" | grep -q 'NEEDED.*\[liblumora-api\.so\.1\]' ||
      fail "$app does not name liblumora-api.so.1"
  done
  say "$cross: tv-watcher (pkg-config) and tv-dashboard (find_package) cross-built: $cross_machine programs"

  # The target's own dynamic loader, run by the build machine's emulator
  # with the root as the target's file system, finds liblumora-api.so.1 of
  # the package in its multiarch folder: what the television's loader does.
  case $cross in
    armhf) emulator=qemu-arm ;;
    arm64) emulator=qemu-aarch64 ;;
    *) emulator= ;;
  esac
  if [ -n "$emulator" ] && command -v "$emulator" >/dev/null 2>&1; then
    interpreter=$(in_root readelf -l /tmp/lumora-test/cross/tv-watcher |
      sed -n 's/.*Requesting program interpreter: \(.*\)]/\1/p')
    [ -n "$interpreter" ] || fail "tv-watcher names no program interpreter"
    loaded=$("$emulator" -L "$root" "$root$interpreter" --list /tmp/lumora-test/cross/tv-watcher 2>&1) ||
      fail "the $cross loader ($interpreter) could not load tv-watcher: $loaded"
    # (/lib is /usr/lib in a merged-/usr root, and the loader looks there first.)
    printf '%s\n' "$loaded" | grep -Eq "liblumora-api\.so\.1 => (/usr)?/lib/$cross_triplet/liblumora-api\.so\.1 " || {
      printf '%s\n' "$loaded" >&2
      fail "the $cross loader does not find liblumora-api.so.1 in /usr/lib/$cross_triplet"
    }
    say "$cross: its loader $interpreter, under $emulator, loads tv-watcher with /usr/lib/$cross_triplet/liblumora-api.so.1"
  else
    fail "no emulator for $cross on the build machine: the $cross loader was not tried"
  fi
}

test_packages() {
  debs=$3 source_dir=$4 apt_cache=$5 cross=${6:-} cross_debs=${7:-}
  enter_root "$apt_cache"
  test=$root/tmp/lumora-test
  mkdir -p "$test/debs"
  cp "$debs"/*.deb "$test/debs/"
  chmod -R a+rX "$test"
  arch=$(in_root dpkg --print-architecture)
  triplet=$(dpkg-architecture -A "$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)

  # What the packages must bring in by their Depends is not there yet.
  for need in libglib2.0-dev libjsoncpp-dev libsqlite3-dev pkg-config pkgconf dbus-daemon; do
    ! installed "$need" || fail "$need is in the root before the packages: their Depends would not be tested"
  done
  ! in_root ldconfig -p | grep -q liblumora || fail "the root knows liblumora before the packages"

  apt_in_root "$test/apt-update.log" update
  files=
  for deb in "$test"/debs/*.deb; do files="$files /tmp/lumora-test/debs/${deb##*/}"; done
  # shellcheck disable=SC2086
  apt_in_root "$test/apt-install.log" install --no-install-recommends $files
  pulled=$(sed -n '/^The following NEW packages will be installed:/,/^[^ ]/p' "$test/apt-install.log" |
    sed '1d;$d' | tr -s ' ' '\n' | grep -c .) || true
  say "apt-get installed the three packages and $((pulled - 3)) others they depend on"
  # Whether the Depends were enough shows in what follows, as a user would
  # meet it: pkg-config, the builds, the bus.
  for package in $packages; do
    installed "$package" || fail "$package is not installed"
    say "$package: Multi-Arch: $(in_root dpkg-query -W -f '${Multi-Arch}' "$package")"
    in_root dpkg -L "$package" >>"$test/files"
  done

  # ldconfig ran through dpkg's trigger, and no maintainer script of ours.
  in_root ldconfig -p | grep -q "liblumora-api.so.1 .*/$triplet/liblumora-api.so.1" ||
    fail "the dynamic linker's cache does not list liblumora-api.so.1 after the install"
  for script in postinst postrm preinst prerm; do
    [ ! -e "$root/var/lib/dpkg/info/liblumora-api1:$arch.$script" ] ||
      fail "liblumora-api1 has a $script"
  done

  # pkg-config alone, with what the Depends brought in.
  flags=$(in_root pkg-config --cflags --libs lumora-api) || fail "pkg-config --cflags --libs lumora-api failed"
  say "pkg-config --cflags --libs lumora-api: $flags"
  case " $flags " in
    *" -I/usr/include "* | *" -L/usr/lib/$triplet "* | *"/../"*)
      fail "pkg-config gives a system folder or a path through .. ($flags): the .pc files do not name plain /usr paths" ;;
  esac
  [ "$(in_root pkg-config --variable=libdir lumora-api)" = "/usr/lib/$triplet" ] || fail "lumora-api.pc: libdir is not /usr/lib/$triplet"
  [ "$(in_root pkg-config --variable=includedir lumora-api)" = "/usr/include" ] || fail "lumora-api.pc: includedir is not /usr/include"
  in_root pkg-config --static --libs lumora-api >/dev/null || fail "pkg-config --static --libs lumora-api failed"

  say "building the examples in the root"
  cp -R "$source_dir/examples" "$test/examples"
  in_root sh -c 'cd /tmp/lumora-test && make -s -f examples/tv-watcher/Makefile CFLAGS="-O2 -Wall -Wextra -Werror"' ||
    fail "tv-watcher does not build with pkg-config"
  in_root cmake -S /tmp/lumora-test/examples/tv-dashboard -B /tmp/lumora-test/dashboard -DCMAKE_CXX_FLAGS=-Werror \
    >"$test/dashboard.log" 2>&1 || {
    cat "$test/dashboard.log" >&2
    fail "tv-dashboard does not configure with find_package"
  }
  grep -qx "LumoraApi_DIR:PATH=/usr/lib/$triplet/cmake/LumoraApi" "$test/dashboard/CMakeCache.txt" ||
    fail "find_package(LumoraApi) did not find /usr/lib/$triplet/cmake/LumoraApi"
  in_root cmake --build /tmp/lumora-test/dashboard >>"$test/dashboard.log" 2>&1 || {
    cat "$test/dashboard.log" >&2
    fail "tv-dashboard does not build"
  }
  for app in tv-watcher dashboard/tv-dashboard; do
    in_root ldd "/tmp/lumora-test/$app" | grep -Eq "liblumora-api.so.1 => /(usr/)?lib/$triplet/liblumora-api.so.1" ||
      fail "$app does not load the packaged liblumora-api.so.1"
  done

  version=$(in_root lumora --version) || fail "lumora --version failed"
  say "$version"
  [ "$version" = "lumora $(in_root dpkg-query -W -f '${Version}' lumora-tools)" ] || fail "lumora --version is not the package's"
  for page in lumora lumora-sim; do
    grep -qx "/usr/share/man/man1/$page.1.gz" "$test/files" || fail "no manual page $page(1) in lumora-tools"
  done

  say "tv-watcher against the installed lumora-sim on a private bus in the root"
  exec_in_root dbus-daemon --config-file=/usr/share/lumora-sim/lumora-private-bus.conf --nofork --nopidfile \
    --print-address=3 3>"$test/address" 2>"$test/bus.log" &
  bus_pid=$!
  wait_for test -s "$test/address" || fail "no private bus"
  bus="DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$test/address")"
  exec_in_root env "$bus" LUMORA_LOG_FILE=/tmp/lumora-test/sim.log lumora-sim \
    --scenario /usr/share/lumora-sim/sample-tv.json >"$test/sim.out" 2>&1 &
  sim_pid=$!
  wait_for test -e "$root/tmp/lmf_service_ready" || fail "lumora-sim did not start"
  value=$(in_root env "$bus" lumora read Ctx/Media/Source/Info/Current) || fail "lumora read failed"
  say "lumora read Ctx/Media/Source/Info/Current -> $value"
  case $value in *'"Source"'*) ;; *) fail "unexpected value $value" ;; esac

  exec_in_root env "$bus" LUMORA_LOG_FILE=/tmp/lumora-test/watcher.log /tmp/lumora-test/tv-watcher \
    >"$test/watcher.out" 2>&1 &
  watcher_pid=$!
  printed() { grep -q "$1" "$test/watcher.out"; }
  wait_for printed "programme now: .*Nine O'Clock News" || {
    cat "$test/watcher.out" >&2
    fail "tv-watcher printed no current programme"
  }
  in_root env "$bus" lumora-sim ctl emit Ctx/Media/Broadcast/Program/Changed '{"ProgramTitle":"Late Movie"}' >/dev/null ||
    fail "lumora-sim ctl emit failed"
  wait_for printed 'programme changed: {"ProgramTitle":"Late Movie"}' || {
    cat "$test/watcher.out" >&2
    fail "tv-watcher did not hear the programme change"
  }
  kill -INT "$watcher_pid"
  status=0
  wait "$watcher_pid" || status=$?
  [ "$status" -eq 0 ] || fail "tv-watcher exited with status $status on Ctrl-C"
  printed "tv-watcher: stopped" || fail "tv-watcher did not say it stopped"
  sed 's/^/  tv-watcher| /' "$test/watcher.out"
  kill -TERM "$sim_pid"
  wait "$sim_pid" || true
  kill -TERM "$bus_pid"
  wait "$bus_pid" || true

  # An app's tests against the installed simulator: GoogleTest tests with
  # the installed fixture header, each starting its own bus and simulator,
  # and the app's program under lumora-sim run.
  say "tv-app-tests: its GoogleTest tests against the installed lumora-sim, and its program under lumora-sim run"
  { in_root cmake -S /tmp/lumora-test/examples/tv-app-tests -B /tmp/lumora-test/app-tests -DCMAKE_CXX_FLAGS=-Werror &&
    in_root cmake --build /tmp/lumora-test/app-tests; } >"$test/app-tests.log" 2>&1 || {
    cat "$test/app-tests.log" >&2
    fail "tv-app-tests does not build with find_package(LumoraApi) and GoogleTest"
  }
  in_root ctest --test-dir /tmp/lumora-test/app-tests --output-on-failure >"$test/app-tests.out" 2>&1 || {
    cat "$test/app-tests.out" >&2
    fail "the tests of tv-app-tests failed against the installed lumora-sim"
  }
  grep -q "tv-source-badge-under-lumora-sim-run .* Passed" "$test/app-tests.out" ||
    fail "tv-app-tests did not run its program under lumora-sim run"
  grep "tests passed" "$test/app-tests.out" | sed 's/^/  tv-app-tests| /'
  for file in /usr/include/lumora/testing/LumoraSimFixture.h /usr/lib/python3/dist-packages/lumora/testing.py; do
    grep -qx "$file" "$test/files" || fail "$file is not in the packages"
  done

  purge=$packages
  if [ -n "$cross" ]; then
    cross_packages "$cross" "$cross_debs"
    purge="$purge liblumora-api1:$cross liblumora-api-dev:$cross"
  fi

  say "apt-get purge $purge"
  # shellcheck disable=SC2086
  apt_in_root "$test/apt-purge.log" purge $purge
  left=0
  for package in $packages; do
    ! installed "$package" || fail "$package is still installed"
    if [ -n "$(in_root dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null)" ]; then
      echo "packages: dpkg still knows $package (not purged)" >&2
      left=1
    fi
    for info in "$root"/var/lib/dpkg/info/"$package".* "$root"/var/lib/dpkg/info/"$package":*; do
      [ ! -e "$info" ] || { echo "packages: left behind: ${info#"$root"}" >&2; left=1; }
    done
  done
  while read -r path; do
    # Folders shared with other packages stay; the packages' own files go.
    if [ -e "$root$path" ] && [ ! -d "$root$path" ] || [ -L "$root$path" ]; then
      echo "packages: left behind: $path" >&2
      left=1
    fi
  done <"$test/files"
  for folder in /usr/share/lumora-sim /usr/include/lumora "/usr/lib/$triplet/cmake/LumoraApi" \
    /usr/lib/python3/dist-packages/lumora \
    ${cross:+"/usr/lib/$cross_triplet/cmake/LumoraApi"} \
    /usr/share/doc/liblumora-api1 /usr/share/doc/liblumora-api-dev /usr/share/doc/lumora-tools; do
    [ ! -e "$root$folder" ] || { echo "packages: left behind: $folder" >&2; left=1; }
  done
  ! in_root ldconfig -p | grep -q liblumora || { echo "packages: the linker's cache still lists liblumora" >&2; left=1; }
  # dpkg's own word: no installed package owns a path with lumora in it.
  if owners=$(in_root dpkg -S '*lumora*' 2>/dev/null); then
    echo "packages: dpkg -S still finds:" >&2
    echo "$owners" >&2
    left=1
  fi
  # And the file system's: nothing named after the project is left, but for
  # this test's own folder and the state the programs wrote in root's home
  # (a user's data, which a purge leaves alone).
  strays=$(find "$root" -xdev \( -path "$root/tmp/lumora-test" -o -path "$root/root" -o -path "$root/proc" \) -prune \
    -o -name '*lumora*' -print | sed "s|^$root||")
  if [ -n "$strays" ]; then
    echo "packages: left behind:" >&2
    echo "$strays" >&2
    left=1
  fi
  [ "$left" -eq 0 ] || fail "the packages left files after apt-get purge"
  say "nothing of the packages is left"
}

case $command in
  create) create "$@" ;;
  test) test_packages "$@" ;;
  *) fail "unknown command $command" ;;
esac
