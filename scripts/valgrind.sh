#!/bin/sh
# Runs every unit test under valgrind's memcheck, in a build without sanitizers (the two do not
# mix). Any error or definite leak fails the run; the failing test's report is printed.
set -eu
cd "$(dirname "$0")/.."
build=build/valgrind
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DTAVID_SANITIZE=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
log=$build/valgrind.log
for test in "$build"/tests/unit/test_*; do
  [ -x "$test" ] || continue
  if ! valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
      "$test" --gtest_brief=1 >"$log" 2>&1; then
    cat "$log"
    echo "valgrind: $(basename "$test") failed"
    exit 1
  fi
  echo "valgrind: $(basename "$test") clean"
done
