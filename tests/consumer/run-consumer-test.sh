#!/bin/sh
# Installs the build tree into a temporary prefix, then builds and runs a C and
# a C++ application against the installed tree, once with pkg-config and once
# with find_package, and a C application that declares its own prototypes.
set -eu
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/lumora-consumer-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liblumora-api.so.1' | head -n 1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
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
cc -std=c11 -Wall -Wextra -Werror -o "$work/c_pc" "$here/consumer.c" $(pkg-config --cflags --libs lumora-api)
c++ -std=c++17 -Wall -Wextra -Werror -o "$work/cpp_pc" "$here/consumer.cpp" $(pkg-config --cflags --libs lumora-api)
cc -std=c11 -Wall -Wextra -Werror -o "$work/own_pc" "$here/own_prototypes.c" $(pkg-config --libs lumora-api)
"$work/c_pc"
"$work/cpp_pc"
LUMORA_LOG_LEVEL=none "$work/own_pc"

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer_c"
"$work/cmake/consumer_cpp"
echo "installed-tree consumers ok"
