#!/usr/bin/python3
"""The box simulator: a box root with the files and the I2C bus that tavid expects.

Run as a program it creates a root and serves its bus until SIGINT or SIGTERM; imported, its
Box class does the same for the integration tests. Standard library only, so that it runs
wherever /usr/bin/python3 does. The encoder/modulator modules are in tavimod.

The control socket sim.ctl takes one JSON command per line, {"cmd": NAME, ...}, and answers
one JSON line with "ok" (and "error" when it failed); `--query NAME` or `--query '{...}'`
sends one from the shell. Addresses and codes are JSON numbers or text such as "0x30".

  bus_log [addr]            the bus transfers (of one address)     clear_bus_log
  set_absent addr [absent]  the slave acknowledges nothing         nack_next addr count
  set_temperature millidegrees
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
  clear_faults addr         the module's faults gone (absence is the bus's: set_absent)
"""

import argparse
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


class _UnixServer(socketserver.ThreadingUnixStreamServer):
    """A thread per connection, serving `owner`. Closing also ends the open connections, so
    that stopping never waits for a client that keeps its connection."""

    block_on_close = True

    def __init__(self, path: str, handler, owner):
        check_socket_path(path)
        if os.path.exists(path):
            os.unlink(path)
        super().__init__(path, handler)
        self.path = path
        self.owner = owner
        self._connections = set()
        self._connections_lock = threading.Lock()
        self._thread = threading.Thread(target=self.serve_forever, kwargs={"poll_interval": 0.05},
                                        name=f"serve {path}", daemon=True)
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
        if os.path.exists(self.path):
            os.unlink(self.path)


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
# The box root


DEVICE_RECORD = '{"action":"set","object":"device","args":{"output_mode":"%s","device_id":"0"}}'

RECORDING_SCRIPT = """#!/bin/sh
# Stand-in for the box's {name}: records every call.
PATH=${{PATH:-/usr/bin:/bin}}
root={root}
echo "$(date +%s.%N) {name} $*" >>"$root/calls.log"
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
# Stand-in for the streaming program: records its command line, publishes a rate and streams
# nothing. It runs with an empty environment, so the root is written in here.
import json, os, signal, sys

ROOT = {root!r}

# The daemon counts a child as stopped only when a signal ended it: keep SIGTERM's default.
signal.signal(signal.SIGTERM, signal.SIG_DFL)
args = sys.argv[1:]
unit = args[args.index("-i") + 1] if "-i" in args[:-1] else ""
with open(os.path.join(ROOT, "tmp", "qel2ip.args"), "a") as record:
    record.write(json.dumps({{"pid": os.getpid(), "argv": sys.argv}}) + "\\n")
with open(os.path.join(ROOT, "tmp", "qelstat" + unit), "w") as stat:
    stat.write({rate!r})
while True:
    signal.pause()
"""

HWMON_TEMPERATURE = "sys/class/hwmon/hwmon0/device/temp1_input"
THERMAL_TEMPERATURE = "sys/devices/virtual/thermal/thermal_zone0/temp"


class Box:
    """A box root and the hardware behind it.

    The constructor lays out the root's files; start() opens the bus socket dev/i2c-0 and the
    control socket sim.ctl, stop() closes them again."""

    def __init__(self, root: str, mode: str = "rf"):
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
        self.commands = {
            "bus_log": self._command_bus_log,
            "clear_bus_log": self._command_clear_bus_log,
            "set_absent": self._command_set_absent,
            "nack_next": self._command_nack_next,
            "set_temperature": self._command_set_temperature,
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
        }
        self._servers = []
        self._lay_out()

    def path(self, box_path: str) -> str:
        """Where a path of the box lives in this root ("/data/x" and "data/x" alike)."""
        return os.path.join(self.root, box_path.lstrip("/"))

    # -- life ----------------------------------------------------------------------------------

    def start(self):
        if not self._servers:
            self._servers = [_UnixServer(self.bus_path, _BusConnection, self.bus),
                             _UnixServer(self.control_path, _ControlConnection, self)]
        return self

    def stop(self):
        for server in self._servers:
            server.close()
        self._servers = []

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    # -- what people and tests change or look at ----------------------------------------------

    def set_temperature(self, millidegrees: int):
        """Both sensors, so that every mode reads the same value."""
        for sensor in (HWMON_TEMPERATURE, THERMAL_TEMPERATURE):
            self._write(sensor, f"{int(millidegrees)}\n")

    def configure_restart(self, tavid: str = "", args=(), launcher=()):
        """What the init script runs on "restart": launcher, tavid, args, then -m MODE.
        Arguments are split on blanks by the script, so none may contain one."""
        values = {"TAVID_BIN": tavid, "TAVID_LAUNCHER": " ".join(launcher),
                  "TAVID_ARGS": " ".join(str(arg) for arg in args)}
        self._write("etc/tavid.env",
                    "".join(f"{key}={shlex.quote(value)}\n" for key, value in values.items()))

    def module(self, addr: int) -> tavimod.Module:
        if addr not in self.modules:
            raise ValueError(f"no module at address {addr:#04x} in mode {self.mode}")
        return self.modules[addr]

    def calls(self) -> list:
        """The stand-in scripts' calls so far: (time, name, [arguments])."""
        try:
            with open(self.path("calls.log"), encoding="utf-8") as log:
                lines = log.read().splitlines()
        except FileNotFoundError:
            return []
        calls = []
        for line in lines:
            stamp, name, *args = line.split(" ")
            calls.append((float(stamp), name, [arg for arg in args if arg]))
        return calls

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

    def _command_set_temperature(self, command: dict) -> dict:
        self.set_temperature(int(command["millidegrees"]))
        return {}

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

    def _lay_out_programs(self):
        root = shlex.quote(self.root)
        self._write("opt/bin/qel2ip", QEL2IP.format(root=self.root, rate=QEL2IP_RATE_MBPS),
                    executable=True)
        for mode in MODES:
            self._write(f"opt/bin/default_settings_{mode}.conf", DEVICE_RECORD % mode + "\n\r")
        self._write("etc/rc.d/init.d/tavid",
                    RECORDING_SCRIPT.format(name="tavid", root=root) + TAVID_RESTART,
                    executable=True)
        self._write("etc/rc.d/init.d/network_eth1",
                    RECORDING_SCRIPT.format(name="network_eth1", root=root), executable=True)
        self._write("sbin/reboot", RECORDING_SCRIPT.format(name="reboot", root=root),
                    executable=True)

    def _lay_out_sysfs(self):
        for gpio in (17, 193, 196):
            self._write(f"sys/class/gpio/gpio{gpio}/value", "0\n")
            self._write(f"sys/class/gpio/gpio{gpio}/direction", "in\n")
        # The alarm LEDs are lit at power-up: the daemon clearing them is visible.
        for led in ("sys/class/leds/rgb_red", "storage"):
            self._write(f"{led}/brightness", "1\n")
            self._write(f"{led}/trigger", "heartbeat\n")
        self.set_temperature(BOOT_TEMPERATURE)

    def _write(self, box_path: str, text: str, executable: bool = False):
        path = self.path(box_path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8", newline="") as file:
            file.write(text)
        if executable:
            os.chmod(path, 0o755)


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
    with Box(args.root, args.mode) as box:
        if args.tavid:
            box.configure_restart(args.tavid, shlex.split(args.tavid_args),
                                  shlex.split(args.launcher))
        print(f"tavisim: box root {box.root} (mode {box.mode}), bus at {box.bus_path}", flush=True)
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
