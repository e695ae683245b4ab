#!/bin/sh
# Runs CTest in a build directory and ends with the name and reason of every skipped test and one
# line counting the tests that passed, were skipped and failed: a unit test that skips
# (GTEST_SKIP) is reported as skipped, never as passed, and so is each integration test that pytest
# skipped inside the one CTest test "integration". The exit status is CTest's.
#   scripts/ctest.sh <build-dir> [ctest options ...]
set -eu
[ $# -ge 1 ] || { echo "usage: scripts/ctest.sh <build-dir> [ctest options ...]" >&2; exit 2; }
build=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/started"

status=0
ctest --test-dir "$build" --output-on-failure --output-junit "$work/ctest.xml" "$@" || status=$?

# pytest's report of the integration suite counts only when this run wrote it.
pytest_report=$build/tests/integration/integration.xml
[ -f "$pytest_report" ] && [ "$pytest_report" -nt "$work/started" ] || pytest_report=

/usr/bin/python3 - "$work/ctest.xml" $pytest_report <<'PYTHON'
import re
import sys
import xml.etree.ElementTree as ET


def skip_reason(case):
    """GoogleTest prints the reason on the line after "<file>:<line>: Skipped"; pytest keeps it."""
    found = re.search(r": Skipped\n(.*)", case.findtext("system-out") or "")
    return found.group(1) if found else case.find("skipped").get("message", "")


def outcome(case):
    if case.find("skipped") is not None:
        return "skipped"
    return "failed" if case.find("failure") is not None or case.find("error") is not None else "passed"


ctest_report, pytest_reports = sys.argv[1], sys.argv[2:]
# pytest's report belongs to this run only when this run ran the integration suite (another run in
# the same build directory may have written it meanwhile).
if not any(case.get("name") == "integration" for case in ET.parse(ctest_report).getroot().iter("testcase")):
    pytest_reports = []
tally = {"passed": 0, "skipped": 0, "failed": 0}
for report in [ctest_report] + pytest_reports:
    for case in ET.parse(report).getroot().iter("testcase"):
        if report == ctest_report and pytest_reports and case.get("name") == "integration":
            continue  # counted test by test from pytest's report
        name = case.get("name") if report == ctest_report else f"{case.get('classname')}::{case.get('name')}"
        tally[outcome(case)] += 1
        if outcome(case) == "skipped":
            print(f"  skipped: {name} ({skip_reason(case)})")
print(f"ctest: {sum(tally.values())} tests: {tally['passed']} passed, {tally['skipped']} skipped, "
      f"{tally['failed']} failed" + (" (integration counted test by test)" if pytest_reports else ""))
PYTHON
exit "$status"
