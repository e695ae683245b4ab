"""taviweb as a firmware build installs it: `cmake --install` with DESTDIR puts it beside the
daemon, and its rc.d script starts, restarts and stops it.

Environment: TAVIWEB_BIN, the taviweb binary of a configured build tree (its directory holds the
configured rc.d script, init.d/taviweb, and its parent is the build tree); TAVID_LAUNCHER as for
the other tests.
"""

import contextlib
import os
import shlex
import subprocess
import threading
import time
from pathlib import Path

import pytest

from conftest import fetch, free_port, launcher, taviweb_bin, tcp_listening, wait_for

RUN_WAIT = 60.0


def build_tree() -> Path:
    return Path(taviweb_bin()).resolve().parents[1]


def test_cmake_install_puts_taviweb_and_its_script_beside_the_daemon(tmp_path):
    tree = build_tree()
    if not (tree / "cmake_install.cmake").exists():
        pytest.skip(f"{tree} is not a build tree")
    done = subprocess.run(["cmake", "--install", str(tree)], env={**os.environ, "DESTDIR": str(tmp_path)},
                          capture_output=True, timeout=RUN_WAIT)
    assert done.returncode == 0, done.stderr
    cache = (tree / "CMakeCache.txt").read_text()
    prefix = next(line.split("=", 1)[1] for line in cache.splitlines()
                  if line.startswith("CMAKE_INSTALL_PREFIX:"))
    installed = {str(path.relative_to(tmp_path)) for path in tmp_path.rglob("*") if path.is_file()}
    root = prefix.lstrip("/")
    etc = "etc" if prefix == "/usr" else f"{root}/etc"
    assert {f"{root}/bin/tavid", f"{root}/bin/tavictl", f"{root}/bin/taviweb",
            f"{etc}/rc.d/init.d/taviweb"} <= installed
    script = tmp_path / etc / "rc.d/init.d/taviweb"
    assert os.access(script, os.X_OK)
    assert f"bin=${{TAVIWEB_BIN:-{prefix}/bin/taviweb}}\n" in script.read_text()


class Script:
    """The configured rc.d script, with its program, options file, pid file and log in tmp."""

    def __init__(self, tmp_path: Path, args: str):
        self.path = Path(taviweb_bin()).resolve().parent / "init.d" / "taviweb"
        if not self.path.exists():
            pytest.skip(f"no configured rc.d script at {self.path}")
        program = tmp_path / "taviweb"
        # The launcher (qemu-arm for a board binary) is part of the program the script starts.
        program.write_text("#!/bin/sh\nexec " + shlex.join([*launcher(), taviweb_bin()]) + ' "$@"\n')
        program.chmod(0o755)
        defaults = tmp_path / "defaults"
        defaults.write_text(f'TAVIWEB_ARGS="{args}"\n')
        self.pidfile = tmp_path / "taviweb.pid"
        self.log = tmp_path / "taviweb.log"
        self.env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "TAVIWEB_BIN": str(program),
                    "TAVIWEB_DEFAULTS": str(defaults), "TAVIWEB_PIDFILE": str(self.pidfile),
                    "TAVIWEB_LOG": str(self.log)}

    def run(self, action: str):
        with reaping(self.pid() if self.pidfile.exists() else None):
            done = subprocess.run(["sh", str(self.path), action], env=self.env, capture_output=True,
                                  stdin=subprocess.DEVNULL, timeout=RUN_WAIT)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def pid(self) -> int:
        return int(self.pidfile.read_text())


@contextlib.contextmanager
def reaping(pid: int | None):
    """Collects the program the script started once it ends, while the script runs. The script
    starts it in the background and ends, so it is orphaned: on the box init collects it; here it
    may be the test process's own child (when the daemon fixtures have made the test process a
    subreaper), and a child nobody collects stays a zombie that still counts as running."""
    done = threading.Event()

    def collect():
        while pid is not None and not done.is_set():
            try:
                if os.waitpid(pid, os.WNOHANG)[0] == pid:
                    return
            except ChildProcessError:  # not the test process's child: init collects it
                return
            time.sleep(0.02)

    collector = threading.Thread(target=collect)
    collector.start()
    try:
        yield
    finally:
        done.set()
        collector.join()


@pytest.fixture
def script(tmp_path):
    made = []

    def make(args: str) -> Script:
        made.append(Script(tmp_path, args))
        return made[-1]

    yield make
    for each in made:
        each.run("stop")


def test_the_script_starts_restarts_and_stops_taviweb(script):
    port = free_port()
    rc = script(f"-l 127.0.0.1:{port} -p {free_port()} -v")
    assert rc.run("status")[:2] == (3, "taviweb is stopped\n")
    assert rc.run("start") == (0, "Starting taviweb\n", "")
    first = rc.pid()
    wait_for(lambda: tcp_listening(port), what="taviweb listening")
    assert fetch(f"http://127.0.0.1:{port}/metrics").status == 200
    assert rc.run("start") == (0, f"taviweb is running (pid {first})\n", "")
    assert rc.run("status") == (0, f"taviweb is running (pid {first})\n", "")

    assert rc.run("restart") == (0, "Stopping taviweb\nStarting taviweb\n", "")
    second = rc.pid()
    assert second != first and not Path(f"/proc/{first}").exists()
    wait_for(lambda: tcp_listening(port), what="taviweb listening again")
    assert fetch(f"http://127.0.0.1:{port}/metrics").status == 200

    assert rc.run("stop") == (0, "Stopping taviweb\n", "")
    assert not rc.pidfile.exists() and not Path(f"/proc/{second}").exists()
    assert not tcp_listening(port)
    assert rc.log.read_text().count("stopping (signal 15)") == 2
    assert rc.run("stop") == (0, "", "")


def test_a_start_that_fails_says_so(script):
    rc = script("-p 0")
    status, out, _ = rc.run("start")
    assert (status, out) == (1, f"Starting taviweb\ntaviweb did not start (see {rc.log})\n")
    assert not rc.pidfile.exists()
    assert "taviweb: invalid port '0' (1 to 65535)" in rc.log.read_text()
    assert rc.run("bounce")[0] == 2
