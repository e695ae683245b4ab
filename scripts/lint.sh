#!/bin/sh
# Static analysis: clang-tidy and cppcheck over the daemon and its libraries (src/, lnklist/, i2c/,
# gpio/, it9300/), the clients (client/, tavictl/, taviweb/), the exporter of the protocol's
# description (schema/), the unit tests (tests/unit/), the
# fuzzing harnesses (fuzz/) and the soak's heap probe (scripts/soak_heap.c, which the soak builds
# itself, outside CMake). Fails on any finding. The checks are the checked-in configuration:
# .clang-tidy (tests/unit/.clang-tidy, fuzz/.clang-tidy and taviweb/.clang-tidy adjust it there)
# and .cppcheck-suppressions with the cppcheck options below.
#   scripts/lint.sh [build-dir]
# The build directory (default build/lint) only needs configuring (and taviweb's generated sources,
# which this script builds): the host build's compile commands, unit tests included, and in
# <build-dir>/fuzz-db those of the harnesses (clang).
set -eu

cd "$(dirname "$0")/.."
build="${1:-build/lint}"

scripts/deps.sh lint

cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
# taviweb's generated sources, in both databases: the routes include a header made from the
# console's files, and the compile commands name the built-in files' sources (the description of
# the protocol among them, which the daemon's modules and their exporter are built for).
cmake --build "$build" -j2 --target taviweb_generated >/dev/null
CC=clang CXX=clang++ cmake -S . -B "$build/fuzz-db" -DTAVID_FUZZ=ON -DTAVID_TESTS=OFF \
  -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
cmake --build "$build/fuzz-db" -j2 --target taviweb_generated >/dev/null

# The slowest first, so that the two jobs end together.
files=$(printf '%s\n' tests/unit/test_*.cpp fuzz/fuzz_*.cpp src/*.cpp lnklist/src/*.cpp i2c/src/*.cpp \
  gpio/src/*.cpp it9300/src/*.cpp client/src/*.cpp tavictl/src/*.cpp taviweb/src/*.cpp schema/src/*.cpp)

started=$(date +%s)
tidy_status=0
# Each file's diagnostics come out in one piece, only when it has findings; the harnesses take
# their compile commands from the clang configuration.
# shellcheck disable=SC2016 # expanded by the inner shell
printf '%s\n' "$files" | xargs -P2 -I{} sh -c '
  case "$1" in fuzz/*) db="$2/fuzz-db" ;; *) db="$2" ;; esac
  if ! out=$(clang-tidy -p "$db" --quiet "$1" 2>&1); then
    printf "%s\n" "$out" | grep -v -E "^[0-9]+ (warnings?|errors?)( and [0-9]+ errors?)? generated\.$"
    echo "clang-tidy: $1 has findings"
    exit 1
  fi' sh {} "$build" || tidy_status=$?
if ! out=$(clang-tidy --quiet scripts/soak_heap.c -- -std=c11 -D_GNU_SOURCE 2>&1); then
  printf '%s\n' "$out" | grep -v -E "^[0-9]+ (warnings?|errors?)( and [0-9]+ errors?)? generated\.$"
  echo "clang-tidy: scripts/soak_heap.c has findings"
  tidy_status=1
fi
tidy_done=$(date +%s)
echo "clang-tidy: $(($(printf '%s\n' "$files" | wc -l) + 1)) files in $((tidy_done - started)) s"

cppcheck_run() {
  cppcheck --std=c++17 --enable=warning,style,performance,portability --library=posix,gnu,googletest,zlib \
    --inline-suppr --suppressions-list=.cppcheck-suppressions --error-exitcode=1 -j2 --quiet \
    --template='{file}:{line}:{column}: {severity}: {message} [{id}]' "$@"
}
cppcheck_status=0
cppcheck_run --project="$build/compile_commands.json" -i/usr/src/ || cppcheck_status=1
cppcheck_run --project="$build/fuzz-db/compile_commands.json" --file-filter='fuzz/*' || cppcheck_status=1
cppcheck_run --std=c11 -D_GNU_SOURCE scripts/soak_heap.c || cppcheck_status=1
echo "cppcheck: $(($(date +%s) - tidy_done)) s"

if [ "$tidy_status" -ne 0 ] || [ "$cppcheck_status" -ne 0 ]; then
  echo "Static analysis found problems."
  exit 1
fi
echo "No clang-tidy or cppcheck findings."
