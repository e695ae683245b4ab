#!/bin/sh
# Runs the tests under valgrind's memcheck, in a build without sanitizers (the two do not mix):
#
#   scripts/valgrind.sh               the unit tests, then the integration subset
#   scripts/valgrind.sh unit          every unit test executable
#   scripts/valgrind.sh integration   the integration tests that cover every object and every
#                                     output mode (assembly, objects, settings, streaming,
#                                     dispatch) and the faults, with the daemon started under
#                                     valgrind
#   scripts/valgrind.sh --no-build …  the same with the build left as it is (the pipeline builds
#                                     once and runs both parts at the same time)
#
# Any error or definite or indirect leak fails the run and its report is printed. The daemon's
# leak check runs when it ends on SIGTERM, as the tests end it; a daemon with an error ends with
# status 99, which fails the test that started it, with the report.
set -eu
cd "$(dirname "$0")/.."
build_first=1
if [ "${1:-}" = --no-build ]; then build_first=0; shift; fi
parts="${*:-unit integration}"
build=build/valgrind
memcheck="valgrind -q --leak-check=full --errors-for-leak-kinds=definite,indirect"

# The integration subset: every object, every mode, the settings file, the streaming child, and
# the faults of the modules, the bus, the settings directory, signals, floods and the child.
integration_tests="test_04_dispatch.py test_06_assembly.py test_07_objects.py test_08_settings.py
  test_09_streaming.py test_10_faults.py test_11_faults_system.py"

if [ "$build_first" = 1 ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DTAVID_SANITIZE=OFF >/dev/null
  cmake --build "$build" -j"$(nproc)"
fi

# GoogleTest's own count of the tests that passed or skipped ("[  PASSED  ] 12 tests.").
gtest_count() { sed -n "s/^\[  $1 *\] \([0-9]*\) tests\{0,1\}\.\$/\1/p" "$2" | tail -n 1; }

unit() {
  log=$build/valgrind.log
  passed=0
  skipped=0
  for test in "$build"/tests/unit/test_*; do
    [ -x "$test" ] || continue
    if ! $memcheck --error-exitcode=99 "$test" --gtest_brief=1 >"$log" 2>&1; then
      cat "$log"
      echo "valgrind: $(basename "$test") failed"
      exit 1
    fi
    test_passed=$(gtest_count PASSED "$log")
    test_skipped=$(gtest_count SKIPPED "$log")
    passed=$((passed + ${test_passed:-0}))
    skipped=$((skipped + ${test_skipped:-0}))
    echo "valgrind: $(basename "$test") clean (${test_passed:-0} passed, ${test_skipped:-0} skipped)"
  done
  echo "valgrind: unit tests clean: $passed passed, $skipped skipped"
}

# Each daemon writes its own report (valgrind's %p); -q leaves a clean daemon's report empty.
# Children forked for box commands and the streaming program are not checked: they exec at once.
integration() {
  logs=$PWD/$build/integration-reports
  rm -rf "$logs"
  mkdir -p "$logs"
  set --
  for test in $integration_tests; do set -- "$@" "tests/integration/$test"; done
  TAVID_BIN=$PWD/$build/src/tavid TAVICTL_BIN=$PWD/$build/tavictl/tavictl \
    TAVID_LAUNCHER="$memcheck --error-exitcode=99 --child-silent-after-fork=yes --log-file=$logs/tavid.%p.log" \
    /usr/bin/python3 -m pytest -q -rs -p no:cacheprovider "$@"
  daemons=$(find "$logs" -name 'tavid.*.log' | wc -l)
  dirty=$(find "$logs" -name 'tavid.*.log' -size +0c)
  if [ -n "$dirty" ]; then
    for report in $dirty; do echo "== $report"; cat "$report"; done
    echo "valgrind: $(echo "$dirty" | wc -l) of $daemons daemons reported errors or leaks"
    exit 1
  fi
  echo "valgrind: $daemons daemons of the integration subset clean"
}

for part in $parts; do
  case "$part" in
    unit) unit ;;
    integration) integration ;;
    *) echo "usage: scripts/valgrind.sh [unit|integration]" >&2; exit 2 ;;
  esac
done
