#!/bin/sh
# Installs the build tree into a temporary prefix, then builds and runs a C and
# a C++ application against the installed tree, once with pkg-config and once
# with find_package, and a C application that declares its own prototypes.
# A cross build's applications are built with its compilers and toolchain
# file and run under its emulator (build-tools.sh of the build tree).
set -eu
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
. "$build_dir/tests/build-tools.sh"
work=$(mktemp -d /tmp/lumora-consumer-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liblumora-api.so.1' | head -n 1)")
lumora_pkg_config "$libdir/pkgconfig"
export LD_LIBRARY_PATH=$libdir

echo "pkg-config: $(pkg-config --modversion lumora-api)"
# The .pc files name the prefix they were installed to, in plain paths.
cflags=$(pkg-config --cflags lumora-api)
echo "pkg-config --cflags lumora-api: $cflags"
case " $cflags " in *" -I$prefix/include "*) ;; *) echo "FAIL: no -I$prefix/include in $cflags" >&2; exit 1 ;; esac
case " $cflags $(pkg-config --libs lumora-api) " in
  *"/../"* | *"/./"*) echo "FAIL: pkg-config gives a path that is not plain" >&2; exit 1 ;;
esac
[ "$(pkg-config --variable=libdir lumora-api)" = "$libdir" ] ||
  { echo "FAIL: lumora-api.pc's libdir is not $libdir" >&2; exit 1; }
"$lumora_cc" -std=c11 -Wall -Wextra -Werror -o "$work/c_pc" "$here/consumer.c" $(pkg-config --cflags --libs lumora-api)
"$lumora_cxx" -std=c++17 -Wall -Wextra -Werror -o "$work/cpp_pc" "$here/consumer.cpp" \
  $(pkg-config --cflags --libs lumora-api)
"$lumora_cc" -std=c11 -Wall -Wextra -Werror -o "$work/own_pc" "$here/own_prototypes.c" $(pkg-config --libs lumora-api)
lumora_run "$work/c_pc"
lumora_run "$work/cpp_pc"
LUMORA_LOG_LEVEL=none lumora_run "$work/own_pc"

# shellcheck disable=SC2086
cmake -S "$here" -B "$work/cmake" -G Ninja $lumora_cmake_args -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
lumora_run "$work/cmake/consumer_c"
lumora_run "$work/cmake/consumer_cpp"
echo "installed-tree consumers ok"
