#!/bin/sh
# The Debian packages as a user gets them, on a clean Debian system rather
# than on the build machine (whose installed -dev packages would hide a
# missing Depends):
#  1. builds them (scripts/package.sh, lintian included);
#  2. makes a minimal root of this machine's own Debian release with
#     debootstrap --variant=minbase, from the Debian mirror that this
#     machine's apt sources name, plus what building the examples takes
#     (g++, make, cmake, and GoogleTest for tv-app-tests: an application's
#     choice, which the packages do not depend on); the root is kept as a
#     tarball under build/package-root and made again when its release,
#     mirror or tool list changes or it is a week old;
#  3. in a fresh copy of that root (chroot, in a mount and PID namespace of
#     its own: scripts/package-root.sh) installs the three packages with
#     apt-get, so that their Depends alone bring in everything, builds both
#     examples (pkg-config, find_package), runs tv-watcher against the
#     installed lumora-sim on a private dbus-daemon and tv-app-tests' tests
#     (the installed GoogleTest fixture, lumora-sim run), purges the
#     packages and checks that nothing of theirs is left;
#  4. with --cross ARCH, before the purge: builds the packages of ARCH too
#     (scripts/package.sh ARCH), installs its liblumora-api1 and
#     liblumora-api-dev beside the machine's own in the root (dpkg
#     --add-architecture, apt-get with crossbuild-essential-ARCH), checks
#     that both architectures' libraries are there, and cross-builds both
#     examples against the ARCH ones (pkg-config on the target's .pc files,
#     find_package through cmake/toolchain-ARCH.cmake).
# Needs root (debootstrap, chroot, mount) and the network to the mirror.
# Prints how long each step took; exits non-zero when a step fails.
# Usage: scripts/test-packages.sh [--cross ARCH]
#   LUMORA_PACKAGE_ROOT_CACHE=DIR  keep the root in DIR instead of build/package-root
set -eu
cd "$(dirname "$0")/.."
cross=
case ${1:-} in
  --cross) cross=${2:?usage: scripts/test-packages.sh [--cross ARCH]} ;;
  "") ;;
  *) echo "usage: scripts/test-packages.sh [--cross ARCH]" >&2; exit 2 ;;
esac
source_dir=$(pwd)
start=$(date +%s)
# package-root.sh counts its lines' seconds from the same start.
LUMORA_PACKAGES_START=$start
export LUMORA_PACKAGES_START
say() { echo "packages: [$(($(date +%s) - start)) s] $*"; }
fail() {
  echo "packages: $*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || fail "needs root (debootstrap, chroot and mount); run it as root"
for tool in debootstrap unshare chroot dpkg-architecture apt-get tar; do
  command -v "$tool" >/dev/null 2>&1 || fail "$tool is missing (scripts/install-deps.sh installs what is needed)"
done

arch=$(dpkg --print-architecture)
codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
[ -n "$codename" ] || fail "/etc/os-release names no release (VERSION_CODENAME): not a Debian system?"
# The Debian archives this machine's apt uses for its own release: the
# release itself, its updates and its security updates, with their
# components. The first is debootstrap's mirror; all of them are the root's
# sources, so that the root gets the same versions as the packages were
# built against.
sources=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' \
  "Architecture: $arch" | sort -u |
  awk -v c="$codename" '$2 == c || $2 == c "-updates" || $2 == c "-security" {
    key = $1 " " $2; if (!(key in comps)) order[n++] = key; comps[key] = comps[key] " " $3 }
    END { for (i = 0; i < n; i++) print "deb " order[i] comps[order[i]] }')
mirror=$(echo "$sources" | awk -v c="$codename" '$3 == c { print $2; exit }')
[ -n "$mirror" ] || fail "no apt source of this machine serves $codename for $arch (apt-get update first?)"
# What building the examples takes, on top of minbase.
build_tools="g++ make cmake libgtest-dev"

cache=${LUMORA_PACKAGE_ROOT_CACHE:-$source_dir/build/package-root}
mkdir -p "$cache/apt-archives"
cache=$(cd "$cache" && pwd)
case $cache in *[!A-Za-z0-9/._+-]*) fail "the root's folder $cache has characters the chroot steps do not quote" ;; esac
base=$cache/$codename-$arch.tar
# What the kept root was made from; any difference makes it again. The
# format number goes up when package-root.sh changes how a root is made.
key="format 2; debootstrap $(dpkg-query -W -f '${Version}' debootstrap) --variant=minbase $codename $arch $mirror
$sources
tools: $build_tools"

work=
ns_pid=
# Every mount made for the root lives in the namespace of the unshare
# process and vanishes with it; its PID namespace takes every process started
# in the root with it. Only then are the files removed, never across a mount.
cleanup() {
  status=$?
  if [ -n "$ns_pid" ]; then
    kill -TERM "$ns_pid" 2>/dev/null || true
    wait "$ns_pid" 2>/dev/null || true
  fi
  if [ -n "$work" ] && [ -d "$work" ]; then
    if grep -q " $work/" /proc/mounts; then
      echo "packages: $work still has mounts; left in place" >&2
    else
      rm -rf --one-file-system "$work"
    fi
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
# Runs scripts/package-root.sh in a mount and PID namespace of its own; its
# child is killed when it dies.
in_namespace() {
  unshare --mount --propagation private --pid --fork --kill-child \
    sh "$source_dir/scripts/package-root.sh" "$@" &
  ns_pid=$!
  ns_status=0
  wait "$ns_pid" || ns_status=$?
  ns_pid=
  return "$ns_status"
}

work=$(mktemp -d "$cache/run-XXXXXX")
say "building the packages"
./scripts/package.sh "$work/debs"
say "packages built"
if [ -n "$cross" ]; then
  [ -f "cmake/toolchain-$cross.cmake" ] || fail "no toolchain file cmake/toolchain-$cross.cmake"
  say "building the $cross packages"
  ./scripts/cross-deps.sh "$cross"
  ./scripts/package.sh "$cross" "$work/cross-debs"
  say "$cross packages built"
fi

if [ -f "$base" ] && [ "$(cat "$base.key" 2>/dev/null)" = "$key" ] && [ -n "$(find "$base" -mtime -7)" ]; then
  say "minimal $codename root: kept from an earlier run ($base)"
else
  say "minimal $codename root: debootstrap --variant=minbase from $mirror, then $build_tools"
  rm -f "$base" "$base.key"
  echo "$sources" >"$work/sources.list"
  in_namespace create "$work/base" "$mirror" "$codename" "$arch" "$work/sources.list" "$cache/apt-archives" \
    "$build_tools" || fail "the minimal root could not be made"
  tar -C "$work/base" --numeric-owner -cf "$base.new" .
  rm -rf --one-file-system "$work/base"
  mv "$base.new" "$base"
  echo "$key" >"$base.key"
  say "minimal root kept as $base ($(du -sh "$base" | cut -f1))"
fi

mkdir "$work/root"
tar -C "$work/root" --numeric-owner -xpf "$base"
say "fresh copy of the root in $work/root"
# shellcheck disable=SC2086
in_namespace test "$work/root" "$work/debs" "$source_dir" "$cache/apt-archives" ${cross:+"$cross" "$work/cross-debs"} ||
  fail "the packages failed on a clean system"
say "packages ok"
