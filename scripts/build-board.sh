#!/bin/sh
# Board build: cross-compile tavid and taviweb for the box (32-bit ARM Linux, glibc, hard-float),
# run the tests under qemu-arm and check both binaries.
#
#   scripts/build-board.sh               box paths (TAVID_HOST_ROOT=OFF) into build-board/; builds
#                                        the daemon, tavictl, taviweb and the tests of the box paths, and
#                                        runs those tests: the rest of the code is the same in
#                                        both builds and is tested by the build below
#   scripts/build-board.sh --host-root   ARM binaries that take their paths from TAVID_ROOT
#                                        (TAVID_HOST_ROOT=ON) into build-board-hostroot/; builds
#                                        everything and runs every unit test and the integration
#                                        suite, with the daemon started through qemu-arm
#                                        (TAVID_LAUNCHER)
#
# Options: --no-tests (build and check only), --unit or --integration (with --host-root: only
# that part of the tests), -j N (parallel build jobs). The test summary names every skipped test.
# Environment: TAVID_SYSROOT (armhf sysroot, default sysroot-armhf in the repository root),
# CTEST_PARALLEL_LEVEL (ctest's own).
# Release with -Os; libstdc++ and libgcc are linked statically, so the daemon needs only
# glibc, Jansson and zlib on the box, and taviweb glibc, Jansson, libmicrohttpd and libcrypt.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
host_root=OFF
run_tests=1
suites="unit integration"
jobs=$(nproc 2>/dev/null || echo 2)

usage() { sed -n '2,21s/^# \{0,1\}//p' "$0"; }
while [ $# -gt 0 ]; do
    case "$1" in
        --host-root) host_root=ON ;;
        --no-tests) run_tests=0 ;;
        --unit) suites=unit ;;
        --integration) suites=integration ;;
        -j) [ $# -ge 2 ] || { usage >&2; exit 2; }; jobs=$2; shift ;;
        -j*) jobs=${1#-j} ;;
        -h|--help) usage; exit 0 ;;
        *) printf 'build-board: unknown argument %s\n' "$1" >&2; usage >&2; exit 2 ;;
    esac
    shift
done

if [ "$host_root" = ON ]; then
    build=$repo/build-board-hostroot
else
    build=$repo/build-board
fi
sysroot=${TAVID_SYSROOT:-$repo/sysroot-armhf}
target=arm-linux-gnueabihf

log() { printf 'build-board: %s\n' "$*"; }
failures=
fail() { printf 'build-board: FAIL: %s\n' "$*" >&2; failures="$failures
  $*"; }

if [ "$(id -u)" -eq 0 ]; then as_root=; elif command -v sudo >/dev/null 2>&1; then as_root=sudo; else as_root=; fi

# Build tools of the build machine (the cross tools come with the sysroot script).
missing=
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v make >/dev/null 2>&1 || missing="$missing make"
command -v file >/dev/null 2>&1 || missing="$missing file"
[ -f /usr/src/googletest/CMakeLists.txt ] || missing="$missing googletest"
if [ "$host_root" = ON ] && [ "$run_tests" = 1 ]; then
    # The integration test runs Debian's /usr/bin/python3, whatever python3 is first in PATH.
    [ -x /usr/bin/python3 ] || missing="$missing python3"
    /usr/bin/python3 -c 'import pytest' >/dev/null 2>&1 || missing="$missing python3-pytest"
fi
if [ -n "$missing" ]; then
    log "installing:$missing"
    export DEBIAN_FRONTEND=noninteractive
    $as_root apt-get update -q || log "warning: apt-get update reported errors; going on"
    # shellcheck disable=SC2086
    $as_root apt-get install -y -q --no-install-recommends $missing
fi

"$repo/scripts/armhf-sysroot.sh" "$sysroot"
sysroot=$(cd "$sysroot" && pwd)

configure() {
    cmake -S "$repo" -B "$build" \
        -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchain-armhf.cmake" \
        -DTAVID_SYSROOT="$sysroot" \
        -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_C_FLAGS_RELEASE="-Os -DNDEBUG" \
        -DCMAKE_CXX_FLAGS_RELEASE="-Os -DNDEBUG" \
        -DTAVID_HOST_ROOT="$host_root" \
        -DTAVID_TESTS=ON \
        "$@"
}

log "configuring $build (TAVID_HOST_ROOT=$host_root, sysroot $sysroot)"
configure
if [ "$host_root" = ON ]; then
    # The integration suite starts the daemon itself; it goes through the same qemu-arm command
    # that CTest uses for the unit tests (the toolchain file computes it).
    qemu_command=$(sed -n 's/^TAVID_QEMU_COMMAND:STRING=//p' "$build/CMakeCache.txt")
    [ -n "$qemu_command" ] || { echo "build-board: TAVID_QEMU_COMMAND missing from the cache" >&2; exit 1; }
    configure -DTAVID_LAUNCHER="$qemu_command"
    log "TAVID_LAUNCHER=$qemu_command"
fi

# With the box's own paths only the box-path tests differ from the host-root build's.
if [ "$host_root" = ON ]; then
    targets=
else
    targets="--target tavid tavictl taviweb test_boxroot"
    suites=box-paths
fi
log "building with $jobs jobs"
# shellcheck disable=SC2086 # one word per target
cmake --build "$build" -j "$jobs" $targets

# The unit tests run side by side; the integration suite alone, its daemons slowed by qemu-arm.
if [ "$run_tests" = 1 ]; then
    for suite in $suites; do
        case "$suite" in
            unit) selection="-j $jobs -E ^integration$" ;;
            integration) selection="-R ^integration$" ;;
            box-paths) selection="-j $jobs -R ^Boxroot" ;;
        esac
        log "running the $suite tests under qemu-arm"
        # shellcheck disable=SC2086 # options and their patterns are separate words
        if ! "$repo/scripts/ctest.sh" "$build" $selection; then
            fail "ctest reported failures in the $suite tests (see above)"
        fi
    done
fi

# The shared libraries each program may need on the box, besides glibc: the daemon needs Jansson
# and zlib; taviweb needs Jansson, libmicrohttpd and libcrypt (Debian's libmicrohttpd brings GnuTLS
# and its libraries along, listed below).
glibc_libs="libc.so.6 libm.so.6 libpthread.so.0 libdl.so.2 librt.so.1 ld-linux-armhf.so.3"
allowed_tavid="libjansson.so.4 libz.so.1"
allowed_taviweb="libjansson.so.4 libmicrohttpd.so.12 libcrypt.so.1"

# The shared libraries an ARM binary names, one line.
needed_of() { $target-readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' '; }

# Every library the binary loads, its libraries' libraries included, found in the sysroot.
needed_closure() {
    todo=$(needed_of "$1") seen=
    while [ -n "$todo" ]; do
        # shellcheck disable=SC2086 # one word per library
        set -- $todo
        lib=$1; shift; todo=$*
        case " $seen $glibc_libs " in *" $lib "*) continue ;; esac
        seen="$seen $lib"
        found=$(find "$sysroot/usr/lib/$target" "$sysroot/lib/$target" -name "$lib" 2>/dev/null | head -n 1)
        [ -n "$found" ] && todo="$todo $(needed_of "$found")"
    done
    echo "$seen"
}

# check_binary NAME ALLOWED-LIBRARIES: the ARM EABI5 hard-float program, dynamically linked
# against glibc and the allowed libraries only, without an RPATH; prints its stripped size.
check_binary() {
    name=$1 allowed=$2
    bin=$(find "$build" -path "$build/CMakeFiles" -prune -o -path '*/CMakeFiles/*' -prune -o \
            -type f -name "$name" -perm -u+x -print | head -n 1)
    if [ -z "$bin" ]; then
        fail "no $name executable under $build"
        return
    fi
    log "checking $bin"
    file_out=$(file -b "$bin")
    echo "  file: $file_out"
    case "$file_out" in *"ELF 32-bit LSB"*) ;; *) fail "$name: not a 32-bit little-endian ELF" ;; esac
    case "$file_out" in *"ARM, EABI5"*) ;; *) fail "$name: not ARM EABI5" ;; esac
    case "$file_out" in *"dynamically linked"*) ;; *) fail "$name: not dynamically linked" ;; esac
    case "$file_out" in *"interpreter /lib/ld-linux-armhf.so.3"*) ;; *) fail "$name: loader is not the hard-float /lib/ld-linux-armhf.so.3" ;; esac

    vfp=$($target-readelf -A "$bin" | sed -n 's/^ *Tag_ABI_VFP_args: *//p')
    echo "  Tag_ABI_VFP_args: ${vfp:-(absent)}"
    [ "$vfp" = "VFP registers" ] || fail "$name: not hard-float (Tag_ABI_VFP_args is '${vfp:-absent}')"

    needed=$(needed_of "$bin")
    echo "  NEEDED: $needed"
    for lib in $needed; do
        case " $glibc_libs $allowed " in
            *" $lib "*) ;;
            *) fail "$name: unexpected shared library $lib (the box has glibc and $allowed)" ;;
        esac
    done
    echo "  loads (with its libraries' libraries, glibc aside):$(needed_closure "$bin")"
    if $target-readelf -d "$bin" | grep -Eq '\((RPATH|RUNPATH)\)'; then
        fail "$name: binary carries an RPATH/RUNPATH: $($target-readelf -d "$bin" | grep -E '\((RPATH|RUNPATH)\)')"
    fi
    glibc=$($target-readelf -V "$bin" | grep -o 'GLIBC_[0-9][0-9.]*' | sort -uV | tail -n 1)
    echo "  newest glibc symbol version needed: ${glibc:-none}"

    stripped=$build/$name.stripped
    $target-strip -o "$stripped" "$bin"
    echo "  size: $(stat -c %s "$bin") bytes, stripped $(stat -c %s "$stripped") bytes ($stripped)"
    $target-size "$stripped" | sed 's/^/  /'
}

check_binary tavid "$allowed_tavid"
check_binary taviweb "$allowed_taviweb"

if [ -n "$failures" ]; then
    printf 'build-board: FAILED:%s\n' "$failures" >&2
    exit 1
fi
log "OK ($build)"
