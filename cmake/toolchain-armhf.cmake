# Cross toolchain for the box: 32-bit ARM Linux, glibc, hard-float (arm-linux-gnueabihf).
#
#   cmake -S . -B build-board -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Two roots are involved:
#   - the cross toolchain's own glibc and libstdc++ (TAVID_TOOLCHAIN_ROOT, /usr/arm-linux-gnueabihf),
#     which the compiler finds by itself;
#   - a sysroot with the armhf Jansson, zlib, libmicrohttpd and libcrypt unpacked from Debian's
#     packages (TAVID_SYSROOT, made by scripts/armhf-sysroot.sh), default sysroot-armhf in the
#     repository root or the TAVID_SYSROOT environment variable.
# Nothing is taken from the build machine's own /usr/include or /usr/lib.
#
# Executables link libstdc++ and libgcc statically (TAVID_STATIC_RUNTIME, ON by default), so
# that the box needs only glibc, Jansson and zlib. Tests run through qemu-arm
# (CMAKE_CROSSCOMPILING_EMULATOR); TAVID_QEMU_COMMAND holds the same command as one string, for
# TAVID_LAUNCHER.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TAVID_TARGET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${TAVID_TARGET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVID_TARGET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TAVID_TARGET})

# Where the sysroot is. This file lives in <repo>/cmake, so the default does not depend on
# CMAKE_SOURCE_DIR (which is a scratch directory inside try_compile projects).
get_filename_component(_tavid_repo "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
if(NOT TAVID_SYSROOT)
  if(NOT "$ENV{TAVID_SYSROOT}" STREQUAL "")
    set(TAVID_SYSROOT "$ENV{TAVID_SYSROOT}")
  else()
    set(TAVID_SYSROOT "${_tavid_repo}/sysroot-armhf")
  endif()
endif()
get_filename_component(TAVID_SYSROOT "${TAVID_SYSROOT}" ABSOLUTE)
set(TAVID_SYSROOT "${TAVID_SYSROOT}" CACHE PATH "armhf sysroot holding Jansson and zlib" FORCE)
if(NOT TAVID_TOOLCHAIN_ROOT)
  set(TAVID_TOOLCHAIN_ROOT /usr/${TAVID_TARGET})
endif()
set(TAVID_TOOLCHAIN_ROOT "${TAVID_TOOLCHAIN_ROOT}" CACHE PATH "Root of the cross toolchain's glibc")
if(NOT DEFINED TAVID_STATIC_RUNTIME)
  set(TAVID_STATIC_RUNTIME ON)
endif()
set(TAVID_STATIC_RUNTIME ${TAVID_STATIC_RUNTIME} CACHE BOOL "Link libstdc++ and libgcc statically")

# try_compile projects read this file again; hand them the same settings.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVID_SYSROOT TAVID_TOOLCHAIN_ROOT TAVID_STATIC_RUNTIME)

if(NOT EXISTS "${TAVID_SYSROOT}/usr/lib/${TAVID_TARGET}/pkgconfig/jansson.pc")
  message(FATAL_ERROR "No armhf sysroot at ${TAVID_SYSROOT}; create it with scripts/armhf-sysroot.sh "
                      "or point TAVID_SYSROOT at one")
endif()

# find_* look for headers, libraries and packages in the two roots only; programs on the build
# machine.
set(CMAKE_FIND_ROOT_PATH "${TAVID_SYSROOT}" "${TAVID_TOOLCHAIN_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config: only the sysroot's .pc files (Debian puts them in the multiarch directory), with
# their /usr paths moved into the sysroot.
set(ENV{PKG_CONFIG_LIBDIR}
    "${TAVID_SYSROOT}/usr/lib/${TAVID_TARGET}/pkgconfig:${TAVID_SYSROOT}/usr/lib/pkgconfig:${TAVID_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TAVID_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")
set(PKG_CONFIG_USE_CMAKE_PREFIX_PATH OFF)

# Nothing links against the build machine's paths at run time: no build-tree RPATH pointing into
# the sysroot. Under qemu the libraries are found through LD_LIBRARY_PATH (below).
set(CMAKE_SKIP_RPATH ON CACHE BOOL "Do not record library directories of the build machine in binaries")

# The linker checks the libraries' own libraries (libmicrohttpd's GnuTLS) in the sysroot; -rpath-link
# only says where to look while linking and records nothing in the binary.
set(_tavid_rpath_link "-Wl,-rpath-link,${TAVID_SYSROOT}/usr/lib/${TAVID_TARGET}:${TAVID_SYSROOT}/lib/${TAVID_TARGET}")
if(TAVID_STATIC_RUNTIME)
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc ${_tavid_rpath_link}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc ${_tavid_rpath_link}")
else()
  set(CMAKE_EXE_LINKER_FLAGS_INIT "${_tavid_rpath_link}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_tavid_rpath_link}")
endif()

# Running ARM programs on the build machine: qemu-arm finds the dynamic loader and glibc under
# the toolchain root (-L), and the sysroot's Jansson and zlib through the guest's LD_LIBRARY_PATH
# (-E sets it for the ARM program only, not for qemu itself).
find_program(TAVID_QEMU_ARM qemu-arm)
if(NOT TAVID_QEMU_ARM)
  set(TAVID_QEMU_ARM qemu-arm)
endif()
set(_tavid_ld_path "${TAVID_SYSROOT}/usr/lib/${TAVID_TARGET}:${TAVID_SYSROOT}/lib/${TAVID_TARGET}")
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${TAVID_QEMU_ARM}" -L "${TAVID_TOOLCHAIN_ROOT}" -E "LD_LIBRARY_PATH=${_tavid_ld_path}")
string(REPLACE ";" " " TAVID_QEMU_COMMAND "${CMAKE_CROSSCOMPILING_EMULATOR}")
set(TAVID_QEMU_COMMAND "${TAVID_QEMU_COMMAND}" CACHE STRING "qemu-arm command that runs board binaries here" FORCE)
