#!/bin/sh
# Installs what a cross build for a Debian architecture needs on this (amd64)
# machine, and nothing when it is all there: the architecture in dpkg, the
# cross compilers, qemu-user (the emulator only: nothing is registered with
# binfmt_misc, the tests name it), and the target's own libraries and
# headers as multiarch packages (libglib2.0-dev:ARCH and the others).
# Runs apt-get as root, or through sudo when there is one.
#
# Usage: scripts/cross-deps.sh ARCH     (armhf or arm64)
#
# A Multi-Arch: same library is installed for both architectures at one
# version only, which the machine's installed libraries or a lagging index of
# the target's may not allow as the archive stands: scripts/multiarch-install.sh
# lines the versions up and prints what it changes of the machine's own.
#
# libsoup-3.0-dev:ARCH cannot be installed in bookworm (it depends on
# libsysprof-4-dev, which needs GTK 4's and gobject-introspection's
# development packages of the target, and those a python3 of the target).
# The simulator only needs libsoup's shared library, which is installed the
# ordinary way, and the files that find it at build time: the .pc files of
# libsoup-3.0 and sysprof-capture-4 and the libsoup-3.0.so link, taken from
# the archive's own libsoup-3.0-dev and libsysprof-4-dev of the target
# (apt-get download checks them against the index) into
# /usr/local/lib/TRIPLET, which Debian's cross pkg-config searches first.
# The headers are the build machine's (/usr/include/libsoup-3.0, the same
# files in every architecture's package).
set -eu
arch=${1:?usage: cross-deps.sh ARCH}
case $arch in
  armhf | arm64) ;;
  *) echo "cross-deps: unknown architecture $arch (armhf or arm64)" >&2; exit 2 ;;
esac
here=$(cd "$(dirname "$0")" && pwd)
triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
native=$(dpkg --print-architecture)
local_libdir=/usr/local/lib/$triplet

# The target's packages, besides the compilers and the emulator.
target_packages="libglib2.0-dev libjsoncpp-dev libsqlite3-dev libgtest-dev libgmock-dev libsoup-3.0-0
  libbrotli-dev libpsl-dev libnghttp2-dev zlib1g-dev"
wanted="crossbuild-essential-$arch qemu-user"
for pkg in $target_packages; do wanted="$wanted $pkg:$arch"; done

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
missing=""
for pkg in $wanted; do installed "$pkg" || missing="$missing $pkg"; done
soup_files="$local_libdir/pkgconfig/libsoup-3.0.pc $local_libdir/pkgconfig/sysprof-capture-4.pc
  $local_libdir/libsoup-3.0.so"
overlay_missing=""
for file in $soup_files; do [ -e "$file" ] || overlay_missing=yes; done
[ -z "$missing" ] && [ -z "$overlay_missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  sudo=""
elif command -v sudo >/dev/null 2>&1; then
  sudo="sudo"
else
  echo "cross-deps: missing:$missing${overlay_missing:+ (and libsoup's build files for $arch)}" \
    "(run as root or install them)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
work=$(mktemp -d /tmp/lumora-cross-deps-XXXXXX)
chmod 755 "$work"
trap 'rm -rf "$work"' EXIT

if [ -n "$missing" ]; then
  echo "cross-deps: installing:$missing"
  if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    $sudo dpkg --add-architecture "$arch"
  fi
  # An index that fails to download leaves apt with the others: say so and go
  # on, the versions are lined up below.
  if ! $sudo apt-get update -qq >"$work/update.log" 2>&1; then
    echo "cross-deps: apt-get update reported errors; going on with the indexes that were read:" >&2
    grep -E '^(E|W):' "$work/update.log" | head -n 5 >&2
  fi

  # Multi-Arch: same pairs lined up, what changes of the machine's printed.
  # shellcheck disable=SC2086
  $sudo "$here/multiarch-install.sh" "$arch" $missing
fi

if [ -n "$overlay_missing" ] || [ -n "$missing" ]; then
  soup_version=$(dpkg-query -W -f='${Version}' "libsoup-3.0-0:$arch")
  sysprof_version=$(apt-cache policy "libsysprof-4-dev:$arch" | awk '/Candidate:/ { print $2 }')
  mkdir -m 1777 "$work/download"
  (cd "$work/download" && apt-get download -qq "libsoup-3.0-dev:$arch=$soup_version" \
    "libsysprof-4-dev:$arch=$sysprof_version") >/dev/null
  for deb in "$work"/download/*.deb; do dpkg-deb -x "$deb" "$work/root"; done
  note="# The archive's file of the $arch package, for a cross build (liblumora-api's scripts/cross-deps.sh)"
  $sudo mkdir -p "$local_libdir/pkgconfig"
  for pc in libsoup-3.0 sysprof-capture-4; do
    { echo "$note"; sed "s|^libdir=.*|libdir=$local_libdir|" "$work/root/usr/lib/$triplet/pkgconfig/$pc.pc"; } \
      >"$work/$pc.pc"
    $sudo install -m 644 "$work/$pc.pc" "$local_libdir/pkgconfig/$pc.pc"
  done
  $sudo ln -sf "/usr/lib/$triplet/libsoup-3.0.so.0" "$local_libdir/libsoup-3.0.so"
  echo "cross-deps: libsoup-3.0's build files for $arch in $local_libdir"
fi
