#!/bin/sh
# liblumora-platform links SQLite the ordinary way: the dependency is among
# the library's NEEDED entries (what ldd and packaging tools read), and the
# installed pkg-config file and CMake package name it where a static link
# needs it, and only there.
# usage: run-sqlite-link-test.sh BUILD_DIR PATH/TO/liblumora-platform.so.1
set -eu
build_dir=$1
library=$2

fail() {
    echo "FAIL: $*"
    exit 1
}

. "$build_dir/tests/build-tools.sh"

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p')
echo "NEEDED of $library:"
echo "$needed" | sed 's/^/  /'
echo "$needed" | grep -q '^libsqlite3\.so' || fail "libsqlite3 is not a NEEDED entry of $library"
if [ -n "$lumora_emulator" ]; then
  # ldd of the target: its dynamic loader (the interpreter its programs
  # name) listing the library's dependencies, under the emulator.
  loader=$(readelf -l "$build_dir/tools/cli/lumora" | sed -n 's/.*program interpreter: \(.*\)\]$/\1/p')
  resolved=$(lumora_run "$loader" --list "$library")
else
  resolved=$(ldd "$library")
fi
echo "$resolved" | grep -q 'libsqlite3\.so[^ ]* => /' || fail "the loader does not resolve libsqlite3 for $library"

work=$(mktemp -d /tmp/lumora-sqlite-link-XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'liblumora-platform.so.1' | head -n 1)")
readelf -d "$libdir/liblumora-platform.so.1" | grep -q 'NEEDED.*\[libsqlite3\.so' ||
    fail "the installed liblumora-platform.so.1 does not name libsqlite3"
lumora_pkg_config "$libdir/pkgconfig"

requires=$(pkg-config --print-requires-private lumora-api)
echo "pkg-config Requires.private of lumora-api: $requires"
echo "$requires" | grep -qx 'sqlite3' || fail "lumora-api.pc does not require sqlite3 privately"
static=$(pkg-config --static --libs lumora-api)
echo "pkg-config --static --libs lumora-api: $static"
case " $static " in *" -llumora-platform "*) ;; *) fail "a static link is not given -llumora-platform" ;; esac
case " $static " in *" -lsqlite3 "*) ;; *) fail "a static link is not given -lsqlite3" ;; esac
shared=$(pkg-config --libs lumora-api)
echo "pkg-config --libs lumora-api: $shared"
case " $shared " in *" -lsqlite3 "* | *" -llumora-platform "*) fail "a shared link is given private libraries" ;; esac

mkdir "$work/consumer"
cat >"$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(SqliteDependency LANGUAGES C)
find_package(LumoraApi 1 REQUIRED)
if(NOT TARGET PkgConfig::SQLITE)
  message(FATAL_ERROR "find_package(LumoraApi) did not provide PkgConfig::SQLITE")
endif()
message(STATUS "PkgConfig::SQLITE: found")
CMAKE
# shellcheck disable=SC2086
cmake -S "$work/consumer" -B "$work/consumer/build" $lumora_cmake_args -DCMAKE_PREFIX_PATH="$work/prefix" \
    >"$work/cmake.log" 2>&1 ||
    { cat "$work/cmake.log"; fail "find_package(LumoraApi) failed"; }
grep -q 'PkgConfig::SQLITE: found' "$work/cmake.log" || fail "the CMake package check did not run"
echo "sqlite link ok"
