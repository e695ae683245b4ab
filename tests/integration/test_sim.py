"""The box simulator itself: its root, its bus, its stand-in programs and its control channel,
and the harness helpers that talk to the daemon's port."""

import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import pytest

import tavisim
from conftest import free_port, module_parameters, request, request_in_pieces, tcp_listening, wait_for

SIM = Path(tavisim.__file__)
MEMORY_ADDR = 0x50
EMPTY_ADDR = 0x51


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


def test_a_closed_bus_ends_its_connections_and_comes_back_at_its_path(make_box):
    box = make_box()
    idle = bus_connect(box)
    assert bus_write(idle, EMPTY_ADDR, b"") == b"\x01"
    box.close_bus()
    assert not os.path.exists(box.bus_path)
    assert idle.recv(1) == b""
    idle.close()
    assert control(box, {"cmd": "bus_log"})["ok"]  # the rest of the box still serves
    box.open_bus()
    box.open_bus()  # already served: nothing happens
    with bus_connect(box) as again:
        assert bus_write(again, EMPTY_ADDR, b"") == b"\x01"


def test_box_is_a_context_manager(tmp_path):
    root = tavisim.Box(str(tmp_path))
    with root as box:
        assert os.path.exists(box.bus_path)
    assert not os.path.exists(box.bus_path)


def test_temperature_query_names_the_modes_sensor(make_box):
    box = make_box("ip_spts")
    assert control(box, {"cmd": "temperature"}) == {
        "ok": True, "sensor": tavisim.THERMAL_TEMPERATURE,
        "sensors": {tavisim.HWMON_TEMPERATURE: "45500\n", tavisim.THERMAL_TEMPERATURE: "45500\n"}}
    assert control(box, {"cmd": "set_temperature", "millidegrees": "0xB1D8"}) == {"ok": True}
    assert Path(box.path(tavisim.THERMAL_TEMPERATURE)).read_text() == "45528\n"
    assert control(box, {"cmd": "temperature"})["sensors"][tavisim.HWMON_TEMPERATURE] == "45528\n"


def test_temperature_sensors_can_be_taken_away(box):
    assert control(box, {"cmd": "set_temperature", "millidegrees": None}) == {"ok": True}
    assert not os.path.exists(box.path(tavisim.HWMON_TEMPERATURE))
    answer = control(box, {"cmd": "temperature"})
    assert (answer["sensor"], answer["sensors"]) == (
        tavisim.HWMON_TEMPERATURE,
        {tavisim.HWMON_TEMPERATURE: None, tavisim.THERMAL_TEMPERATURE: None})
    box.set_temperature(-1500)
    assert Path(box.path(tavisim.HWMON_TEMPERATURE)).read_text() == "-1500\n"


@pytest.mark.parametrize("mode, alarm", [("rf", "sys/class/leds/rgb_red"),
                                         ("ip_spts", "storage"),
                                         ("ip_mpts", "sys/class/leds/rgb_red")])
def test_leds_query_shows_what_the_led_files_hold(make_box, mode, alarm):
    box = make_box(mode)
    lit = {"brightness": "1\n", "trigger": "heartbeat\n"}
    assert control(box, {"cmd": "leds"}) == {
        "ok": True, "alarm": alarm, "leds": {"sys/class/leds/rgb_red": lit, "storage": lit}}
    # What the daemon writes to clear its alarm LED: "none" and "0", without newlines.
    Path(box.path(f"{alarm}/trigger")).write_text("none")
    Path(box.path(f"{alarm}/brightness")).write_text("0")
    assert control(box, {"cmd": "leds"})["leds"][alarm] == {"brightness": "0", "trigger": "none"}


def test_stored_settings_query_shows_the_records(box):
    assert control(box, {"cmd": "stored_settings"}) == {
        "ok": True, "exists": False, "text": None, "records": []}
    text = '{"action":"set","object":"device","args":{"device_id":"0"}}\n\r{"action":"se\n\r'
    Path(box.path("data/settings.conf")).write_text(text, newline="")
    assert control(box, {"cmd": "stored_settings"}) == {
        "ok": True, "exists": True, "text": text,
        "records": [{"action": "set", "object": "device", "args": {"device_id": "0"}}, None]}


# ---------------------------------------------------------------------------------------------
# Default settings files


IDENTITY = ('"tsid":"1","onid":"1","nid":"1","private_data_specifier":"40","network_name":"tavi",'
            '"network_version":"0"')
RF_MODULATION = ('"type":"dvb-t","frequency":"%s","level":"0","bandwidth":"8","symbolrate":"6900",'
                 '"constellation":"64-qam","guardinterval":"1/32","coderate":"2/3","fftmode":"8k",'
                 '"carriertype":"multi","interleave":"none","syncframe":"420","enabled":"1"')
DESTINATION = '"dst_addr":"239.0.0.1","dst_port":"5000"'


def video(tag, pid):
    return f'{{"stream_tag":"{tag}","pid":"{pid}","type":"27","bitrate":"8000"}}'


def audio(tag, pid):
    return f'{{"stream_tag":"{tag}","pid":"{pid}","type":"15","bitrate":"192"}}'


def service(tag, sid, pmt_pid, enabled, *streams):
    """A module's service at the factory: "HDMI <sid>" with LCN <sid>."""
    return (f'{{"service_tag":"{tag}","sid":"{sid}","type":"1","service_name":"HDMI {sid}",'
            f'"lcn":"{sid}","pmt_pid":"{pmt_pid}","enabled":"{enabled}",'
            f'"streams":[{",".join(streams)}]}}')


def ts(tag, *services):
    return f'{{"ts_tag":"{tag}",{IDENTITY},"services":[{",".join(services)}]}}'


def record(name, args, id_key, instance):
    return f'{{"action":"set","object":"{name}","args":{{{args},"{id_key}":"{instance}"}}}}\n\r'


def device(mode):
    return record("device", f'"output_mode":"{mode}"', "device_id", 0)


def hdmi(instance, ts_text):
    return record("input_hdmi", f'"video_gopsize":"25","ts":{ts_text}', "input_id", instance)


# The four modules' services as the HDMI inputs on mod_tarn_0 to mod_tarn_3 see them; the
# inputs are made from the fourth down, so the first input's tags are the highest.
def mux_input_services(enabled):
    return [service(3, 1, 256, enabled[0], video(7, 257), audio(6, 258)),
            service(2, 2, 512, enabled[1], video(5, 513), audio(4, 514)),
            service(1, 3, 768, enabled[2], video(3, 769), audio(2, 770)),
            service(0, 4, 1024, enabled[3], video(1, 1025), audio(0, 1026))]


def mux_inputs(enabled):
    return "".join(hdmi(n, ts(3 - n, text)) for n, text in enumerate(mux_input_services(enabled)))


EXPECTED_DEFAULTS = {
    "ip_spts": (
        device("ip_spts")
        + hdmi(0, ts(0, service(0, 1, 256, 1, video(1, 257), audio(0, 258))))
        + record("output_ip", f'{DESTINATION},"ts":'
                 + ts(1, service(0, 1, 256, 1, audio(0, 258), video(1, 257))), "output_id", 0)),
    "ip_mpts": (
        device("ip_mpts") + mux_inputs((1, 1, 1, 1))
        + record("output_ip", f'{DESTINATION},"ts":' + ts(5, *mux_input_services((1, 1, 1, 1))),
                 "output_id", 0)),
    "rf": (
        device("rf") + mux_inputs((1, 1, 1, 1))
        + record("output_rf", RF_MODULATION % 474000 + ',"ts":'
                 + ts(7, *mux_input_services((1, 1, 1, 1))), "output_id", 0)
        + record("output_rf", RF_MODULATION % 490000 + ',"ts":'
                 + ts(6, *mux_input_services((1, 1, 1, 1))), "output_id", 1)),
}

EXPECTED_OBJECTS = {
    "rf": ["device", *["input_hdmi"] * 4, "output_rf", "output_rf"],
    "ip_spts": ["device", "input_hdmi", "output_ip"],
    "ip_mpts": ["device", *["input_hdmi"] * 4, "output_ip"],
}
ID_KEYS = {"device": "device_id", "input_hdmi": "input_id", "output_rf": "output_id",
           "output_ip": "output_id"}


def default_records(box, mode):
    text = Path(box.path(f"opt/bin/default_settings_{mode}.conf")).read_bytes().decode()
    assert text.endswith("\n\r")
    return [json.loads(line) for line in text.split("\n\r")[:-1]]


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_default_settings_hold_what_the_daemon_stores_in_each_mode(box, mode):
    text = Path(box.path(f"opt/bin/default_settings_{mode}.conf")).read_bytes()
    assert text == EXPECTED_DEFAULTS[mode].encode()


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_default_records_are_set_requests_with_their_id_key_last(box, mode):
    records = default_records(box, mode)
    assert [r["object"] for r in records] == EXPECTED_OBJECTS[mode]
    assert all(list(r) == ["action", "object", "args"] and r["action"] == "set" for r in records)
    ids = [list(r["args"].items())[-1] for r in records]
    numbers = {name: 0 for name in ID_KEYS}
    for r, (key, value) in zip(records, ids):
        assert (key, value) == (ID_KEYS[r["object"]], str(numbers[r["object"]]))
        numbers[r["object"]] += 1
    assert records[0]["args"] == {"output_mode": mode, "device_id": "0"}


def module_of_input(box_mode, instance):
    """The simulated module whose programme an HDMI input of the daemon carries."""
    return tavisim.MODULE_ADDRESSES[box_mode][instance]


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_default_inputs_hold_the_modules_factory_values(make_box, mode):
    box = make_box(mode)
    for r in default_records(box, mode):
        if r["object"] != "input_hdmi":
            continue
        values = box.module(module_of_input(mode, int(r["args"]["input_id"]))).state()["settings"][
            "parameters"]
        ts_args = r["args"]["ts"]
        (service_args,) = ts_args["services"]
        assert r["args"]["video_gopsize"] == str(values["video_gopsize"])
        assert {k: ts_args[k] for k in ("tsid", "onid", "nid", "network_name")} == {
            "tsid": str(values["tsid"]), "onid": str(values["onid"]), "nid": str(values["nid"]),
            "network_name": values["network_name"]}
        assert (service_args["sid"], service_args["service_name"], service_args["pmt_pid"]) == (
            str(values["sid"]), values["service_name"], str(values["pmt_pid"]))
        assert [(s["pid"], s["bitrate"]) for s in service_args["streams"]] == [
            (str(values["video_pid"]), str(values["video_bitrate"])),
            (str(values["audio_pid"]), str(values["audio_bitrate"]))]


def test_default_rf_outputs_modulate_as_their_modules_do_at_the_factory(box):
    outputs = [r["args"] for r in default_records(box, "rf") if r["object"] == "output_rf"]
    for args, addr in zip(outputs, (0x30, 0x32)):
        values = box.module(addr).state()["settings"]["parameters"]
        assert args["frequency"] == str(values["frequency"])
        assert values["level"] == 5  # 0 dBm and the module's 5 dB below 500 MHz
        assert args["level"] == "0"


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_default_outputs_name_the_inputs_services_by_their_tags(box, mode):
    records = default_records(box, mode)
    inputs = {s["service_tag"]: s for r in records if r["object"] == "input_hdmi"
              for s in r["args"]["ts"]["services"]}
    for r in records:
        if not r["object"].startswith("output_"):
            continue
        services = r["args"]["ts"]["services"]
        assert sorted(s["service_tag"] for s in services) == sorted(inputs)
        for s in services:
            source = inputs[s["service_tag"]]
            assert {k: v for k, v in s.items() if k not in ("enabled", "streams")} == {
                k: v for k, v in source.items() if k not in ("enabled", "streams")}
            assert sorted(s["streams"], key=lambda x: x["stream_tag"]) == sorted(
                source["streams"], key=lambda x: x["stream_tag"])


def service_flags(records, prefix):
    return [{s["service_tag"]: s["enabled"] for s in r["args"]["ts"]["services"]}
            for r in records if r["object"].startswith(prefix)]


@pytest.mark.parametrize("mode", tavisim.MODES)
def test_default_outputs_carry_every_programme_and_agree_with_the_inputs(box, mode):
    """Every output switches on the same services, and each input's own flag says the same:
    the RF box's two multiplexers both write those flags."""
    records = default_records(box, mode)
    inputs = {tag: flag for flags in service_flags(records, "input_hdmi")
              for tag, flag in flags.items()}
    assert inputs == {str(tag): "1" for tag in range(len(inputs))}
    outputs = service_flags(records, "output_")
    assert outputs == [inputs] * (2 if mode == "rf" else 1)


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
    assert sorted(box.modules) == ({"ip_spts": [0x32]}.get(mode) or [0x30, 0x31, 0x32, 0x33])
    for addr in range(0x80):
        assert box.bus.slave(addr) is box.modules.get(addr)


# ---------------------------------------------------------------------------------------------
# Encoder/modulator modules


MODULE = 0x30


def transact(sock, addr, frame, length):
    """One module transaction as the daemon makes it: the command frame, the wait byte, then a
    read of length bytes. The bytes read, without the bus's status byte."""
    assert bus_write(sock, addr, frame) == b"\x00"
    assert bus_write(sock, addr, b"\x00") == b"\x00"
    answer = bus_read(sock, addr, length)
    assert answer[:1] == b"\x00"
    return answer[1:]


def command(box, frame, length, addr=MODULE):
    with bus_connect(box) as sock:
        return transact(sock, addr, frame, length)


def parameters(box, addr=MODULE, group="settings"):
    """What a module holds; unless told, the staged parameters of the module these tests drive."""
    return module_parameters(box, addr, group)


def test_modules_sit_at_their_places_with_their_factory_values(make_box):
    rf = make_box("rf")
    assert [(m.addr, m.index) for m in rf.modules.values()] == [
        (0x30, 0), (0x31, 1), (0x32, 2), (0x33, 3)]
    assert [(p["sid"], p["lcn"], p["service_name"], p["pmt_pid"], p["video_pid"], p["audio_pid"],
             p["frequency"]) for p in (parameters(rf, addr) for addr in rf.modules)] == [
        (1, 1, "HDMI 1", 0x100, 0x101, 0x102, 474000),
        (2, 2, "HDMI 2", 0x200, 0x201, 0x202, 482000),
        (3, 3, "HDMI 3", 0x300, 0x301, 0x302, 490000),
        (4, 4, "HDMI 4", 0x400, 0x401, 0x402, 498000)]
    spts = make_box("ip_spts")
    assert parameters(spts, 0x32)["service_name"] == "HDMI 1"


def test_factory_module_announces_one_service_with_audio_then_video(box):
    assert box.modules[0x31].psi() == {
        "tsid": 1, "onid": 1, "nid": 1, "private_data_specifier": 0x28, "network_name": "tavi",
        "network_version": 0,
        "services": [{"slot": None, "sid": 2, "lcn": 2, "service_name": "HDMI 2",
                      "pmt_pid": 0x200, "streams": [{"pid": 0x202, "stream_type": 0x0F},
                                                    {"pid": 0x201, "stream_type": 0x1B}]}]}


def test_alive_info_and_status_replies(box):
    assert command(box, b"#\x00\x00\r", 5) == b"#\x00\x00\x00\r"
    assert command(box, b"#\xff\x00\r", 11) == b"#\xff\x00\x06\x00\x01V\x02\x04\x01\r"
    # locked, 1080 lines, 'p', 50 frames/s, 24128 kbit/s (DVB-T 8 MHz 64-QAM 2/3 1/32), no overflow
    assert command(box, b"#\xfe\x00\r", 13) == b"#\xfe\x00\x08\x01\x04\x38p\x32\x5e\x40\x00\r"


def test_reply_is_padded_with_zeros_up_to_the_length_read(box):
    assert command(box, b"#\x00\x00\r", 20) == b"#\x00\x00\x00\r" + bytes(15)
    assert command(box, b"#\x98\x00\r", 20) == b"#\x98\x00\x06HDMI 1\r" + bytes(9)


def test_reply_can_be_read_again_until_the_next_command(box):
    with bus_connect(box) as sock:
        assert bus_read(sock, MODULE, 5) == b"\x00" + bytes(5)  # nothing asked yet
        assert transact(sock, MODULE, b"#\x83\x00\r", 9) == b"#\x83\x00\x04\x00\x07\x3b\x90\r"
        assert bus_read(sock, MODULE, 9) == b"\x00#\x83\x00\x04\x00\x07\x3b\x90\r"
        assert bus_read(sock, MODULE, 3) == b"\x00#\x83\x00"


def test_frequency_set_is_staged_read_back_and_used_after_apply(box):
    assert command(box, b"#\x03\x04\x00\x07\x3b\x90\r", 5) == b"#\x03\x00\x00\r"
    assert command(box, b"#\x03\x04\x00\x0b\x71\xb0\r", 5) == b"#\x03\x00\x00\r"
    assert command(box, b"#\x83\x00\r", 9) == b"#\x83\x00\x04\x00\x0b\x71\xb0\r"
    state = box.modules[MODULE].state()
    assert (state["settings"]["parameters"]["frequency"],
            state["applied"]["parameters"]["frequency"], state["pending"], state["applies"]) == (
        750000, 474000, True, 0)
    assert command(box, b"#\x70\x00\r", 5) == b"#\x70\x00\x00\r"
    state = box.modules[MODULE].state()
    assert (state["applied"]["parameters"]["frequency"], state["pending"], state["applies"]) == (
        750000, False, 1)


# set code, set payload, parameter, value the module holds. Every value differs from the
# factory one.
PARAMETER_CASES = [
    (0x01, b"\x02", "output_type", 2),
    (0x02, b"\xf1", "level", -15),
    (0x03, b"\x00\x0f\x42\x40", "frequency", 1000000),
    (0x04, b"\x07", "bandwidth", 7),
    (0x05, b"\x1a\xdb", "symbolrate", 6875),
    (0x06, b"\x08", "constellation", 8),
    (0x07, b"\x03", "guardinterval", 3),
    (0x08, b"\x04", "coderate", 4),
    (0x09, b"\x02", "fftmode", 2),
    (0x0A, b"\x01", "carriertype", 1),
    (0x0B, b"\x02", "interleave", 2),
    (0x0C, b"\x01", "syncframe", 1),
    (0x0D, b"\x05", "pnphase", 5),
    (0x0E, b"\x2e\xe0", "video_bitrate", 12000),
    (0x0F, b"\x0c", "video_gopsize", 12),
    (0x10, b"\x02", "audio_stream_type", 2),
    (0x11, b"\x01\x00", "audio_bitrate", 256),
    (0x12, b"\x12\x34", "sid", 0x1234),
    (0x13, b"\x00\x2a", "tsid", 42),
    (0x14, b"\x20\x85", "onid", 0x2085),
    (0x15, b"\x30\x01", "nid", 0x3001),
    (0x16, b"\x00\x00\x23\x3a", "private_data_specifier", 0x233A),
    (0x17, b"\x00\x07", "lcn", 7),
    (0x18, b"Sport HD", "service_name", "Sport HD"),
    (0x19, b"Cable Net", "network_name", "Cable Net"),
    (0x1A, b"\x09", "network_version", 9),
    (0x1B, b"\x10\x00", "pmt_pid", 0x1000),
    (0x1C, b"\x10\x01", "video_pid", 0x1001),
    (0x1D, b"\x10\x02", "audio_pid", 0x1002),
    (0x60, b"\x01", "level_unit", 1),
    (0x6A, b"\x00", "rf_out_enable", 0),
]


@pytest.mark.parametrize("code, payload, name, value", PARAMETER_CASES,
                         ids=[case[2] for case in PARAMETER_CASES])
def test_every_parameter_is_set_and_read_back(box, code, payload, name, value):
    factory = parameters(box)
    assert factory[name] != value
    frame = bytes([0x23, code, len(payload)]) + payload + b"\r"
    assert command(box, frame, 5) == bytes([0x23, code, 0, 0, 0x0D])
    text = isinstance(value, str)
    length = 20 if text else 4 + len(payload) + 1
    reply = bytes([0x23, code | 0x80, 0, len(payload)]) + payload + b"\r"
    assert command(box, bytes([0x23, code | 0x80, 0, 0x0D]), length) == reply.ljust(length, b"\0")
    assert parameters(box)[name] == value
    assert parameters(box, group="applied") == factory
    assert {key: v for key, v in parameters(box).items() if key != name} == {
        key: v for key, v in factory.items() if key != name}


def test_parameter_codes_of_other_modules_stay_apart(box):
    command(box, b"#\x12\x02\x00\x63\r", 5, addr=0x31)
    assert (parameters(box, 0x30)["sid"], parameters(box, 0x31)["sid"]) == (1, 0x63)


def test_names_of_up_to_15_characters_are_taken(box):
    assert command(box, b"#\x18\x0fFifteen chars!!\r", 5) == b"#\x18\x00\x00\r"
    assert command(box, b"#\x98\x00\r", 20) == b"#\x98\x00\x0fFifteen chars!!\r"
    assert command(box, b"#\x19\x00\r", 5) == b"#\x19\x00\x00\r"
    assert command(box, b"#\x99\x00\r", 20) == b"#\x99\x00\x00\r" + bytes(15)
    assert command(box, b"#\x18\x10Sixteen chars!!!\r", 5) == b"#\x18\x04\x00\r"
    assert parameters(box)["service_name"] == "Fifteen chars!!"


SLOT_CASES = [
    (0x62, b"\x01", "enable", 1),
    (0x63, b"\x00\x65", "sid", 101),
    (0x64, b"\x00\x0b", "lcn", 11),
    (0x65, b"News 24", "service_name", "News 24"),
    (0x66, b"\x05\x00", "pmt_pid", 0x500),
    (0x67, b"\x05\x01", "video_pid", 0x501),
    (0x68, b"\x05\x02", "audio_pid", 0x502),
    (0x69, b"\x02", "audio_stream_type", 2),
]


@pytest.mark.parametrize("code, payload, name, value", SLOT_CASES,
                         ids=[case[2] for case in SLOT_CASES])
def test_every_extra_service_value_is_set_and_read_back_per_slot(box, code, payload, name,
                                                                 value):
    factory = box.modules[MODULE].state()["settings"]["extra_services"]
    frame = bytes([0x23, code, len(payload) + 1, 1]) + payload + b"\r"
    assert command(box, frame, 5) == bytes([0x23, code, 0, 0, 0x0D])
    length = 20 if isinstance(value, str) else 4 + len(payload) + 1
    reply = bytes([0x23, code | 0x80, 0, len(payload)]) + payload + b"\r"
    get = bytes([0x23, code | 0x80, 1, 1, 0x0D])
    assert command(box, get, length) == reply.ljust(length, b"\0")
    slots = box.modules[MODULE].state()["settings"]["extra_services"]
    assert slots[1] == {**factory[1], name: value}
    assert (slots[0], slots[2]) == (factory[0], factory[2])
    assert command(box, bytes([0x23, code | 0x80, 1, 2, 0x0D]), length)[3:4] == (
        b"\x00" if isinstance(value, str) else bytes([len(payload)]))


def test_extra_service_slot_past_the_third_is_out_of_bounds(box):
    before = box.modules[MODULE].state()["settings"]
    assert command(box, b"#\x63\x03\x03\x00\x65\r", 5) == b"#\x63\x04\x00\r"
    assert command(box, b"#\xe3\x01\x03\r", 7) == b"#\xe3\x04\x00\r\x00\x00"
    assert box.modules[MODULE].state()["settings"] == before


def test_extra_services_are_announced_after_apply(box):
    for frame in (b"#\x63\x03\x00\x00\x65\r", b"#\x64\x03\x00\x00\x0b\r", b"#\x65\x05\x00News\r",
                  b"#\x66\x03\x00\x05\x00\r", b"#\x67\x03\x00\x05\x01\r",
                  b"#\x68\x03\x00\x05\x02\r", b"#\x69\x02\x00\x02\r", b"#\x62\x02\x00\x01\r",
                  b"#\x63\x03\x02\x00\x66\r", b"#\x65\x05\x02Info\r", b"#\x66\x03\x02\x06\x00\r",
                  b"#\x68\x03\x02\x06\x02\r", b"#\x62\x02\x02\x01\r"):
        assert command(box, frame, 5) == bytes([0x23, frame[1], 0, 0, 0x0D])
    assert [service["slot"] for service in box.modules[MODULE].psi()["services"]] == [None]
    command(box, b"#\x70\x00\r", 5)
    services = box.modules[MODULE].psi()["services"]
    assert services[1:] == [
        {"slot": 0, "sid": 101, "lcn": 11, "service_name": "News", "pmt_pid": 0x500,
         "streams": [{"pid": 0x502, "stream_type": 0x04}, {"pid": 0x501, "stream_type": 0x1B}]},
        {"slot": 2, "sid": 102, "lcn": 0, "service_name": "Info", "pmt_pid": 0x600,
         "streams": [{"pid": 0x602, "stream_type": 0x0F}]}]
    command(box, b"#\x62\x02\x00\x00\r", 5)
    command(box, b"#\x70\x00\r", 5)
    assert [service["slot"] for service in box.modules[MODULE].psi()["services"]] == [None, 2]


def test_extra_service_name_of_16_characters_is_out_of_bounds(box):
    assert command(box, b"#\x65\x10\x00Fifteen chars!!\r", 5) == b"#\x65\x00\x00\r"
    assert command(box, b"#\xe5\x01\x00\r", 20) == b"#\xe5\x00\x0fFifteen chars!!\r"
    assert command(box, b"#\x65\x11\x00Sixteen chars!!!\r", 5) == b"#\x65\x04\x00\r"


def test_calibration_puts_enable_first_and_reads_back_i_and_q(box):
    assert command(box, b"#\x61\x03\x01\xfd\x04\r", 5) == b"#\x61\x00\x00\r"
    assert command(box, b"#\xe1\x00\r", 7) == b"#\xe1\x00\x02\xfd\x04\r"
    assert box.modules[MODULE].state()["settings"]["calibration"] == {"enable": 1, "i": -3,
                                                                      "q": 4}


def test_debug_codes_are_kept_per_code(box):
    assert command(box, b"#\xeb\x01\x32\r", 6) == b"#\xeb\x00\x01\x00\r"
    assert command(box, b"#\x6b\x02\x32\x01\r", 5) == b"#\x6b\x00\x00\r"
    assert command(box, b"#\xeb\x01\x32\r", 6) == b"#\xeb\x00\x01\x01\r"
    assert command(box, b"#\xeb\x01\x33\r", 6) == b"#\xeb\x00\x01\x00\r"
    assert box.modules[MODULE].state()["settings"]["debug_codes"] == {"50": 1}


def test_apply_takes_the_new_modulation_into_the_status(box):
    command(box, b"#\x06\x01\x04\r", 5)  # 16-QAM
    assert command(box, b"#\xfe\x00\r", 13)[9:11] == b"\x5e\x40"  # not applied yet: 24128
    command(box, b"#\x70\x00\r", 5)
    assert command(box, b"#\xfe\x00\r", 13)[9:11] == (16085).to_bytes(2, "big")
    command(box, b"#\x01\x01\x02\r", 5)  # DVB-C at 6900 kBaud, 16-QAM
    command(box, b"#\x70\x00\r", 5)
    assert command(box, b"#\xfe\x00\r", 13)[9:11] == (25435).to_bytes(2, "big")
    command(box, b"#\x01\x01\x04\r", 5)  # ATSC terrestrial: 8-VSB whatever the rest says
    command(box, b"#\x70\x00\r", 5)
    assert command(box, b"#\xfe\x00\r", 13)[9:11] == (19392).to_bytes(2, "big")


def test_reboot_forgets_what_was_not_applied(box):
    command(box, b"#\x12\x02\x00\x63\r", 5)
    command(box, b"#\x70\x00\r", 5)
    command(box, b"#\x12\x02\x00\x64\r", 5)
    assert command(box, b"#\x71\x00\r", 5) == b"#\x71\x00\x00\r"
    assert command(box, b"#\x92\x00\r", 7) == b"#\x92\x00\x02\x00\x63\r"


def test_factory_reset_restores_the_factory_values(box):
    module = box.modules[MODULE]
    factory = module.state()
    for frame in (b"#\x03\x04\x00\x0b\x71\xb0\r", b"#\x18\x03Foo\r", b"#\x62\x02\x01\x01\r",
                  b"#\x61\x03\x01\x05\x06\r", b"#\x6b\x02\x32\x01\r", b"#\x06\x01\x04\r",
                  b"#\x70\x00\r", b"#\x12\x02\x00\x64\r"):
        command(box, frame, 5)
    assert module.state()["settings"] != factory["settings"]
    assert command(box, b"#\x72\x00\r", 5) == b"#\x72\x00\x00\r"
    state = module.state()
    assert (state["settings"], state["applied"], state["psi"], state["status"]) == (
        factory["settings"], factory["applied"], factory["psi"], factory["status"])
    assert command(box, b"#\x98\x00\r", 20) == b"#\x98\x00\x06HDMI 1\r" + bytes(9)


@pytest.mark.parametrize("code", [0x1E, 0x50, 0x7F, 0x80, 0x9E, 0xE0 + 0x0C, 0xFD])
def test_unknown_code_gets_error_2_and_no_payload(box, code):
    before = box.modules[MODULE].state()
    assert command(box, bytes([0x23, code, 1, 7, 0x0D]), 9) == bytes(
        [0x23, code, 2, 0, 0x0D, 0, 0, 0, 0])
    assert box.modules[MODULE].state() == before


@pytest.mark.parametrize("frame, reply", [
    (b"$\x83\x00\r", b"#\x83\x01\x00\r"),  # wrong tag
    (b"#\x83\x00\n", b"#\x83\x01\x00\r"),  # no '\r' after the payload
    (b"#\x03\x04\x00\x0b\r", b"#\x03\x01\x00\r"),  # length past the frame
    (b"#\x03\x02\x00\x0b\x71\xb0\r", b"#\x03\x01\x00\r"),  # '\r' not where the length says
    (b"#", b"#\x00\x01\x00\r"),
    (b"#\x03\x02\x00\x0b\r", b"#\x03\x01\x00\r"),  # valid frame, payload too short
    (b"#\x83\x01\x00\r", b"#\x83\x01\x00\r"),  # a get with a payload
    (b"#\xe3\x00\r", b"#\xe3\x01\x00\r"),  # a slot get without its slot
    (b"#\x63\x00\r", b"#\x63\x01\x00\r"),  # a slot set without its slot
    (b"#\x61\x02\x01\x05\r", b"#\x61\x01\x00\r"),
])
def test_invalid_frames_and_payload_lengths_get_error_1(box, frame, reply):
    before = box.modules[MODULE].state()
    assert command(box, frame, 5) == reply
    assert box.modules[MODULE].state() == before


def test_trailing_bytes_after_a_valid_frame_are_ignored(box):
    assert command(box, b"#\x12\x02\x00\x63\r\xaa\xbb", 5) == b"#\x12\x00\x00\r"
    assert parameters(box)["sid"] == 0x63


@pytest.mark.parametrize("frame", [
    b"#\x01\x01\x03\r", b"#\x06\x01\x09\r", b"#\x07\x01\x04\r", b"#\x08\x01\x08\r",
    b"#\x09\x01\x03\r", b"#\x0a\x01\x02\r", b"#\x0b\x01\x03\r", b"#\x0c\x01\x03\r",
    b"#\x10\x01\x01\r", b"#\x6a\x01\x02\r", b"#\x62\x02\x00\x02\r", b"#\x69\x02\x00\x1c\r",
])
def test_values_outside_an_enumeration_are_out_of_bounds(box, frame):
    before = box.modules[MODULE].state()
    assert command(box, frame, 5) == bytes([0x23, frame[1], 4, 0, 0x0D])
    assert box.modules[MODULE].state() == before


def test_numbers_are_taken_without_range_checks(box):
    assert command(box, b"#\x03\x04\xff\xff\xff\xff\r", 5) == b"#\x03\x00\x00\r"
    assert command(box, b"#\x02\x01\x80\r", 5) == b"#\x02\x00\x00\r"
    assert (parameters(box)["frequency"], parameters(box)["level"]) == (0xFFFFFFFF, -128)


def test_the_transaction_is_logged_on_the_bus(box):
    command(box, b"#\x83\x00\r", 9)
    assert [(t.op, t.addr, t.length, t.data, t.ack) for t in box.bus.transactions()] == [
        ("W", MODULE, 4, b"#\x83\x00\r", True), ("W", MODULE, 1, b"\x00", True),
        ("R", MODULE, 9, b"#\x83\x00\x04\x00\x07\x3b\x90\r", True)]


# -- faults ---------------------------------------------------------------------------------


def test_busy_module_acknowledges_nothing_until_done(box):
    assert control(box, {"cmd": "set_busy", "addr": MODULE, "ms": 300}) == {"ok": True}
    with bus_connect(box) as sock:
        started = time.monotonic()
        assert bus_write(sock, MODULE, b"#\x12\x02\x00\x63\r") == b"\x00"
        assert bus_write(sock, MODULE, b"\x00") == b"\x01"
        assert bus_read(sock, MODULE, 5) == b"\x01"
        assert bus_write(sock, MODULE, b"#\x92\x00\r") == b"\x01"  # no new command either
        assert parameters(box)["sid"] == 0x63  # executed on arrival, answered when done
        while bus_write(sock, MODULE, b"\x00") != b"\x00":
            time.sleep(0.01)
        assert 0.3 <= time.monotonic() - started < 2
        assert bus_read(sock, MODULE, 5) == b"\x00#\x12\x00\x00\r"
        # Every command takes its time.
        assert bus_write(sock, MODULE, b"#\x92\x00\r") == b"\x00"
        assert bus_write(sock, MODULE, b"\x00") == b"\x01"
    assert box.modules[MODULE].state()["faults"]["busy_ms"] == 300
    assert box.modules[0x31].state()["faults"]["busy_ms"] == 0
    assert control(box, {"cmd": "set_busy", "addr": MODULE, "ms": 0}) == {"ok": True}
    # The command taken last still runs its 300 ms; the next one finds the module ready.
    wait_for(lambda: not box.modules[MODULE].busy(), timeout=2, what="the busy time over")
    assert command(box, b"#\x92\x00\r", 7) == b"#\x92\x00\x02\x00\x63\r"


def test_absent_module_acknowledges_nothing(box):
    assert control(box, {"cmd": "set_absent", "addr": MODULE}) == {"ok": True}
    with bus_connect(box) as sock:
        assert bus_write(sock, MODULE, b"#\x12\x02\x00\x63\r") == b"\x01"
        assert bus_write(sock, MODULE, b"\x00") == b"\x01"
        assert bus_read(sock, MODULE, 5) == b"\x01"
        assert transact(sock, 0x31, b"#\x00\x00\r", 5) == b"#\x00\x00\x00\r"
    assert parameters(box)["sid"] == 1
    assert control(box, {"cmd": "set_absent", "addr": MODULE, "absent": False}) == {"ok": True}
    assert command(box, b"#\x00\x00\r", 5) == b"#\x00\x00\x00\r"


def test_chosen_codes_are_answered_as_unknown(box):
    assert control(box, {"cmd": "set_unknown", "addr": MODULE, "codes": [0x83, "0x03"]}) == {
        "ok": True}
    assert command(box, b"#\x03\x04\x00\x0b\x71\xb0\r", 5) == b"#\x03\x02\x00\r"
    assert command(box, b"#\x83\x00\r", 9) == b"#\x83\x02\x00\r" + bytes(4)
    assert command(box, b"#\x92\x00\r", 7) == b"#\x92\x00\x02\x00\x01\r"
    assert command(box, b"#\x83\x00\r", 9, addr=0x31) == b"#\x83\x00\x04\x00\x07\x5a\xd0\r"
    assert parameters(box)["frequency"] == 474000
    assert control(box, {"cmd": "set_unknown", "addr": MODULE, "codes": []}) == {"ok": True}
    assert command(box, b"#\x83\x00\r", 9) == b"#\x83\x00\x04\x00\x07\x3b\x90\r"


@pytest.mark.parametrize("error", [0, 1, 3, 4, 5, 0xFF])
def test_a_chosen_error_byte_is_answered_instead_of_executing(box, error):
    assert control(box, {"cmd": "set_error", "addr": MODULE, "code": 0x12, "error": error}) == {
        "ok": True}
    assert command(box, b"#\x12\x02\x00\x63\r", 5) == bytes([0x23, 0x12, error, 0, 0x0D])
    assert parameters(box)["sid"] == 1
    assert command(box, b"#\x92\x00\r", 7) == b"#\x92\x00\x02\x00\x01\r"
    assert control(box, {"cmd": "set_error", "addr": MODULE, "code": 0x12, "error": None}) == {
        "ok": True}
    assert command(box, b"#\x12\x02\x00\x63\r", 5) == b"#\x12\x00\x00\r"


def test_error_byte_on_a_get_drops_the_payload(box):
    control(box, {"cmd": "set_error", "addr": MODULE, "code": "0xfe", "error": 3})
    assert command(box, b"#\xfe\x00\r", 13) == b"#\xfe\x03\x00\r" + bytes(8)


@pytest.mark.parametrize("kind, reply", [
    ("tag", b"$\x83\x00\x04\x00\x07\x3b\x90\r" + bytes(11)),
    ("end", b"#\x83\x00\x04\x00\x07\x3b\x90\n" + bytes(11)),
    ("length", b"#\x83\x00\xff\x00\x07\x3b\x90\r" + bytes(11)),
    ("code", b"#\x03\x00\x04\x00\x07\x3b\x90\r" + bytes(11)),
])
def test_corrupt_replies_to_a_chosen_code(box, kind, reply):
    assert control(box, {"cmd": "set_corrupt", "addr": MODULE, "code": 0x83, "kind": kind}) == {
        "ok": True}
    assert command(box, b"#\x83\x00\r", 20) == reply
    assert command(box, b"#\x92\x00\r", 7) == b"#\x92\x00\x02\x00\x01\r"
    assert control(box, {"cmd": "set_corrupt", "addr": MODULE, "code": 0x83, "kind": None}) == {
        "ok": True}
    assert command(box, b"#\x83\x00\r", 9) == b"#\x83\x00\x04\x00\x07\x3b\x90\r"


def test_corrupt_replies_to_every_code_still_execute(box):
    control(box, {"cmd": "set_corrupt", "addr": MODULE, "kind": "end"})
    assert command(box, b"#\x12\x02\x00\x63\r", 5) == b"#\x12\x00\x00\n"
    assert command(box, b"#\x00\x00\r", 5) == b"#\x00\x00\x00\n"
    assert parameters(box)["sid"] == 0x63
    assert box.modules[MODULE].state()["faults"]["corrupt"] == {"all": "end"}


def test_clear_faults_mends_the_module(box):
    for fault in ({"cmd": "set_busy", "ms": 5}, {"cmd": "set_unknown", "codes": [0]},
                  {"cmd": "set_error", "code": 0xFF, "error": 1},
                  {"cmd": "set_corrupt", "kind": "tag"}):
        assert control(box, {**fault, "addr": MODULE}) == {"ok": True}
    assert box.modules[MODULE].state()["faults"] == {
        "busy_ms": 5, "unknown": [0], "errors": {"255": 1}, "corrupt": {"all": "tag"}}
    assert control(box, {"cmd": "clear_faults", "addr": MODULE}) == {"ok": True}
    assert box.modules[MODULE].state()["faults"] == {"busy_ms": 0, "unknown": [], "errors": {},
                                                     "corrupt": {}}
    assert command(box, b"#\x00\x00\r", 5) == b"#\x00\x00\x00\r"


def test_clear_faults_ends_a_busy_time_in_progress(box):
    assert control(box, {"cmd": "set_busy", "addr": MODULE, "ms": 60000}) == {"ok": True}
    with bus_connect(box) as sock:
        assert bus_write(sock, MODULE, b"#\x12\x02\x00\x63\r") == b"\x00"
        assert bus_write(sock, MODULE, b"\x00") == b"\x01"
        assert control(box, {"cmd": "clear_faults", "addr": MODULE}) == {"ok": True}
        assert bus_write(sock, MODULE, b"\x00") == b"\x00"
        assert bus_read(sock, MODULE, 5) == b"\x00#\x12\x00\x00\r"


@pytest.mark.parametrize("fault", [
    {"cmd": "set_busy", "addr": MODULE, "ms": -1},
    {"cmd": "set_busy", "addr": 0x34, "ms": 5},  # no module there
    {"cmd": "set_unknown", "addr": MODULE, "codes": [256]},
    {"cmd": "set_error", "addr": MODULE, "code": 3},
    {"cmd": "set_error", "addr": MODULE, "code": 3, "error": 1.5},
    {"cmd": "set_corrupt", "addr": MODULE, "kind": "garble"},
    {"cmd": "set_module", "addr": MODULE, "values": {"colour": 1}},
    {"cmd": "set_module", "addr": MODULE, "values": {"sid": 0x10000}},
    {"cmd": "set_module", "addr": MODULE, "values": {"sid": "1"}},
    {"cmd": "set_module", "addr": MODULE, "values": {"status": {"video_scan_mode": "pi"}}},
    {"cmd": "set_module", "addr": MODULE, "values": {"info": "0001"}},
    {"cmd": "set_module", "addr": MODULE, "values": {"extra_services": [{}, {}, {}, {}]}},
    {"cmd": "module", "addr": "thirty"},
])
def test_bad_module_commands_are_refused_and_change_nothing(box, fault):
    before = box.modules[MODULE].state()
    answer = control(box, fault)
    assert answer["ok"] is False and answer["error"].startswith("bad arguments")
    assert box.modules[MODULE].state() == before


def test_set_module_refuses_all_values_when_one_is_bad(box):
    answer = control(box, {"cmd": "set_module", "addr": MODULE,
                           "values": {"sid": 9, "status": {"lock": 256}}})
    assert answer["ok"] is False
    assert parameters(box)["sid"] == 1


# -- what the modules hold, seen from outside -------------------------------------------------


def test_set_module_puts_values_straight_into_the_module(box):
    assert control(box, {"cmd": "set_module", "addr": "0x31", "values": {
        "constellation": 0x63, "service_name": "Direct",
        "status": {"lock": 0, "video_height": 576, "video_scan_mode": "i",
                   "video_frame_rate": 25, "overflow": 1},
        "info": "aabb41010203", "calibration": {"i": -1},
        "debug_codes": {"50": 1}, "extra_services": [{}, {"enable": 1, "sid": 7}]}}) == {
        "ok": True}
    addr = 0x31
    assert command(box, b"#\x86\x00\r", 6, addr) == b"#\x86\x00\x01\x63\r"  # no enumerator
    assert command(box, b"#\x98\x00\r", 20, addr) == b"#\x98\x00\x06Direct\r" + bytes(9)
    assert command(box, b"#\xfe\x00\r", 13, addr) == (
        b"#\xfe\x00\x08\x00\x02\x40i\x19\x00\x00\x01\r")  # no bit rate without a constellation
    assert command(box, b"#\xff\x00\r", 11, addr) == b"#\xff\x00\x06\xaa\xbbA\x01\x02\x03\r"
    assert command(box, b"#\xe1\x00\r", 7, addr) == b"#\xe1\x00\x02\xff\x00\r"
    assert command(box, b"#\xeb\x01\x32\r", 6, addr) == b"#\xeb\x00\x01\x01\r"
    state = box.modules[addr].state()
    assert (state["sw_version"], state["pending"], state["applies"]) == ("A1.2.3", False, 0)
    assert [(s["slot"], s["sid"]) for s in state["psi"]["services"]] == [(None, 2), (1, 7)]


def test_modules_query_shows_every_module(make_box):
    box = make_box("ip_mpts")
    command(box, b"#\x03\x04\x00\x0b\x71\xb0\r", 5, addr=0x33)
    answer = control(box, {"cmd": "modules"})
    assert answer["ok"] is True
    modules = answer["modules"]
    assert [(m["addr"], m["index"]) for m in modules] == [(0x30, 0), (0x31, 1), (0x32, 2),
                                                           (0x33, 3)]
    assert modules[3]["settings"]["parameters"]["frequency"] == 750000
    assert modules[3]["applied"]["parameters"]["frequency"] == 498000
    assert modules[3]["pending"] is True
    assert modules[0] == json.loads(json.dumps(box.modules[0x30].state()))
    assert set(modules[0]) == {"addr", "index", "info", "sw_version", "status", "settings",
                               "applied", "pending", "applies", "psi", "faults"}
    assert modules[0]["settings"]["extra_services"] == [
        {"enable": 0, "sid": 0, "lcn": 0, "service_name": "", "pmt_pid": 0, "video_pid": 0,
         "audio_pid": 0, "audio_stream_type": 0}] * 3
    assert modules[0]["status"] == {"lock": 1, "video_height": 1080, "video_scan_mode": "p",
                                    "video_frame_rate": 50, "max_output_bitrate_kbps": 24128,
                                    "overflow": 0}
    assert control(box, {"cmd": "module", "addr": 0x32})["module"] == modules[2]


def test_module_log_lists_the_commands_with_their_replies(box):
    command(box, b"#\x03\x04\x00\x0b\x71\xb0\r", 5)
    command(box, b"#\xe3\x01\x02\r", 7, addr=0x31)
    command(box, b"#\x70\x00\r", 5)
    command(box, b"#\x50\x00\r", 5)
    command(box, b"$\x00\x00\r", 5)
    log = control(box, {"cmd": "module_log"})["commands"]
    assert [(e["addr"], e["command"], e["code"], e["frame"], e["error"], e["reply"])
            for e in log] == [
        (0x30, "set_frequency", 0x03, "230304000b71b00d", 0, "230300000d"),
        (0x31, "get_extra_service_info_sid", 0xE3, "23e301020d", 0, "23e3000200000d"),
        (0x30, "apply", 0x70, "2370000d", 0, "237000000d"),
        (0x30, "unknown", 0x50, "2350000d", 2, "235002000d"),
        (0x30, "invalid_frame", 0x00, "2400000d", 1, "230001000d")]
    assert [e["seq"] for e in log] == sorted(e["seq"] for e in log)
    assert all(e["time"] <= time.time() for e in log)
    assert [e["command"] for e in control(box, {"cmd": "module_log", "addr": 0x31})[
        "commands"]] == ["get_extra_service_info_sid"]
    assert control(box, {"cmd": "clear_module_log"}) == {"ok": True}
    assert control(box, {"cmd": "module_log"}) == {"ok": True, "commands": []}


def test_bus_log_can_be_read_for_one_address(box):
    command(box, b"#\x00\x00\r", 5, addr=0x30)
    command(box, b"#\x00\x00\r", 5, addr=0x31)
    transfers = control(box, {"cmd": "bus_log", "addr": 0x31})["transactions"]
    assert [(t["op"], t["addr"], t["data"]) for t in transfers] == [
        ("W", 0x31, "2300000d"), ("W", 0x31, "00"), ("R", 0x31, "230000000d")]


def test_program_answers_module_queries(tmp_path_factory):
    root = str(tmp_path_factory.mktemp("tv"))
    sim = subprocess.Popen([sys.executable, str(SIM), "--root", root, "--mode", "ip_spts"],
                           stdout=subprocess.PIPE, text=True)
    try:
        sim.stdout.readline()
        query = [sys.executable, str(SIM), "--root", root, "--query"]
        done = subprocess.run(query + ["modules"], capture_output=True, text=True, timeout=10)
        modules = json.loads(done.stdout)["modules"]
        assert (done.returncode, [m["addr"] for m in modules]) == (0, [0x32])
        assert modules[0]["psi"]["services"][0]["service_name"] == "HDMI 1"
        done = subprocess.run(query + ['{"cmd":"set_error","addr":"0x32","code":"0x83",'
                                       '"error":4}'], capture_output=True, text=True, timeout=10)
        assert (done.returncode, json.loads(done.stdout)) == (0, {"ok": True})
        done = subprocess.run(query + ['{"cmd":"module","addr":50}'], capture_output=True,
                              text=True, timeout=10)
        assert json.loads(done.stdout)["module"]["faults"]["errors"] == {"131": 4}
        done = subprocess.run(query + ['{"cmd":"module","addr":48}'], capture_output=True,
                              text=True, timeout=10)
        assert done.returncode == 1
        assert json.loads(done.stdout)["error"].startswith("bad arguments")
        sim.send_signal(signal.SIGTERM)
        assert sim.wait(5) == 0
    finally:
        sim.kill()
        sim.stdout.close()


# ---------------------------------------------------------------------------------------------
# Stand-in programs


def run_script(box, *command, env=None):
    env = {"PATH": f"{box.path('sbin')}:{os.environ['PATH']}", **(env or {})}
    return subprocess.run(list(command), env=env, timeout=10).returncode


def write_fake_daemon(box):
    """A program in the daemon's place that records how the init script started it. The record
    appears whole (written aside, then renamed), so that a test never reads it half-written."""
    fake = box.path("fake_tavid")
    Path(fake).write_text('#!/bin/sh\necho "$TAVID_ROOT $*" >"$TAVID_ROOT/fake.tmp"\n'
                          'mv "$TAVID_ROOT/fake.tmp" "$TAVID_ROOT/fake.out"\n')
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


def test_init_script_restarts_in_the_mode_of_copied_defaults(box):
    box.configure_restart(write_fake_daemon(box))
    shutil.copy(box.path("opt/bin/default_settings_ip_spts.conf"), box.path("data/settings.conf"))
    assert run_script(box, box.path("etc/rc.d/init.d/tavid"), "restart") == 0
    wait_for(lambda: os.path.exists(box.path("fake.out")))
    assert Path(box.path("fake.out")).read_text() == f"{box.root} -m ip_spts\n"


def test_scripts_fail_on_demand_after_recording(box):
    box.configure_restart(write_fake_daemon(box))
    assert control(box, {"cmd": "set_script_status", "name": "network_eth1", "status": 3}) == {
        "ok": True}
    box.set_script_status("tavid", 1)
    box.set_script_status("reboot", 2)
    assert run_script(box, box.path("etc/rc.d/init.d/network_eth1"), "restart") == 3
    assert run_script(box, box.path("etc/rc.d/init.d/tavid"), "restart") == 1
    assert run_script(box, "sh", "-c", "reboot") == 2
    assert [(name, args) for _, name, args in box.calls()] == [
        ("network_eth1", ["restart"]), ("tavid", ["restart"]), ("reboot", [])]
    assert not os.path.exists(box.path("tavid.pid"))  # a failing init script restarts nothing
    box.set_script_status("network_eth1", 0)
    assert run_script(box, box.path("etc/rc.d/init.d/network_eth1"), "restart") == 0
    assert control(box, {"cmd": "set_script_status", "name": "cp", "status": 1})["ok"] is False
    assert control(box, {"cmd": "set_script_status", "name": "reboot", "status": 256})[
        "ok"] is False


def test_calls_query_lists_and_clears_the_calls(box):
    assert run_script(box, box.path("etc/rc.d/init.d/network_eth1"), "restart", "now") == 0
    answer = control(box, {"cmd": "calls"})
    assert [(c["name"], c["args"]) for c in answer["calls"]] == [("network_eth1", ["restart",
                                                                                     "now"])]
    assert answer["calls"][0]["time"] <= time.time()
    assert control(box, {"cmd": "clear_calls"}) == {"ok": True}
    assert control(box, {"cmd": "calls"}) == {"ok": True, "calls": []}


def start_qel2ip(box, *args, env=None):
    program = box.path("opt/bin/qel2ip")
    child = subprocess.Popen([program, *args], env={} if env is None else env)
    wait_for(lambda: any(e["pid"] == child.pid for e in box.qel2ip_log()))
    return program, child


def test_qel2ip_records_its_arguments_and_environment_and_ends_on_sigterm(box):
    program, child = start_qel2ip(box, "-d", "239.0.0.1", "-p", "5000", "-i", "4")
    try:
        wait_for(lambda: os.path.exists(box.path("tmp/qelstat4")))
        assert Path(box.path("tmp/qelstat4")).read_bytes() == b"12.5"
        (run,) = box.qel2ip_runs()
        assert (run["pid"], run["argv"], run["env"], run["running"]) == (
            child.pid, [program, "-d", "239.0.0.1", "-p", "5000", "-i", "4"], {}, True)
        child.send_signal(signal.SIGTERM)
        assert child.wait(5) == -signal.SIGTERM
        assert box.qel2ip_runs()[0]["running"] is False
        assert [e["event"] for e in box.qel2ip_log()] == ["start"]
    finally:
        child.kill()


def test_qel2ip_records_the_environment_it_was_given(box):
    _, child = start_qel2ip(box, "-d", "239.1.1.1", "-p", "1234", "-i", "0",
                            env={"ONE": "1", "TWO": "a=b"})
    try:
        assert box.qel2ip_runs()[0]["env"] == {"ONE": "1", "TWO": "a=b"}
        wait_for(lambda: os.path.exists(box.path("tmp/qelstat0")))
    finally:
        child.kill()
        child.wait()


def test_qel2ip_ignores_sigterm_on_demand_and_ends_on_sigkill(box):
    assert control(box, {"cmd": "set_qel2ip", "ignore_sigterm": True}) == {"ok": True}
    _, child = start_qel2ip(box, "-d", "239.0.0.1", "-p", "5000", "-i", "0")
    try:
        child.send_signal(signal.SIGTERM)
        wait_for(lambda: [e["event"] for e in box.qel2ip_log()] == ["start", "sigterm_ignored"])
        with pytest.raises(subprocess.TimeoutExpired):
            child.wait(0.3)
        child.send_signal(signal.SIGKILL)
        assert child.wait(5) == -signal.SIGKILL
    finally:
        child.kill()


def test_qel2ip_ends_on_sigterm_only_as_long_after_it_as_asked(box):
    box.configure_qel2ip(sigterm_delay_ms=300)
    _, child = start_qel2ip(box, "-d", "239.0.0.1", "-p", "5000", "-i", "0")
    try:
        child.send_signal(signal.SIGTERM)
        assert child.wait(5) == -signal.SIGTERM
        held, end = box.qel2ip_log()[1:]
        assert (held["event"], end["event"]) == ("sigterm_held", "sigterm_end")
        assert end["time"] - held["time"] >= 0.3
    finally:
        child.kill()


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGKILL])
def test_qel2ip_holds_its_end_back_from_its_parent_on_demand(box, sig):
    assert control(box, {"cmd": "set_qel2ip", "reap_delay_ms": 500}) == {"ok": True}
    _, child = start_qel2ip(box, "-d", "239.0.0.1", "-p", "5000", "-i", "0")
    try:
        if "untraced" in [e["event"] for e in box.qel2ip_log()]:
            pytest.skip(f"no tracing of processes here: {box.qel2ip_log()}")
        child.send_signal(sig)
        wait_for(lambda: len(box.qel2ip_log()) == 2, what="the end seen by the tracer")
        # Ended, but its parent cannot collect it until the tracer lets it go.
        with pytest.raises(subprocess.TimeoutExpired):
            child.wait(0.2)
        assert child.wait(5) == -sig
        start, ended, released = box.qel2ip_log()
        assert [(e["event"], e["pid"]) for e in (start, ended, released)] == [
            ("start", child.pid), ("ended", child.pid), ("released", child.pid)]
        assert ended["signal"] == sig
        assert released["time"] - ended["time"] >= 0.5
    finally:
        child.kill()


def test_stop_ends_the_stand_ins_a_killed_daemon_left_running(make_box):
    box = make_box()
    _, child = start_qel2ip(box, "-d", "239.0.0.1", "-p", "5000", "-i", "4")
    bystander = subprocess.Popen(["sleep", "30"])
    try:
        with open(box.path("qel2ip.log"), "a") as log:  # a pid that is not a stand-in
            log.write(json.dumps({"time": 0, "pid": bystander.pid, "event": "start",
                                  "argv": [], "env": {}}) + "\n")
        box.stop()
        assert child.wait(5) == -signal.SIGKILL
        assert bystander.poll() is None
    finally:
        child.kill()
        bystander.kill()
        bystander.wait()


def run_qel2ip_to_its_end(box):
    program = box.path("opt/bin/qel2ip")
    return subprocess.run([program, "-d", "239.0.0.1", "-p", "5000", "-i", "4"], env={},
                          timeout=10).returncode


def test_qel2ip_writes_the_rate_asked_for_or_none(box):
    box.configure_qel2ip(rate="12.5\n", exit_status=0)
    assert run_qel2ip_to_its_end(box) == 0
    assert Path(box.path("tmp/qelstat4")).read_bytes() == b"12.5\n"
    os.unlink(box.path("tmp/qelstat4"))
    assert control(box, {"cmd": "set_qel2ip", "rate": None}) == {"ok": True}
    assert run_qel2ip_to_its_end(box) == 0
    assert not os.path.exists(box.path("tmp/qelstat4"))
    assert box.qel2ip_config() == {"ignore_sigterm": False, "rate": None, "exit_status": 0,
                                   "sigterm_delay_ms": None, "reap_delay_ms": None}


def test_qel2ip_ends_by_itself_on_demand(box):
    assert control(box, {"cmd": "set_qel2ip", "exit_status": 3}) == {"ok": True}
    program = box.path("opt/bin/qel2ip")
    done = subprocess.run([program, "-d", "239.0.0.1", "-p", "5000", "-i", "0"], env={},
                          timeout=10)
    assert done.returncode == 3
    assert [(e["event"], e.get("status")) for e in box.qel2ip_log()] == [("start", None),
                                                                         ("exit", 3)]
    assert Path(box.path("tmp/qelstat0")).read_bytes() == b"12.5"


def test_qel2ip_query_and_statistics_files(box):
    assert control(box, {"cmd": "set_qelstat", "unit": 4, "text": "7.25"}) == {"ok": True}
    assert control(box, {"cmd": "set_qelstat", "unit": "0", "text": "x"}) == {"ok": True}
    assert control(box, {"cmd": "set_qelstat", "unit": "0", "text": None}) == {"ok": True}
    _, child = start_qel2ip(box, "-d", "239.0.0.1", "-p", "5000", "-i", "1")
    try:
        wait_for(lambda: os.path.exists(box.path("tmp/qelstat1")))
        answer = control(box, {"cmd": "qel2ip"})
        assert answer["ok"] is True
        assert answer["config"] == {"ignore_sigterm": False, "rate": "12.5", "exit_status": None,
                                    "sigterm_delay_ms": None, "reap_delay_ms": None}
        assert answer["stats"] == {"1": "12.5", "4": "7.25"}
        assert [(r["pid"], r["running"]) for r in answer["runs"]] == [(child.pid, True)]
        assert [e["event"] for e in answer["log"]] == ["start"]
    finally:
        child.kill()
        child.wait()
    for bad in ({"ignore_sigterm": 1}, {"rate": 12.5}, {"exit_status": -1}, {"speed": 1}, {"sigterm_delay_ms": -1},
                {"reap_delay_ms": "1"}, {"ignore_sigterm": True, "sigterm_delay_ms": 10}):
        assert control(box, {"cmd": "set_qel2ip", **bad})["ok"] is False
    assert control(box, {"cmd": "set_qelstat", "unit": "../x", "text": "1"})["ok"] is False
    assert box.qel2ip_config()["rate"] == "12.5"


# ---------------------------------------------------------------------------------------------
# The network-settings service


GET = b'{"action":"GET","object":"/unified_services/ip/settings","args":{}}'
FACTORY_INTERFACES = (
    b'{"result":[{"interface":"eth0","dhcp":"1","address":"192.168.1.100",'
    b'"netmask":"255.255.255.0","gateway":"192.168.1.1","dns":"192.168.1.1"},'
    b'{"interface":"eth1","dhcp":"0","address":"10.10.10.10","netmask":"255.255.255.0",'
    b'"gateway":"10.10.10.1","dns":"10.10.10.1"}]}')


def post(*changes):
    return json.dumps({"action": "POST", "object": "/unified_services/ip/settings",
                       "args": list(changes)}, separators=(",", ":")).encode()


def net_request(box, data, pieces=(), wait=5.0):
    """As the daemon asks: the request without a terminator and without closing the sending
    side, then whatever comes until the service closes."""
    with socket.create_connection((tavisim.LOCALHOST, box.netsettings.port), timeout=wait) as sock:
        sock.sendall(data)
        for piece in pieces:
            time.sleep(0.1)
            sock.sendall(piece)
        reply = b""
        while chunk := sock.recv(4096):
            reply += chunk
        return reply


@pytest.fixture
def net_box():
    """An IP SPTS box with the network-settings service on a port of its own."""
    box = tavisim.Box(tempfile.mkdtemp(prefix="tv", dir="/tmp"), "ip_spts", netsettings=True,
                      netsettings_port=free_port())
    box.start()
    yield box
    box.stop()
    shutil.rmtree(box.root, ignore_errors=True)


def test_netsettings_service_is_on_the_boxes_port_only_when_asked_for(tmp_path):
    assert tavisim.NETSETTINGS_PORT == 49998
    assert tavisim.Box(str(tmp_path / "a"), netsettings=True).netsettings.port == 49998
    box = tavisim.Box(str(tmp_path / "b"))
    assert box.netsettings is None
    answer = box.control({"cmd": "netsettings"})
    assert answer["ok"] is False and "--netsettings" in answer["error"]


def test_netsettings_get_lists_eth0_and_eth1(net_box):
    assert tcp_listening(net_box.netsettings.port)
    assert net_request(net_box, GET) == FACTORY_INTERFACES
    (exchange,) = control(net_box, {"cmd": "netsettings_log"})["exchanges"]
    assert (exchange["request"], exchange["reply"], exchange["fault"]) == (
        GET.decode(), FACTORY_INTERFACES.decode(), None)


def test_netsettings_post_changes_what_get_returns(net_box):
    change = {"address": "192.168.5.20", "dhcp": "0", "interface": "eth1"}
    assert net_request(net_box, post(change)) == b'{"result":{}}'
    eth0, eth1 = json.loads(net_request(net_box, GET))["result"]
    assert eth1 == {"interface": "eth1", "dhcp": "0", "address": "192.168.5.20",
                    "netmask": "255.255.255.0", "gateway": "10.10.10.1", "dns": "10.10.10.1"}
    assert eth0["address"] == "192.168.1.100"
    assert control(net_box, {"cmd": "netsettings"})["netsettings"]["interfaces"][1] == eth1


@pytest.mark.parametrize("change, refused", [
    ({"interface": "eth1", "address": "10.0.0.256", "speed": "100"},
     {"address": "not an IPv4 address", "speed": "unknown setting"}),
    ({"interface": "eth1", "dhcp": "yes", "gateway": 10}, {"dhcp": "not 0 or 1",
                                                         "gateway": "not a text"}),
    ({"interface": "eth7", "address": "10.0.0.1"}, {"interface": "unknown interface"}),
    ({"address": "10.0.0.1"}, {"interface": "unknown interface"}),
])
def test_netsettings_post_with_a_refused_value_changes_nothing(net_box, change, refused):
    reply = net_request(net_box, post(change))
    assert json.loads(reply) == {"result": refused}
    assert net_request(net_box, GET) == FACTORY_INTERFACES


def test_netsettings_post_of_two_interfaces_takes_all_or_nothing(net_box):
    reply = net_request(net_box, post({"interface": "eth0", "address": "1.2.3.4"},
                                      {"interface": "eth1", "netmask": "255.0.0"}))
    assert reply == b'{"result":{"netmask":"not an IPv4 address"}}'
    assert net_request(net_box, GET) == FACTORY_INTERFACES
    assert net_request(net_box, post({"interface": "eth0", "address": "1.2.3.4"},
                                     {"interface": "eth1", "netmask": "255.0.0.0"})) == (
        b'{"result":{}}')
    assert [i["address"] for i in net_box.netsettings.interfaces()] == ["1.2.3.4", "10.10.10.10"]


@pytest.mark.parametrize("request_text, reply", [
    (b'{"action":"PUT","object":"/unified_services/ip/settings","args":{}}',
     b'{"error":"unknown action: \\"PUT\\""}'),
    (b'{"action":"GET","object":"/unified_services/ip/routes","args":{}}',
     b'{"error":"unknown object: \\"/unified_services/ip/routes\\""}'),
    (b'["GET"]', b'{"error":"request is not a JSON object"}'),
    (b'{"action":"POST","object":"/unified_services/ip/settings","args":{}}',
     b'{"result":{"args":"not a list of interface settings"}}'),
    (b'{"action":"GET", "object"', b'{"error":"request is not a JSON object"}'),
])
def test_netsettings_answers_what_it_cannot_serve_with_an_error(net_box, request_text, reply):
    assert net_request(net_box, request_text) == reply


def test_netsettings_request_in_pieces_is_answered_once_whole(net_box):
    assert net_request(net_box, GET[:20], pieces=[GET[20:40], GET[40:]]) == FACTORY_INTERFACES
    assert control(net_box, {"cmd": "netsettings_log"})["exchanges"][0]["request"] == GET.decode()


def test_netsettings_interfaces_can_be_put_in_place(net_box):
    interfaces = [{"interface": "eth1", "address": "10.1.1.1"}, {"address": "none"}]
    assert control(net_box, {"cmd": "set_netsettings", "interfaces": interfaces}) == {"ok": True}
    assert json.loads(net_request(net_box, GET)) == {"result": interfaces}
    assert json.loads(net_request(net_box, post({"address": "10.2.2.2"}))) == {
        "result": {"interface": "unknown interface"}}  # the entry without a name stays apart
    assert control(net_box, {"cmd": "set_netsettings", "interfaces": {"eth1": {}}})["ok"] is False
    assert control(net_box, {"cmd": "set_netsettings", "interfaces": [1]})["ok"] is False


def test_netsettings_down_listens_on_nothing_until_back(net_box):
    assert control(net_box, {"cmd": "set_netsettings_fault", "fault": "down"}) == {"ok": True}
    assert not tcp_listening(net_box.netsettings.port)
    with pytest.raises(ConnectionRefusedError):
        net_request(net_box, GET)
    assert control(net_box, {"cmd": "netsettings"})["netsettings"]["listening"] is False
    assert control(net_box, {"cmd": "set_netsettings_fault", "fault": None}) == {"ok": True}
    assert net_request(net_box, GET) == FACTORY_INTERFACES


def test_netsettings_silent_takes_the_request_and_never_answers(net_box):
    net_box.netsettings.set_fault("silent")
    with socket.create_connection((tavisim.LOCALHOST, net_box.netsettings.port)) as sock:
        sock.sendall(GET)
        sock.settimeout(1.5)
        with pytest.raises(socket.timeout):
            sock.recv(1)
        (exchange,) = net_box.netsettings.exchanges()
        assert (exchange["request"], exchange["reply"], exchange["fault"]) == (
            GET.decode(), None, "silent")
        started = time.monotonic()
        net_box.stop()  # ends the connection it holds
        assert time.monotonic() - started < 2
        sock.settimeout(2)
        assert sock.recv(1) == b""


def test_netsettings_silent_lets_go_when_the_client_gives_up(net_box):
    net_box.netsettings.set_fault("silent")
    with socket.create_connection((tavisim.LOCALHOST, net_box.netsettings.port)) as sock:
        sock.sendall(GET)
        wait_for(lambda: net_box.netsettings.exchanges() != [])
    net_box.netsettings.set_fault(None)
    assert net_request(net_box, GET) == FACTORY_INTERFACES


def test_netsettings_garbage_answers_text_that_is_not_json(net_box):
    assert control(net_box, {"cmd": "set_netsettings_fault", "fault": "garbage"}) == {"ok": True}
    reply = net_request(net_box, GET)
    assert reply == b"<html>not a JSON reply {"
    with pytest.raises(ValueError):
        json.loads(reply)
    assert control(net_box, {"cmd": "set_netsettings_fault", "fault": "garbage",
                             "garbage": '{"result":'}) == {"ok": True}
    assert net_request(net_box, post({"interface": "eth1", "dhcp": "1"})) == b'{"result":'
    assert net_box.netsettings.interfaces()[1]["dhcp"] == "0"  # garbage changes nothing


def test_netsettings_refuse_closes_at_once(net_box):
    net_box.netsettings.set_fault("refuse")
    try:
        reply = net_request(net_box, GET)
    except ConnectionResetError:
        reply = b""
    assert reply == b""
    # Closed without reading: the request is not in the record.
    (exchange,) = net_box.netsettings.exchanges()
    assert (exchange["request"], exchange["reply"], exchange["fault"]) == (None, None, "refuse")


def test_netsettings_answers_can_be_held_back(net_box):
    assert control(net_box, {"cmd": "set_netsettings_fault", "fault": None, "delay_ms": 600}) == {
        "ok": True}
    started = time.monotonic()
    assert net_request(net_box, GET) == FACTORY_INTERFACES
    assert time.monotonic() - started >= 0.6
    assert control(net_box, {"cmd": "netsettings"})["netsettings"]["delay_ms"] == 600


def test_netsettings_fault_commands_refuse_bad_arguments(net_box):
    for bad in ({"fault": "slow"}, {"fault": None, "delay_ms": -5}, {"fault": "garbage",
                                                                      "garbage": 7}, {}):
        assert control(net_box, {"cmd": "set_netsettings_fault", **bad})["ok"] is False
    assert control(net_box, {"cmd": "netsettings"})["netsettings"]["fault"] is None
    assert control(net_box, {"cmd": "clear_netsettings_log"}) == {"ok": True}
    assert control(net_box, {"cmd": "netsettings_log"}) == {"ok": True, "exchanges": []}


def test_netsettings_port_taken_fails_the_start_and_leaves_nothing_open(tmp_path):
    with socket.create_server((tavisim.LOCALHOST, 0)) as taken:
        port = taken.getsockname()[1]
        box = tavisim.Box(str(tmp_path), netsettings=True, netsettings_port=port)
        with pytest.raises(OSError, match=f"network-settings port 127.0.0.1:{port} is taken"):
            box.start()
        assert not os.path.exists(box.bus_path)
        assert not os.path.exists(box.control_path)


def test_netsettings_back_from_down_on_a_taken_port_fails(net_box):
    net_box.netsettings.set_fault("down")
    with socket.create_server((tavisim.LOCALHOST, net_box.netsettings.port)):
        answer = control(net_box, {"cmd": "set_netsettings_fault", "fault": None})
        assert answer["ok"] is False and "is taken" in answer["error"]
    assert net_box.netsettings.state()["fault"] == "down"


def test_program_serves_the_netsettings_service_when_asked_for(tmp_path_factory):
    root = str(tmp_path_factory.mktemp("tv"))
    port = free_port()
    sim = subprocess.Popen([sys.executable, str(SIM), "--root", root, "--netsettings",
                            "--netsettings-port", str(port)], stdout=subprocess.PIPE, text=True)
    try:
        assert sim.stdout.readline() == (
            f"tavisim: box root {root} (mode rf), bus at {root}/dev/i2c-0, "
            f"network settings at 127.0.0.1:{port}\n")
        query = [sys.executable, str(SIM), "--root", root, "--query"]
        done = subprocess.run(query + ["netsettings"], capture_output=True, text=True, timeout=10)
        state = json.loads(done.stdout)["netsettings"]
        assert (done.returncode, state["port"], state["listening"]) == (0, port, True)
        done = subprocess.run(query + ['{"cmd":"set_netsettings_fault","fault":"down"}'],
                              capture_output=True, text=True, timeout=10)
        assert (done.returncode, tcp_listening(port)) == (0, False)
        with socket.create_server((tavisim.LOCALHOST, port)):
            second = subprocess.run([sys.executable, str(SIM), "--root", root + "2",
                                     "--netsettings", "--netsettings-port", str(port)],
                                    capture_output=True, text=True, timeout=10)
        assert second.returncode == 2
        assert second.stderr == (f"tavisim: [Errno 98] the network-settings port 127.0.0.1:{port} "
                                 f"is taken; only one box at a time can serve it (--netsettings)\n")
        sim.send_signal(signal.SIGTERM)
        assert sim.wait(5) == 0
    finally:
        sim.kill()
        sim.stdout.close()


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
