#!/bin/sh
# Installs packages of a foreign architecture beside the machine's own with
# apt-get (Debian multiarch), the architecture already added to dpkg and its
# index read (apt-get update). Run as root; used by scripts/cross-deps.sh on
# the build machine and by scripts/package-root.sh in a minimal root.
#
# Usage: multiarch-install.sh ARCH ITEM...
#   ITEM: a package of the archive (NAME:ARCH for one of the target, NAME for
#   one of the machine's own), or a .deb file of ARCH (apt-get installs it
#   and what its Depends name).
#
# A Multi-Arch: same library is installed for both architectures at one
# version only. The machine's own copy may be older than the archive's
# (installed before the last point release), or the target's index may lag
# the machine's (a security index that did not download): either way apt
# finds the pair uninstallable as the archive stands. So every such package
# that the items may pull in (their dependencies, followed through the
# archive) is pinned, for this one apt-get run, to the target's candidate
# version when the machine's architecture has that version too: the
# machine's copy then moves up to it. What changes of the machine's own
# packages is printed first.
#
# When the target's index lags the machine's (its security index failed to
# download: "File has unexpected size", a mirror mid-sync), lining up would
# move the machine's own libraries down to older, unpatched versions. That
# is refused, with the packages named, unless LUMORA_ALLOW_DOWNGRADES=1 says
# the machine may be downgraded (a throw-away machine or root: CI's, the
# package test's); apt-get update again once the mirror has synced is the
# cure elsewhere.
set -eu
arch=${1:?usage: multiarch-install.sh ARCH ITEM...}
shift
native=$(dpkg --print-architecture)
work=$(mktemp -d /tmp/lumora-multiarch-XXXXXX)
trap 'rm -rf "$work"' EXIT

# Where the closure starts: the target's packages named, and the
# dependencies of the .deb files, taken as the target's.
roots=""
items=""
for item in "$@"; do
  case $item in
    *.deb)
      [ -f "$item" ] || { echo "multiarch-install: no file $item" >&2; exit 1; }
      deps=$(dpkg-deb -f "$item" Depends Pre-Depends | sed 's/^[A-Za-z-]*: //' | tr ',|' '\n\n' |
        sed 's/(.*)//; s/:any//; s/[[:space:]]//g' | grep . || true)
      for dep in $deps; do roots="$roots $dep:$arch"; done
      case $item in /*) items="$items $item" ;; *) items="$items ./$item" ;; esac
      ;;
    *:"$arch") roots="$roots $item"; items="$items $item" ;;
    *) items="$items $item" ;;
  esac
done

: >"$work/names"
if [ -n "$roots" ]; then
  # shellcheck disable=SC2086
  apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks --no-replaces \
    --no-enhances $roots 2>/dev/null | sed -n "s/^\([a-z0-9][^ <]*\):$arch\$/\1/p" | sort -u >"$work/names"
fi
candidates() { # :ARCH -> "NAME VERSION" per name of the closure
  [ -s "$work/names" ] || return 0
  sed "s/\$/$1/" "$work/names" | xargs apt-cache policy 2>/dev/null |
    awk '/^[^ ]/ { name = $1; sub(/:$/, "", name); sub(/:[a-z0-9]+$/, "", name) } /Candidate:/ { print name, $2 }' |
    sort
}
candidates ":$native" >"$work/native"
candidates ":$arch" >"$work/target"
: >"$work/pins"
join "$work/native" "$work/target" | while read -r name native_version target_version; do
  [ "$native_version" != "$target_version" ] && [ "$target_version" != "(none)" ] || continue
  apt-cache show "$name:$arch=$target_version" 2>/dev/null | grep -qx 'Multi-Arch: same' || continue
  if apt-cache show "$name:$native=$target_version" >/dev/null 2>&1; then
    installed_version=$(dpkg-query -W -f='${Version}' "$name:$native" 2>/dev/null || true)
    if [ -n "$installed_version" ] && dpkg --compare-versions "$target_version" lt "$installed_version"; then
      echo "$name $installed_version -> $target_version" >>"$work/downgrades"
      [ "${LUMORA_ALLOW_DOWNGRADES:-0}" = 1 ] || continue
    fi
    printf 'Package: %s\nPin: version %s\nPin-Priority: 1001\n\n' "$name" "$target_version" >>"$work/pins"
  else
    echo "multiarch-install: $name $target_version ($arch) has no $native build of that version" >&2
  fi
done

if [ -s "$work/downgrades" ]; then
  if [ "${LUMORA_ALLOW_DOWNGRADES:-0}" = 1 ]; then
    sed "s/^/multiarch-install: $native package moved down to the lagging $arch index (LUMORA_ALLOW_DOWNGRADES=1): /" \
      "$work/downgrades"
  else
    sed "s/^/multiarch-install: would move a $native package down to the $arch index's older version: /" \
      "$work/downgrades" >&2
    echo "multiarch-install: the $arch index lags the machine's (apt-get update failed for it?); refused:" \
      "run apt-get update once the mirror has synced, or set LUMORA_ALLOW_DOWNGRADES=1 on a throw-away machine" >&2
    exit 1
  fi
fi

export DEBIAN_FRONTEND=noninteractive
options="-o Dir::Etc::Preferences=$work/pins --no-install-recommends"
[ "${LUMORA_ALLOW_DOWNGRADES:-0}" != 1 ] || options="$options --allow-downgrades"
# shellcheck disable=SC2086
if ! apt-get install -s $options $items >"$work/plan" 2>&1; then
  tail -n 30 "$work/plan" >&2
  echo "multiarch-install: apt cannot install:$items" >&2
  exit 1
fi
sed -n "s/^Inst \([^ :]*\) \[\([^]]*\)\] (\([^ ]*\) .*/\1 \2 -> \3/p" "$work/plan" | while read -r line; do
  echo "multiarch-install: $native package changed beside the $arch ones: $line"
done
# shellcheck disable=SC2086
apt-get install -y -q -o Dpkg::Use-Pty=0 $options $items >"$work/install.log" 2>&1 || {
  tail -n 30 "$work/install.log" >&2
  echo "multiarch-install: apt-get install failed" >&2
  exit 1
}
