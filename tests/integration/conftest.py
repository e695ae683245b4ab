"""Harness of the integration tests: the real daemon against the box simulator.

Environment:
  TAVID_BIN       the daemon binary; tests that run it are skipped when it is not set.
  TAVID_LAUNCHER  optional command put in front of it, for a binary that is not the
                  machine's own (for example "qemu-arm -L /usr/arm-linux-gnueabihf").

Test modules import the helpers from here: `from conftest import request, run_tavid`.
"""

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


def daemon_env(root: str | None) -> dict:
    """The daemon sees only the root and PATH; root None leaves TAVID_ROOT unset."""
    env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin")}
    if root is not None:
        env["TAVID_ROOT"] = root
    return env


def run_tavid(args, root: str | None, timeout: float = STOP_WAIT):
    """A run that should end by itself (option errors): (status, stdout, stderr)."""
    done = subprocess.run([*launcher(), tavid_bin(), *args], env=daemon_env(root),
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    return done.returncode, done.stdout, done.stderr


def free_port() -> int:
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def _listening_rows(port: int):
    """The kernel's rows of the sockets that listen on the port, split into their fields."""
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table, encoding="ascii") as rows:
                next(rows)
                for row in rows:
                    fields = row.split()
                    if int(fields[1].rsplit(":", 1)[1], 16) == port and fields[3] == TCP_LISTEN:
                        yield fields
        except FileNotFoundError:
            continue


def tcp_listening(port: int) -> bool:
    """Whether some socket listens on the port. Read from the kernel's tables rather than
    probed with a connection: the daemon would take a probe for a request and answer it."""
    return any(True for _ in _listening_rows(port))


def tcp_accept_queue(port: int) -> int:
    """How many connections wait for the listener on the port to accept them (the receive
    queue of a listening socket counts them)."""
    return sum(int(fields[4].split(":")[1], 16) for fields in _listening_rows(port))


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
    the rest of the line in its own process, so that signals reach the daemon."""

    def __init__(self, box: tavisim.Box, args=(), port: int | None = None, wrapper=()):
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

    def running(self) -> bool:
        return self.process is not None and self.process.poll() is None

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

    def terminate(self):
        """SIGTERM, as the box ends a daemon, when it still runs."""
        if self.running():
            self.send_signal(signal.SIGTERM)

    def ended(self, timeout: float = STOP_WAIT) -> bool:
        """Whether the daemon has ended or ends within the timeout."""
        if self.running():
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                return False
        return True

    def finish(self):
        """Ends a daemon still running as the box would: SIGTERM, so that a memory checker in
        the launcher sees its whole exit path; SIGKILL only when it does not end in time."""
        self.terminate()
        if not self.ended():
            self.kill()

    def stdout(self) -> bytes:
        return Path(self.out_path).read_bytes()

    def stderr(self) -> bytes:
        return Path(self.err_path).read_bytes()


def kill_restarted_daemons(box: tavisim.Box):
    """Daemons that the init script started again (their pids in tavid.pid). A pid is killed
    only while it still runs the daemon binary, never a process that reused the number."""
    try:
        pids = Path(box.path("tavid.pid")).read_text().split()
    except FileNotFoundError:
        return
    binary = os.fsencode(os.environ.get("TAVID_BIN", ""))
    for pid in map(int, pids):
        try:
            if binary and binary in Path(f"/proc/{pid}/cmdline").read_bytes():
                os.kill(pid, signal.SIGKILL)
        except (FileNotFoundError, ProcessLookupError):
            continue


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
    with listen, listening. Every daemon is ended at the end of the test, before its box goes:
    all of them are given SIGTERM before any is waited for, so that each stops its streaming
    child while the box is still there; one still running after that wait is ended by
    finish()."""
    tavid_bin()  # skips the test before anything starts when there is no daemon
    daemons = []

    def start(box: tavisim.Box, args=(), port: int | None = None, listen: bool = True,
              wrapper=()) -> Daemon:
        daemon = Daemon(box, args, port, wrapper)
        daemons.append(daemon)
        daemon.start()
        return daemon.wait_listening() if listen else daemon

    yield start
    for daemon in daemons:
        daemon.terminate()
    for daemon in daemons:
        daemon.ended()
    for daemon in daemons:
        daemon.finish()


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
    """The first poll pass is over (settings restored, the mode's alarm LED cleared): the next
    request is served after it."""
    wait_for(lambda: led_cleared(box, box.mode) or not daemon.running(), what="alarm LED cleared")
    assert daemon.running(), daemon.stderr()


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
    try:
        pids = Path(box.path("tavid.pid")).read_text().split()
    except FileNotFoundError:
        return None
    return int(pids[-1]) if pids else None


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
