#!/bin/sh
# Installs the Debian packages the host build and its tests need, when any is missing.
# With "board", also what the 32-bit ARM build needs.
set -eu

packages="cmake make g++ pkg-config libjansson-dev zlib1g-dev googletest libgtest-dev libgmock-dev python3 python3-pytest procps valgrind"
if [ "${1:-}" = "board" ]; then
  packages="$packages g++-arm-linux-gnueabihf qemu-user file binutils-arm-linux-gnueabihf"
fi

missing=""
for package in $packages; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing:$missing"
# One failing index (a mirror mid-sync) must not stop the install; missing packages still fail below.
$sudo apt-get update -qq || echo "apt-get update reported errors; going on with the indexes it has"
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing >/dev/null
