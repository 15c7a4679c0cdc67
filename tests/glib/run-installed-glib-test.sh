#!/bin/sh
# Installs the build tree into a temporary prefix and uses the GObject API
# from there as applications would: a C program built with pkg-config and one
# with find_package (Lumora::glib), the Vala program of the tests built with
# the README's valac line, and python3 and gjs loading the installed typelib.
# None of them reaches a bus.
# Usage: run-installed-glib-test.sh BUILD_DIR PYTHON3 GJS
set -eu
build_dir=$1
python3=$2
gjs=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/lumora-glib-installed-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liblumora-glib.so.0' | head -n 1)")
for file in "$libdir/girepository-1.0/Lumora-1.0.typelib" "$prefix/share/gir-1.0/Lumora-1.0.gir" \
  "$prefix/share/vala/vapi/lumora-glib.vapi" "$prefix/share/vala/vapi/lumora-glib.deps" \
  "$prefix/include/lumora-glib/lumora-glib.h" "$prefix/include/lumora-glib/lumora-enum-types.h" \
  "$libdir/pkgconfig/lumora-glib.pc"; do
  [ -f "$file" ] || fail "not installed: $file"
done
soname=$(objdump -p "$libdir/liblumora-glib.so.0" | awk '$1 == "SONAME" { print $2 }')
[ "$soname" = "liblumora-glib.so.0" ] || fail "SONAME $soname"
export PKG_CONFIG_PATH=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir
echo "pkg-config: lumora-glib $(pkg-config --modversion lumora-glib): $(pkg-config --cflags --libs lumora-glib)"

cc -std=c11 -Wall -Wextra -Werror -o "$work/c_pc" "$here/installed/consumer.c" $(pkg-config --cflags --libs lumora-glib)
"$work/c_pc"
cmake -S "$here/installed" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS=-Werror >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/glib_consumer"

# The README's line, with the prefix.
(cd "$work" && valac --vapidir="$prefix/share/vala/vapi" --pkg lumora-glib -o "$work/vala_reader" \
  "$here/bindings/reader.vala" >/dev/null)
[ -x "$work/vala_reader" ] || fail "valac built nothing"

export GI_TYPELIB_PATH=$libdir/girepository-1.0
"$python3" -c "
import gi
gi.require_version('Lumora', '1.0')
from gi.repository import GLib, Lumora
assert Lumora.SubscribeFlags.WITH_VALUE == 1
assert GLib.quark_to_string(Lumora.ClientError.quark()) == 'lumora-client-error-quark'
assert callable(Lumora.Client.get_default)
print('python3: Lumora', Lumora._version)
"
if [ -n "$gjs" ]; then
  "$gjs" -c "imports.gi.versions.Lumora = '1.0'; const {Lumora} = imports.gi;
if (Lumora.SubscribeFlags.WITH_VALUE !== 1) throw new Error('flags');
print('gjs: Lumora ' + Lumora.Client.name);"
fi
echo "installed glib ok"
