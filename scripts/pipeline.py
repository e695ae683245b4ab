#!/usr/bin/python3
"""Runs the project's builds and test suites as one pipeline, in parallel where that pays.

The machine has few cores (CI's has two), and most of the time of the test suites is waiting:
for the 50 ms read silence of every request, the simulated modules, the streaming child's 5 s
stop budget. So the steps form a graph: a step starts as soon as the steps it needs have passed
and, for the steps that keep cores busy (builds, valgrind, fuzzing, static analysis), as soon as
enough cores are free; the waiting suites only take a fraction of a core each and run beside
them. Every suite that opens ports runs in a network namespace of its own with only a loopback,
because the network-settings port (49998) is fixed: two suites at once would otherwise answer
each other's requests. Without namespaces (no unprivileged user namespaces on the machine) such
suites run one after the other.

    scripts/pipeline.py [--ci] [--list] [--only STEP[,STEP...]]

Without --ci it runs every test (scripts/test.sh); --ci adds the static analysis, the bounded
fuzzing, the soak and the quick benchmarks (.ci/run). Each step's output goes to
build/pipeline/<step>.log; a failing step's log is printed, and the steps that need it are not
started. The last lines are a table of every step with its time, and a count of the steps that
passed and failed. Exit status 1 when any step failed.
"""

import argparse
import os
import subprocess
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
LOGS = REPO / "build" / "pipeline"
CORES = os.cpu_count() or 2
NETNS_PREFIX = ["unshare", "-rn", "sh", "-c", 'ip link set lo up && exec "$@"', "sh"]
LOG_TAIL_LINES = 200

SANITIZER_ENV = {
    "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=1",
    "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
}


@dataclass
class Step:
    name: str
    command: str            # a shell command line, run from the repository root
    needs: tuple = ()
    cores: float = 0.0      # cores the step keeps busy; 0 for a step that mostly waits
    netns: bool = False     # opens ports: a network namespace of its own
    env: dict = field(default_factory=dict)
    ci_only: bool = False


def steps() -> list:
    """The graph. The longest chains come first, so that they start first when cores are free."""
    py = "/usr/bin/python3"
    host_integration = ("TAVID_BIN=$PWD/build/test/src/tavid TAVICTL_BIN=$PWD/build/test/tavictl/tavictl "
                        "TAVIWEB_BIN=$PWD/build/test/taviweb/taviweb "
                        f"{py} -m pytest -q -rs -p no:cacheprovider tests/integration")
    return [
        # The host build without sanitizers: valgrind (the longest chain), then the soak.
        Step("valgrind-build", "cmake -S . -B build/valgrind -DCMAKE_BUILD_TYPE=Debug -DTAVID_SANITIZE=OFF"
             " >/dev/null && cmake --build build/valgrind -j2", cores=2),
        Step("valgrind-integration", "scripts/valgrind.sh --no-build integration", needs=("valgrind-build",),
             cores=1, netns=True),
        Step("valgrind-unit", "scripts/valgrind.sh --no-build unit", needs=("valgrind-build",), cores=1,
             netns=True),
        Step("soak", f"{py} scripts/soak.py --tavid build/valgrind/src/tavid --minutes 3",
             needs=("valgrind-build",), netns=True, ci_only=True),
        # The memory figures of the command channel's bounds, on that daemon run natively: under
        # the sanitizers, valgrind or qemu-arm they say nothing of the daemon and the test skips
        # them, so here it must pass, not skip.
        Step("limits-memory", "TAVID_BIN=$PWD/build/valgrind/src/tavid TAVICTL_BIN=$PWD/build/valgrind/tavictl/tavictl "
             f"{py} -m pytest -q -rs -p no:cacheprovider tests/integration/test_12_limits.py -k memory "
             "| tee /dev/stderr | grep -q '^1 passed'", needs=("valgrind-build",), netns=True),
        # The host build under the sanitizers.
        Step("asan-build", "cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Debug -DTAVID_SANITIZE=ON >/dev/null"
             " && cmake --build build/test -j2", cores=2),
        Step("asan-unit", "scripts/ctest.sh build/test -j2 -E '^integration$'",
             needs=("asan-build",), cores=1, netns=True, env=SANITIZER_ENV),
        Step("asan-integration", host_integration, needs=("asan-build",), netns=True, env=SANITIZER_ENV),
        # The operator's console in headless Chromium, served by that build's taviweb in front of
        # its daemon. Every test must pass: a skipped one (no browser) fails the step.
        Step("asan-browser", "TAVID_BIN=$PWD/build/test/src/tavid TAVIWEB_BIN=$PWD/build/test/taviweb/taviweb "
             f"{py} -m pytest -q -rs -p no:cacheprovider tests/browser "
             "| tee /dev/stderr | grep -q '^[0-9]* passed in '",
             needs=("asan-build",), cores=1, netns=True, env=SANITIZER_ENV),
        # The ARM build with a box root: every unit test and the integration suite on the daemon
        # under qemu-arm.
        Step("sysroot", "scripts/armhf-sysroot.sh"),
        Step("arm-build", "scripts/build-board.sh --host-root --no-tests", needs=("sysroot",), cores=2),
        Step("arm-unit", "scripts/ctest.sh build-board-hostroot -j2 -E '^integration$'",
             needs=("arm-build",), cores=1, netns=True),
        # After the unit tests: ctest lists each test program's cases when it starts, under
        # qemu-arm, and two ctests at once in one build would write those lists together.
        Step("arm-integration", "scripts/ctest.sh build-board-hostroot -R '^integration$'",
             needs=("arm-unit",), netns=True),
        # The board's own build (the box's paths): the binary that ships, its checks and the tests
        # of the box paths.
        Step("board-build", "scripts/build-board.sh", needs=("sysroot",), cores=2),
        Step("lint", "scripts/lint.sh", cores=2, ci_only=True),
        Step("fuzz", "scripts/fuzz.sh 20", cores=1, ci_only=True),
        Step("bench-quick", "bench/run.sh --quick", cores=1, netns=True, ci_only=True),
    ]


def netns_available() -> bool:
    probe = subprocess.run([*NETNS_PREFIX, "true"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return probe.returncode == 0


class Pipeline:
    def __init__(self, chosen: list, use_netns: bool):
        self.steps = chosen
        self.use_netns = use_netns
        self.waiting = list(chosen)
        self.running = {}   # name -> (step, process, log file, start time)
        self.results = {}   # name -> (passed, seconds)
        self.began = time.monotonic()

    def say(self, text: str):
        print(f"[{time.monotonic() - self.began:7.1f} s] {text}", flush=True)

    def busy_cores(self) -> float:
        return sum(step.cores for step, *_ in self.running.values())

    def ports_taken(self) -> bool:
        return any(step.netns for step, *_ in self.running.values())

    def startable(self, step: Step) -> bool:
        if any(need not in self.results for need in step.needs):
            return False
        # One core more than the machine has: the waiting suites leave part of theirs unused.
        if step.cores and self.busy_cores() + step.cores > CORES + 1 and self.busy_cores() > 0:
            return False
        return self.use_netns or not step.netns or not self.ports_taken()

    def start(self, step: Step):
        log = open(LOGS / f"{step.name}.log", "wb")
        command = ["sh", "-c", step.command]
        if step.netns and self.use_netns:
            command = [*NETNS_PREFIX, *command]
        process = subprocess.Popen(command, cwd=REPO, env={**os.environ, **step.env},
                                   stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
        self.running[step.name] = (step, process, log, time.monotonic())
        self.say(f"start {step.name}: {step.command}")

    def skip_dependents(self, failed: str):
        for step in list(self.waiting):
            if failed in step.needs:
                self.waiting.remove(step)
                self.results[step.name] = (None, 0.0)
                self.say(f"skip  {step.name}: needs {failed}")
                self.skip_dependents(step.name)

    def finish(self, name: str, status: int):
        step, _, log, started = self.running.pop(name)
        log.close()
        seconds = time.monotonic() - started
        passed = status == 0
        self.results[name] = (passed, seconds)
        self.say(f"{'done ' if passed else 'FAIL '} {name} in {seconds:.0f} s"
                 + ("" if passed else f" (exit {status})"))
        if not passed:
            lines = (LOGS / f"{name}.log").read_text(errors="replace").splitlines()
            print(f"----- last {min(len(lines), LOG_TAIL_LINES)} lines of build/pipeline/{name}.log")
            print("\n".join(lines[-LOG_TAIL_LINES:]), flush=True)
            print(f"----- end of {name}", flush=True)
            self.skip_dependents(name)

    def run(self) -> bool:
        while self.waiting or self.running:
            for step in list(self.waiting):
                if self.startable(step):
                    self.waiting.remove(step)
                    self.start(step)
            if not self.running:
                # Only steps whose needs failed can be left here.
                for step in self.waiting:
                    self.results[step.name] = (None, 0.0)
                break
            pid, status = os.wait()
            for name, (_, process, *_) in list(self.running.items()):
                if process.pid == pid:
                    process.returncode = os.waitstatus_to_exitcode(status)
                    self.finish(name, process.returncode)
        return self.report()

    def report(self) -> bool:
        print("\nstep                     result   time")
        for step in self.steps:
            passed, seconds = self.results[step.name]
            verdict = "skipped" if passed is None else "passed" if passed else "FAILED"
            print(f"{step.name:24} {verdict:8} {seconds:6.0f} s")
        total = time.monotonic() - self.began
        print(f"whole pipeline: {total:.0f} s ({total / 60:.1f} min)")
        passed = sum(1 for ok, _ in self.results.values() if ok)
        failed = sum(1 for ok, _ in self.results.values() if not ok)
        print(f"pipeline: {passed} passed, {failed} failed")
        return failed == 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ci", action="store_true", help="also the static analysis, fuzzing, soak, benchmarks")
    parser.add_argument("--list", action="store_true", help="list the steps and exit")
    parser.add_argument("--only", help="comma-separated step names (their needs must be among them)")
    args = parser.parse_args()

    chosen = [step for step in steps() if args.ci or not step.ci_only]
    if args.only:
        names = set(args.only.split(","))
        unknown = names - {step.name for step in steps()}
        if unknown:
            parser.error(f"unknown steps: {', '.join(sorted(unknown))}")
        chosen = [step for step in steps() if step.name in names]
    if args.list:
        for step in chosen:
            needs = f" (after {', '.join(step.needs)})" if step.needs else ""
            print(f"{step.name}{needs}: {step.command}")
        return 0

    LOGS.mkdir(parents=True, exist_ok=True)
    use_netns = netns_available()
    if not use_netns:
        print("No network namespace can be made here: the suites that open ports run one at a time.")
    print(f"{len(chosen)} steps on {CORES} cores; logs in {LOGS.relative_to(REPO)}/", flush=True)
    return 0 if Pipeline(chosen, use_netns).run() else 1


if __name__ == "__main__":
    sys.exit(main())
