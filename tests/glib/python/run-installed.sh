#!/bin/sh
# Installs the build tree into a temporary prefix and runs the Python suite
# of the GObject API against it, as an application's tests would run beside
# an installed liblumora-glib: the installed typelib and libraries, the
# installed lumora.testing and the lumora-sim beside it. The suite checks that
# every liblumora library and the typelib it loaded lie under the prefix
# (LUMORA_GI_EXPECT_PREFIX); the C++ twin of the dashboard example is not
# installed, so its comparison is skipped here.
# Usage: run-installed.sh BUILD_DIR PYTHON3
set -eu
build_dir=$1
python3=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/lumora-gi-installed-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liblumora-glib.so.0' | head -n 1)")
modules=$(dirname "$(find "$prefix" -path '*/lumora/testing.py' | head -n 1)")
[ -f "$libdir/girepository-1.0/Lumora-1.0.typelib" ] || { echo "FAIL: no installed typelib" >&2; exit 1; }
[ -x "$prefix/bin/lumora-sim" ] || { echo "FAIL: no installed lumora-sim" >&2; exit 1; }

# Nothing of the build tree: the simulator is found beside the installed
# module, the typelib and the library under the prefix.
unset LUMORA_SIM LUMORA_SIM_DBUS_CONFIG LUMORA_TV_DASHBOARD LUMORA_SAMPLE_SCENARIO
export GI_TYPELIB_PATH="$libdir/girepository-1.0"
export LD_LIBRARY_PATH="$libdir"
PYTHONPATH=$(dirname "$modules")
export PYTHONPATH
export PYTHONDONTWRITEBYTECODE=1
export LUMORA_GI_EXPECT_PREFIX="$prefix"
cd "$work"
"$python3" -m pytest -p no:cacheprovider -q -rs "$here"
echo "installed python suite ok"
