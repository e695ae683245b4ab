#!/bin/sh
# Installs the Debian packages the host build and its tests need, when any is missing.
# Each argument adds a group: "board" (the 32-bit ARM build), "fuzz" (the libFuzzer harnesses),
# "lint" (the static analysis), "browser" (the operator console's tests in headless Chromium).
set -eu

# libmicrohttpd and libcrypt for taviweb; Prometheus (with promtool), openssl and curl for its tests
# and the README's examples.
packages="cmake make g++ pkg-config libjansson-dev zlib1g-dev googletest libgtest-dev libgmock-dev python3 python3-pytest procps valgrind iproute2
  libmicrohttpd-dev libcrypt-dev prometheus openssl curl"
for group in "$@"; do
  case "$group" in
    board) packages="$packages g++-arm-linux-gnueabihf qemu-user file binutils-arm-linux-gnueabihf" ;;
    fuzz) packages="$packages clang libclang-rt-14-dev iproute2" ;;
    lint) packages="$packages clang clang-tidy cppcheck" ;;
    browser) packages="$packages chromium chromium-driver python3-selenium" ;;
    *) echo "usage: scripts/deps.sh [board] [fuzz] [lint] [browser]" >&2; exit 2 ;;
  esac
done

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
