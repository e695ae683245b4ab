"""The box simulator itself: its root, its bus, its stand-in programs and its control channel,
and the harness helpers that talk to the daemon's port."""

import json
import os
import signal
import socket
import stat
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

import tavisim
from conftest import free_port, request, request_in_pieces, tcp_listening

SIM = Path(tavisim.__file__)
MEMORY_ADDR = 0x50
EMPTY_ADDR = 0x51


def wait_for(condition, timeout=5.0):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, "condition not met in time"
        time.sleep(0.01)


def read_exact(sock, length):
    data = b""
    while len(data) < length:
        chunk = sock.recv(length - len(data))
        assert chunk, f"bus closed after {data!r}"
        data += chunk
    return data


def bus_connect(box):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.settimeout(5)
    sock.connect(box.bus_path)
    return sock


def bus_write(sock, addr, data):
    sock.sendall(b"W" + bytes([addr]) + len(data).to_bytes(2, "big") + data)
    return read_exact(sock, 1)


def bus_read(sock, addr, length):
    """The whole answer: the status byte and, when acknowledged, the bytes read."""
    sock.sendall(b"R" + bytes([addr]) + length.to_bytes(2, "big"))
    status = read_exact(sock, 1)
    return status if status == b"\x01" else status + read_exact(sock, length)


def control(box, command):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.settimeout(5)
        sock.connect(box.control_path)
        sock.sendall(json.dumps(command).encode() + b"\n")
        return json.loads(sock.makefile("rb").readline())


@pytest.fixture
def memory(box):
    slave = tavisim.Memory()
    box.bus.attach(MEMORY_ADDR, slave)
    return slave


# ---------------------------------------------------------------------------------------------
# The root


ROOT_FILES = [
    "data", "tmp", "opt/bin/qel2ip",
    "opt/bin/default_settings_rf.conf", "opt/bin/default_settings_ip_spts.conf",
    "opt/bin/default_settings_ip_mpts.conf",
    "etc/rc.d/init.d/tavid", "etc/rc.d/init.d/network_eth1", "sbin/reboot",
    *[f"sys/class/gpio/gpio{n}/{f}" for n in (17, 193, 196) for f in ("value", "direction")],
    "sys/class/leds/rgb_red/brightness", "sys/class/leds/rgb_red/trigger",
    "sys/class/hwmon/hwmon0/device/temp1_input",
    "sys/devices/virtual/thermal/thermal_zone0/temp",
    "storage/brightness", "storage/trigger",
]
EXECUTABLES = ["opt/bin/qel2ip", "etc/rc.d/init.d/tavid", "etc/rc.d/init.d/network_eth1",
               "sbin/reboot"]


def test_root_holds_the_box_layout(box):
    for name in ROOT_FILES:
        assert os.path.exists(box.path(name)), name
    for name in EXECUTABLES:
        assert os.access(box.path(name), os.X_OK), name
    assert stat.S_ISSOCK(os.stat(box.path("dev/i2c-0")).st_mode)
    assert os.listdir(box.path("data")) == []
    assert len(box.root) < 20


def test_box_paths_accept_absolute_box_paths(box):
    assert box.path("/data/settings.conf") == os.path.join(box.root, "data/settings.conf")


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_default_settings_name_their_mode(box, mode):
    text = Path(box.path(f"opt/bin/default_settings_{mode}.conf")).read_bytes()
    assert text == (b'{"action":"set","object":"device","args":{"output_mode":"%s",'
                    b'"device_id":"0"}}\n\r' % mode.encode())


def test_temperature_is_set_in_both_sensors(box):
    for sensor in (tavisim.HWMON_TEMPERATURE, tavisim.THERMAL_TEMPERATURE):
        assert Path(box.path(sensor)).read_text() == "45500\n"
    box.set_temperature(51000)
    for sensor in (tavisim.HWMON_TEMPERATURE, tavisim.THERMAL_TEMPERATURE):
        assert Path(box.path(sensor)).read_text() == "51000\n"


def test_unknown_mode_is_refused(tmp_path):
    with pytest.raises(ValueError):
        tavisim.Box(str(tmp_path), "dvb")


def test_overlong_socket_path_is_refused(tmp_path):
    with pytest.raises(ValueError):
        tavisim.Box(str(tmp_path / ("x" * 100)))


def test_stop_removes_the_sockets_and_ends_open_connections(make_box):
    box = make_box()
    idle = bus_connect(box)
    assert bus_write(idle, EMPTY_ADDR, b"") == b"\x01"  # served, not just queued
    started = time.monotonic()
    box.stop()
    assert time.monotonic() - started < 2
    assert not os.path.exists(box.bus_path)
    assert not os.path.exists(box.control_path)
    assert idle.recv(1) == b""
    idle.close()


def test_box_is_a_context_manager(tmp_path):
    root = tavisim.Box(str(tmp_path))
    with root as box:
        assert os.path.exists(box.bus_path)
    assert not os.path.exists(box.bus_path)


# ---------------------------------------------------------------------------------------------
# The bus


def test_write_is_acknowledged_and_reaches_the_slave(box, memory):
    with bus_connect(box) as sock:
        assert bus_write(sock, MEMORY_ADDR, b"#\x01\x00\r") == b"\x00"
        assert bus_write(sock, MEMORY_ADDR, b"") == b"\x00"
    assert memory.writes == [b"#\x01\x00\r", b""]


def test_read_answers_exactly_the_length_asked(box, memory):
    memory.queue_reply(b"\x01\x02\x03")
    with bus_connect(box) as sock:
        assert bus_read(sock, MEMORY_ADDR, 2) == b"\x00\x01\x02"
        assert bus_read(sock, MEMORY_ADDR, 4) == b"\x00\x03\x00\x00\x00"
        assert bus_read(sock, MEMORY_ADDR, 0) == b"\x00"


def test_long_transfers_use_both_length_bytes(box, memory):
    data = bytes(range(256)) * 2
    memory.queue_reply(data)
    with bus_connect(box) as sock:
        assert bus_write(sock, MEMORY_ADDR, data) == b"\x00"
        assert bus_read(sock, MEMORY_ADDR, 512) == b"\x00" + data
    assert memory.writes == [data]


def test_empty_address_acknowledges_nothing(box):
    with bus_connect(box) as sock:
        assert bus_write(sock, EMPTY_ADDR, b"\x00") == b"\x01"
        assert bus_read(sock, EMPTY_ADDR, 3) == b"\x01"
        # The nack was the whole answer: the next transfer starts on a clean stream.
        assert bus_write(sock, EMPTY_ADDR, b"") == b"\x01"


def test_absent_slave_acknowledges_nothing_until_back(box, memory):
    memory.queue_reply(b"\x07")
    box.bus.set_absent(MEMORY_ADDR, True)
    with bus_connect(box) as sock:
        assert bus_write(sock, MEMORY_ADDR, b"\x01") == b"\x01"
        assert bus_read(sock, MEMORY_ADDR, 1) == b"\x01"
        box.bus.set_absent(MEMORY_ADDR, False)
        assert bus_read(sock, MEMORY_ADDR, 1) == b"\x00\x07"
    assert memory.writes == []


def test_nack_next_refuses_that_many_transfers(box, memory):
    box.bus.nack_next(MEMORY_ADDR, 2)
    with bus_connect(box) as sock:
        assert bus_write(sock, MEMORY_ADDR, b"\x01") == b"\x01"
        assert bus_read(sock, MEMORY_ADDR, 1) == b"\x01"
        assert bus_write(sock, MEMORY_ADDR, b"\x02") == b"\x00"
    assert memory.writes == [b"\x02"]


def test_memory_slave_nacks_when_told(box, memory):
    memory.nacking = True
    with bus_connect(box) as sock:
        assert bus_write(sock, MEMORY_ADDR, b"\x01") == b"\x01"
        assert bus_read(sock, MEMORY_ADDR, 1) == b"\x01"


def test_unknown_first_byte_closes_the_connection(box, memory):
    with bus_connect(box) as sock:
        sock.sendall(b"X")
        assert sock.recv(1) == b""


def test_connections_are_served_side_by_side(box, memory):
    with bus_connect(box) as first, bus_connect(box) as second:
        first.sendall(b"W" + bytes([MEMORY_ADDR]) + b"\x00\x02" + b"\xaa")  # one byte short
        assert bus_write(second, MEMORY_ADDR, b"\xbb") == b"\x00"
        first.sendall(b"\xab")
        assert read_exact(first, 1) == b"\x00"
    assert memory.writes == [b"\xbb", b"\xaa\xab"]


def test_every_transfer_is_logged(box, memory):
    memory.queue_reply(b"\x05")
    with bus_connect(box) as sock:
        bus_write(sock, MEMORY_ADDR, b"\x01\x02")
        bus_read(sock, MEMORY_ADDR, 2)
        bus_read(sock, EMPTY_ADDR, 3)
    logged = [(t.op, t.addr, t.length, t.data, t.ack) for t in box.bus.transactions()]
    assert logged == [("W", MEMORY_ADDR, 2, b"\x01\x02", True),
                      ("R", MEMORY_ADDR, 2, b"\x05\x00", True),
                      ("R", EMPTY_ADDR, 3, b"", False)]
    lines = [json.loads(line) for line in Path(box.path("bus.log")).read_text().splitlines()]
    assert [(l["op"], l["addr"], l["length"], l["data"], l["ack"]) for l in lines] == [
        ("W", MEMORY_ADDR, 2, "0102", True), ("R", MEMORY_ADDR, 2, "0500", True),
        ("R", EMPTY_ADDR, 3, "", False)]
    box.bus.clear_log()
    assert box.bus.transactions() == []


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_bus_carries_exactly_the_modes_modules(make_box, mode):
    box = make_box(mode)
    assert set(box.modules) <= set(tavisim.MODULE_ADDRESSES[mode])
    for addr in range(0x80):
        assert box.bus.slave(addr) is box.modules.get(addr)


# ---------------------------------------------------------------------------------------------
# Stand-in programs


def run_script(box, *command, env=None):
    env = {"PATH": f"{box.path('sbin')}:{os.environ['PATH']}", **(env or {})}
    return subprocess.run(list(command), env=env, timeout=10).returncode


def write_fake_daemon(box):
    """A program in the daemon's place that records how the init script started it."""
    fake = box.path("fake_tavid")
    Path(fake).write_text('#!/bin/sh\necho "$TAVID_ROOT $*" >"$TAVID_ROOT/fake.out"\n')
    os.chmod(fake, 0o755)
    return fake


def test_init_script_restarts_in_the_stored_mode(box):
    box.configure_restart(write_fake_daemon(box), ["-c", "4000", "-v"])
    Path(box.path("data/settings.conf")).write_bytes(
        b'{"action":"set","object":"output_rf","args":{"frequency":"474000000"}}\n\r'
        b'{"action":"set","object":"device","args":{"output_mode":"ip_mpts","device_id":"0"}}'
        b'\n\r')
    assert run_script(box, box.path("etc/rc.d/init.d/tavid"), "restart") == 0
    wait_for(lambda: os.path.exists(box.path("fake.out")))
    assert Path(box.path("fake.out")).read_text() == f"{box.root} -c 4000 -v -m ip_mpts\n"
    assert [(name, args) for _, name, args in box.calls()] == [("tavid", ["restart"])]
    assert Path(box.path("tavid.pid")).read_text().strip().isdigit()


def test_init_script_restarts_in_rf_without_stored_settings(box):
    box.configure_restart(write_fake_daemon(box))
    assert run_script(box, box.path("etc/rc.d/init.d/tavid"), "restart") == 0
    wait_for(lambda: os.path.exists(box.path("fake.out")))
    assert Path(box.path("fake.out")).read_text() == f"{box.root} -m rf\n"


def test_init_script_with_no_daemon_only_records(box):
    assert run_script(box, box.path("etc/rc.d/init.d/tavid"), "restart") == 0
    assert run_script(box, box.path("etc/rc.d/init.d/tavid"), "stop") == 0
    assert [(name, args) for _, name, args in box.calls()] == [("tavid", ["restart"]),
                                                                ("tavid", ["stop"])]
    assert not os.path.exists(box.path("tavid.pid"))


def test_reboot_and_interface_scripts_record_their_calls(box):
    before = time.time()
    assert run_script(box, "sh", "-c", "reboot") == 0
    assert run_script(box, box.path("etc/rc.d/init.d/network_eth1"), "restart") == 0
    calls = box.calls()
    assert [(name, args) for _, name, args in calls] == [("reboot", []),
                                                         ("network_eth1", ["restart"])]
    assert all(before - 1 < stamp < time.time() + 1 for stamp, _, _ in calls)


def test_qel2ip_records_its_arguments_and_ends_on_sigterm(box):
    program = box.path("opt/bin/qel2ip")
    child = subprocess.Popen([program, "-d", "239.0.0.1", "-p", "5000", "-i", "4"], env={})
    try:
        wait_for(lambda: os.path.exists(box.path("tmp/qelstat4")))
        assert Path(box.path("tmp/qelstat4")).read_text() == "12.5"
        record = json.loads(Path(box.path("tmp/qel2ip.args")).read_text())
        assert record == {"pid": child.pid,
                          "argv": [program, "-d", "239.0.0.1", "-p", "5000", "-i", "4"]}
        child.send_signal(signal.SIGTERM)
        assert child.wait(5) == -signal.SIGTERM
    finally:
        child.kill()


# ---------------------------------------------------------------------------------------------
# Control channel and program mode


def test_control_channel_shows_and_changes_the_hardware(box, memory):
    with bus_connect(box) as sock:
        bus_write(sock, MEMORY_ADDR, b"\x10")
    answer = control(box, {"cmd": "bus_log"})
    assert answer["ok"] is True
    assert [(t["op"], t["addr"], t["data"], t["ack"]) for t in answer["transactions"]] == [
        ("W", MEMORY_ADDR, "10", True)]

    assert control(box, {"cmd": "set_absent", "addr": MEMORY_ADDR, "absent": True}) == {"ok": True}
    assert control(box, {"cmd": "nack_next", "addr": EMPTY_ADDR, "count": 1}) == {"ok": True}
    with bus_connect(box) as sock:
        assert bus_write(sock, MEMORY_ADDR, b"\x11") == b"\x01"

    assert control(box, {"cmd": "set_temperature", "millidegrees": 51000}) == {"ok": True}
    assert Path(box.path(tavisim.HWMON_TEMPERATURE)).read_text() == "51000\n"

    assert control(box, {"cmd": "clear_bus_log"}) == {"ok": True}
    assert control(box, {"cmd": "bus_log"}) == {"ok": True, "transactions": []}


def test_control_channel_refuses_bad_commands(box):
    assert control(box, {"cmd": "explode"})["ok"] is False
    assert control(box, {"cmd": "set_absent"})["ok"] is False
    assert control(box, [1, 2])["ok"] is False
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.settimeout(5)
        sock.connect(box.control_path)
        sock.sendall(b"not json\n{\"cmd\":\"bus_log\"}\n")
        lines = sock.makefile("rb")
        assert json.loads(lines.readline())["ok"] is False
        assert json.loads(lines.readline())["ok"] is True


def test_program_serves_a_root_until_sigterm(tmp_path_factory):
    root = str(tmp_path_factory.mktemp("tv"))
    sim = subprocess.Popen([sys.executable, str(SIM), "--root", root, "--mode", "ip_spts"],
                           stdout=subprocess.PIPE, text=True)
    try:
        line = sim.stdout.readline()
        assert line == f"tavisim: box root {root} (mode ip_spts), bus at {root}/dev/i2c-0\n"
        query = [sys.executable, str(SIM), "--root", root, "--query"]
        done = subprocess.run(query + ['{"cmd":"set_absent","addr":48,"absent":true}'],
                              capture_output=True, text=True, timeout=10)
        assert (done.returncode, json.loads(done.stdout)) == (0, {"ok": True})
        done = subprocess.run(query + ["bus_log"], capture_output=True, text=True, timeout=10)
        assert (done.returncode, json.loads(done.stdout)) == (0, {"ok": True, "transactions": []})
        done = subprocess.run(query + ["explode"], capture_output=True, text=True, timeout=10)
        assert done.returncode == 1
        done = subprocess.run([sys.executable, str(SIM), "--root", root + "/none", "--query",
                               "bus_log"], capture_output=True, text=True, timeout=10)
        assert (done.returncode, done.stderr.startswith("tavisim: ")) == (2, True)
        sim.send_signal(signal.SIGTERM)
        assert sim.wait(5) == 0
        assert not os.path.exists(os.path.join(root, "dev/i2c-0"))
    finally:
        sim.kill()
        sim.stdout.close()


# ---------------------------------------------------------------------------------------------
# The harness's own helpers, against a server that reads as the daemon does


def serve_like_tavid(server, received):
    """Accepts one client, reads until 50 ms of silence, answers with what it got, closes."""
    client, _ = server.accept()
    with client:
        client.settimeout(0.05)
        data = b""
        while True:
            try:
                chunk = client.recv(100)
            except socket.timeout:
                break
            data += chunk
            if not chunk:
                time.sleep(0.01)
        received.append(data)
        client.sendall(b"got " + data)


@pytest.fixture
def fake_daemon():
    server = socket.create_server(("127.0.0.1", 0))
    received = []
    thread = threading.Thread(target=serve_like_tavid, args=(server, received))
    thread.start()
    yield server.getsockname()[1], received
    thread.join(5)
    server.close()


def test_request_reads_the_reply_until_close(fake_daemon):
    port, received = fake_daemon
    assert tcp_listening(port)
    assert request(port, b'{"action":"get"}') == b'got {"action":"get"}'


def test_request_in_pieces_arrives_as_one(fake_daemon):
    port, received = fake_daemon
    assert request_in_pieces(port, [b"ab", b"cd", b"ef"], delay=0.02) == b"got abcdef"
    assert received == [b"abcdef"]


def test_free_port_is_not_listening():
    assert not tcp_listening(free_port())
