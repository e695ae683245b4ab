#!/bin/sh
# Runs every test, as one pipeline (scripts/pipeline.py) that overlaps the builds with the
# suites that mostly wait:
#  - the host build under AddressSanitizer and UndefinedBehaviorSanitizer: the unit tests and the
#    integration tests against the box simulator;
#  - the host build without sanitizers under valgrind: the unit tests and the integration tests of
#    every object, mode and fault, each daemon under memcheck; and that build's daemon run
#    natively for the memory that the command channel's bounds give back;
#  - the 32-bit ARM build with a box root under qemu-arm: every unit test and the integration suite;
#  - the board's own build (the box's paths) and the checks of the binary that ships;
#  - the operator's console in headless Chromium, against the sanitizers' daemon and taviweb.
# Installs the Debian packages it needs when any is missing. Arguments go to the pipeline
# (--ci adds the static analysis, fuzzing, the soak and the quick benchmarks; --list, --only).
set -eu
cd "$(dirname "$0")/.."
case " $* " in
  *" --ci "*) scripts/deps.sh board browser fuzz lint ;;
  *) scripts/deps.sh board browser ;;
esac
exec /usr/bin/python3 scripts/pipeline.py "$@"
