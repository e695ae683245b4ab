#!/usr/bin/python3
"""The box simulator: a box root with the files, the I2C bus and the services that tavid expects.

Run as a program it creates a root and serves it until SIGINT or SIGTERM; imported, its Box
class does the same for the integration tests. Standard library only, so that it runs wherever
/usr/bin/python3 does. The encoder/modulator modules are in tavimod, the factory default
settings files in tavidefaults.

The root holds the bus socket dev/i2c-0, the sysfs, LED and temperature files, the stand-ins
opt/bin/qel2ip, etc/rc.d/init.d/tavid, etc/rc.d/init.d/network_eth1 and sbin/reboot, and
opt/bin/default_settings_<mode>.conf. Besides them it keeps what the simulator itself records:
bus.log (every bus transfer), calls.log (every call of a stand-in script), qel2ip.log (every
start of the streaming stand-in, with its arguments and environment, and what it did),
tavid.log and tavid.pid (daemons the init script started).

With --netsettings (Box(..., netsettings=True)) the box also serves the network-settings
service on localhost:49998, with the interfaces eth0 and eth1 (see NetSettings). Its port is
fixed, so it is started only when asked for, and a port that is taken fails the start with a
message that says so; --netsettings-port moves it elsewhere for tests that run side by side.

The control socket sim.ctl takes one JSON command per line, {"cmd": NAME, ...}, and answers
one JSON line with "ok" (and "error" when it failed); `--query NAME` or `--query '{...}'`
sends one from the shell. Addresses and codes are JSON numbers or text such as "0x30".

The bus and the modules:
  bus_log [addr]            the bus transfers (of one address)     clear_bus_log
  set_absent addr [absent]  the slave acknowledges nothing         nack_next addr count
  modules                   every module's state: "settings" (staged, what gets read back),
                            "applied" (in use), "psi" (what it announces), status, faults
  module addr               one module's state
  module_log [addr]         the commands the modules took, with their replies
  clear_module_log
  set_module addr values    puts values straight into a module (see tavimod.Module.set_values)
  set_busy addr ms          busy time after each command frame (0: none)
  set_unknown addr codes    codes answered as unknown (error byte 2); [] for none
  set_error addr code error the error byte answered to code instead of executing; null: none
  set_corrupt addr [code] kind   broken replies (to code; absent: to all): "tag", "end",
                            "length" (past any read), "code" (wrong echo); null: mended
  clear_faults addr         the module's faults gone, a busy time in progress ended
                            (absence is the bus's: set_absent)

The board's files:
  temperature               the text of both sensor files (null: missing) and which one the
                            box's mode reads
  set_temperature millidegrees   both sensors; null takes the sensor files away
  leds                      brightness and trigger of both LEDs as their files hold them, and
                            which one is the mode's alarm LED (lit at power-up: "1",
                            "heartbeat"; the daemon clears it to "0", "none")
  stored_settings           data/settings.conf: "exists", "text", "records" (each parsed, null
                            when not JSON)

The stand-ins:
  calls                     the scripts' calls: time, name ("tavid", "network_eth1",
                            "reboot"), args                        clear_calls
  set_script_status name status  the exit status a script ends with after recording (0: it
                            does its work; a failing tavid script restarts nothing)
  qel2ip                    "config", "runs" (pid, argv, env, time, running), "log" (every
                            event), "stats" (tmp/qelstat<unit> texts by unit)
  set_qel2ip [ignore_sigterm] [rate] [exit_status] [sigterm_delay_ms] [reap_delay_ms]
                            for the stand-ins started from now on: only SIGKILL ends them; the
                            statistics text (null: no file); end at once with this status (null:
                            run until a signal ends them); a SIGTERM ends them only this long
                            after it came; their parent can collect them only this long after
                            they ended, whatever ended them (a tracer process holds them back)
  set_qelstat unit text     puts a statistics file in place; null removes it

The network-settings service (boxes made with it only):
  netsettings               port, listening, fault, garbage, delay_ms, interfaces
  set_netsettings interfaces     the interface list as given (a list of objects)
  set_netsettings_fault fault [garbage] [delay_ms]   "down" (nothing listens), "silent"
                            (never answers), "garbage" (answers the garbage text), "refuse"
                            (closes at once), null (serves); delay_ms holds answers back
  netsettings_log           every connection: time, request, reply (null: none), fault
  clear_netsettings_log
"""

import argparse
import copy
import errno
import json
import os
import shlex
import signal
import socket
import socketserver
import sys
import threading
import time
from dataclasses import dataclass

import tavidefaults
import tavimod

# The output modes and where the encoder/modulator modules sit on the bus in each of them.
MODULE_ADDRESSES = {
    "rf": (0x30, 0x31, 0x32, 0x33),
    "ip_spts": (0x32,),
    "ip_mpts": (0x30, 0x31, 0x32, 0x33),
}
MODES = tuple(MODULE_ADDRESSES)

BUS_WRITE = 0x57  # 'W'
BUS_READ = 0x52  # 'R'
BUS_ACK = b"\x00"
BUS_NACK = b"\x01"

# sun_path holds 108 bytes including the terminating NUL.
UNIX_PATH_MAX = 107

QEL2IP_RATE_MBPS = "12.5"
BOOT_TEMPERATURE = 45500  # millidegrees Celsius

LOCALHOST = "127.0.0.1"
NETSETTINGS_PORT = 49998


# ---------------------------------------------------------------------------------------------
# Slaves


class Slave:
    """A device on the bus. The default answers nothing, like an empty address."""

    def write(self, data: bytes) -> bool:
        """Takes one written transfer; the result is the acknowledge."""
        return False

    def read(self, length: int) -> bytes | None:
        """Answers one read transfer; None does not acknowledge. The bus pads or cuts the
        answer to the length read."""
        return None


class Memory(Slave):
    """A scratch slave: keeps what is written to it and answers reads from a queue."""

    def __init__(self):
        self.writes = []
        self.nacking = False
        self._replies = bytearray()

    def queue_reply(self, data: bytes):
        self._replies += data

    def write(self, data: bytes) -> bool:
        if self.nacking:
            return False
        self.writes.append(bytes(data))
        return True

    def read(self, length: int) -> bytes | None:
        if self.nacking:
            return None
        answer = bytes(self._replies[:length])
        del self._replies[:length]
        return answer


def create_modules(mode: str) -> dict:
    """The encoder/modulator modules that a box in this output mode carries, by bus address,
    each with the factory values of its place on the board."""
    return {addr: tavimod.Module(addr, index)
            for index, addr in enumerate(MODULE_ADDRESSES[mode])}


# ---------------------------------------------------------------------------------------------
# The bus


@dataclass(frozen=True)
class Transfer:
    """One transfer as the bus saw it. For a read, data is what was answered (empty when not
    acknowledged) and length what was asked for."""

    time: float
    op: str
    addr: int
    length: int
    data: bytes
    ack: bool

    def to_json(self) -> dict:
        return {"time": self.time, "op": self.op, "addr": self.addr, "length": self.length,
                "data": self.data.hex(), "ack": self.ack}


class Bus:
    """Dispatches transfers to slaves by address and keeps the transaction log.

    One lock serialises every transfer, as a real bus does, so slaves need no locking of
    their own against each other."""

    def __init__(self, log_path: str | None = None):
        self.log_path = log_path
        self._lock = threading.Lock()
        self._slaves = {}
        self._absent = set()
        self._nacks = {}
        self._log = []

    def attach(self, addr: int, slave: Slave):
        with self._lock:
            self._slaves[addr] = slave

    def slave(self, addr: int) -> Slave | None:
        with self._lock:
            return self._slaves.get(addr)

    def set_absent(self, addr: int, absent: bool = True):
        """An absent slave stays attached but acknowledges nothing until it is back."""
        with self._lock:
            if absent:
                self._absent.add(addr)
            else:
                self._absent.discard(addr)

    def nack_next(self, addr: int, count: int):
        """The next count transfers to addr, writes and reads alike, are not acknowledged."""
        with self._lock:
            self._nacks[addr] = count

    def write(self, addr: int, data: bytes) -> bool:
        with self._lock:
            slave = self._responding(addr)
            ack = slave is not None and slave.write(bytes(data))
            self._record(Transfer(time.time(), "W", addr, len(data), bytes(data), ack))
            return ack

    def read(self, addr: int, length: int) -> bytes | None:
        """Exactly length bytes, or None when not acknowledged."""
        with self._lock:
            slave = self._responding(addr)
            answer = slave.read(length) if slave is not None else None
            if answer is not None:
                answer = bytes(answer[:length]).ljust(length, b"\x00")
            self._record(Transfer(time.time(), "R", addr, length, answer or b"",
                                  answer is not None))
            return answer

    def transactions(self) -> list:
        with self._lock:
            return list(self._log)

    def clear_log(self):
        """Empties the log kept in memory; bus.log keeps the whole history."""
        with self._lock:
            self._log.clear()

    def _responding(self, addr: int) -> Slave | None:
        """The slave that will answer this transfer, after the faults have had their say."""
        if addr in self._absent:
            return None
        if self._nacks.get(addr, 0) > 0:
            self._nacks[addr] -= 1
            return None
        return self._slaves.get(addr)

    def _record(self, transfer: Transfer):
        self._log.append(transfer)
        if self.log_path:
            with open(self.log_path, "a", encoding="ascii") as log:
                log.write(json.dumps(transfer.to_json()) + "\n")


# ---------------------------------------------------------------------------------------------
# Socket servers


def check_socket_path(path: str):
    if len(os.fsencode(path)) > UNIX_PATH_MAX:
        raise ValueError(f"Unix socket path longer than {UNIX_PATH_MAX} bytes: {path}")


class _Serving:
    """A thread per connection, serving `owner`, started at once. Closing also ends the open
    connections, so that stopping never waits for a client that keeps its connection."""

    block_on_close = True

    def _serve(self, owner, name: str):
        self.owner = owner
        self._connections = set()
        self._connections_lock = threading.Lock()
        self._thread = threading.Thread(target=self.serve_forever, kwargs={"poll_interval": 0.05},
                                        name=f"serve {name}", daemon=True)
        self._thread.start()

    def process_request(self, request, client_address):
        with self._connections_lock:
            self._connections.add(request)
        super().process_request(request, client_address)

    def shutdown_request(self, request):
        with self._connections_lock:
            self._connections.discard(request)
        super().shutdown_request(request)

    def close(self):
        self.shutdown()
        self._thread.join()
        with self._connections_lock:
            for connection in self._connections:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
        self.server_close()


class _UnixServer(_Serving, socketserver.ThreadingUnixStreamServer):
    def __init__(self, path: str, handler, owner):
        check_socket_path(path)
        if os.path.exists(path):
            os.unlink(path)
        super().__init__(path, handler)
        self.path = path
        self._serve(owner, path)

    def close(self):
        super().close()
        if os.path.exists(self.path):
            os.unlink(self.path)


class _TcpServer(_Serving, socketserver.ThreadingTCPServer):
    """Listens on the loopback address only."""

    allow_reuse_address = True

    def __init__(self, port: int, handler, owner):
        super().__init__((LOCALHOST, port), handler)
        self._serve(owner, f"{LOCALHOST}:{port}")


def _recv_exact(sock: socket.socket, length: int) -> bytes | None:
    """length bytes, or None when the peer goes away first."""
    data = bytearray()
    while len(data) < length:
        try:
            chunk = sock.recv(length - len(data))
        except OSError:
            return None
        if not chunk:
            return None
        data += chunk
    return bytes(data)


class _BusConnection(socketserver.BaseRequestHandler):
    """One i2c_open ... i2c_close bracket: transfers until the client closes."""

    def handle(self):
        while self._transfer():
            pass

    def _transfer(self) -> bool:
        op = _recv_exact(self.request, 1)
        if op is None or op[0] not in (BUS_WRITE, BUS_READ):
            return False
        header = _recv_exact(self.request, 3)
        if header is None:
            return False
        addr, length = header[0], int.from_bytes(header[1:3], "big")
        if op[0] == BUS_WRITE:
            data = _recv_exact(self.request, length)
            if data is None:
                return False
            answer = BUS_ACK if self.server.owner.write(addr, data) else BUS_NACK
        else:
            reply = self.server.owner.read(addr, length)
            answer = BUS_NACK if reply is None else BUS_ACK + reply
        try:
            self.request.sendall(answer)
        except OSError:
            return False
        return True


class _ControlConnection(socketserver.StreamRequestHandler):
    """One JSON command per line, one JSON answer per line."""

    def handle(self):
        for line in self.rfile:
            try:
                self.wfile.write(self.server.owner.control_line(line))
            except OSError:
                return


# ---------------------------------------------------------------------------------------------
# The network-settings service


NETSETTINGS_OBJECT = "/unified_services/ip/settings"
NETSETTINGS_FAULTS = ("down", "silent", "garbage", "refuse")
NETSETTINGS_GARBAGE = "<html>not a JSON reply {"
# How long a request may pause before what has come counts as the whole of it: clients send one
# JSON text without a terminator and wait for the reply with their connection open.
NETSETTINGS_REQUEST_WAIT = 1.0
IPV4_SETTINGS = ("address", "netmask", "gateway", "dns")
FLAG_SETTINGS = ("dhcp",)


def factory_interfaces() -> list:
    """The box's two interfaces: eth0 for management, eth1 for the streams."""
    return [{"interface": "eth0", "dhcp": "1", "address": "192.168.1.100",
             "netmask": "255.255.255.0", "gateway": "192.168.1.1", "dns": "192.168.1.1"},
            {"interface": "eth1", "dhcp": "0", "address": "10.10.10.10",
             "netmask": "255.255.255.0", "gateway": "10.10.10.1", "dns": "10.10.10.1"}]


def ipv4_text(value: str) -> bool:
    parts = value.split(".")
    return len(parts) == 4 and all(part.isdigit() and len(part) <= 3 and int(part) <= 255
                                   for part in parts)


def refusal(key: str, value) -> str | None:
    """Why the service does not take this value for this key, or None."""
    if key not in IPV4_SETTINGS and key not in FLAG_SETTINGS:
        return "unknown setting"
    if not isinstance(value, str):
        return "not a text"
    if key in IPV4_SETTINGS and not ipv4_text(value):
        return "not an IPv4 address"
    if key in FLAG_SETTINGS and value not in ("0", "1"):
        return "not 0 or 1"
    return None


def refusals(change, names: list) -> dict:
    """What the service does not take of one entry of a POST, by key."""
    name = change.get("interface") if isinstance(change, dict) else None
    if not isinstance(name, str) or name not in names:
        return {"interface": "unknown interface"}
    reasons = {key: refusal(key, value) for key, value in change.items() if key != "interface"}
    return {key: reason for key, reason in reasons.items() if reason is not None}


class NetSettings:
    """The local network-settings service on localhost:49998 that owns the interface settings.

    One JSON request per connection, sent without a terminator; one compact JSON reply, then the
    service closes. {"action":"GET","object":"/unified_services/ip/settings","args":{}} is
    answered with {"result":[ one object per interface, "interface" first ]};
    {"action":"POST","object":...,"args":[ {"interface":NAME, settings...} ]} changes the named
    interfaces and is answered {"result":{}}, or, when any value is refused, changes nothing
    and is answered {"result":{KEY: REASON, ...}}. Anything else gets {"error": TEXT}.

    Faults: "down" (nothing listens), "silent" (reads the request, never answers, keeps the
    connection until the client closes it), "garbage" (answers a text that is not JSON),
    "refuse" (closes each connection at once, without reading); delay_ms holds every answer
    back that long."""

    def __init__(self, port: int = NETSETTINGS_PORT):
        self.port = port
        # Starting and stopping waits for the connections' threads, which take _lock: the two
        # never nest the other way round.
        self._life_lock = threading.Lock()
        self._lock = threading.Lock()
        self._server = None
        self._interfaces = factory_interfaces()
        self._fault = None
        self._garbage = NETSETTINGS_GARBAGE
        self._delay_ms = 0
        self._log = []

    # -- life ----------------------------------------------------------------------------------

    def start(self):
        with self._life_lock:
            if self.state()["fault"] != "down":
                self._listen()
        return self

    def stop(self):
        with self._life_lock:
            self._close()

    def _listen(self):
        if self._server is not None:
            return
        try:
            server = _TcpServer(self.port, _NetSettingsConnection, self)
        except OSError as error:
            if error.errno != errno.EADDRINUSE:
                raise
            raise OSError(error.errno,
                          f"the network-settings port {LOCALHOST}:{self.port} is taken; only "
                          f"one box at a time can serve it (--netsettings)") from None
        with self._lock:
            self._server = server

    def _close(self):
        with self._lock:
            server, self._server = self._server, None
        if server is not None:
            server.close()

    # -- what people and tests change or look at ----------------------------------------------

    def set_fault(self, fault: str | None, garbage: str | None = None,
                  delay_ms: int | None = None):
        """fault: one of NETSETTINGS_FAULTS or None; garbage: the text a "garbage" service
        answers; delay_ms: how long every answer is held back. None leaves garbage and delay_ms
        as they are."""
        if fault is not None and fault not in NETSETTINGS_FAULTS:
            raise ValueError(f"unknown fault {fault!r}, expected one of {NETSETTINGS_FAULTS}")
        if garbage is not None and not isinstance(garbage, str):
            raise ValueError(f"garbage: not a text: {garbage!r}")
        if delay_ms is not None:
            tavimod.check_count(delay_ms)
        with self._life_lock:
            if fault == "down":
                self._close()
            else:
                self._listen()
            with self._lock:
                self._fault = fault
                if garbage is not None:
                    self._garbage = garbage
                if delay_ms is not None:
                    self._delay_ms = delay_ms

    def set_interfaces(self, interfaces: list):
        """Puts the interface list in place as given, also entries a POST would refuse."""
        if not isinstance(interfaces, list) or not all(isinstance(entry, dict)
                                                       for entry in interfaces):
            raise ValueError(f"interfaces: not a list of objects: {interfaces!r}")
        with self._lock:
            self._interfaces = copy.deepcopy(interfaces)

    def interfaces(self) -> list:
        with self._lock:
            return copy.deepcopy(self._interfaces)

    def state(self) -> dict:
        with self._lock:
            return {"port": self.port, "listening": self._server is not None,
                    "fault": self._fault, "garbage": self._garbage, "delay_ms": self._delay_ms,
                    "interfaces": copy.deepcopy(self._interfaces)}

    def exchanges(self) -> list:
        """Every connection taken: its request and the reply (null: none was sent)."""
        with self._lock:
            return list(self._log)

    def clear_exchanges(self):
        with self._lock:
            self._log.clear()

    # -- serving -------------------------------------------------------------------------------

    def serve(self, connection: socket.socket):
        with self._lock:
            fault, delay_ms = self._fault, self._delay_ms
        if fault == "refuse":
            self._record(None, None, fault)
            return
        request = _read_request(connection)
        if fault == "silent":
            self._record(request, None, fault)
            _drain(connection)
            return
        reply = self._garbage if fault == "garbage" else self._answer(request)
        self._record(request, reply, fault)
        time.sleep(delay_ms / 1000)
        try:
            connection.sendall(reply.encode())
        except OSError:
            pass

    def _record(self, request: str | None, reply: str | None, fault: str | None):
        with self._lock:
            self._log.append({"time": time.time(), "request": request, "reply": reply,
                              "fault": fault})

    def _answer(self, text: str) -> str:
        try:
            request, _ = json.JSONDecoder().raw_decode(text.lstrip())
        except ValueError:
            request = None
        return json.dumps(self._reply(request), separators=(",", ":"))

    def _reply(self, request) -> dict:
        if not isinstance(request, dict):
            return {"error": "request is not a JSON object"}
        if request.get("object") != NETSETTINGS_OBJECT:
            return {"error": f"unknown object: {json.dumps(request.get('object'))}"}
        if request.get("action") == "GET":
            return {"result": self.interfaces()}
        if request.get("action") == "POST":
            return {"result": self._post(request.get("args"))}
        return {"error": f"unknown action: {json.dumps(request.get('action'))}"}

    def _post(self, changes) -> dict:
        """Nothing changes unless every value of every entry is taken."""
        if not isinstance(changes, list) or not changes:
            return {"args": "not a list of interface settings"}
        with self._lock:
            names = [entry.get("interface") for entry in self._interfaces]
            refused = {}
            for change in changes:
                refused.update(refusals(change, names))
            if not refused:
                for change in changes:
                    self._interfaces[names.index(change["interface"])].update(change)
            return refused


def _read_request(connection: socket.socket) -> str:
    """One JSON text: complete, or what came before the client closed or paused."""
    connection.settimeout(NETSETTINGS_REQUEST_WAIT)
    data = b""
    while True:
        try:
            chunk = connection.recv(4096)
        except OSError:
            break
        if not chunk:
            break
        data += chunk
        try:
            json.JSONDecoder().raw_decode(data.decode("utf-8").lstrip())
        except ValueError:
            continue
        break
    return data.decode("utf-8", errors="replace")


def _drain(connection: socket.socket):
    """Reads until the client closes, or the service stops and ends the connection."""
    connection.settimeout(None)
    try:
        while connection.recv(4096):
            pass
    except OSError:
        pass


class _NetSettingsConnection(socketserver.BaseRequestHandler):
    def handle(self):
        self.server.owner.serve(self.request)


# ---------------------------------------------------------------------------------------------
# The box root


# The stand-in scripts, by the name their calls are recorded with.
SCRIPTS = {"tavid": "etc/rc.d/init.d/tavid", "network_eth1": "etc/rc.d/init.d/network_eth1",
           "reboot": "sbin/reboot"}

RECORDING_SCRIPT = """#!/bin/sh
# Stand-in for the box's {name}: records every call, then fails with the status that
# {name}.status holds, if any.
PATH=${{PATH:-/usr/bin:/bin}}
root={root}
echo "$(date +%s.%N) {name} $*" >>"$root/calls.log"
status=$(cat "$root/{name}.status" 2>/dev/null)
[ "${{status:-0}}" = 0 ] || exit "$status"
"""

# The init script restarts the daemon in the mode of the stored device record, as the box's
# own does after a mode change has copied that mode's defaults into place.
TAVID_RESTART = """[ "$1" = restart ] || exit 0
TAVID_BIN= TAVID_LAUNCHER= TAVID_ARGS=
[ -f "$root/etc/tavid.env" ] && . "$root/etc/tavid.env"
[ -n "$TAVID_BIN" ] || exit 0
mode=$(sed -n 's/.*"object":"device","args":{[^}]*"output_mode":"\\([a-z_]*\\)".*/\\1/p' \\
       "$root/data/settings.conf" 2>/dev/null | head -n 1)
case "$mode" in rf|ip_spts|ip_mpts) ;; *) mode=rf ;; esac
TAVID_ROOT=$root $TAVID_LAUNCHER "$TAVID_BIN" $TAVID_ARGS -m "$mode" \\
    </dev/null >>"$root/tavid.log" 2>&1 &
echo $! >>"$root/tavid.pid"
"""

QEL2IP = """#!/usr/bin/python3
# Stand-in for the streaming program: records how it was started, publishes a rate and streams
# nothing. It runs with an empty environment, so the root is written in here; what it is to do
# is read from the root's qel2ip.conf when it starts.
import ctypes, json, os, signal, sys, time

ROOT = {root!r}


def record(entry):
    with open(os.path.join(ROOT, "qel2ip.log"), "a") as log:
        log.write(json.dumps({{"time": time.time(), "pid": os.getpid(), **entry}}) + "\\n")


def ignore_sigterm(signum, frame):
    record({{"event": "sigterm_ignored"}})


def end_later(ms):
    # A SIGTERM handler that lets the signal end the process ms after it came.
    def hold(signum, frame):
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
        record({{"event": "sigterm_held"}})
        time.sleep(ms / 1000)
        record({{"event": "sigterm_end"}})
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        os.kill(os.getpid(), signal.SIGTERM)
    return hold


PTRACE_CONT, PTRACE_SEIZE, PR_SET_PTRACER, WAIT_ALL = 7, 0x4206, 0x59616D61, 0x40000000


def trace(libc, traced, ms):
    # While the traced process runs, it gets the signals sent to it as if untraced. Once it has
    # ended, its parent can collect it only after its tracer has: ms later.
    while True:
        seen = os.waitid(os.P_PID, traced, os.WEXITED | os.WSTOPPED | os.WNOWAIT | WAIT_ALL)
        if seen.si_code in (os.CLD_EXITED, os.CLD_KILLED, os.CLD_DUMPED):
            ending = "status" if seen.si_code == os.CLD_EXITED else "signal"
            record({{"event": "ended", "pid": traced, ending: seen.si_status}})
            time.sleep(ms / 1000)
            record({{"event": "released", "pid": traced}})
            os.waitpid(traced, WAIT_ALL)
            return
        _, status = os.waitpid(traced, WAIT_ALL)
        sig = os.WSTOPSIG(status) if os.WIFSTOPPED(status) else 0
        libc.ptrace(PTRACE_CONT, traced, None, ctypes.c_void_p(sig))


def hold_end(ms):
    # Starts a tracer of this process (a child of it) that holds its end back for ms.
    libc = ctypes.CDLL(None, use_errno=True)
    traced = os.getpid()
    go, attached = os.pipe(), os.pipe()
    tracer = os.fork()
    if tracer == 0:
        os.read(go[0], 1)
        if libc.ptrace(PTRACE_SEIZE, traced, None, None) != 0:
            record({{"event": "untraced", "pid": traced, "errno": ctypes.get_errno()}})
            os.write(attached[1], b"x")
            os._exit(0)
        os.write(attached[1], b"x")
        trace(libc, traced, ms)
        os._exit(0)
    libc.prctl(PR_SET_PTRACER, tracer, 0, 0, 0)  # where Yama lets only ancestors trace
    os.write(go[1], b"x")
    os.read(attached[0], 1)


def config():
    try:
        with open(os.path.join(ROOT, "qel2ip.conf")) as conf:
            return json.load(conf)
    except (OSError, ValueError):
        return {{}}


def environment():
    \"\"\"As the process was started: Python may add to os.environ on its own.\"\"\"
    with open("/proc/self/environ", "rb") as environ:
        items = [item.decode(errors="replace") for item in environ.read().split(b"\\0") if item]
    return dict(item.partition("=")[::2] for item in items)


conf = config()
# The daemon counts a child as stopped only when a signal ended it: SIGTERM keeps its default
# unless the child is to be one that only SIGKILL ends.
if conf.get("ignore_sigterm"):
    signal.signal(signal.SIGTERM, ignore_sigterm)
elif conf.get("sigterm_delay_ms") is not None:
    signal.signal(signal.SIGTERM, end_later(conf["sigterm_delay_ms"]))
else:
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
if conf.get("reap_delay_ms") is not None:
    hold_end(conf["reap_delay_ms"])
args = sys.argv[1:]
unit = args[args.index("-i") + 1] if "-i" in args[:-1] else ""
record({{"event": "start", "argv": sys.argv, "env": environment()}})
rate = conf.get("rate", {rate!r})
if rate is not None:
    # Put in place whole: the daemon may read it at any moment.
    stat = os.path.join(ROOT, "tmp", "qelstat" + unit)
    with open(stat + ".new", "w") as new:
        new.write(rate)
    os.replace(stat + ".new", stat)
if conf.get("exit_status") is not None:
    record({{"event": "exit", "status": conf["exit_status"]}})
    sys.exit(conf["exit_status"])
while True:
    signal.pause()
"""

HWMON_TEMPERATURE = "sys/class/hwmon/hwmon0/device/temp1_input"
THERMAL_TEMPERATURE = "sys/devices/virtual/thermal/thermal_zone0/temp"
TEMPERATURE_SENSORS = (HWMON_TEMPERATURE, THERMAL_TEMPERATURE)
RGB_LED = "sys/class/leds/rgb_red"
STORAGE_LED = "storage"

# The alarm LED and the temperature sensor that the daemon uses in each output mode.
ALARM_LEDS = {"rf": RGB_LED, "ip_spts": STORAGE_LED, "ip_mpts": RGB_LED}
MODE_TEMPERATURE = {"rf": HWMON_TEMPERATURE, "ip_spts": THERMAL_TEMPERATURE,
                    "ip_mpts": HWMON_TEMPERATURE}

SETTINGS_FILE = "data/settings.conf"
SETTINGS_RECORD_END = "\n\r"


class Box:
    """A box root and the hardware behind it.

    The constructor lays out the root's files; start() opens the bus socket dev/i2c-0, the
    control socket sim.ctl and, when the box was made with netsettings, the network-settings
    service on localhost (its port is fixed on the box, so only one box at a time can offer
    it); stop() closes them again. close_bus() and open_bus() take the bus away from a running
    daemon and bring it back."""

    def __init__(self, root: str, mode: str = "rf", netsettings: bool = False,
                 netsettings_port: int = NETSETTINGS_PORT):
        if mode not in MODES:
            raise ValueError(f"unknown output mode {mode!r}, expected one of {MODES}")
        self.root = os.path.abspath(root)
        self.mode = mode
        self.bus_path = self.path("dev/i2c-0")
        self.control_path = self.path("sim.ctl")
        check_socket_path(self.bus_path)
        check_socket_path(self.control_path)
        self.bus = Bus(self.path("bus.log"))
        self.modules = create_modules(mode)
        for addr, module in self.modules.items():
            self.bus.attach(addr, module)
        self.netsettings = NetSettings(netsettings_port) if netsettings else None
        self.commands = {
            "bus_log": self._command_bus_log,
            "clear_bus_log": self._command_clear_bus_log,
            "set_absent": self._command_set_absent,
            "nack_next": self._command_nack_next,
            "temperature": self._command_temperature,
            "set_temperature": self._command_set_temperature,
            "leds": self._command_leds,
            "modules": self._command_modules,
            "module": self._command_module,
            "module_log": self._command_module_log,
            "clear_module_log": self._command_clear_module_log,
            "set_module": self._command_set_module,
            "set_busy": self._command_set_busy,
            "set_unknown": self._command_set_unknown,
            "set_error": self._command_set_error,
            "set_corrupt": self._command_set_corrupt,
            "clear_faults": self._command_clear_faults,
            "calls": self._command_calls,
            "clear_calls": self._command_clear_calls,
            "set_script_status": self._command_set_script_status,
            "stored_settings": self._command_stored_settings,
            "qel2ip": self._command_qel2ip,
            "set_qel2ip": self._command_set_qel2ip,
            "set_qelstat": self._command_set_qelstat,
            "netsettings": self._command_netsettings,
            "set_netsettings": self._command_set_netsettings,
            "set_netsettings_fault": self._command_set_netsettings_fault,
            "netsettings_log": self._command_netsettings_log,
            "clear_netsettings_log": self._command_clear_netsettings_log,
        }
        self._servers = []
        self._bus_server = None
        self._lay_out()

    def path(self, box_path: str) -> str:
        """Where a path of the box lives in this root ("/data/x" and "data/x" alike)."""
        return os.path.join(self.root, box_path.lstrip("/"))

    # -- life ----------------------------------------------------------------------------------

    def start(self):
        """A network-settings port that is taken fails the start with an OSError that says
        so; nothing is left open then."""
        if self._servers:
            return self
        self._servers = [_UnixServer(self.control_path, _ControlConnection, self)]
        self.open_bus()
        if self.netsettings is not None:
            try:
                self.netsettings.start()
            except OSError:
                self.stop()
                raise
        return self

    def stop(self):
        """Also ends the streaming stand-ins still running, which a daemon that was killed
        leaves behind."""
        if self.netsettings is not None:
            self.netsettings.stop()
        self.close_bus()
        for server in self._servers:
            server.close()
        self._servers = []
        self.kill_qel2ip()

    def close_bus(self):
        """The bus device goes away under a running daemon: its socket file is removed and the
        open connections end, also one in the middle of a transfer. open_bus() brings it back."""
        server, self._bus_server = self._bus_server, None
        if server is not None:
            server.close()

    def open_bus(self):
        """Serves the bus at dev/i2c-0 (again); nothing happens while it is served."""
        if self._bus_server is None:
            self._bus_server = _UnixServer(self.bus_path, _BusConnection, self.bus)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    # -- what people and tests change or look at ----------------------------------------------

    def set_temperature(self, millidegrees: int | None):
        """Both sensors, so that every mode reads the same value; None removes the sensor
        files."""
        for sensor in TEMPERATURE_SENSORS:
            if millidegrees is None:
                remove_file(self.path(sensor))
            else:
                self._write(sensor, f"{int(millidegrees)}\n")

    def temperature(self) -> dict:
        """The text of every sensor file (None: missing), and the sensor of the box's mode."""
        return {"sensor": MODE_TEMPERATURE[self.mode],
                "sensors": {sensor: self._read(sensor) for sensor in TEMPERATURE_SENSORS}}

    def leds(self) -> dict:
        """Brightness and trigger of both LEDs as their files hold them (None: missing), and
        which of them is the alarm LED of the box's mode."""
        return {"alarm": ALARM_LEDS[self.mode],
                "leds": {led: {name: self._read(f"{led}/{name}")
                               for name in ("brightness", "trigger")}
                         for led in (RGB_LED, STORAGE_LED)}}

    def configure_restart(self, tavid: str = "", args=(), launcher=()):
        """What the init script runs on "restart": launcher, tavid, args, then -m MODE.
        Arguments are split on blanks by the script, so none may contain one."""
        values = {"TAVID_BIN": tavid, "TAVID_LAUNCHER": " ".join(launcher),
                  "TAVID_ARGS": " ".join(str(arg) for arg in args)}
        self._write("etc/tavid.env",
                    "".join(f"{key}={shlex.quote(value)}\n" for key, value in values.items()))

    def configure_qel2ip(self, ignore_sigterm: bool = False, rate: str | None = QEL2IP_RATE_MBPS,
                         exit_status: int | None = None, sigterm_delay_ms: int | None = None,
                         reap_delay_ms: int | None = None):
        """What the streaming stand-ins started from now on do: ignore SIGTERM (only SIGKILL
        ends them), write `rate` as their statistics (None: no statistics file), end at once
        with exit_status (None: run until a signal ends them). sigterm_delay_ms: a SIGTERM
        ends them only that long after it came ("sigterm_held", then "sigterm_end" just
        before it ends them). reap_delay_ms: a tracer holds their end back from their parent
        for that long ("ended" with the signal or status, then "released"; "untraced" with
        the errno when tracing is not allowed here)."""
        if not isinstance(ignore_sigterm, bool):
            raise ValueError(f"ignore_sigterm: not true or false: {ignore_sigterm!r}")
        if rate is not None and not isinstance(rate, str):
            raise ValueError(f"rate: not a text: {rate!r}")
        if exit_status is not None and not 0 <= tavimod.check_count(exit_status) <= 255:
            raise ValueError(f"exit_status: not an exit status: {exit_status!r}")
        for ms in (sigterm_delay_ms, reap_delay_ms):
            if ms is not None:
                tavimod.check_count(ms)
        if ignore_sigterm and sigterm_delay_ms is not None:
            raise ValueError("ignore_sigterm and sigterm_delay_ms: a SIGTERM is either ignored or held")
        self._write("qel2ip.conf", json.dumps({"ignore_sigterm": ignore_sigterm, "rate": rate,
                                               "exit_status": exit_status,
                                               "sigterm_delay_ms": sigterm_delay_ms,
                                               "reap_delay_ms": reap_delay_ms}) + "\n")

    def qel2ip_config(self) -> dict:
        return json.loads(self._read("qel2ip.conf"))

    def qel2ip_log(self) -> list:
        """What the stand-ins recorded, in order: {"event": "start", "argv", "env"},
        {"event": "sigterm_ignored"}, {"event": "exit", "status"}, and those of
        configure_qel2ip's delays, each with "time" and "pid" (the stand-in's)."""
        text = self._read("qel2ip.log") or ""
        return [json.loads(line) for line in text.splitlines()]

    def qel2ip_runs(self) -> list:
        """Every stand-in started: pid, argv, env, start time and whether it still runs."""
        return [{"pid": entry["pid"], "time": entry["time"], "argv": entry["argv"],
                 "env": entry["env"], "running": process_running(entry["pid"])}
                for entry in self.qel2ip_log() if entry["event"] == "start"]

    def kill_qel2ip(self):
        """SIGKILL to every stand-in of this root that still runs; a pid that another program
        took over since is left alone."""
        program = os.fsencode(self.path("opt/bin/qel2ip"))
        for run in self.qel2ip_runs():
            try:
                with open(f"/proc/{run['pid']}/cmdline", "rb") as cmdline:
                    if program not in cmdline.read().split(b"\0"):
                        continue
                os.kill(run["pid"], signal.SIGKILL)
            except (FileNotFoundError, ProcessLookupError):
                continue

    def qel2ip_stats(self) -> dict:
        """The statistics files, by unit."""
        names = sorted(os.listdir(self.path("tmp")))
        return {name[len("qelstat"):]: self._read(f"tmp/{name}") for name in names
                if name.startswith("qelstat") and not name.endswith(".new")}

    def set_qelstat(self, unit: str, text: str | None):
        """Puts a statistics file in place as the stand-in would; None removes it."""
        if not isinstance(unit, str) or "/" in unit:
            raise ValueError(f"unit: not a unit number: {unit!r}")
        if text is None:
            remove_file(self.path(f"tmp/qelstat{unit}"))
        elif not isinstance(text, str):
            raise ValueError(f"text: not a text: {text!r}")
        else:
            self._write(f"tmp/qelstat{unit}", text)

    def stored_settings(self) -> dict:
        """data/settings.conf: its text and its records, each parsed (None: not JSON)."""
        text = self._read(SETTINGS_FILE)
        records = [] if text is None else [
            parse_json(record) for record in text.split(SETTINGS_RECORD_END) if record]
        return {"exists": text is not None, "text": text, "records": records}

    def module(self, addr: int) -> tavimod.Module:
        if addr not in self.modules:
            raise ValueError(f"no module at address {addr:#04x} in mode {self.mode}")
        return self.modules[addr]

    def calls(self) -> list:
        """The stand-in scripts' calls so far: (time, name, [arguments])."""
        calls = []
        for line in (self._read("calls.log") or "").splitlines():
            stamp, name, *args = line.split(" ")
            calls.append((float(stamp), name, [arg for arg in args if arg]))
        return calls

    def clear_calls(self):
        self._write("calls.log", "")

    def set_script_status(self, name: str, status: int):
        """The exit status with which a stand-in script ends after recording its call (0: it
        does its work); a tavid script that fails does not restart the daemon."""
        if name not in SCRIPTS:
            raise ValueError(f"no script {name!r}, expected one of {tuple(SCRIPTS)}")
        if not 0 <= tavimod.check_count(status) <= 255:
            raise ValueError(f"not an exit status: {status!r}")
        self._write(f"{name}.status", f"{status}\n")

    def control(self, command: dict) -> dict:
        """Runs one control command ({"cmd": NAME, ...}); the answer has "ok" and, when it
        failed, "error"."""
        handler = self.commands.get(command.get("cmd")) if isinstance(command, dict) else None
        if handler is None:
            return {"ok": False, "error": f"unknown command: {json.dumps(command)}"}
        try:
            return {"ok": True, **handler(command)}
        except (KeyError, TypeError, ValueError) as error:
            return {"ok": False, "error": f"bad arguments ({error!r}): {json.dumps(command)}"}
        except OSError as error:
            return {"ok": False, "error": f"failed ({error}): {json.dumps(command)}"}

    def control_line(self, line: bytes) -> bytes:
        try:
            command = json.loads(line)
        except ValueError:
            answer = {"ok": False, "error": "not a JSON command"}
        else:
            answer = self.control(command)
        return json.dumps(answer).encode() + b"\n"

    def _command_bus_log(self, command: dict) -> dict:
        """Every transfer, or with "addr" those to one address."""
        transfers = self.bus.transactions()
        if "addr" in command:
            addr = number(command["addr"])
            transfers = [transfer for transfer in transfers if transfer.addr == addr]
        return {"transactions": [transfer.to_json() for transfer in transfers]}

    def _command_clear_bus_log(self, command: dict) -> dict:
        self.bus.clear_log()
        return {}

    def _command_set_absent(self, command: dict) -> dict:
        self.bus.set_absent(number(command["addr"]), bool(command.get("absent", True)))
        return {}

    def _command_nack_next(self, command: dict) -> dict:
        self.bus.nack_next(number(command["addr"]), number(command["count"]))
        return {}

    def _command_temperature(self, command: dict) -> dict:
        return self.temperature()

    def _command_set_temperature(self, command: dict) -> dict:
        """"millidegrees": a number, or null to take the sensor files away."""
        millidegrees = command["millidegrees"]
        self.set_temperature(None if millidegrees is None else number(millidegrees))
        return {}

    def _command_leds(self, command: dict) -> dict:
        return self.leds()

    def _command_calls(self, command: dict) -> dict:
        return {"calls": [{"time": stamp, "name": name, "args": args}
                          for stamp, name, args in self.calls()]}

    def _command_clear_calls(self, command: dict) -> dict:
        self.clear_calls()
        return {}

    def _command_set_script_status(self, command: dict) -> dict:
        self.set_script_status(command["name"], number(command["status"]))
        return {}

    def _command_stored_settings(self, command: dict) -> dict:
        return self.stored_settings()

    def _command_qel2ip(self, command: dict) -> dict:
        return {"config": self.qel2ip_config(), "runs": self.qel2ip_runs(),
                "log": self.qel2ip_log(), "stats": self.qel2ip_stats()}

    def _command_set_qel2ip(self, command: dict) -> dict:
        """Any of configure_qel2ip's settings; the others stay as they are."""
        tavimod.check_keys(command, ("cmd", "ignore_sigterm", "rate", "exit_status", "sigterm_delay_ms",
                                     "reap_delay_ms"), "set_qel2ip")
        config = self.qel2ip_config()
        config.update({key: value for key, value in command.items() if key != "cmd"})
        self.configure_qel2ip(**config)
        return {}

    def _command_set_qelstat(self, command: dict) -> dict:
        self.set_qelstat(str(command["unit"]), command["text"])
        return {}

    def _command_netsettings(self, command: dict) -> dict:
        return {"netsettings": self._netsettings().state()}

    def _command_set_netsettings(self, command: dict) -> dict:
        self._netsettings().set_interfaces(command["interfaces"])
        return {}

    def _command_set_netsettings_fault(self, command: dict) -> dict:
        """"fault": one of the faults or null; "garbage" and "delay_ms" when given."""
        delay_ms = command.get("delay_ms")
        self._netsettings().set_fault(command["fault"], command.get("garbage"),
                                      None if delay_ms is None else number(delay_ms))
        return {}

    def _command_netsettings_log(self, command: dict) -> dict:
        return {"exchanges": self._netsettings().exchanges()}

    def _command_clear_netsettings_log(self, command: dict) -> dict:
        self._netsettings().clear_exchanges()
        return {}

    def _netsettings(self) -> NetSettings:
        if self.netsettings is None:
            raise ValueError("this box has no network-settings service (--netsettings)")
        return self.netsettings

    def _command_modules(self, command: dict) -> dict:
        return {"modules": [self.modules[addr].state() for addr in sorted(self.modules)]}

    def _command_module(self, command: dict) -> dict:
        return {"module": self._addressed(command).state()}

    def _command_module_log(self, command: dict) -> dict:
        """The commands the modules took, in order; with "addr" those of one module."""
        modules = [self._addressed(command)] if "addr" in command else self.modules.values()
        entries = [entry for module in modules for entry in module.commands()]
        return {"commands": sorted(entries, key=lambda entry: entry["seq"])}

    def _command_clear_module_log(self, command: dict) -> dict:
        for module in self.modules.values():
            module.clear_commands()
        return {}

    def _command_set_module(self, command: dict) -> dict:
        self._addressed(command).set_values(command["values"])
        return {}

    def _command_set_busy(self, command: dict) -> dict:
        self._addressed(command).set_fault(busy_ms=number(command["ms"]))
        return {}

    def _command_set_unknown(self, command: dict) -> dict:
        self._addressed(command).set_fault(unknown=[number(code) for code in command["codes"]])
        return {}

    def _command_set_error(self, command: dict) -> dict:
        """"error": the error byte answered to "code", or null to execute it again."""
        error = command["error"]
        self._addressed(command).set_fault(
            error=(number(command["code"]), None if error is None else number(error)))
        return {}

    def _command_set_corrupt(self, command: dict) -> dict:
        """"kind": how the replies to "code" (absent: to every command) are broken, or null
        to mend them."""
        code = command.get("code")
        self._addressed(command).set_fault(
            corrupt=(None if code is None else number(code), command["kind"]))
        return {}

    def _command_clear_faults(self, command: dict) -> dict:
        self._addressed(command).clear_faults()
        return {}

    def _addressed(self, command: dict) -> tavimod.Module:
        return self.module(number(command["addr"]))

    # -- the root's files ---------------------------------------------------------------------

    def _lay_out(self):
        for directory in ("dev", "data", "tmp", "opt/bin", "etc/rc.d/init.d", "sbin"):
            os.makedirs(self.path(directory), exist_ok=True)
        self._write("bus.log", "")
        self._lay_out_programs()
        self._lay_out_sysfs()
        self.configure_restart()
        self.configure_qel2ip()

    def _lay_out_programs(self):
        root = shlex.quote(self.root)
        self._write("opt/bin/qel2ip", QEL2IP.format(root=self.root, rate=QEL2IP_RATE_MBPS),
                    executable=True)
        for mode in MODES:
            self._write(f"opt/bin/default_settings_{mode}.conf",
                        tavidefaults.default_settings(mode))
        for name, path in SCRIPTS.items():
            script = RECORDING_SCRIPT.format(name=name, root=root)
            self._write(path, script + TAVID_RESTART if name == "tavid" else script,
                        executable=True)

    def _lay_out_sysfs(self):
        for gpio in (17, 193, 196):
            self._write(f"sys/class/gpio/gpio{gpio}/value", "0\n")
            self._write(f"sys/class/gpio/gpio{gpio}/direction", "in\n")
        # The alarm LEDs are lit at power-up: the daemon clearing them is visible.
        for led in (RGB_LED, STORAGE_LED):
            self._write(f"{led}/brightness", "1\n")
            self._write(f"{led}/trigger", "heartbeat\n")
        self.set_temperature(BOOT_TEMPERATURE)

    def _read(self, box_path: str) -> str | None:
        """The file's text, None when it is missing."""
        try:
            with open(self.path(box_path), encoding="utf-8", newline="") as file:
                return file.read()
        except FileNotFoundError:
            return None

    def _write(self, box_path: str, text: str, executable: bool = False):
        path = self.path(box_path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8", newline="") as file:
            file.write(text)
        if executable:
            os.chmod(path, 0o755)


def remove_file(path: str):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass


def process_running(pid: int) -> bool:
    """Whether the process exists and has not ended (a zombie that nobody reaped has)."""
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
            return stat.read().rpartition(")")[2].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError, IndexError):
        return False


def parse_json(text: str):
    try:
        return json.loads(text)
    except ValueError:
        return None


def number(value) -> int:
    """A number of a control command: a JSON number, or text such as "0x30" for people."""
    if isinstance(value, str):
        return int(value, 0)
    if isinstance(value, bool) or not isinstance(value, int):
        raise ValueError(f"not a number: {value!r}")
    return value


# ---------------------------------------------------------------------------------------------
# Program mode


def query(root: str, command: str) -> int:
    """Sends one control command to a running simulator and prints its answer. The command is
    a name, or a whole JSON command when it starts with "{"."""
    line = command if command.lstrip().startswith("{") else json.dumps({"cmd": command})
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as control:
        control.connect(os.path.join(os.path.abspath(root), "sim.ctl"))
        control.sendall(line.encode() + b"\n")
        answer = control.makefile("rb").readline()
    sys.stdout.write(answer.decode())
    return 0 if json.loads(answer).get("ok") else 1


def serve(args) -> int:
    # Blocked before any thread starts, so that every thread inherits the mask and sigwait
    # below is the only one to take the signals.
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})
    os.makedirs(args.root, exist_ok=True)
    with Box(args.root, args.mode, args.netsettings, args.netsettings_port) as box:
        if args.tavid:
            box.configure_restart(args.tavid, shlex.split(args.tavid_args),
                                  shlex.split(args.launcher))
        netsettings = (f", network settings at {LOCALHOST}:{box.netsettings.port}"
                       if box.netsettings else "")
        print(f"tavisim: box root {box.root} (mode {box.mode}), bus at {box.bus_path}{netsettings}",
              flush=True)
        signal.sigwait({signal.SIGINT, signal.SIGTERM})
    return 0


def parse_args(argv):
    parser = argparse.ArgumentParser(prog="tavisim", description="The tavid box simulator.")
    parser.add_argument("--root", required=True, help="directory of the box root (short path)")
    parser.add_argument("--mode", choices=MODES, default="rf", help="output mode of the box")
    parser.add_argument("--query", metavar="COMMAND",
                        help="ask a running simulator (a command name or a JSON command)")
    parser.add_argument("--tavid", default="", help="daemon that the init script restarts")
    parser.add_argument("--tavid-args", default="", help="its options, besides -m")
    parser.add_argument("--launcher", default="", help="command put in front of the daemon")
    parser.add_argument("--netsettings", action="store_true",
                        help="also serve the network-settings service on localhost")
    parser.add_argument("--netsettings-port", type=int, default=NETSETTINGS_PORT,
                        help=f"its port (the box's is {NETSETTINGS_PORT})")
    return parser.parse_args(argv)


def main(argv=None) -> int:
    args = parse_args(argv)
    try:
        if args.query:
            return query(args.root, args.query)
        return serve(args)
    except (OSError, ValueError) as error:
        print(f"tavisim: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
