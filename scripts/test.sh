#!/bin/sh
# Builds the host daemon with AddressSanitizer and UndefinedBehaviorSanitizer and runs every
# test: the unit tests and the integration tests against the box simulator; then, under valgrind,
# the unit tests and the integration tests that cover every object and mode. Each part names its
# skipped tests and counts them.
set -eu
cd "$(dirname "$0")/.."
scripts/deps.sh
build=build/test
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DTAVID_SANITIZE=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
# Any sanitizer report fails the test that met it.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
scripts/ctest.sh "$build" -j"$(nproc)"
# The same under valgrind (a build of its own).
scripts/valgrind.sh
