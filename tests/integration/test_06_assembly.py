"""The box as each output mode builds it: which objects answer, with which instances and
transport-stream tags, which module stands behind each instance, the order in which the
modules are read at start, the start-up log, the device's files, and a start with a
module missing."""

import json
import os
import re
from pathlib import Path

import pytest

from conftest import (FIRST_POLL_PSI_SYNCS, INPUT_MODULES, MODES, TS_TRACES, err, error, first_start_lines, get,
                      log_lines, matches, module_parameters, msg, new_log_lines, send, settle, start_ready,
                      tcp_listening, wait_for, wrn, wrn_line)

# The id key of every object that stands for a HAL instance, and how many instances each mode has.
OBJECTS = {
    "device_status": "device_id", "device": "device_id",
    "input_hdmi": "input_id", "input_hdmi_enc": "input_id", "input_hdmi_ts": "input_id",
    "input_hdmi_status": "input_id", "debug_code": "id",
    "output_calibration": "output_id", "output_rf": "output_id", "output_rf_mod": "output_id",
    "output_rf_ts": "output_id", "output_rf_status": "output_id",
    "output_ip": "output_id", "output_ip_dst": "output_id", "output_ip_ts": "output_id",
    "output_ip_status": "output_id",
}
COUNTS = {
    "rf": {"device": 1, "input": 4, "debug": 4, "output_calibration": 2, "output_rf": 2, "output_ip": 0},
    "ip_spts": {"device": 1, "input": 1, "debug": 1, "output_calibration": 0, "output_rf": 0, "output_ip": 1},
    "ip_mpts": {"device": 1, "input": 4, "debug": 4, "output_calibration": 0, "output_rf": 0, "output_ip": 1},
}

# Transport-stream tags: HDMI inputs by input number, outputs by output number.
INPUT_TS_TAGS = {"rf": ("3", "2", "1", "0"), "ip_spts": ("0",), "ip_mpts": ("3", "2", "1", "0")}
OUTPUT_TS_TAGS = {"rf": ("output_rf", ("7", "6")), "ip_spts": ("output_ip", ("1",)),
                  "ip_mpts": ("output_ip", ("5",))}

INIT_LINES = {"rf": "<INIT_HAL> RF", "ip_spts": "<INIT_HAL> IP SPTS", "ip_mpts": "<INIT_HAL> IP MPTS"}
INIT_FAIL = {"rf": "<INIT_HAL> Fail", "ip_spts": "</INIT_HAL> Fail", "ip_mpts": "</INIT_HAL> Fail"}
MAIN_ERROR = {"rf": "Could not initialize HAL (RF)", "ip_spts": "Could not initialize HAL (IP SPTS)",
              "ip_mpts": "Could not initialize HAL (IP MPTS)"}
MODULE_NAMES = {"rf": (3, 2, 1, 0), "ip_spts": (0,), "ip_mpts": (3, 2, 1, 0)}

ALARM_LEDS = {"rf": "sys/class/leds/rgb_red", "ip_spts": "storage", "ip_mpts": "sys/class/leds/rgb_red"}
OTHER_LED = {"rf": "storage", "ip_spts": "sys/class/leds/rgb_red", "ip_mpts": "storage"}
HWMON = "sys/class/hwmon/hwmon0/device/temp1_input"
THERMAL = "sys/devices/virtual/thermal/thermal_zone0/temp"
SENSORS = {"rf": HWMON, "ip_spts": THERMAL, "ip_mpts": HWMON}

# What the module is asked while its objects are built: the HDMI input's audio stream, video
# stream, service, transport stream and encoder, then for an RF output its modulation.
INPUT_READS = ["get_audio_pid", "get_audio_stream_type", "get_audio_bitrate", "get_video_pid",
               "get_video_bitrate", "get_sid", "get_service_name", "get_lcn", "get_pmt_pid", "get_tsid",
               "get_onid", "get_nid", "get_private_data_specifier", "get_network_name",
               "get_network_version", "get_video_bitrate", "get_video_gopsize", "get_audio_bitrate"]
RF_OUTPUT_READS = ["get_output_type", "get_rf_out_enable", "get_frequency", "get_level", "get_frequency",
                   "get_bandwidth", "get_symbolrate", "get_constellation", "get_guardinterval",
                   "get_coderate", "get_fftmode", "get_carriertype", "get_interleave", "get_syncframe"]
# What the IP output's sync tells the module of IP SPTS mode: the output's TS identity, then
# three empty extra-service slots.
IP_SYNC_PUSH = ["set_tsid", "set_onid", "set_nid", "set_private_data_specifier", "set_network_name",
                "set_network_version"] + ["set_extra_service_info_enable"] * 3


# ---------------------------------------------------------------------------------------------
# Helpers


def commands(box) -> list:
    """(address, command) of every command frame the modules took, in order."""
    entries = sorted((entry for module in box.modules.values() for entry in module.commands()),
                     key=lambda entry: entry["seq"])
    return [(entry["addr"], entry["command"]) for entry in entries]


def ids(reply: dict, key: str) -> list:
    return [element[key] for element in reply["arrayedResult"]]


def elements(reply: bytes) -> bytes:
    """What a reply to a get of one instance gives a get of all instances, byte for byte: its
    result, or the elements of its arrayed result."""
    for head, tail in ((b'{"result":', b"}"), (b'{"arrayedResult":[', b"]}")):
        if reply.startswith(head) and reply.endswith(tail):
            return reply[len(head):len(reply) - len(tail)]
    raise AssertionError(f"not the reply to a get: {reply!r}")


def every_instance(daemon, obj: str, key: str, count: int) -> bytes:
    """The reply to a get of all instances of the object as the gets of each instance make it:
    their results in instance order, in one arrayed result."""
    parts = [elements(send(daemon, "get", obj, **{key: str(n)})) for n in range(count)]
    return b'{"arrayedResult":[' + b",".join(part for part in parts if part) + b"]}"


def instances(mode: str, obj: str) -> int:
    counts = COUNTS[mode]
    if obj.startswith("device"):
        return counts["device"]
    if obj.startswith("input_hdmi"):
        return counts["input"]
    if obj == "debug_code":
        return counts["debug"]
    if obj == "output_calibration":
        return counts["output_calibration"]
    return counts["output_rf"] if obj.startswith("output_rf") else counts["output_ip"]


# ---------------------------------------------------------------------------------------------
# Which objects answer


@pytest.mark.parametrize("mode", MODES)
def test_a_get_without_id_returns_every_instance_with_its_id(make_box, tavid, mode):
    _, daemon = start_ready(make_box, tavid, mode)
    for obj, key in OBJECTS.items():
        count = instances(mode, obj)
        reply = send(daemon, "get", obj)
        if count == 0:
            assert reply == error(f"JSON command is missing a mandatory argument ({key})"), obj
        else:
            assert ids(json.loads(reply), key) == [str(n) for n in range(count)], obj
            assert reply == every_instance(daemon, obj, key, count), obj


@pytest.mark.parametrize("mode", MODES)
def test_service_and_stream_lists_of_all_instances_are_joined(make_box, tavid, mode):
    _, daemon = start_ready(make_box, tavid, mode)
    inputs = COUNTS[mode]["input"]
    assert ids(get(daemon, "input_hdmi_services"), "input_id") == [str(n) for n in range(inputs)]
    assert ids(get(daemon, "input_hdmi_streams"), "input_id") == [str(n) for n in range(inputs) for _ in "av"]
    for obj in ("input_hdmi_services", "input_hdmi_streams"):
        assert send(daemon, "get", obj) == every_instance(daemon, obj, "input_id", inputs), obj
    name, _ = OUTPUT_TS_TAGS[mode]
    outputs = len(OUTPUT_TS_TAGS[mode][1])
    # Every output offers every service of every input it can carry.
    assert ids(get(daemon, f"{name}_services"), "output_id") == [str(n) for n in range(outputs)
                                                                 for _ in range(inputs)]
    assert send(daemon, "get", f"{name}_services") == every_instance(daemon, f"{name}_services", "output_id",
                                                                     outputs)


@pytest.mark.parametrize("mode", MODES)
def test_an_unknown_instance_number_returns_every_instance(make_box, tavid, mode):
    _, daemon = start_ready(make_box, tavid, mode)
    assert ids(get(daemon, "input_hdmi_enc", input_id="7"), "input_id") == [
        str(n) for n in range(COUNTS[mode]["input"])]
    assert send(daemon, "get", "input_hdmi_enc", input_id="7") == send(daemon, "get", "input_hdmi_enc")
    assert get(daemon, "device", device_id="0x0") == {"result": {"output_mode": mode, "device_id": "0"}}


def test_the_rf_outputs_answer_by_hexadecimal_id_and_a_leading_zero_is_no_number(make_box, tavid):
    _, daemon = start_ready(make_box, tavid, "rf")
    assert get(daemon, "output_rf_status", output_id="0x1")["result"]["output_id"] == "1"
    assert send(daemon, "get", "output_rf_status", output_id="0x1") == send(daemon, "get", "output_rf_status",
                                                                            output_id="1")
    assert ids(get(daemon, "output_rf_status", output_id="08"), "output_id") == ["0", "1"]
    assert send(daemon, "get", "output_rf_status", output_id="08") == send(daemon, "get", "output_rf_status")


# ---------------------------------------------------------------------------------------------
# Tags and the modules behind the instances


@pytest.mark.parametrize("mode", MODES)
def test_transport_streams_services_and_streams_carry_their_creation_tags(make_box, tavid, mode):
    _, daemon = start_ready(make_box, tavid, mode)
    inputs = get(daemon, "input_hdmi")["arrayedResult"]
    assert [element["ts"]["ts_tag"] for element in inputs] == list(INPUT_TS_TAGS[mode])
    for element in inputs:
        position = int(element["ts"]["ts_tag"])
        (service,) = element["ts"]["services"]
        assert service["service_tag"] == str(position)
        # The video stream was made after the audio stream and stands first in the list.
        assert [stream["stream_tag"] for stream in service["streams"]] == [str(2 * position + 1),
                                                                           str(2 * position)]
        assert [stream["type"] for stream in service["streams"]] == ["27", "15"]
    name, tags = OUTPUT_TS_TAGS[mode]
    outputs = get(daemon, name)["arrayedResult"]
    assert [element["ts"]["ts_tag"] for element in outputs] == list(tags)
    for element in outputs:
        # The outputs mirror the inputs' services under the inputs' tags.
        assert sorted(service["service_tag"] for service in element["ts"]["services"]) == sorted(
            INPUT_TS_TAGS[mode])


def mark_modules(box):
    """Gives every module a name of its own, and the RF modules frequencies and levels that
    fall into each of the three level-offset bands."""
    for addr, module in box.modules.items():
        module.set_values({"service_name": f"module {addr:#x}", "video_gopsize": addr})
    if box.mode == "rf":
        box.module(0x30).set_values({"frequency": 1000000, "level": 30})
        box.module(0x32).set_values({"frequency": 500001, "level": 30})


@pytest.mark.parametrize("mode", MODES)
def test_each_hdmi_input_reads_its_own_module(make_box, tavid, mode):
    _, daemon = start_ready(make_box, tavid, mode, prepare=mark_modules)
    for number, addr in enumerate(INPUT_MODULES[mode]):
        result = get(daemon, "input_hdmi", input_id=str(number))["result"]
        assert result["video_gopsize"] == str(addr)
        assert result["ts"]["services"][0]["service_name"] == f"module {addr:#x}"


def test_rf_output_0_modulates_on_module_0_and_output_1_on_module_2(make_box, tavid):
    _, daemon = start_ready(make_box, tavid, "rf", prepare=mark_modules)
    mods = [get(daemon, "output_rf_mod", output_id=str(n))["result"] for n in (0, 1)]
    # The level byte 30 reads back less the offset of the module's frequency band: 10 dB at
    # 1000000 kHz and above, 8 dB between 500001 and 999999 kHz.
    assert [(mod["frequency"], mod["level"]) for mod in mods] == [("1000000", "20"), ("500001", "22")]


def test_an_rf_output_passes_its_ts_identity_to_the_multiplexer_that_feeds_it(make_box, tavid):
    box, daemon = start_ready(make_box, tavid, "rf")
    settle(box)
    # The service of HDMI input 1 switched on on output 1 only: the multiplexer behind
    # output 1 makes that input its master and gives its module output 1's identity.
    assert send(daemon, "set", "output_rf_ts", output_id="1", tsid="0x77", network_name="one") == b"{}"
    assert send(daemon, "set", "output_rf_ts", output_id="0", tsid="0x55", network_name="zero") == b"{}"
    assert send(daemon, "set", "output_rf_services", output_id="1", service_tag="2", enabled="1") == b"{}"
    wait_for(lambda: module_parameters(box, 0x31)["tsid"] == 0x77, what="identity applied")
    settle(box)
    parameters = module_parameters(box, 0x31)
    assert (parameters["tsid"], parameters["network_name"]) == (0x77, "one")
    assert [(addr, module_parameters(box, addr)["tsid"]) for addr in box.modules
            if addr != 0x31] == [(0x30, 1), (0x32, 1), (0x33, 1)]


# ---------------------------------------------------------------------------------------------
# The build order as the modules see it


def expected_build(mode: str) -> list:
    addrs = sorted(INPUT_MODULES[mode], reverse=True)
    build = [(addr, "get_info") for addr in addrs]
    build += [(addr, read) for addr in addrs for read in INPUT_READS]
    if mode == "rf":
        build += [(addr, read) for addr in (0x32, 0x30) for read in RF_OUTPUT_READS]
    return build


def expected_first_poll(mode: str) -> list:
    """The first poll cycle: RF outputs, then HDMI inputs, applied in index order; in IP SPTS
    mode the IP output's two syncs push its TS identity to the one module first."""
    if mode == "rf":
        return [(0x30, "apply"), (0x32, "apply")] + [(addr, "apply") for addr in INPUT_MODULES[mode]]
    if mode == "ip_spts":
        return [(0x32, command) for command in IP_SYNC_PUSH * FIRST_POLL_PSI_SYNCS[mode]] + [(0x32, "apply")]
    return [(addr, "apply") for addr in INPUT_MODULES[mode]]


@pytest.mark.parametrize("mode", MODES)
def test_modules_are_read_from_the_highest_number_down_and_applied_in_index_order(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode)
    settle(box)
    build = expected_build(mode)
    log = commands(box)
    assert log[:len(build)] == build
    assert log[len(build):] == expected_first_poll(mode)


@pytest.mark.parametrize("mode", MODES)
def test_the_multiplexer_chips_and_their_reset_lines_are_left_alone(make_box, tavid, mode):
    box, _ = start_ready(make_box, tavid, mode)
    settle(box)
    assert {transfer.addr for transfer in box.bus.transactions()} == set(INPUT_MODULES[mode])
    for gpio in (17, 193, 196):
        assert Path(box.path(f"sys/class/gpio/gpio{gpio}/value")).read_text() == "0\n"
        assert Path(box.path(f"sys/class/gpio/gpio{gpio}/direction")).read_text() == "in\n"


def init_lines(mode: str, absent: int | None = None) -> list:
    lines = [msg(INIT_LINES[mode])]
    for number in MODULE_NAMES[mode]:
        addr = INPUT_MODULES[mode][number] if mode != "ip_spts" else 0x32
        version = "\x000.0.0" if addr == absent else "V2.4.1"
        lines += [msg(f"mod_tarn_{number} - Initializing..."), msg(f"mod_tarn_{number} - SW Version > {version}")]
    return lines


@pytest.mark.parametrize("mode", MODES)
def test_verbose_start_logs_the_assembly(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode, "-v")
    out = daemon.stdout()
    assert re.match(b"".join(init_lines(mode)) + msg("</INIT_HAL> Done") + re.escape(b"\n\r"), out), out[:2000]


@pytest.mark.parametrize("mode", MODES)
def test_a_quiet_start_logs_no_messages(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode)
    settle(box)
    assert daemon.stdout() == b""


# ---------------------------------------------------------------------------------------------
# A module missing at start


# The module that is missing, and its name in that mode.
MISSING = {"rf": (0x31, 1), "ip_spts": (0x32, 0), "ip_mpts": (0x30, 0)}


@pytest.mark.parametrize("mode", MODES)
def test_a_missing_module_fails_the_assembly_and_the_daemon_ends(make_box, tavid, mode):
    box = make_box(mode)
    addr, number = MISSING[mode]
    box.bus.set_absent(addr)
    daemon = tavid(box, ["-m", mode, "-v"], listen=False)
    assert daemon.wait(20) == 0
    name = f"mod_tarn_{number}"
    assert matches(daemon.stdout(), *init_lines(mode, absent=addr), msg(INIT_FAIL[mode])), daemon.stdout()
    main_lines = [wrn("main", "0")] if mode == "rf" else []
    assert matches(daemon.stderr(),
                   wrn("mod_tarn_get_info", f"{name} - Could not get info (hdmi i2c error)"),
                   wrn("mod_tarn_get_audio_pid", f"{name} - Could not get audio PID (hdmi i2c error)"),
                   wrn("hal_mod_tarn_service_new_audio_stream", "Could not create"),
                   wrn("hal_mod_tarn_ts_new_service", "Could not create"),
                   wrn("new_hal_mod_tarn_ts", "Could not create"),
                   wrn("new_hal_mod_tarn_input_hdmi", "Could not create"),
                   *main_lines,
                   err("main", MAIN_ERROR[mode])), daemon.stderr()
    # Nothing of the box was touched: no command port, no settings, the alarm still lit.
    assert not tcp_listening(daemon.port)
    assert box.stored_settings()["exists"] is False
    assert box.leds()["leds"][ALARM_LEDS[mode]] == {"brightness": "1\n", "trigger": "heartbeat\n"}
    assert box.calls() == []
    assert not any(command == "apply" for _, command in commands(box))
    # Creation stopped at the failing input: the modules made after it were never read.
    if mode == "rf":
        assert [command for module, command in commands(box) if module == 0x30] == ["get_info"]


def test_a_module_missing_after_the_inputs_were_read_only_fails_its_commands(make_box, tavid):
    box, daemon = start_ready(make_box, tavid, "rf")
    settle(box)
    since = len(daemon.stderr())
    box.bus.set_absent(0x32)
    reply = send(daemon, "get", "output_rf_mod", output_id="1")
    assert reply == b'{"warningCode":1103,"description":"JSON command unsuccessful (error: 13)"}'
    assert new_log_lines(daemon, since) == [
        wrn_line("mod_tarn_get_output_type", "mod_tarn_2 - Could not get output type (hdmi i2c error)")]
    assert daemon.running()


# ---------------------------------------------------------------------------------------------
# The device: its mode, alarm LED and temperature sensor


@pytest.mark.parametrize("mode", MODES)
def test_the_device_clears_its_modes_alarm_led_and_reads_its_modes_sensor(make_box, tavid, mode):
    def sensors(box):
        Path(box.path(HWMON)).write_text("30999\n")
        Path(box.path(THERMAL)).write_text("61000\n")

    box, daemon = start_ready(make_box, tavid, mode, prepare=sensors)
    leds = box.leds()["leds"]
    assert leds[ALARM_LEDS[mode]] == {"brightness": "0", "trigger": "none"}
    assert leds[OTHER_LED[mode]] == {"brightness": "1\n", "trigger": "heartbeat\n"}
    expected = "30" if SENSORS[mode] == HWMON else "61"
    assert send(daemon, "get", "device_status", device_id="0") == (
        b'{"result":{"temperature":"%s","device_id":"0"}}' % expected.encode())
    assert send(daemon, "get", "device", device_id="0") == (
        b'{"result":{"output_mode":"%s","device_id":"0"}}' % mode.encode())


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("blocked", ["trigger", "brightness"])
def test_an_alarm_led_that_cannot_be_written_is_warned_about(make_box, tavid, mode, blocked):
    box = make_box(mode)
    led = ALARM_LEDS[mode]
    os.remove(box.path(f"{led}/{blocked}"))
    os.mkdir(box.path(f"{led}/{blocked}"))
    daemon = tavid(box, ["-m", mode])
    line = wrn("hal_device_clear_alarm_led", f"Could not open alarm led {blocked}...")
    wait_for(lambda: re.search(line + wrn("main", "Alarm led not cleared..."), daemon.stderr()), what="LED warnings")
    # The LED is cleared after the settings were restored.
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == first_start_lines(mode) + [
        wrn_line("hal_device_clear_alarm_led", f"Could not open alarm led {blocked}..."),
        wrn_line("main", "Alarm led not cleared...")]
    # The trigger is written first; a trigger that cannot be written leaves the brightness alone.
    other = "brightness" if blocked == "trigger" else "trigger"
    assert Path(box.path(f"{led}/{other}")).read_text() == ("1\n" if blocked == "trigger" else "none")
    assert send(daemon, "get", "device", device_id="0") == (
        b'{"result":{"output_mode":"%s","device_id":"0"}}' % mode.encode())
