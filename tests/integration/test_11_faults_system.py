"""Faults around the daemon: a signal in the middle of a request and in the middle of a module
transaction, a flood of connections, a settings directory that is read-only or full when the
settings are stored, and a streaming program that ends by itself, goes missing or ignores
SIGTERM. Each test says what the daemon must answer, log and leave behind, and ends with a
daemon on the box answering again."""

import json
import os
import selectors
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from conftest import (MODULE_WAIT, QEL2IP_STOP_WAIT, REPLY_WAIT, SLOW, UNSUCCESSFUL, _connect, _read_until_closed,
                      accepted, answers, barrier, bitrate, destination, events, get, gone, ip_apply,
                      module_parameters, new_log_lines, new_messages, ready, request, restarted_pid, rf_frequency,
                      send, settle, start_ready, started_for, stream, tcp_accept_queue, tcp_listening, took,
                      wait_for, wrn_line)

SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGUSR1)
DEVICE = b'{"action":"get","object":"device","args":{"device_id":"0"}}'
DEVICE_RF = b'{"result":{"output_mode":"rf","device_id":"0"}}'

NEW_FREQUENCY = 498000
# A module that stays busy while the test acts in its transaction, until the test mends it:
# well within the time for which the driver waits.
TRANSACTION_MS = int(MODULE_WAIT * 1000) // 2
BLANK_INTERVAL = 0.01  # well within the 50 ms of silence that end a request
BLANKS_AFTER = 1.0  # how long a trickling client goes on once the test has acted


def signal_message(sig: int, pid: int) -> str:
    if sig == signal.SIGUSR1:
        return f"Restart (SIGUSR1) requested (PID {pid})"
    return f"Shutdown requested (PID {pid})"


def the_daemon_after(box, tavid, daemon, sig: int):
    """The daemon that serves the box after the first one ended on the signal: the one that
    the init script started for SIGUSR1, and none else; for SIGTERM and SIGINT no script
    runs and the test starts one."""
    calls = [(name, args) for _, name, args in box.calls()]
    if sig != signal.SIGUSR1:
        assert calls == []
        return tavid(box, ["-m", "rf"], port=daemon.port)
    assert calls == [("tavid", ["restart"])]
    wait_for(lambda: restarted_pid(box) is not None and tcp_listening(daemon.port), what="the daemon restarted")
    return daemon


# ---------------------------------------------------------------------------------------------
# Signals


class TricklingClient:
    """A request whose client goes on sending blanks 10 ms apart, so that the daemon is still
    reading it when the test acts. The blanks stop BLANKS_AFTER seconds after reply() is
    called: a signal that comes between two of the daemon's reads (not in one) is seen only at
    the end of the request, which the daemon's 50 ms of silence then brings."""

    def __init__(self, port: int, data: bytes):
        self.sock = _connect(port, REPLY_WAIT)
        self.sock.sendall(data)
        wait_for(lambda: accepted(self.sock), what="the request accepted")
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._blanks)
        self._thread.start()

    def _blanks(self):
        while not self._stop.wait(BLANK_INTERVAL):
            try:
                self.sock.sendall(b" ")
            except OSError:
                return

    def reply(self) -> bytes:
        timer = threading.Timer(BLANKS_AFTER, self._stop.set)
        timer.start()
        try:
            return _read_until_closed(self.sock, REPLY_WAIT, reset_ends=True)
        finally:
            timer.cancel()
            self._stop.set()
            self._thread.join()
            self.sock.close()


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_a_signal_while_a_request_is_read(make_box, tavid, sig):
    """The signal cuts the read of the request short: what has come so far is the request,
    and it is answered in full. Then the main loop ends and the daemon ends with status 0,
    SIGUSR1 after running the init script's restart. A daemon serves the box afterwards."""
    box, daemon = start_ready(make_box, tavid, "rf", "-v")
    since = len(daemon.stdout())
    client = TricklingClient(daemon.port, DEVICE)
    daemon.send_signal(sig)
    assert client.reply() == DEVICE_RF
    assert daemon.wait() == 0
    assert new_messages(daemon, since) == [signal_message(sig, daemon.process.pid)]
    answers(the_daemon_after(box, tavid, daemon, sig))


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_a_signal_while_a_module_executes_a_command(make_box, tavid, sig):
    """The signal comes while the daemon waits for a busy module that has taken a frequency.
    The wait is not cut short: the set succeeds and is stored, and the poll cycle of the same
    pass applies it before the loop ends; the daemon ends with status 0. The daemon that
    serves the box afterwards answers the frequency that was set."""
    box, daemon = start_ready(make_box, tavid, "rf")
    module = box.module(0x30)
    module.set_fault(busy_ms=TRANSACTION_MS)
    with ThreadPoolExecutor(1) as pool:
        pending = pool.submit(send, daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY))
        wait_for(lambda: took(box, 0x30, "set_frequency"), what="the frame taken")
        daemon.send_signal(sig)
        assert module.busy(), "the signal came after the wait"
        module.clear_faults()  # the wait ends, and the commands after this one find the module ready
        assert pending.result() == b"{}"
    assert daemon.wait() == 0
    assert module_parameters(box, 0x30)["frequency"] == NEW_FREQUENCY
    (record,) = [record for record in box.stored_settings()["records"]
                 if record["object"] == "output_rf" and record["args"]["output_id"] == "0"]
    assert record["args"]["frequency"] == str(NEW_FREQUENCY)
    assert rf_frequency(the_daemon_after(box, tavid, daemon, sig)) == str(NEW_FREQUENCY)


# ---------------------------------------------------------------------------------------------
# A flood of connections

FLOOD = 1000
FLOOD_WAVE = 100  # connections open at a time, well below the test's descriptor limit
FLOOD_WAVE_TIME = 0.3  # how long a wave's clients wait for the daemon


class FloodClient:
    """One client of the flood. By its number it either sends the request and reads the reply,
    sends nothing, or sends half of the request; every other one then closes with a reset."""

    def __init__(self, port: int, number: int):
        self.number = number
        self.reply = b""
        self.sock = socket.socket()
        self.sock.setblocking(False)
        self.sock.connect_ex(("127.0.0.1", port))

    def connected(self):
        """Writable: sends what this client sends; True when it then waits for a reply."""
        if self.sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) != 0:
            return False
        data = (DEVICE, b"", DEVICE[:20])[self.number % 3]
        try:
            self.sock.send(data)
        except OSError:
            return False
        return self.number % 3 == 0

    def readable(self) -> bool:
        """True while the reply goes on."""
        try:
            chunk = self.sock.recv(4096)
        except OSError:
            chunk = b""
        self.reply += chunk
        return bool(chunk)

    def close(self):
        if self.number % 2:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()


def flood_wave(port: int, first: int) -> list:
    """FLOOD_WAVE clients connecting at once; the replies of those that waited for one."""
    clients = [FloodClient(port, number) for number in range(first, first + FLOOD_WAVE)]
    replies = []
    with selectors.DefaultSelector() as selector:
        for client in clients:
            selector.register(client.sock, selectors.EVENT_WRITE, client)
        deadline = time.monotonic() + FLOOD_WAVE_TIME
        while selector.get_map() and time.monotonic() < deadline:
            for key, mask in selector.select(0.05):
                client = key.data
                if mask & selectors.EVENT_WRITE:
                    selector.unregister(client.sock)
                    if client.connected():
                        selector.register(client.sock, selectors.EVENT_READ, client)
                elif not client.readable():
                    selector.unregister(client.sock)
                    replies.append(client.reply)
    for client in clients:
        client.close()
    return replies


def descriptors(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/fd"))


def test_a_flood_of_connections(make_box, tavid):
    """A thousand connections arrive within a few seconds, most of them while the daemon
    serves another: the listen queue takes what it can and the kernel turns the rest away.
    Every client that waited for a reply got the right one; clients that went away may cost a
    warning for a reply that could not be sent, nothing else. The daemon keeps no descriptor
    of theirs and answers a request once the flood is over."""
    box, daemon = start_ready(make_box, tavid, "rf")
    pid, since = daemon.process.pid, len(daemon.stderr())
    before = descriptors(pid)
    replies = [reply for first in range(0, FLOOD, FLOOD_WAVE) for reply in flood_wave(daemon.port, first)]
    assert set(replies) <= {DEVICE_RF}, set(replies)
    assert request(daemon.port, DEVICE) == DEVICE_RF
    wait_for(lambda: tcp_accept_queue(daemon.port) == 0 and descriptors(pid) == before,
             what="the flood's connections all closed")
    allowed = {wrn_line("cmd_poll", "cmd-json - Could not send JSON response"),
               wrn_line("inet_accept_tcp_client", "Could not accept"),
               wrn_line("cmd_poll", "cmd-json - Could not accept command")}
    assert set(new_log_lines(daemon, since)) <= allowed
    answers(daemon)


# ---------------------------------------------------------------------------------------------
# The settings directory read-only or full. Root writes through permission bits, so the daemon
# runs in a mount namespace of its own (unshare) where the data directory is mounted read-only
# or replaced by a small file system that is already full. The test sees that directory as
# the daemon does through /proc/<pid>/root.

READ_ONLY_DATA = ('mount --bind "$TAVID_ROOT/data" "$TAVID_ROOT/data" '
                  '&& mount -o remount,bind,ro "$TAVID_ROOT/data" && exec "$@"')
FULL_DATA = ('mount -t tmpfs -o size=16k tmpfs "$TAVID_ROOT/data" '
             '&& { head -c 1048576 /dev/zero >"$TAVID_ROOT/data/filler" 2>/dev/null; exec "$@"; }')


def in_namespace(script: str) -> list:
    """A wrapper that runs the daemon in a user and mount namespace prepared by the script."""
    return ["unshare", "-rm", "--", "/bin/sh", "-c", script, "sh"]


@pytest.fixture(scope="module")
def namespaces():
    with tempfile.TemporaryDirectory() as mount_point:
        try:
            done = subprocess.run(in_namespace('mount -t tmpfs -o size=16k tmpfs "$1"') + [mount_point],
                                  capture_output=True, timeout=REPLY_WAIT)
        except FileNotFoundError:
            pytest.skip("no unshare here to give the daemon a data directory of its own")
    if done.returncode != 0:
        pytest.skip(f"no user and mount namespaces here: {done.stderr.decode(errors='replace').strip()}")


STORED_FREQUENCY = 482000  # neither the module's own frequency nor the one the test sets


def is_output_0(record: bytes) -> bool:
    return record.startswith(b'{"action":"set","object":"output_rf",') and record.endswith(b',"output_id":"0"}}')


def stored_frequency(text: bytes) -> str:
    """RF output 0's frequency in a settings file."""
    (record,) = [record for record in text.split(b"\n\r") if is_output_0(record)]
    return json.loads(record)["args"]["frequency"]


def with_frequency(text: bytes, khz: int) -> bytes:
    """The settings file with RF output 0's frequency changed."""
    old = b'"frequency":"%s"' % stored_frequency(text).encode()
    return b"\n\r".join(record.replace(old, b'"frequency":"%d"' % khz) if is_output_0(record) else record
                        for record in text.split(b"\n\r"))


def test_a_store_into_a_read_only_settings_directory(make_box, tavid, namespaces):
    """The stored settings are restored at start. A set is applied, but its store cannot open
    the file: the reply is the warning 14 with the store's warning, and the file stays as it
    was (only a file that the store opened is removed). A restore brings the stored value back."""
    box = make_box("rf")
    stored = with_frequency(Path(box.path("opt/bin/default_settings_rf.conf")).read_bytes(), STORED_FREQUENCY)
    Path(box.path("data/settings.conf")).write_bytes(stored)
    daemon = tavid(box, ["-m", "rf"], wrapper=in_namespace(READ_ONLY_DATA))
    ready(box, daemon)
    settle(box)
    assert rf_frequency(daemon) == str(STORED_FREQUENCY)
    since = len(daemon.stderr())
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY)) == UNSUCCESSFUL % 14
    assert new_log_lines(daemon, since) == [
        wrn_line("cmd_store_settings", "Could not open settings file for storing...")]
    assert rf_frequency(daemon) == str(NEW_FREQUENCY)
    assert Path(box.path("data/settings.conf")).read_bytes() == stored
    assert send(daemon, "execute", "restore_settings") == b"{}"
    assert rf_frequency(daemon) == str(STORED_FREQUENCY)


def test_a_store_into_a_full_settings_directory(make_box, tavid, namespaces):
    """The store opens the file but cannot write its records: the reply to the set is the
    warning 14, with no warning line of its own, and the part of the file that was made is
    removed. The set itself is applied. With room again, a store writes the whole file."""
    box = make_box("rf")
    daemon = tavid(box, ["-m", "rf"], wrapper=in_namespace(FULL_DATA))
    data = Path(f"/proc/{daemon.process.pid}/root{box.root}/data")
    ready(box, daemon)
    settle(box)
    assert os.listdir(data) == ["filler"]
    since = len(daemon.stderr())
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY)) == UNSUCCESSFUL % 14
    assert new_log_lines(daemon, since) == []
    assert os.listdir(data) == ["filler"]
    assert rf_frequency(daemon) == str(NEW_FREQUENCY)
    (data / "filler").unlink()
    assert send(daemon, "execute", "store_settings") == b"{}"
    assert stored_frequency((data / "settings.conf").read_bytes()) == str(NEW_FREQUENCY)


# ---------------------------------------------------------------------------------------------
# The streaming program (IP SPTS mode: unit 0, the one service has tag 0)

BITRATE_NONE = b'{"result":{"bitrate":"0","output_id":"0"}}'
BITRATE = b'{"result":{"bitrate":"12500","output_id":"0"}}'  # the stand-in's 12.5 Mbit/s
PORT = "1234"
SERVICE = "0"


def test_a_streaming_program_that_ends_by_itself(make_box, tavid):
    """The program ends with status 1 right after its start. The daemon does not watch it: not
    reaped, it still counts as running and its last rate is read. The next apply finds it
    running, and stopping it fails: it was reaped by the SIGTERM wait but had not been ended
    by a signal, and SIGKILL then finds no process; the restart is given up, nothing starts.
    At the apply after that the old number is no process any more, and a new program starts."""
    box, daemon = start_ready(make_box, tavid, "ip_spts")
    box.configure_qel2ip(exit_status=1)
    pid = stream(box, daemon, "239.1.2.3", PORT, SERVICE)["pid"]
    wait_for(lambda: events(box) == ["start", "exit"] and gone(pid), what="the program ended")
    assert bitrate(daemon) == BITRATE
    box.configure_qel2ip()
    since = len(daemon.stderr())
    destination(daemon, "239.1.2.4", PORT)
    expected = [wrn_line("hal_qel2ip_stop", f"Could not stop qel2ip with SIGTERM (PID {pid})"),
                wrn_line("hal_qel2ip_stop", f"Could not send SIGKILL to qel2ip (PID {pid})"),
                wrn_line("hal_qel2ip_stop", f"Could not stop qel2ip with SIGKILL (PID {pid})"),
                wrn_line("hal_qel2ip_start", f"Could not restart qel2ip (PID {pid})")]
    wait_for(lambda: new_log_lines(daemon, since) == expected, what="the restart given up")
    assert len(box.qel2ip_runs()) == 1
    assert bitrate(daemon) == BITRATE_NONE
    stream(box, daemon, "239.1.2.5", PORT, SERVICE)
    wait_for(lambda: bitrate(daemon) == BITRATE, what="the new program's rate")
    assert new_log_lines(daemon, since) == expected


def test_a_streaming_program_killed_by_a_signal(make_box, tavid):
    """The program is killed from outside. Until the next apply the daemon counts it as
    running; then stopping it reaps it as ended by a signal, which is a stop, and the new
    program starts at once, without a warning."""
    box, daemon = start_ready(make_box, tavid, "ip_spts", "-v")
    pid = stream(box, daemon, "239.1.2.3", PORT, SERVICE)["pid"]
    os.kill(pid, signal.SIGKILL)
    wait_for(lambda: gone(pid), what="the program killed")
    assert bitrate(daemon) == BITRATE
    since, since_out = len(daemon.stderr()), len(daemon.stdout())
    new = stream(box, daemon, "239.1.2.4", PORT, SERVICE)["pid"]
    barrier(daemon, 2)
    # The new destination's apply restarts the program; the service was on already.
    stored = "Storing settings... (/data/settings.conf)"
    assert new_messages(daemon, since_out) == [stored, *ip_apply(
        "Starting qel2ip...", f"Qel2ip already running (PID {pid})", f"Stopping qel2ip... (PID {pid})",
        f"Qel2ip stopped with SIGTERM (PID {pid})",
        f"qel2ip started for destination 239.1.2.4:{PORT} (QEL: 0) (PID {new})"), stored]
    assert new_log_lines(daemon, since) == []
    wait_for(lambda: bitrate(daemon) == BITRATE, what="the new program's rate")


def test_a_streaming_program_missing_when_it_is_restarted(make_box, tavid):
    """The program file goes away while a program runs. The next apply stops the running one,
    then warns that the program does not exist and starts nothing; the rate is 0 again. With
    the file back, the apply after that starts it."""
    box, daemon = start_ready(make_box, tavid, "ip_spts")
    pid = stream(box, daemon, "239.1.2.3", PORT, SERVICE)["pid"]
    program = Path(box.path("opt/bin/qel2ip"))
    program.rename(program.with_suffix(".away"))
    since = len(daemon.stderr())
    destination(daemon, "239.1.2.4", PORT)
    missing = [wrn_line("hal_qel2ip_start", "Qel2ip does not exist or is not executable")]
    wait_for(lambda: new_log_lines(daemon, since) == missing, what="the missing program warned about")
    assert gone(pid)
    assert len(box.qel2ip_runs()) == 1
    assert bitrate(daemon) == BITRATE_NONE
    program.with_suffix(".away").rename(program)
    stream(box, daemon, "239.1.2.5", PORT, SERVICE)
    assert new_log_lines(daemon, since) == missing
    wait_for(lambda: bitrate(daemon) == BITRATE, what="the new program's rate")


def test_a_streaming_program_that_ignores_sigterm_when_the_daemon_restarts(make_box, tavid):
    """SIGUSR1 while a program runs that ignores SIGTERM: at the clean-up the daemon waits
    about 5 s for it, warns, kills it with SIGKILL, and only then ends (status 0) and runs the
    init script's restart. The SIGKILL wait shares the spent budget and looks once, so the
    kill is either seen or warned about. The restarted daemon restores the destination and
    streams to it again."""
    box, daemon = start_ready(make_box, tavid, "ip_spts", "-v")
    box.configure_qel2ip(ignore_sigterm=True)
    pid = stream(box, daemon, "239.1.2.3", PORT, SERVICE)["pid"]
    barrier(daemon, 2)
    since, since_out = len(daemon.stderr()), len(daemon.stdout())
    daemon.send_signal(signal.SIGUSR1)
    assert daemon.wait(QEL2IP_STOP_WAIT + SLOW) == 0
    box.configure_qel2ip()
    assert events(box) == ["start", "sigterm_ignored"]
    assert gone(pid)
    killed = f"Qel2ip stopped with SIGKILL (PID {pid})"
    texts = new_messages(daemon, since_out)
    assert texts[:2] == [signal_message(signal.SIGUSR1, daemon.process.pid), f"Stopping qel2ip... (PID {pid})"]
    assert texts[2:] in ([killed], [])
    not_seen = [] if texts[2:] else [wrn_line("hal_qel2ip_stop", f"Could not stop qel2ip with SIGKILL (PID {pid})")]
    assert new_log_lines(daemon, since) == [
        wrn_line("hal_qel2ip_stop", f"Could not stop qel2ip with SIGTERM (PID {pid})")] + not_seen
    assert [(name, args) for _, name, args in box.calls()] == [("tavid", ["restart"])]
    wait_for(lambda: restarted_pid(box) is not None and tcp_listening(daemon.port), what="the daemon restarted")
    answers(daemon, "ip_spts")
    assert get(daemon, "output_ip_dst", output_id="0")["result"] == {
        "dst_addr": "239.1.2.3", "dst_port": PORT, "output_id": "0"}
    wait_for(lambda: len(started_for(box, "239.1.2.3")) == 2, what="the restarted daemon streaming")
