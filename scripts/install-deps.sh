#!/bin/sh
# Installs the Debian packages of scripts/packages.txt that are missing.
# Runs apt-get as root, or through sudo when there is one.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
missing=""
for pkg in $(grep -v '^#' "$here/packages.txt"); do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing="$missing $pkg"
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
if [ "$(id -u)" -eq 0 ]; then
  sudo=""
elif command -v sudo >/dev/null 2>&1; then
  sudo="sudo"
else
  echo "missing packages:$missing (run as root or install them)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
# shellcheck disable=SC2086
$sudo apt-get install -y -qq --no-install-recommends $missing >/dev/null
