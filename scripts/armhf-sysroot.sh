#!/bin/sh
# Prepare what the board (32-bit ARM, arm-linux-gnueabihf) build needs on a Debian 12 machine:
# the cross compiler, qemu-arm and pkg-config from apt, and a sysroot holding the armhf Jansson
# and zlib (the daemon's), libmicrohttpd and libcrypt (taviweb's), taken from Debian's armhf
# packages and unpacked with dpkg -x. Debian builds libmicrohttpd with GnuTLS, so its run-time
# libraries come along (taviweb serves plain HTTP, but the library needs them to load).
#
#   scripts/armhf-sysroot.sh [DIR]      DIR defaults to sysroot-armhf in the repository root
#
# Safe to run again: the tools are installed only when missing, and a complete sysroot is left
# alone unless TAVID_SYSROOT_REFRESH=1 is set. The glibc of the board comes from the cross
# toolchain (/usr/arm-linux-gnueabihf), not from this sysroot.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$repo/sysroot-armhf}
packages="libjansson4:armhf libjansson-dev:armhf zlib1g:armhf zlib1g-dev:armhf
  libmicrohttpd12:armhf libmicrohttpd-dev:armhf libcrypt1:armhf libcrypt-dev:armhf
  libgnutls30:armhf libgmp10:armhf libhogweed6:armhf libidn2-0:armhf libnettle8:armhf libp11-kit0:armhf
  libtasn1-6:armhf libunistring2:armhf libffi8:armhf"
# What a complete sysroot holds.
needed_files="usr/include/jansson.h usr/include/zlib.h usr/include/microhttpd.h usr/include/crypt.h
  usr/lib/arm-linux-gnueabihf/pkgconfig/jansson.pc usr/lib/arm-linux-gnueabihf/libjansson.so
  usr/lib/arm-linux-gnueabihf/libz.so usr/lib/arm-linux-gnueabihf/libmicrohttpd.so
  usr/lib/arm-linux-gnueabihf/libcrypt.so usr/lib/arm-linux-gnueabihf/libgnutls.so.30"
stamp_name=.tavid-sysroot

log() { printf 'armhf-sysroot: %s\n' "$*"; }
die() { printf 'armhf-sysroot: error: %s\n' "$*" >&2; exit 1; }

if [ "$(id -u)" -eq 0 ]; then
    as_root=
elif command -v sudo >/dev/null 2>&1; then
    as_root=sudo
else
    as_root=
fi
root() { $as_root "$@"; }

export DEBIAN_FRONTEND=noninteractive
apt_updated=0
apt_update() {
    # A mirror in the middle of a sync can fail one index (for example the security one) while
    # the rest is fine; what we need is checked afterwards, so a partial update is only a warning.
    if ! root apt-get update -q; then
        log "warning: apt-get update reported errors; going on with the indexes it has"
    fi
    apt_updated=1
}

# Tools: install only what is missing.
missing=
command -v arm-linux-gnueabihf-g++ >/dev/null 2>&1 || missing="$missing g++-arm-linux-gnueabihf"
command -v qemu-arm >/dev/null 2>&1 || missing="$missing qemu-user"
command -v pkg-config >/dev/null 2>&1 || missing="$missing pkg-config"
command -v dpkg-deb >/dev/null 2>&1 || missing="$missing dpkg"
if [ -n "$missing" ]; then
    log "installing:$missing"
    apt_update
    # shellcheck disable=SC2086
    root apt-get install -y -q --no-install-recommends $missing
fi

# Sysroot: skip when a previous run completed it.
stamp="$dir/$stamp_name"
complete=0
if [ -f "$stamp" ] && [ "${TAVID_SYSROOT_REFRESH:-0}" != 1 ]; then
    complete=1
    for f in $needed_files; do
        [ -e "$dir/$f" ] || complete=0
    done
fi
if [ "$complete" = 1 ]; then
    log "sysroot $dir is complete ($(tr '\n' ' ' < "$stamp"))"
    exit 0
fi

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    log "adding the armhf architecture"
    root dpkg --add-architecture armhf
    apt_updated=0
fi
[ "$apt_updated" = 1 ] || apt_update

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# apt drops privileges to _apt for downloads; let it write into the download directory.
chmod 0755 "$work"
if [ "$(id -u)" -eq 0 ] && id _apt >/dev/null 2>&1; then
    chown _apt "$work"
fi
log "downloading $packages"
# shellcheck disable=SC2086
(cd "$work" && apt-get download -q $packages) || die "apt-get download failed"

mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
: > "$work/versions"
for deb in "$work"/*.deb; do
    dpkg -x "$deb" "$dir"
    dpkg-deb -f "$deb" Package Version | paste -sd' ' - | sed 's/^Package: \(.*\) Version: /\1 /' >> "$work/versions"
done

# Debian's packages carry absolute symbolic links (zlib1g-dev: libz.so -> /lib/arm-linux-gnueabihf/...);
# inside a sysroot they must point into the sysroot, so make every absolute link relative.
find "$dir" -type l | while read -r link; do
    target=$(readlink "$link")
    case "$target" in
        /*)
            rel=$(realpath -m --relative-to="$(dirname "$link")" "$dir$target")
            ln -sfn "$rel" "$link"
            ;;
    esac
done

for f in $needed_files; do
    [ -e "$dir/$f" ] || die "$dir/$f missing after unpacking"
done

cp "$work/versions" "$stamp"
log "sysroot $dir ready: $(tr '\n' ' ' < "$stamp")"
