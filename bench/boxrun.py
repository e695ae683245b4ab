"""What the benchmark figures run on: the box simulator in a short temporary root, the daemon
started against it, one-shot requests as the daemon's clients send them, the process figures the
kernel keeps, and callgrind's dumps read back. Standard library only."""

import json
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
PYTHON = "/usr/bin/python3"
SIMULATOR = REPO / "sim" / "tavisim.py"

# The simulator's modules, by mode (its MODULE_ADDRESSES).
MODULE_ADDRESSES = {"rf": (0x30, 0x31, 0x32, 0x33), "ip_spts": (0x32,),
                    "ip_mpts": (0x30, 0x31, 0x32, 0x33)}
MODES = tuple(MODULE_ADDRESSES)

START_WAIT = 60.0
STOP_WAIT = 10.0
REPLY_WAIT = 60.0
TCP_LISTEN = "0A"  # socket state in /proc/net/tcp


class BenchError(RuntimeError):
    """A figure could not be measured; the message says why."""


def wait_for(condition, timeout: float, what: str, interval: float = 0.01):
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise BenchError(f"{what}: not within {timeout} s")
        time.sleep(interval)


# ---------------------------------------------------------------------------------------------
# The simulator


def end_process(process):
    """SIGTERM, then SIGKILL when the process has not ended within STOP_WAIT."""
    if process is not None and process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(STOP_WAIT)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Sim:
    """tavisim.py serving a fresh box root in one output mode, in its own process, so that its
    work is never counted as the daemon's."""

    def __init__(self, mode: str):
        self.mode = mode
        self.root = tempfile.mkdtemp(prefix="tb", dir="/tmp")
        self.process = None

    def path(self, box_path: str) -> str:
        return os.path.join(self.root, box_path.lstrip("/"))

    def start(self):
        with open(self.path("sim.out"), "wb") as out:
            self.process = subprocess.Popen(
                [PYTHON, str(SIMULATOR), "--root", self.root, "--mode", self.mode],
                stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT)
        wait_for(lambda: self.answering() or self.process.poll() is not None, START_WAIT,
                 "the simulator's control socket")
        if self.process.poll() is not None:
            raise BenchError(f"the simulator ended: {Path(self.path('sim.out')).read_text()}")
        return self

    def answering(self) -> bool:
        """Whether the control socket takes commands: its file appears before it listens."""
        try:
            self.control({"cmd": "temperature"})
        except (FileNotFoundError, ConnectionRefusedError):
            return False
        return True

    def stop(self):
        end_process(self.process)
        shutil.rmtree(self.root, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    def control(self, command: dict) -> dict:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
            sock.connect(self.path("sim.ctl"))
            sock.sendall(json.dumps(command).encode() + b"\n")
            answer = json.loads(sock.makefile("rb").readline())
        if not answer.get("ok"):
            raise BenchError(f"simulator command {command}: {answer.get('error')}")
        return answer

    def transfers(self) -> list:
        return self.control({"cmd": "bus_log"})["transactions"]

    def clear_bus_log(self):
        self.control({"cmd": "clear_bus_log"})

    def set_busy(self, ms: int):
        for addr in MODULE_ADDRESSES[self.mode]:
            self.control({"cmd": "set_busy", "addr": addr, "ms": ms})

    def wait_bus_quiet(self, quiet: float = 0.5, timeout: float = 120.0) -> list:
        """The bus log once no transfer has come for `quiet` seconds."""
        deadline = time.monotonic() + timeout
        count = -1
        while True:
            transfers = self.transfers()
            if len(transfers) == count:
                return transfers
            if time.monotonic() > deadline:
                raise BenchError(f"the bus did not fall quiet within {timeout} s")
            count = len(transfers)
            time.sleep(quiet)


def bus_figures(transfers) -> dict:
    """Transfers and the bytes they carried (written, or asked for by a read), and the module
    commands among them (writes of a command frame, which starts with "#")."""
    return {"transfers": len(transfers),
            "bytes": sum(transfer["length"] for transfer in transfers),
            "commands": sum(1 for transfer in transfers
                            if transfer["op"] == "W" and transfer["data"].startswith("23"))}


# ---------------------------------------------------------------------------------------------
# The daemon


def free_port() -> int:
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def socket_inodes(pid: int) -> set:
    """The inodes of the sockets a process holds open."""
    inodes = set()
    try:
        for fd in os.listdir(f"/proc/{pid}/fd"):
            target = os.readlink(f"/proc/{pid}/fd/{fd}")
            if target.startswith("socket:["):
                inodes.add(target[len("socket:["):-1])
    except (FileNotFoundError, ProcessLookupError):
        pass
    return inodes


def tcp_listening(port: int, pid: int) -> bool:
    """Whether the process listens on the port. Read from the kernel's tables: a probing
    connection would count as a request. The socket must be the process's own, so that a port
    taken by anything else beside is never mistaken for the daemon's."""
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table, encoding="ascii") as rows:
                next(rows)
                for row in rows:
                    fields = row.split()
                    if (int(fields[1].rsplit(":", 1)[1], 16) == port and fields[3] == TCP_LISTEN
                            and fields[9] in socket_inodes(pid)):
                        return True
        except FileNotFoundError:
            continue
    return False


class Daemon:
    """A program run as the daemon is run, on a simulator's root: tavid itself, or any program
    whose command line takes the port it is to listen on."""

    def __init__(self, sim: Sim, command_for_port):
        self.sim = sim
        self.port = free_port()
        self.command = [str(part) for part in command_for_port(self.port)]
        self.process = None
        self.started = None

    @classmethod
    def tavid(cls, sim: Sim, binary, launcher=()):
        return cls(sim, lambda port: [*launcher, binary, "-c", port, "-m", sim.mode])

    def start(self):
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "TAVID_ROOT": self.sim.root}
        with open(self.sim.path("daemon.out"), "wb") as out, \
                open(self.sim.path("daemon.err"), "wb") as err:
            self.started = time.monotonic()
            self.process = subprocess.Popen(self.command, env=env, stdin=subprocess.DEVNULL,
                                            stdout=out, stderr=err)
        return self

    def wait_listening(self, timeout: float = START_WAIT):
        pid = self.process.pid
        wait_for(lambda: tcp_listening(self.port, pid) or self.process.poll() is not None, timeout,
                 f"{self.command[0]} listening on {self.port}", interval=0.001)
        if self.process.poll() is not None:
            raise BenchError(f"{self.command} ended with {self.process.returncode}: "
                             f"{Path(self.sim.path('daemon.err')).read_text(errors='replace')}")
        return self

    def stop(self):
        end_process(self.process)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    def request(self, text: str) -> tuple:
        """(reply, seconds from connecting to the daemon's close)."""
        return request(self.port, text)

    def cpu_ns(self) -> int:
        """Time on a CPU so far, in ns (the scheduler's own account, not clock ticks)."""
        with open(f"/proc/{self.process.pid}/schedstat", encoding="ascii") as stat:
            return int(stat.read().split()[0])

    def status_kb(self, key: str) -> int:
        """A memory line of /proc/PID/status (VmRSS, VmHWM), in kB."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
        raise BenchError(f"no {key} in /proc/{self.process.pid}/status")

    def mapped_rss_kb(self, paths) -> int:
        """Resident kB of the mappings of the given files (/proc/PID/smaps)."""
        wanted = {os.path.realpath(path) for path in paths}
        total = 0
        current = None
        with open(f"/proc/{self.process.pid}/smaps", encoding="ascii", errors="replace") as smaps:
            for line in smaps:
                fields = line.split()
                if re.match(r"^[0-9a-f]+-[0-9a-f]+ ", line):
                    current = os.path.realpath(fields[5]) if len(fields) >= 6 else None
                elif fields and fields[0] == "Rss:" and current in wanted:
                    total += int(fields[1])
        return total


def request(port: int, text: str, wait: float = REPLY_WAIT) -> tuple:
    """One request as clients send it: all bytes, no half-close (the daemon reads until 50 ms of
    silence), then the reply until the daemon closes. Returns (reply, seconds)."""
    began = time.perf_counter()
    with socket.create_connection(("127.0.0.1", port), timeout=wait) as sock:
        sock.sendall(text.encode())
        reply = bytearray()
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                break
            reply += chunk
    return reply.decode(errors="replace"), time.perf_counter() - began


# ---------------------------------------------------------------------------------------------
# callgrind


def callgrind_dumps(out_prefix: str) -> dict:
    """Every dump of a run, by the label its client request gave it: the instructions of the
    dump ("total") and the inclusive instructions of each function ("inclusive", by name)."""
    dumps = {}
    for path in sorted(Path(out_prefix).parent.glob(Path(out_prefix).name + ".*")):
        label, total, inclusive = read_callgrind(path)
        if label is not None:
            dumps[label] = {"total": total, "inclusive": inclusive}
    return dumps


def read_callgrind(path: Path):
    """(label, total, {function: inclusive Ir}) of one callgrind output file (one event, Ir)."""
    label = None
    total = 0
    names = {}
    inclusive = {}
    function = None
    for line in path.read_text(errors="replace").splitlines():
        if line.startswith("desc: Trigger: Client Request: "):
            label = line[len("desc: Trigger: Client Request: "):]
        elif line.startswith("summary:"):
            total = int(line.split()[1])
        elif line.startswith("fn="):
            function = compressed_name(line[3:], names)
            inclusive.setdefault(function, 0)
        elif line.startswith("cfn="):
            compressed_name(line[4:], names)
        elif line and (line[0].isdigit() or line[0] in "+-*") and function is not None:
            # A cost line: position, then Ir; after a calls= line it is that call's inclusive
            # cost, otherwise the function's own. Either way it counts for the function.
            fields = line.split()
            inclusive[function] += int(fields[1]) if len(fields) > 1 else 0
    return label, total, inclusive


def compressed_name(text: str, names: dict) -> str:
    """callgrind's name compression: "(id) name" defines, "(id)" refers."""
    match = re.match(r"\((\d+)\)(?: (.*))?$", text)
    if not match:
        return text
    if match.group(2) is not None:
        names[match.group(1)] = match.group(2)
    return names.get(match.group(1), text)


def inclusive_of(dump: dict, prefixes) -> int:
    """The inclusive instructions of the functions whose names start with any prefix (each a
    function name and its opening parenthesis, so that i2c_read( is not i2c_read_x)."""
    return sum(cost for name, cost in dump["inclusive"].items()
               if any(name.startswith(prefix) for prefix in prefixes))


# ---------------------------------------------------------------------------------------------
# Summaries


def median(values):
    return statistics.median(values) if values else None


def percentile(values, fraction: float):
    """The nearest-rank percentile."""
    ordered = sorted(values)
    if not ordered:
        return None
    rank = max(1, int(-(-fraction * len(ordered) // 1)))
    return ordered[min(rank, len(ordered)) - 1]
