"""Harness of the integration tests: the real daemon against the box simulator.

Environment:
  TAVID_BIN       the daemon binary; tests that run it are skipped when it is not set.
  TAVID_LAUNCHER  optional command put in front of it, for a binary that is not the
                  machine's own (for example "qemu-arm -L /usr/arm-linux-gnueabihf"), or a
                  checker (valgrind, its report in the file that --log-file names).

Every daemon a test starts is ended with SIGTERM at the end of the test, also those that the
init script started again, and judged: it must end with status 0, as documented, and leave no
report of a sanitizer or of valgrind; the test fails with the report otherwise.

Test modules import the helpers from here: `from conftest import request, run_tavid`.
"""

import ctypes
import http.client
import json
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import NamedTuple
from urllib.parse import urlsplit

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "sim"))
import tavisim  # noqa: E402  (found through the path set just above)

# Long enough for a daemon under emulation that waits on modules.
REPLY_WAIT = 30.0
START_WAIT = 20.0
STOP_WAIT = 10.0
TCP_LISTEN = "0A"  # socket state in /proc/net/tcp
MODES = tavisim.MODES  # the daemon's output modes


# ---------------------------------------------------------------------------------------------
# The daemon's command line


def tavid_bin() -> str:
    path = os.environ.get("TAVID_BIN", "")
    if not path:
        pytest.skip("TAVID_BIN is not set: name the tavid binary to run the integration tests")
    return path


def launcher() -> list:
    return shlex.split(os.environ.get("TAVID_LAUNCHER", ""))


# What the tools that run the daemon read from the environment: the sanitizers' options and
# symbolizer, valgrind's and qemu-arm's settings, where they put temporary files.
TOOL_VARIABLES = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "ASAN_SYMBOLIZER_PATH", "VALGRIND_LIB",
                  "VALGRIND_OPTS", "QEMU_LD_PREFIX", "TMPDIR")


def daemon_env(root: str | None) -> dict:
    """The daemon reads only the root (root None leaves TAVID_ROOT unset) and PATH; the tools
    that run it get their own variables."""
    env = {name: os.environ[name] for name in TOOL_VARIABLES if name in os.environ}
    env["PATH"] = os.environ.get("PATH", "/usr/bin:/bin")
    if root is not None:
        env["TAVID_ROOT"] = root
    return env


def run_tavid(args, root: str | None, timeout: float = STOP_WAIT):
    """A run that should end by itself (option errors): (status, stdout, stderr). A report of
    a sanitizer or of valgrind fails the test."""
    with subprocess.Popen([*launcher(), tavid_bin(), *args], env=daemon_env(root), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        try:
            out, errors = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            raise
    report = tool_report(errors, process.pid)
    assert report is None, f"tavid (PID {process.pid}, status {process.returncode}):\n{report}"
    return process.returncode, out, errors


# ---------------------------------------------------------------------------------------------
# Reports of the sanitizers and of valgrind

# AddressSanitizer, LeakSanitizer and valgrind start their lines with "==<pid>==";
# UndefinedBehaviorSanitizer reports "<file>:<line>:<column>: runtime error: ...".
_TOOL_REPORT = re.compile(rb"==\d+==|runtime error: |Sanitizer:DEADLYSIGNAL")
REPORT_SHOWN = 16000  # characters of a report shown in a failure


def launcher_log(pid: int) -> Path | None:
    """The file in which the launcher (valgrind's --log-file, "%p" the pid) reports on the
    daemon with this pid; None when it reports on standard error."""
    for word in launcher():
        if word.startswith("--log-file="):
            return Path(word[len("--log-file="):].replace("%p", str(pid)))
    return None


def tool_report(stderr: bytes, pid: int) -> str | None:
    """What a sanitizer or valgrind reported on the daemon with this pid, in its standard error
    from the report's first line on or in the launcher's log; None when nothing."""
    parts = []
    found = _TOOL_REPORT.search(stderr)
    if found is not None:
        parts.append(stderr[found.start():].decode(errors="replace"))
    log = launcher_log(pid)
    if log is not None and log.exists() and log.stat().st_size:
        parts.append(f"{log}:\n" + log.read_text(errors="replace"))
    return "\n".join(part[:REPORT_SHOWN] for part in parts) or None


def free_port() -> int:
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class TcpSocket(NamedTuple):
    """One row of the kernel's TCP tables. The queues: bytes sent and not yet acknowledged, and
    bytes received and not yet read (for a listener, connections not yet accepted)."""
    address: str
    port: int
    remote_port: int
    state: str
    tx_queue: int
    rx_queue: int
    inode: int


def _address(text: str) -> str:
    """An address of the kernel's tables (hexadecimal, in the machine's byte order) as text."""
    packed = bytes.fromhex(text)
    if len(packed) == 4:
        return socket.inet_ntop(socket.AF_INET, packed[::-1] if sys.byteorder == "little" else packed)
    words = b"".join(packed[at:at + 4][::-1] if sys.byteorder == "little" else packed[at:at + 4]
                     for at in range(0, 16, 4))
    return socket.inet_ntop(socket.AF_INET6, words)


def tcp_sockets():
    """The TCP sockets of this network namespace, IPv4 and IPv6."""
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table, encoding="ascii") as rows:
                next(rows)
                for row in rows:
                    fields = row.split()
                    address, port = fields[1].rsplit(":", 1)
                    tx_queue, rx_queue = fields[4].split(":")
                    yield TcpSocket(_address(address), int(port, 16), int(fields[2].rsplit(":", 1)[1], 16),
                                    fields[3], int(tx_queue, 16), int(rx_queue, 16), int(fields[9]))
        except FileNotFoundError:
            continue


def _listening_rows(port: int):
    return (row for row in tcp_sockets() if row.port == port and row.state == TCP_LISTEN)


def tcp_listening(port: int) -> bool:
    """Whether some socket listens on the port. Read from the kernel's tables rather than
    probed with a connection: the daemon would take a probe for a request and answer it."""
    return any(True for _ in _listening_rows(port))


def tcp_accept_queue(port: int) -> int:
    """How many connections wait for the listener on the port to accept them (the receive
    queue of a listening socket counts them)."""
    return sum(row.rx_queue for row in _listening_rows(port))


def socket_descriptors(pid: int) -> dict:
    """The process's sockets: their inode -> its descriptor. Empty once it has ended."""
    found = {}
    try:
        for descriptor in os.listdir(f"/proc/{pid}/fd"):
            target = os.readlink(f"/proc/{pid}/fd/{descriptor}")
            if target.startswith("socket:["):
                found[int(target[len("socket:["):-1])] = int(descriptor)
    except (FileNotFoundError, ProcessLookupError):
        pass
    return found


def listening_sockets(pid: int) -> list:
    """Where the process listens for TCP connections: (address, port) of each of its sockets."""
    inodes = socket_descriptors(pid)
    return [(row.address, row.port) for row in tcp_sockets() if row.state == TCP_LISTEN and row.inode in inodes]


TCP_ESTABLISHED = "01"


def accepted(client: socket.socket) -> bool:
    """Whether the daemon has taken this client's connection from its listen queue: the kernel
    gives the daemon's end of a connection an inode only when it is accepted, and that end is
    closing once the daemon has served the request."""
    ends = (client.getpeername()[1], client.getsockname()[1])
    return any(row.state != TCP_ESTABLISHED or row.inode != 0 for row in tcp_sockets()
               if (row.port, row.remote_port) == ends)


def wait_until_listening(program, name: str, timeout: float):
    """Waits until a started program (its port, process, running() and stderr()) listens."""
    deadline = time.monotonic() + timeout
    while not tcp_listening(program.port):
        if not program.running():
            raise AssertionError(f"{name} ended (status {program.process.returncode}) before "
                                 f"listening on {program.port}; stderr: {program.stderr()!r}")
        if time.monotonic() > deadline:
            raise AssertionError(f"{name} not listening on {program.port} after {timeout} s")
        time.sleep(0.01)
    return program


# ---------------------------------------------------------------------------------------------
# A running daemon


class Daemon:
    """tavid started on a box: [*wrapper, launcher..., TAVID_BIN, "-c", port, *args], its
    standard streams in the root's tavid.out and tavid.err. A wrapper must end by executing
    the rest of the line in its own process, so that signals reach the daemon. The port may
    also be the option's text as given ("" for -c "")."""

    def __init__(self, box: tavisim.Box, args=(), port: int | str | None = None, wrapper=()):
        self.box = box
        self.port = free_port() if port is None else port
        self.args = ["-c", str(self.port), *args]
        self.command = [*wrapper, *launcher(), tavid_bin(), *self.args]
        self.out_path = box.path("tavid.out")
        self.err_path = box.path("tavid.err")
        self.process = None

    def start(self):
        # A restart through the init script brings the daemon back with the same options.
        self.box.configure_restart(tavid_bin(), self.args, launcher())
        with open(self.out_path, "wb") as out, open(self.err_path, "wb") as err:
            self.process = subprocess.Popen(self.command, env=daemon_env(self.box.root),
                                            stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        return self

    @property
    def pid(self) -> int:
        return self.process.pid

    def running(self) -> bool:
        return self.process is not None and self.process.poll() is None

    def exit_status(self) -> int | None:
        """None while it runs; a negative number for the signal that ended it."""
        return self.process.poll()

    def wait_listening(self, timeout: float = START_WAIT):
        return wait_until_listening(self, "tavid", timeout)

    def send_signal(self, sig: int):
        self.process.send_signal(sig)

    def wait(self, timeout: float = STOP_WAIT) -> int:
        """The exit status; the daemon is killed and the test fails when it does not end."""
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"tavid did not end within {timeout} s") from None

    def stop(self, sig: int = signal.SIGTERM, timeout: float = STOP_WAIT) -> int:
        self.send_signal(sig)
        return self.wait(timeout)

    def kill(self):
        if self.running():
            self.process.kill()
            self.process.wait()

    def stdout(self) -> bytes:
        return Path(self.out_path).read_bytes()

    def stderr(self) -> bytes:
        return Path(self.err_path).read_bytes()


PR_SET_CHILD_SUBREAPER = 36


def become_subreaper():
    """The init script starts a daemon in the background and ends: the daemon is orphaned. A
    subreaper becomes the parent of its orphaned descendants, so the test process can collect
    the exit status of every daemon the init script started."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl(PR_SET_CHILD_SUBREAPER)")


def restarted_pids(box: tavisim.Box) -> list:
    """The daemons that the init script started on the box, in order."""
    try:
        return [int(pid) for pid in Path(box.path("tavid.pid")).read_text().split()]
    except FileNotFoundError:
        return []


class RestartedDaemon:
    """A daemon that the init script started, its standard streams in the root's tavid.log
    with those of the others it started. Once the script has ended it is the test process's
    child (become_subreaper)."""

    UNKNOWN = "unknown: not a child of the test process"

    def __init__(self, box: tavisim.Box, pid: int):
        self.box = box
        self.pid = pid
        self.status = None

    def exit_status(self) -> int | str | None:
        """None while it runs."""
        if self.status is None:
            try:
                done, status = os.waitpid(self.pid, os.WNOHANG)
            except ChildProcessError:  # the init script has not ended yet, or it is not ours
                if not Path(f"/proc/{self.pid}").exists():
                    self.status = self.UNKNOWN
                return self.status
            if done == self.pid:
                self.status = os.waitstatus_to_exitcode(status)
        return self.status

    def send_signal(self, sig: int):
        os.kill(self.pid, sig)  # not reaped yet, so the number is still the daemon's

    def stderr(self) -> bytes:
        return Path(self.box.path("tavid.log")).read_bytes()


def kill_restarted_daemons(box: tavisim.Box):
    """Daemons that the init script started and that still run, when their box goes. A pid is
    killed only while it still runs the daemon binary, never a process that reused the number."""
    binary = os.fsencode(os.environ.get("TAVID_BIN", ""))
    for pid in restarted_pids(box):
        try:
            if binary and binary in Path(f"/proc/{pid}/cmdline").read_bytes():
                os.kill(pid, signal.SIGKILL)
        except (FileNotFoundError, ProcessLookupError):
            continue


# ---------------------------------------------------------------------------------------------
# Ending and judging the daemons of a test


def _within(predicate, timeout: float) -> bool:
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def _ends(daemon, timeout: float) -> bool:
    return _within(lambda: daemon.exit_status() is not None, timeout)


def _ready_to_stop(daemon, timeout: float) -> bool:
    """It listens, so its signal handlers are in place (it sets them first), or it has ended."""
    return _within(lambda: daemon.exit_status() is not None or listening_sockets(daemon.pid), timeout)


def end_all(daemons) -> list:
    """Ends the daemons that still run with SIGTERM, as the box ends a daemon, so that a checker
    in the launcher sees the whole exit path; the problems met. Each gets the signal once it
    is ready for it (_ready_to_stop) or after START_WAIT, and all get it before any is waited
    for, so that each stops its streaming child while the box is still there. One that does
    not end within STOP_WAIT is killed."""
    problems = []
    for daemon in daemons:
        _ready_to_stop(daemon, START_WAIT)
    for daemon in daemons:
        if daemon.exit_status() is None:
            daemon.send_signal(signal.SIGTERM)
    for daemon in daemons:
        if not _ends(daemon, STOP_WAIT):
            daemon.send_signal(signal.SIGKILL)
            _ends(daemon, STOP_WAIT)
            problems.append(f"tavid (PID {daemon.pid}) did not end within {STOP_WAIT} s of SIGTERM")
    return problems


def judgement(daemon) -> str | None:
    """What is wrong with a daemon that has ended: a status other than the documented 0, a
    report of a sanitizer or of valgrind. None when nothing."""
    status = daemon.exit_status()
    report = tool_report(daemon.stderr(), daemon.pid)
    if status == 0 and report is None:
        return None
    return f"tavid (PID {daemon.pid}) ended with status {status}" + (f", with this report:\n{report}" if report else "")


def end_and_judge(daemons) -> list:
    """Ends and judges the test's daemons, then those that the init script started on their
    boxes (again, for any that a restart under way brought up meanwhile): the problems found."""
    boxes = list(dict.fromkeys(daemon.box for daemon in daemons))
    problems, judged, group = [], set(), list(daemons)
    while group:
        problems += end_all(group)
        problems += [problem for problem in map(judgement, group) if problem is not None]
        judged.update(daemon.pid for daemon in group)
        group = [RestartedDaemon(box, pid) for box in boxes for pid in restarted_pids(box) if pid not in judged]
    return problems


# ---------------------------------------------------------------------------------------------
# Talking to the command port


def _connect(port: int, wait: float) -> socket.socket:
    return socket.create_connection(("127.0.0.1", port), timeout=wait)


def _read_until_closed(sock: socket.socket, wait: float, reset_ends: bool = False) -> bytes:
    """reset_ends: a reset also ends the reply. The daemon's close resets the connection when
    bytes that it did not read were still coming in; what it sent before arrives first."""
    deadline = time.monotonic() + wait
    reply = bytearray()
    while True:
        sock.settimeout(max(deadline - time.monotonic(), 0.001))
        try:
            chunk = sock.recv(65536)
        except socket.timeout:
            raise TimeoutError(f"tavid did not close the connection within {wait} s; "
                               f"received {bytes(reply)!r}") from None
        except ConnectionResetError:
            if not reset_ends:
                raise
            chunk = b""
        if not chunk:
            return bytes(reply)
        reply += chunk


def request(port: int, data: bytes, wait: float = REPLY_WAIT) -> bytes:
    """One request as the daemon's clients send it: all bytes, no half-close (the daemon
    reads until 50 ms of silence), then the reply until the daemon closes."""
    with _connect(port, wait) as sock:
        sock.sendall(data)
        return _read_until_closed(sock, wait)


def request_in_pieces(port: int, pieces, delay: float = 0.02, wait: float = REPLY_WAIT) -> bytes:
    """The request in several sends, delay seconds apart."""
    with _connect(port, wait) as sock:
        for number, piece in enumerate(pieces):
            if number:
                time.sleep(delay)
            sock.sendall(piece)
        return _read_until_closed(sock, wait)


def request_nothing(port: int, wait: float = REPLY_WAIT) -> bytes:
    """Connects, sends nothing and reads what the daemon answers."""
    with _connect(port, wait) as sock:
        return _read_until_closed(sock, wait)


def request_half_closed(port: int, data: bytes, wait: float = REPLY_WAIT) -> bytes:
    """Sends, shuts the sending side down, then reads as request() does."""
    with _connect(port, wait) as sock:
        sock.sendall(data)
        sock.shutdown(socket.SHUT_WR)
        return _read_until_closed(sock, wait)


def send_and_close(port: int, data: bytes):
    """Sends and closes at once, without reading any reply."""
    with _connect(port, REPLY_WAIT) as sock:
        sock.sendall(data)


# ---------------------------------------------------------------------------------------------
# Clients that would hold the command channel


# One space every 10 ms from each of a few processes: far inside the 50 ms of silence that end
# a request, even when one of them is held off a loaded machine's processor for a while.
TRICKLE_INTERVAL = 0.01
TRICKLE_SENDERS = 3
# A pause of all of them together this long may have ended the request by silence.
TRICKLE_STALL = 0.045
# A sender: says it is ready, and once told to go (a line on its standard input) sends a space
# on the socket it inherited every interval until a send fails (exit status 3) or its time is
# up, writing the monotonic time of every send, the failed one included.
_TRICKLE_SENDER = """
import socket, sys, time
sock = socket.socket(fileno=int(sys.argv[1]))
print("ready", flush=True)
sys.stdin.readline()
until = time.monotonic() + float(sys.argv[2])
while time.monotonic() < until:
    try:
        sock.send(b" ")
    except OSError:
        print(time.monotonic())
        sys.exit(3)
    print(time.monotonic(), flush=True)
    time.sleep(float(sys.argv[3]))
"""


class Trickler:
    """A client that sends `first`, then spaces from TRICKLE_SENDERS processes until the daemon
    closes the connection or `seconds` have passed. finish() waits for them and reads the reply;
    then cut_off tells whether the daemon ended the sending, ended is the monotonic time of the
    last send, and steady whether the request never went TRICKLE_STALL without a byte."""

    def __init__(self, port: int, first: bytes, seconds: float = 15.0):
        self.sock = socket.socket()
        fd = self.sock.fileno()
        self.senders = [subprocess.Popen([sys.executable, "-c", _TRICKLE_SENDER, str(fd), str(seconds),
                                          str(TRICKLE_INTERVAL)], pass_fds=[fd], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE) for _ in range(TRICKLE_SENDERS)]
        for sender in self.senders:
            if sender.stdout.readline() != b"ready\n":
                raise OSError("a trickling sender did not start")
        self.sock.settimeout(REPLY_WAIT)
        self.sock.connect(("127.0.0.1", port))
        self.connected = time.monotonic()
        self.sock.sendall(first)
        for sender in self.senders:
            sender.stdin.write(b"go\n")
            sender.stdin.flush()
        self.cut_off, self.ended, self.steady, self.reply = False, None, None, None

    def finish(self):
        times = [self.connected]
        for sender in self.senders:
            times += map(float, sender.communicate(timeout=REPLY_WAIT + 60)[0].split())
            self.cut_off |= sender.returncode == 3
        times.sort()
        self.ended = times[-1]
        self.steady = max(later - earlier for earlier, later in zip(times, times[1:])) < TRICKLE_STALL
        self.reply = _read_until_closed(self.sock, REPLY_WAIT, reset_ends=True)
        self.sock.close()
        return self


def request_stream(port: int, size: int) -> tuple:
    """Sends `size` bytes without a pause: (the bytes sent before the daemon closed the
    connection, what it answered)."""
    chunk = b"y" * 65536
    sent = 0
    with _connect(port, REPLY_WAIT) as sock:
        try:
            while sent < size:
                sent += sock.send(chunk[:size - sent])
        except OSError:
            pass
        return sent, _read_until_closed(sock, REPLY_WAIT, reset_ends=True)


def padded_request(size: int) -> bytes:
    """A "get" of the device without arguments, exactly `size` bytes long (padded inside a
    string): the daemon refuses it for its missing arguments once it has read it whole."""
    head, tail = b'{"action":"get","object":"device","pad":"', b'"}'
    return head + b"x" * (size - len(head) - len(tail)) + tail


# ---------------------------------------------------------------------------------------------
# Fixtures


@pytest.fixture
def make_box():
    """Factory of started boxes, make_box(mode="rf"), each in a short temporary root (the
    bus socket path must stay short). Removed with everything the box started."""
    boxes = []

    def make(mode: str = "rf") -> tavisim.Box:
        box = tavisim.Box(tempfile.mkdtemp(prefix="tv", dir="/tmp"), mode)
        boxes.append(box)
        return box.start()

    yield make
    for box in boxes:
        remove_box(box)


def remove_box(box: tavisim.Box):
    """Stops the box with every daemon its init script started, and removes its root."""
    kill_restarted_daemons(box)
    box.stop()
    shutil.rmtree(box.root, ignore_errors=True)


@pytest.fixture
def box(make_box) -> tavisim.Box:
    return make_box("rf")


@pytest.fixture
def tavid(make_box):
    """Factory tavid(box, args=(), port=None, listen=True, wrapper=()) -> Daemon, started and,
    with listen, listening. At the end of the test, before the boxes go, every daemon started
    here or by the init script of their boxes is ended and judged (end_and_judge): the test
    fails when one did not end with status 0 on SIGTERM or left a report of a checker."""
    tavid_bin()  # skips the test before anything starts when there is no daemon
    become_subreaper()
    daemons = []

    def start(box: tavisim.Box, args=(), port: int | str | None = None, listen: bool = True,
              wrapper=()) -> Daemon:
        daemon = Daemon(box, args, port, wrapper)
        daemons.append(daemon)
        daemon.start()
        return daemon.wait_listening() if listen else daemon

    yield start
    problems = end_and_judge(daemons)
    if problems:
        pytest.fail("\n\n".join(problems), pytrace=False)


# ---------------------------------------------------------------------------------------------
# The daemon's log lines, as regular expressions that match them byte for byte but for the
# source line number. Join them and match with re.fullmatch to check a whole stream.


def wrn(function: str, text: str) -> bytes:
    return (re.escape(b"\x1b[33mtavid [WRN]: Warning in function '" + function.encode() + b"' [line ")
            + rb"\d+" + re.escape(b"]:\n\r\t" + text.encode() + b"\x1b[0m\n\r"))


def err(function: str, text: str) -> bytes:
    return (re.escape(b"\x1b[31mtavid [ERR]: Error in function '" + function.encode() + b"' [line ")
            + rb"\d+" + re.escape(b"]:\n\r\t" + text.encode() + b"\x1b[0m\n\r"))


def msg(text: str) -> bytes:
    return re.escape(b"\x1b[0mtavid [MSG]: " + text.encode() + b"\x1b[0m\n\r")


def matches(output: bytes, *lines: bytes) -> bool:
    """The output is exactly these lines, in this order."""
    return re.fullmatch(b"".join(lines), output) is not None


def contains(output: bytes, *lines: bytes) -> bool:
    """The output holds these lines in this order, with anything between them."""
    return re.search(b"(?:.|\n)*?".join(lines), output, re.DOTALL) is not None


def count(pattern: bytes, output: bytes) -> int:
    """How many times the output holds the pattern."""
    return len(re.findall(pattern, output))


# One warning or error line, read back: its kind, the function that printed it and its text.
_LOG_LINE = re.compile(rb"(\x1b\[33mtavid \[WRN\]: Warning|\x1b\[31mtavid \[ERR\]: Error) in function "
                       rb"'([^']*)' \[line \d+\]:\n\r\t(.*?)\x1b\[0m\n\r", re.DOTALL)


def log_lines(output: bytes, leave_out=()) -> list:
    """The warning and error lines of a standard error stream as ("WRN" or "ERR", function,
    text), in order, without the lines of the functions named in leave_out. Anything in the
    stream that is no such line (a sanitizer report, say) fails the test."""
    lines, position = [], 0
    while position < len(output):
        line = _LOG_LINE.match(output, position)
        assert line is not None, f"no log line at byte {position}: {output[position:position + 400]!r}"
        kind = "WRN" if line.group(1).startswith(b"\x1b[33m") else "ERR"
        if line.group(2).decode() not in leave_out:
            lines.append((kind, line.group(2).decode(), line.group(3).decode(errors="replace")))
        position = line.end()
    return lines


def wrn_line(function: str, text: str) -> tuple:
    """A warning line as log_lines() gives it."""
    return ("WRN", function, text)


def err_line(function: str, text: str) -> tuple:
    """An error line as log_lines() gives it."""
    return ("ERR", function, text)


# The checksum traces that every change of a transport stream prints.
TS_TRACES = ("hal_ts_changed",)


def new_log_lines(daemon: Daemon, since: int) -> list:
    """The warning and error lines that the daemon logged after the first `since` bytes of its
    standard error, without the checksum traces."""
    return log_lines(daemon.stderr()[since:], leave_out=TS_TRACES)


# One message line, or one blank line (the poll cycle writes one around each sync and apply).
_MESSAGE_LINE = re.compile(rb"\x1b\[0mtavid \[MSG\]: (.*?)\x1b\[0m\n\r|\n\r", re.DOTALL)


def messages(output: bytes) -> list:
    """The texts of the message lines of a standard output stream, in order, without the blank
    lines. Anything in the stream that is neither fails the test."""
    texts, position = [], 0
    while position < len(output):
        line = _MESSAGE_LINE.match(output, position)
        assert line is not None, f"no message line at byte {position}: {output[position:position + 400]!r}"
        if line.group(1) is not None:
            texts.append(line.group(1).decode(errors="replace"))
        position = line.end()
    return texts


def new_messages(daemon: Daemon, since: int) -> list:
    """The texts of the messages that the daemon wrote after the first `since` bytes of its
    standard output."""
    return messages(daemon.stdout()[since:])


# How many times the first poll cycle syncs the PSI of a module, by mode: twice in IP SPTS mode,
# where the IP output syncs its transport streams and then, in the nested cycle, what that
# first sync changed in them. Every PSI sync ends with the letter "C".
FIRST_POLL_PSI_SYNCS = {"rf": 0, "ip_spts": 2, "ip_mpts": 0}
PSI_SYNCED = wrn_line("hal_mod_tarn_sync_psi", "C")


def first_start_lines(mode: str) -> list:
    """The warning lines of a first start without a settings file (checksum traces left out):
    the first poll cycle's PSI syncs, then the restore that finds no file."""
    return [PSI_SYNCED] * FIRST_POLL_PSI_SYNCS[mode] + [
        wrn_line("cmd_restore_settings", "Could not open settings file for restoring..."),
        wrn_line("main", "Could not restore settings...")]


# ---------------------------------------------------------------------------------------------
# Requests by object, and their replies


# The warning of a command that the daemon took but could not carry out, by its error number.
UNSUCCESSFUL = b'{"warningCode":1103,"description":"JSON command unsuccessful (error: %d)"}'


def send(daemon: Daemon, action: str, obj: str, **args) -> bytes:
    """One request on the daemon's port, built from keyword arguments (each value a JSON
    string, as the protocol wants)."""
    text = json.dumps({"action": action, "object": obj, "args": args}, separators=(",", ":"))
    return request(daemon.port, text.encode())


def get(daemon: Daemon, obj: str, **args) -> dict:
    """The reply to a "get", parsed."""
    return json.loads(send(daemon, "get", obj, **args))


def error(description: str) -> bytes:
    """The reply to a request that the daemon refused."""
    return json.dumps({"errorCode": 5002, "description": description}, separators=(",", ":")).encode()


def record_arg(daemon: Daemon) -> str:
    """Makes the argument name that the next error without a name of its own quotes known:
    the walk of the encoder's arguments records "video_gopsize" last."""
    assert get(daemon, "input_hdmi_enc", input_id="0")["result"]["input_id"] == "0"
    return "video_gopsize"


def answers(daemon: Daemon, mode: str = "rf"):
    """The daemon serves a request that needs no module: its device and output mode."""
    expected = json.dumps({"result": {"output_mode": mode, "device_id": "0"}}, separators=(",", ":"))
    assert send(daemon, "get", "device", device_id="0") == expected.encode()


def rf_frequency(daemon: Daemon, output_id: str = "0") -> str:
    """An RF output's frequency as the daemon answers it (its getter reads the module)."""
    return get(daemon, "output_rf_mod", output_id=output_id)["result"]["frequency"]


def compact(value) -> bytes:
    """A JSON value as the daemon writes it: compact, keys in their order."""
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode()


# The objects whose instances the settings file holds, in the order of the daemon's object table.
STORED_OBJECTS = ("device", "input_hdmi", "output_rf", "output_ip")


def settings_text(daemon: Daemon) -> bytes:
    """What a store writes now: for every instance of every stored object, in order, a "set"
    request whose arguments are what a get answers for that instance, and "\\n\\r"."""
    records = []
    for obj in STORED_OBJECTS:
        reply = json.loads(send(daemon, "get", obj))
        records += [compact({"action": "set", "object": obj, "args": args}) + b"\n\r"
                    for args in reply.get("arrayedResult", [])]
    return b"".join(records)


# ---------------------------------------------------------------------------------------------
# Waiting for the box


def wait_for(predicate, timeout: float = START_WAIT, what: str = "condition"):
    deadline = time.monotonic() + timeout
    while not predicate():
        assert time.monotonic() < deadline, f"{what} not met within {timeout} s"
        time.sleep(0.02)


def led_cleared(box: tavisim.Box, mode: str) -> bool:
    """The alarm LED of the mode is off: a daemon of that mode has made its first poll pass."""
    return Path(box.path(tavisim.ALARM_LEDS[mode] + "/brightness")).read_text() == "0"


def ready(box: tavisim.Box, daemon: Daemon):
    """The first poll pass is over (settings restored, the mode's alarm LED cleared, the
    temperature read): a request answered after the LED was cleared proves the rest of it."""
    wait_for(lambda: led_cleared(box, box.mode) or not daemon.running(), what="alarm LED cleared")
    assert daemon.running(), daemon.stderr()
    barrier(daemon)


def settle(box: tavisim.Box, quiet: float = 0.3, timeout: float = REPLY_WAIT):
    """Waits until the bus has been idle for `quiet` seconds: the poll cycle has nothing left."""
    deadline = time.monotonic() + timeout
    count, since = len(box.bus.transactions()), time.monotonic()
    while time.monotonic() - since < quiet:
        assert time.monotonic() < deadline, "the bus did not come to rest"
        time.sleep(0.02)
        now = len(box.bus.transactions())
        if now != count:
            count, since = now, time.monotonic()


def restarted_pid(box: tavisim.Box) -> int | None:
    """The daemon that the init script started last, if any."""
    pids = restarted_pids(box)
    return pids[-1] if pids else None


def start_ready(make_box, tavid, mode: str, *args, prepare=None, box: tavisim.Box | None = None,
                at_rest: bool = False):
    """A box of this mode (a new one unless given), made ready by prepare(box), and a daemon on
    it that has made its first poll pass: (box, daemon). With nothing to restore, that pass has
    pushed everything to the modules and the bus is at rest; at_rest also waits for the bus to
    come to rest, as it must after settings were restored."""
    box = box or make_box(mode)
    if prepare is not None:
        prepare(box)
    daemon = tavid(box, ["-m", mode, *args])
    ready(box, daemon)
    if at_rest:
        settle(box)
    return box, daemon


# How long the daemon may take. The constants are the daemon's own: what it waits for by
# design. A lower bound is such a constant alone, as the daemon cannot be quicker than what it
# waits for; an upper bound adds SLOW, the time that the work around the wait may take when the
# daemon runs under valgrind's memcheck (20 to 50 times slower than natively) or qemu-arm on a
# loaded 2-core machine. A bound only has to tell the documented wait from a wrong one: the
# next longer wait of the daemon is the module's 30 s, and the tests' own patience is
# REPLY_WAIT.
READ_SILENCE = 0.05  # a request ends after 50 ms without a byte
NETSETTINGS_WAIT = 5.0  # the network-settings service is given 5 s to answer
QEL2IP_STOP_WAIT = 5.0  # the streaming program is polled 500 times, 10 ms apart, after SIGTERM
MODULE_WAIT = 30.0  # a busy module is waited for 30 s
SLOW = 10.0


def barrier(daemon: Daemon, passes: int = 1):
    """Returns once the daemon has run `passes` whole poll cycles after the request it answered
    last. The main loop serves at most one connection per pass and runs the pass's poll cycle
    right after it, and that cycle makes every sync and apply that the request brought (the
    nested cycles run within it): the answer to one more request proves it over. Two passes
    also prove the cycle after that one over, which must have found nothing left to do, and a
    whole cycle after a change that did not come through a request (a file or a module changed
    by the test), which may have met a cycle already under way. The request needs no module
    and leaves no log line."""
    for _ in range(passes):
        assert request(daemon.port, b"[]") == error("JSON command is invalid (JSON object)")


# ---------------------------------------------------------------------------------------------
# What the modules hold and took


# The modules behind the HDMI inputs, by input number.
INPUT_MODULES = {"rf": (0x30, 0x31, 0x32, 0x33), "ip_spts": (0x32,), "ip_mpts": (0x30, 0x31, 0x32, 0x33)}


def module_parameters(box: tavisim.Box, addr: int, group: str = "applied") -> dict:
    """The parameters a module holds: "applied" (in use) or "settings" (staged by set
    commands, what its gets read)."""
    return box.module(addr).state()[group]["parameters"]


def slots(box: tavisim.Box, addr: int) -> list:
    """The extra-service slots the module holds, whether or not an apply took them into use."""
    return box.module(addr).state()["settings"]["extra_services"]


def took(box: tavisim.Box, addr: int, command: str) -> bool:
    """The module has taken a frame of this command since its log was last cleared."""
    return any(entry["command"] == command for entry in box.module(addr).commands())


# ---------------------------------------------------------------------------------------------
# The streaming program of the IP modes


def destination(daemon: Daemon, addr: str, port: str):
    assert send(daemon, "set", "output_ip_dst", output_id="0", dst_addr=addr, dst_port=port) == b"{}"


def switch(daemon: Daemon, tag: str, enabled: str):
    """Switches the IP output's service with this tag on ("1") or off ("0")."""
    assert send(daemon, "set", "output_ip_services", output_id="0", service_tag=tag, enabled=enabled) == b"{}"


def started_for(box: tavisim.Box, addr: str) -> list:
    """The runs of the program that were started for this destination address."""
    return [run for run in box.qel2ip_runs() if run["argv"][2] == addr]


def stream(box: tavisim.Box, daemon: Daemon, addr: str, port: str, tag: str) -> dict:
    """Sets the destination and switches the service on: the apply starts the program, whose
    run this is."""
    destination(daemon, addr, port)
    switch(daemon, tag, "1")
    wait_for(lambda: started_for(box, addr), what="the program started")
    (run,) = started_for(box, addr)
    return run


def events(box: tavisim.Box) -> list:
    return [entry["event"] for entry in box.qel2ip_log()]


def bitrate(daemon: Daemon) -> bytes:
    return send(daemon, "get", "output_ip_status", output_id="0")


def ip_apply(*texts: str) -> list:
    """The messages of an apply of the IP output, with these of the streaming program inside."""
    return ["<APPLY_REQUIRED> hal_output_ip (0)", "<APPLY> hal_output_ip", "<APPLY_SETTINGS>", *texts,
            "</APPLY_SETTINGS>", "</APPLY>", "</APPLY_REQUIRED> hal_output_ip (0)"]


def gone(pid: int) -> bool:
    return not tavisim.process_running(pid)


# ---------------------------------------------------------------------------------------------
# taviweb, the HTTP front of the command port


def taviweb_bin() -> str:
    path = os.environ.get("TAVIWEB_BIN", "")
    if not path:
        pytest.skip("TAVIWEB_BIN is not set: name the taviweb binary to run its tests")
    return path


class Taviweb:
    """taviweb started against a daemon's port: [launcher..., TAVIWEB_BIN, "-l",
    "127.0.0.1:<port>", "-p", <tavid port>, *args], its standard streams in files of the
    directory given."""

    def __init__(self, directory: str, tavid_port: int, args=()):
        self.port = free_port()
        self.url = f"http://127.0.0.1:{self.port}"
        self.command = [*launcher(), taviweb_bin(), "-l", f"127.0.0.1:{self.port}", "-p", str(tavid_port),
                        *args]
        self.out_path = os.path.join(directory, f"taviweb.{self.port}.out")
        self.err_path = os.path.join(directory, f"taviweb.{self.port}.err")
        self.process = None

    def start(self):
        with open(self.out_path, "wb") as out, open(self.err_path, "wb") as err:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        return self

    def running(self) -> bool:
        return self.process is not None and self.process.poll() is None

    def wait_listening(self, timeout: float = START_WAIT):
        return wait_until_listening(self, "taviweb", timeout)

    def stop(self, sig: int = signal.SIGTERM, timeout: float = STOP_WAIT) -> int:
        self.process.send_signal(sig)
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"taviweb did not end within {timeout} s") from None

    def finish(self):
        if self.running():
            self.stop()

    def stdout(self) -> bytes:
        return Path(self.out_path).read_bytes()

    def stderr(self) -> bytes:
        return Path(self.err_path).read_bytes()


@pytest.fixture
def taviweb(tmp_path):
    """Factory taviweb(tavid_port, args=()) -> Taviweb, started and listening; each is ended
    with SIGTERM at the end of the test and must end cleanly (status 0)."""
    taviweb_bin()
    started = []

    def start(tavid_port: int, args=(), listen: bool = True) -> Taviweb:
        web = Taviweb(str(tmp_path), tavid_port, args)
        started.append(web)
        web.start()
        return web.wait_listening() if listen else web

    yield start
    statuses = []
    for web in started:
        if web.running():
            statuses.append(web.stop())
    assert all(status == 0 for status in statuses), statuses


class Http:
    """One HTTP exchange's outcome: status, headers (lower-case names) and body bytes."""

    def __init__(self, status: int, headers: dict, body: bytes):
        self.status, self.headers, self.body = status, headers, body

    def json(self):
        return json.loads(self.body)


def fetch(url: str, method: str = "GET", body: bytes | None = None, headers: dict | None = None,
         wait: float = REPLY_WAIT) -> Http:
    """One request with its own connection (http.client, so that every header is as given)."""
    parts = urlsplit(url)
    connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=wait)
    try:
        target = (parts.path or "/") + (f"?{parts.query}" if parts.query else "")
        connection.request(method, target, body=body, headers=headers or {})
        response = connection.getresponse()
        return Http(response.status, {name.lower(): value for name, value in response.getheaders()},
                    response.read())
    finally:
        connection.close()


def post_api(web: Taviweb, request_body: bytes, headers: dict | None = None) -> Http:
    """POST /api with the JSON content type (and any other headers given)."""
    return fetch(web.url + "/api", "POST", request_body, {"Content-Type": "application/json", **(headers or {})})


def module_commands(box: tavisim.Box, command: str) -> int:
    """How many frames of this command the box's modules have taken."""
    return sum(1 for module in box.modules.values() for entry in module.commands()
               if entry["command"] == command)
