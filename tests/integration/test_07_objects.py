"""The JSON objects against the real box: replies byte for byte, the warnings they log, and
what reaches the modules, at once (setters talk to the module before the reply) or through
the poll cycle (syncs and applies)."""

import json
import re
import shutil
import tempfile
import time
from functools import partial

import pytest

import tavisim
from conftest import (INPUT_MODULES, MODES, NETSETTINGS_WAIT, PSI_SYNCED, SLOW, TS_TRACES, UNSUCCESSFUL, barrier,
                      count, error, first_start_lines, get, log_lines, module_parameters, msg, new_log_lines,
                      new_messages, ready, record_arg, remove_box, request, send, settle, slots, start_ready, wait_for,
                      wrn_line)

JSON_ERROR = b'{"warningCode":1103,"description":"JSON error"}'


# ---------------------------------------------------------------------------------------------
# Helpers


# Every test here starts from a box whose bus is at rest, so that a module's log shows what
# the test's own requests made of it.
start = partial(start_ready, at_rest=True)


def clear_logs(box):
    for module in box.modules.values():
        module.clear_commands()


def frames(box, addr: int) -> list:
    """(command, frame in hex) of what one module took since its log was last cleared."""
    return [(entry["command"], entry["frame"]) for entry in box.module(addr).commands()]


def changes(box, addr: int) -> list:
    """The commands of frames() that change the module. Every accepted "set" also reads every
    instance back, because the settings file is rewritten from the objects' gets."""
    return [command for command, _ in frames(box, addr) if not command.startswith("get_")]


# ---------------------------------------------------------------------------------------------
# Device


@pytest.mark.parametrize("mode", MODES)
def test_device_answers_its_mode_and_refuses_set_and_bad_modes(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode)
    assert send(daemon, "get", "device", device_id="0") == (
        b'{"result":{"output_mode":"%s","device_id":"0"}}' % mode.encode())
    assert send(daemon, "set", "device", device_id="0", output_mode=mode) == error(
        "JSON command has an unknown action (set)")
    assert send(daemon, "execute", "device", device_id="0", output_mode="RF") == error(
        "JSON command argument out of bounds (output_mode)")
    reply = request(daemon.port, b'{"action":"execute","object":"device","args":{"device_id":"0","output_mode":2}}')
    assert reply == error("JSON command has an invalid argument (output_mode)")
    assert send(daemon, "execute", "device_status", device_id="0") == error(
        "JSON command has an unknown action (execute)")


@pytest.mark.parametrize("mode", MODES)
def test_executing_the_current_mode_changes_nothing(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode)
    assert send(daemon, "execute", "device", device_id="0", output_mode=mode) == b"{}"
    barrier(daemon)  # a restart would have ended the main loop before it served this
    assert daemon.running()
    assert box.calls() == []
    assert box.stored_settings()["exists"] is False
    assert get(daemon, "device", device_id="0")["result"]["output_mode"] == mode


def test_temperature_is_whole_degrees_rounded_down(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    assert send(daemon, "get", "device_status", device_id="0") == b'{"result":{"temperature":"45","device_id":"0"}}'
    assert box.temperature()["sensors"][box.temperature()["sensor"]] == "45500\n"
    box.set_temperature(45999)
    assert send(daemon, "get", "device_status", device_id="0") == b'{"result":{"temperature":"45","device_id":"0"}}'
    box.set_temperature(0)
    assert send(daemon, "get", "device_status") == b'{"arrayedResult":[{"temperature":"0","device_id":"0"}]}'


@pytest.mark.parametrize("mode", MODES)
def test_a_missing_sensor_file_fails_the_status_and_warns(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode, prepare=lambda box: box.set_temperature(None))
    line = wrn_line("hal_device_update_temperature", "Could not open temp sensor...")
    # The start-up read warns once, after the settings were restored; the daemon carries on.
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == first_start_lines(mode) + [line]
    since = len(daemon.stderr())
    assert send(daemon, "get", "device_status", device_id="0") == UNSUCCESSFUL % 13
    assert new_log_lines(daemon, since) == [line]
    box.set_temperature(51500)
    assert send(daemon, "get", "device_status", device_id="0") == b'{"result":{"temperature":"51","device_id":"0"}}'


# ---------------------------------------------------------------------------------------------
# HDMI inputs


@pytest.mark.parametrize("mode", MODES)
def test_input_status_reports_lock_and_video_format(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode)
    addr = INPUT_MODULES[mode][-1]
    number = str(len(INPUT_MODULES[mode]) - 1)
    box.module(addr).set_values({"status": {"lock": 0, "video_height": 576, "video_scan_mode": "i",
                                            "video_frame_rate": 25}})
    assert send(daemon, "get", "input_hdmi_status", input_id=number) == (
        b'{"result":{"lock":"0","video_format":"576i25","input_id":"%s"}}' % number.encode())
    assert send(daemon, "get", "input_hdmi_status", input_id="0") == (
        b'{"result":{"lock":"1","video_format":"1080p50","input_id":"0"}}' if mode != "ip_spts" else
        b'{"result":{"lock":"0","video_format":"576i25","input_id":"0"}}')


@pytest.mark.parametrize("mode", MODES)
def test_gop_size_keeps_its_low_8_bits_and_is_applied_by_the_poll_cycle(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode, "-v")
    addr = INPUT_MODULES[mode][0]
    clear_logs(box)
    assert send(daemon, "set", "input_hdmi_enc", input_id="0", video_gopsize="300") == b"{}"
    # The setter reaches the module before the reply; the apply follows in the poll cycle.
    assert frames(box, addr)[0] == ("set_video_gopsize", "230f012c0d")
    wait_for(lambda: module_parameters(box, addr)["video_gopsize"] == 44, what="GOP size applied")
    settle(box)
    assert changes(box, addr) == ["set_video_gopsize", "apply"]
    assert send(daemon, "get", "input_hdmi_enc", input_id="0") == b'{"result":{"video_gopsize":"44","input_id":"0"}}'
    assert re.search(re.escape(b"\n\r") + msg("<APPLY_REQUIRED> hal_input_hdmi (0)") + msg("<APPLY> hal_input_hdmi")
                     + msg("<APPLY_SETTINGS>") + msg("</APPLY_SETTINGS>") + msg("</APPLY> hal_input_hdmi")
                     + msg("</APPLY_REQUIRED> hal_input_hdmi (0)") + re.escape(b"\n\r"), daemon.stdout())


def test_input_service_set_needs_an_existing_service_tag(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    assert request(daemon.port, b'{"action":"set","object":"input_hdmi_ts","args":[{"input_id":"0"}]}') == error(
        "JSON command requires valid arguments (JSON object)")
    name = record_arg(daemon)
    assert send(daemon, "set", "input_hdmi_services", input_id="0", sid="9") == error(
        f"JSON command is missing a mandatory argument ({name})")
    name = record_arg(daemon)
    assert send(daemon, "set", "input_hdmi_services", input_id="0", service_tag="0", sid="9") == error(
        f"JSON command argument out of bounds ({name})")
    # Service tag 3 is the service of input 0.
    assert send(daemon, "set", "input_hdmi_services", input_id="0", service_tag="3", sid="0x19") == b"{}"
    assert get(daemon, "input_hdmi_services", input_id="0")["arrayedResult"][0]["sid"] == "25"


def test_input_stream_set_needs_both_tags(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    name = record_arg(daemon)
    assert send(daemon, "set", "input_hdmi_streams", input_id="1", stream_tag="5", pid="600") == error(
        f"JSON command is missing a mandatory argument ({name})")
    name = record_arg(daemon)
    assert send(daemon, "set", "input_hdmi_streams", input_id="1", service_tag="2", stream_tag="7",
                pid="600") == error(f"JSON command argument out of bounds ({name})")
    clear_logs(box)
    assert send(daemon, "set", "input_hdmi_streams", input_id="1", service_tag="2", stream_tag="5",
                pid="600") == b"{}"
    assert frames(box, 0x31)[0] == ("set_video_pid", "231c0202580d")
    wait_for(lambda: module_parameters(box, 0x31)["video_pid"] == 600, what="video PID applied")


def test_debug_code_set_without_state_is_a_json_error(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    clear_logs(box)
    since = len(daemon.stderr())
    assert send(daemon, "set", "debug_code", id="0", code="7") == JSON_ERROR
    assert new_log_lines(daemon, since) == [wrn_line("cmd_json_set_input_hdmi_hw_debug_code", "JSON error")]
    name = record_arg(daemon)
    reply = request(daemon.port, b'{"action":"set","object":"debug_code","args":{"id":"0","state":1,"code":"7"}}')
    assert reply == error(f"JSON command argument not found ({name})")
    assert not any(command.endswith("hw_debug_code") for command, _ in frames(box, 0x30))


def test_debug_code_set_reaches_the_module_and_forces_an_apply(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf", "-v")
    clear_logs(box)
    since = len(daemon.stderr())
    assert send(daemon, "set", "debug_code", id="2", code="50", state="1") == b"{}"
    assert frames(box, 0x32)[0] == ("set_hw_debug_code", "236b0232010d")
    assert new_log_lines(daemon, since) == [wrn_line("cmd_json_set_input_hdmi_hw_debug_code", "A")]
    # Nothing of the input's settings changed, yet it is applied.
    wait_for(lambda: ("apply", "2370000d") in frames(box, 0x32), what="apply after the debug code")
    settle(box)
    assert changes(box, 0x32) == ["set_hw_debug_code", "apply"]
    assert changes(box, 0x30) == [] and changes(box, 0x31) == [] and changes(box, 0x33) == []
    assert re.search(msg("<APPLY_REQUIRED> hal_input_hdmi (2)"), daemon.stdout())
    # The get always asks for code 50.
    clear_logs(box)
    assert send(daemon, "get", "debug_code", id="2") == b'{"result":{"state":"1","id":"2"}}'
    assert send(daemon, "set", "debug_code", id="2", code="9", state="0") == b"{}"
    assert send(daemon, "get", "debug_code", id="2") == b'{"result":{"state":"1","id":"2"}}'
    assert [frame for command, frame in frames(box, 0x32) if command == "get_hw_debug_code"] == [
        "23eb01320d", "23eb01320d"]
    assert box.module(0x32).state()["settings"]["debug_codes"] == {"9": 0, "50": 1}


# ---------------------------------------------------------------------------------------------
# RF outputs


def test_rf_type_and_fft_mode_take_only_their_texts(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf", "-v")
    clear_logs(box)
    assert send(daemon, "set", "output_rf_mod", output_id="0", type="DVB-T") == error(
        "JSON command argument out of bounds (type)")
    assert send(daemon, "set", "output_rf_mod", output_id="0", fftmode="4k") == error(
        "JSON command argument out of bounds (fftmode)")
    assert frames(box, 0x30) == []
    assert send(daemon, "set", "output_rf_mod", output_id="0", type="dvb-c", fftmode="2k") == b"{}"
    assert frames(box, 0x30)[:2] == [("set_output_type", "230101020d"), ("set_fftmode", "230901000d")]
    wait_for(lambda: module_parameters(box, 0x30)["output_type"] == 2, what="DVB-C applied")
    settle(box)
    # The closing line of the output's apply carries no object name.
    assert re.search(re.escape(b"\n\r") + msg("<APPLY_REQUIRED> hal_output_rf (0)") + msg("<APPLY> hal_output_rf")
                     + msg("<APPLY_SETTINGS>") + msg("</APPLY_SETTINGS>") + msg("</APPLY>")
                     + msg("</APPLY_REQUIRED> hal_output_rf (0)") + re.escape(b"\n\r"), daemon.stdout())


def test_a_module_in_4k_mode_fails_the_whole_output_get(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    box.module(0x32).set_values({"fftmode": 2})
    assert send(daemon, "get", "output_rf", output_id="1") == error("JSON command argument out of bounds (fftmode)")
    assert send(daemon, "get", "output_rf_mod", output_id="1") == error(
        "JSON command argument out of bounds (fftmode)")
    assert get(daemon, "output_rf_mod", output_id="0")["result"]["fftmode"] == "8k"


@pytest.mark.parametrize("frequency, level, sent", [
    ("474000", "-20", "f1"),  # offset 5
    ("500000", "-20", "f1"),
    ("500001", "-20", "f4"),  # offset 8
    ("999999", "-20", "f4"),
    ("1000000", "-20", "f6"),  # offset 10
    ("474000", "-10", "fb"),
    ("474000", "0x7f", "84"),  # 127 + 5 wraps
])
def test_rf_level_reaches_the_module_with_the_offset_of_its_frequency(make_box, tavid, frequency, level, sent):
    box, daemon = start(make_box, tavid, "rf")
    clear_logs(box)
    assert send(daemon, "set", "output_rf", output_id="0", frequency=frequency, level=level) == b"{}"
    frequency_frame = "230304" + int(frequency).to_bytes(4, "big").hex() + "0d"
    # Frequency first (table order), then the level at the frequency the module holds.
    assert frames(box, 0x30)[:3] == [("set_frequency", frequency_frame), ("get_frequency", "2383000d"),
                                     ("set_level", f"230201{sent}0d")]
    level_byte = int.from_bytes(bytes.fromhex(sent), "big", signed=True)
    wait_for(lambda: module_parameters(box, 0x30)["level"] == level_byte, what="level applied")
    settle(box)
    assert module_parameters(box, 0x30)["frequency"] == int(frequency)
    assert module_parameters(box, 0x30)["level"] == int.from_bytes(bytes.fromhex(sent), "big", signed=True)
    expected = str(int.from_bytes(int(level, 0).to_bytes(1, "big", signed=True), "big", signed=True))
    result = get(daemon, "output_rf_mod", output_id="0")["result"]
    assert (result["frequency"], result["level"]) == (frequency, expected)


def test_rf_numbers_are_cut_to_their_width(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    assert send(daemon, "set", "output_rf_mod", output_id="1", level="200", bandwidth="264",
                symbolrate="0x10001") == b"{}"
    result = get(daemon, "output_rf_mod", output_id="1")["result"]
    assert (result["level"], result["bandwidth"], result["symbolrate"]) == ("-56", "8", "1")
    assert send(daemon, "set", "output_rf_mod", output_id="1", frequency="12a") == error(
        "JSON command has an invalid argument (frequency)")
    reply = request(daemon.port, b'{"action":"set","object":"output_rf_mod","args":{"output_id":"1","level":3}}')
    assert reply == error("JSON command argument not found (level)")


def test_rf_status_overflow_and_configured_bitrate(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    box.module(0x30).set_values({"status": {"overflow": 2, "max_output_bitrate_kbps": 19000}})
    assert send(daemon, "get", "output_rf_status", output_id="0") == (
        b'{"result":{"max_bitrate":"19000","overflow":"no","bitrate":"0","output_id":"0"}}')
    box.module(0x30).set_values({"status": {"overflow": 1, "max_output_bitrate_kbps": 19000}})
    # Only the switched-on services count: HDMI 2 (tag 2) carries 8000 + 192 kbit/s.
    assert send(daemon, "set", "output_rf_services", output_id="0", service_tag="2", enabled="1") == b"{}"
    assert send(daemon, "get", "output_rf_status", output_id="0") == (
        b'{"result":{"max_bitrate":"19000","overflow":"yes","bitrate":"8192","output_id":"0"}}')
    assert send(daemon, "get", "output_rf_status", output_id="1") == (
        b'{"result":{"max_bitrate":"24128","overflow":"no","bitrate":"0","output_id":"1"}}')


def test_calibration_logs_its_traces_and_reaches_the_module(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    clear_logs(box)
    since = len(daemon.stderr())
    assert send(daemon, "set", "output_calibration", output_id="1", enabled="1", i="-3", q="0x7f") == b"{}"
    assert frames(box, 0x32)[0] == ("set_cal", "236103" + "01" + "fd" + "7f" + "0d")
    assert changes(box, 0x32) == ["set_cal"]
    assert new_log_lines(daemon, since) == [wrn_line("cmd_json_set_output_rf_cal", "B")]
    since = len(daemon.stderr())
    assert send(daemon, "get", "output_calibration", output_id="1") == b'{"result":{"i":"-3","q":"127","output_id":"1"}}'
    assert new_log_lines(daemon, since) == [wrn_line("cmd_json_get_output_rf_cal", "GET CAL")]
    since = len(daemon.stderr())
    assert send(daemon, "set", "output_calibration", output_id="1", enabled="1", i="1") == JSON_ERROR
    assert new_log_lines(daemon, since) == [wrn_line("cmd_json_set_output_rf_cal", "JSON error")]
    # A failing get still leaves its trace first.
    since = len(daemon.stderr())
    box.bus.set_absent(0x32)
    assert send(daemon, "get", "output_calibration", output_id="1") == UNSUCCESSFUL % 13
    assert new_log_lines(daemon, since) == [
        wrn_line("cmd_json_get_output_rf_cal", "GET CAL"),
        wrn_line("mod_tarn_get_cal", "mod_tarn_2 - Could not get calibration info (hdmi i2c error)")]


def test_on_an_rf_output_only_the_on_off_switch_of_a_service_lasts(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    assert send(daemon, "set", "output_rf_services", output_id="0", service_tag="1", service_name="mine",
                enabled="1") == b"{}"
    settle(box)
    services = {service["service_tag"]: service for service in
                get(daemon, "output_rf_services", output_id="0")["arrayedResult"]}
    assert (services["1"]["service_name"], services["1"]["enabled"]) == ("HDMI 3", "1")
    # Both multiplexers read the input and write its switch, the one synced last winning:
    # multiplexer 1, whose output has the service switched off.
    inputs = get(daemon, "input_hdmi_services", input_id="2")["arrayedResult"]
    assert [(service["service_tag"], service["enabled"]) for service in inputs] == [("1", "0")]


# ---------------------------------------------------------------------------------------------
# Services switched on at a multiplexer output reach the modules' PSI through the poll cycle


def psi(box, addr: int) -> list:
    return box.module(addr).psi()["services"]


def slot_of(index: int) -> dict:
    """A slot filled with the factory service of the module at board place `index`."""
    base = 0x100 * (index + 1)
    return {"enable": 1, "sid": index + 1, "lcn": index + 1, "service_name": f"HDMI {index + 1}", "pmt_pid": base,
            "video_pid": base + 1, "audio_pid": base + 2, "audio_stream_type": 0}


EMPTY_SLOT = {"enable": 0, "sid": 0, "lcn": 0, "service_name": "", "pmt_pid": 0, "video_pid": 0, "audio_pid": 0,
              "audio_stream_type": 0}


def own_service(addr: int, index: int, slot=None) -> dict:
    base = 0x100 * (index + 1)
    return {"slot": slot, "sid": index + 1, "lcn": index + 1, "service_name": f"HDMI {index + 1}",
            "pmt_pid": base, "streams": [{"pid": base + 2, "stream_type": 0x0F}, {"pid": base + 1, "stream_type": 0x1B}]}


def test_rf_multiplexers_each_choose_a_master_that_announces_the_other_service(make_box, tavid):
    box, daemon = start(make_box, tavid, "rf")
    clear_logs(box)
    # HDMI inputs 1 (tag 2) and 3 (tag 0) switched on on both outputs.
    for output in ("0", "1"):
        for tag in ("2", "0"):
            assert send(daemon, "set", "output_rf_services", output_id=output, service_tag=tag, enabled="1") == b"{}"
    wait_for(lambda: slots(box, 0x31)[0]["enable"] == 1 and slots(box, 0x33)[0]["enable"] == 1,
             what="slots of both masters")
    settle(box)
    # Multiplexer 0 (output 0) is synced first and takes input 1; multiplexer 1 finds it taken
    # and takes input 3. Each master announces the other service in its first slot.
    assert slots(box, 0x31) == [slot_of(3), dict(EMPTY_SLOT), dict(EMPTY_SLOT)]
    assert slots(box, 0x33) == [slot_of(1), dict(EMPTY_SLOT), dict(EMPTY_SLOT)]
    assert slots(box, 0x30) == [EMPTY_SLOT] * 3 and slots(box, 0x32) == [EMPTY_SLOT] * 3
    assert psi(box, 0x30) == [own_service(0x30, 0)] and psi(box, 0x32) == [own_service(0x32, 2)]
    enabled = [(service["input_id"], service["enabled"]) for service in
               get(daemon, "input_hdmi_services")["arrayedResult"]]
    assert enabled == [("0", "0"), ("1", "1"), ("2", "0"), ("3", "1")]
    for output in ("0", "1"):
        assert get(daemon, "output_rf_status", output_id=output)["result"]["bitrate"] == "16384"
    # The slot is filled with the service's values, its streams in the multiplexer's order
    # (audio, then video), the audio type as the module numbers it.
    slot = [(command, frame) for command, frame in frames(box, 0x31) if "extra" in command]
    first = slot.index(("set_extra_service_info_sid", "2363030000040d"))
    assert slot[first:first + 10] == [
        ("set_extra_service_info_sid", "2363030000040d"),
        ("set_extra_service_info_lcn", "2364030000040d"),
        ("set_extra_service_info_service_name", "23650700" + b"HDMI 4".hex() + "0d"),
        ("set_extra_service_info_pmt_pid", "2366030004000d"),
        ("set_extra_service_info_audio_pid", "2368030004020d"),
        ("set_extra_service_info_audio_stream_type", "236902" + "00" + "000d"),
        ("set_extra_service_info_video_pid", "2367030004010d"),
        ("set_extra_service_info_enable", "23620200010d"),
        ("set_extra_service_info_enable", "23620201000d"),
        ("set_extra_service_info_enable", "23620202000d")]


def test_ip_mpts_multiplexer_master_announces_every_other_switched_on_service(make_box, tavid):
    box, daemon = start(make_box, tavid, "ip_mpts", "-v")
    since_out, since_err = len(daemon.stdout()), len(daemon.stderr())
    # Input 0's service (tag 3) first, so that no other input is ever the master: a former
    # master keeps the extra services it was last given.
    for tag in ("3", "2", "1", "0"):
        assert send(daemon, "set", "output_ip_services", output_id="0", service_tag=tag, enabled="1") == b"{}"
    barrier(daemon, 2)
    # Input 0 is the master; the slots follow the multiplexer's list, where the service of the
    # input mirrored last stands first: inputs 3, 2, 1.
    assert slots(box, 0x30) == [slot_of(3), slot_of(2), slot_of(1)]
    for addr in (0x31, 0x32, 0x33):
        assert slots(box, addr) == [EMPTY_SLOT] * 3
    # The slots take effect with the module's next apply, which a change of its input brings.
    assert send(daemon, "set", "input_hdmi_enc", input_id="0", video_gopsize="24") == b"{}"
    barrier(daemon, 2)
    assert psi(box, 0x30) == [own_service(0x30, 0), own_service(0x33, 3, slot=0), own_service(0x32, 2, slot=1),
                              own_service(0x31, 1, slot=2)]
    # Each switch is synced by the multiplexer once, with input 0 its master and the PSI of
    # every other input switched on blocked: none, then one, two and three of them. Each sync
    # gives the master's module all the other services again, the one mirrored last first.
    out = daemon.stdout()[since_out:]
    assert count(msg("Enable TSIN (MASTER)"), out) == 4
    assert count(msg("PID filter (BLOCK PSI PIDs)"), out) == 0 + 1 + 2 + 3
    for slot, name in enumerate(("HDMI 4", "HDMI 3", "HDMI 2")):
        assert count(msg(f'Add PSI for service ["{name}"] (slot: {slot})'), out) == 1
    assert new_log_lines(daemon, since_err) == [PSI_SYNCED] * 4


def test_ip_spts_announces_no_extra_service(make_box, tavid):
    box, daemon = start(make_box, tavid, "ip_spts", "-v")
    clear_logs(box)
    since_out, since_err = len(daemon.stdout()), len(daemon.stderr())
    assert send(daemon, "set", "output_ip_services", output_id="0", service_tag="0", enabled="1") == b"{}"
    barrier(daemon, 2)
    assert any(command == "apply" for command, _ in frames(box, 0x32))
    assert psi(box, 0x32) == [own_service(0x32, 0)]
    assert [frame for command, frame in frames(box, 0x32) if command == "set_extra_service_info_enable"] == [
        "236202" + f"{slot:02x}" + "000d" for slot in range(3)]
    # One sync: the output's TS identity goes back to the module, followed by a message line
    # without text, and every slot of the module is emptied.
    out = new_messages(daemon, since_out)
    first = out.index("<SYNC> hal_output_ip")
    assert out.count("<SYNC> hal_output_ip") == 1
    assert out[first:out.index("</SYNC> hal_output_ip") + 1] == [
        "<SYNC> hal_output_ip", "<SYNC_TSOUT>", 'Update service (tag: 0, name: "HDMI 1", enabled: 1)', "</SYNC_TSOUT>",
        "<SYNC_TSIN>",
        'Update TSIN (TSID: 0, ONID: 0, NID: 0, private_data_spec: 0, network_name: "", network_version: 0)', "",
        'Update service (tag: 0, name: "HDMI 1", enabled: 1)', "Update PSI", "<SYNC_PSI> hal_mod_tarn",
        "Remove PSI (slot: 0)", "Remove PSI (slot: 1)", "Remove PSI (slot: 2)", "</SYNC_PSI> hal_mod_tarn",
        "</SYNC_TSIN>", "</SYNC> hal_output_ip"]
    assert new_log_lines(daemon, since_err) == [PSI_SYNCED]


@pytest.mark.parametrize("mode, obj, number, first_sync, output", [
    ("rf", "input_hdmi_services", "1", "hal_tsmux_5x1 (0)", "hal_output_rf (0)"),
    ("ip_mpts", "input_hdmi_services", "1", "hal_tsmux_5x1 (0)", "hal_output_ip (0)"),
    ("ip_spts", "input_hdmi_services", "0", "hal_output_ip (0)", "hal_output_ip (0)"),
])
def test_a_changed_input_service_is_synced_through_to_the_output_before_the_input_is_applied(
        make_box, tavid, mode, obj, number, first_sync, output):
    box, daemon = start(make_box, tavid, mode, "-v")
    tag = get(daemon, obj, input_id=number)["arrayedResult"][0]["service_tag"]
    mark = len(daemon.stdout())
    assert send(daemon, "set", obj, input_id=number, service_tag=tag, sid="0x99") == b"{}"
    barrier(daemon, 2)
    addr = INPUT_MODULES[mode][int(number)]
    assert module_parameters(box, addr)["sid"] == 0x99
    required = [text for text in new_messages(daemon, mark) if text.startswith(("<SYNC_REQUIRED>", "<APPLY_REQUIRED>"))]
    syncs = [text for text in required if text.startswith("<SYNC_REQUIRED>")]
    assert syncs[0] == f"<SYNC_REQUIRED> {first_sync}" and f"<SYNC_REQUIRED> {output}" in syncs
    # Nothing is applied before the last sync; then the input, and an IP output whose offered
    # service changed (an RF output only syncs such a change).
    applies = [f"<APPLY_REQUIRED> {output}"] if output.startswith("hal_output_ip") else []
    assert required == syncs + applies + [f"<APPLY_REQUIRED> hal_input_hdmi ({number})"]
    name = "output_rf_services" if mode == "rf" else "output_ip_services"
    services = get(daemon, name, output_id="0")["arrayedResult"]
    assert [service["sid"] for service in services if service["service_tag"] == tag] == ["153"]


# ---------------------------------------------------------------------------------------------
# IP outputs


@pytest.mark.parametrize("mode", ["ip_spts", "ip_mpts"])
def test_destination_texts_are_cut_to_their_buffers(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode)
    assert send(daemon, "set", "output_ip_dst", output_id="0", dst_addr="255.255.255.255", dst_port="65535") == b"{}"
    assert send(daemon, "get", "output_ip_dst", output_id="0") == (
        b'{"result":{"dst_addr":"255.255.255.255","dst_port":"65535","output_id":"0"}}')
    assert send(daemon, "set", "output_ip_dst", output_id="0", dst_addr="239.100.100.100:1234",
                dst_port="123456") == b"{}"
    assert send(daemon, "get", "output_ip_dst", output_id="0") == (
        b'{"result":{"dst_addr":"239.100.100.100","dst_port":"12345","output_id":"0"}}')
    reply = request(daemon.port, b'{"action":"set","object":"output_ip_dst","args":{"output_id":"0","dst_addr":1}}')
    assert reply == error("JSON command has an invalid argument (dst_addr)")


@pytest.mark.parametrize("mode", ["ip_spts", "ip_mpts"])
def test_ip_ts_identity_reaches_the_module_that_makes_the_psi(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode)
    tag = "0" if mode == "ip_spts" else "3"  # the service of input 0
    assert send(daemon, "set", "output_ip_ts", output_id="0", tsid="0x1F", onid="017", nid="", network_name="n" * 20,
                network_version="257") == b"{}"
    assert send(daemon, "set", "output_ip_services", output_id="0", service_tag=tag, enabled="1") == b"{}"
    addr = INPUT_MODULES[mode][0]
    wait_for(lambda: module_parameters(box, addr)["tsid"] == 31, what="identity applied")
    settle(box)
    parameters = module_parameters(box, addr)
    # The module takes names of up to 15 characters.
    assert (parameters["tsid"], parameters["onid"], parameters["nid"], parameters["network_name"],
            parameters["network_version"]) == (31, 15, 0, "n" * 15, 1)
    assert send(daemon, "get", "output_ip_ts", output_id="0") == (
        b'{"result":{"ts_tag":"%s","tsid":"31","onid":"15","nid":"0","private_data_specifier":"0","network_name":"%s",'
        b'"network_version":"1","output_id":"0"}}' % (b"1" if mode == "ip_spts" else b"5", b"n" * 20))


def test_a_ts_tag_in_a_set_is_ignored(make_box, tavid):
    box, daemon = start(make_box, tavid, "ip_spts")
    assert send(daemon, "set", "output_ip_ts", output_id="0", ts_tag="9", tsid="5") == b"{}"
    assert get(daemon, "output_ip_ts", output_id="0")["result"]["ts_tag"] == "1"


# ---------------------------------------------------------------------------------------------
# Interface configuration through the network-settings service


@pytest.fixture
def net_box():
    """Factory of IP SPTS boxes that also serve the network-settings service on its fixed port,
    waiting a while for the port when another box still holds it."""
    boxes = []

    def make() -> tavisim.Box:
        deadline = time.monotonic() + 60
        while True:
            box = tavisim.Box(tempfile.mkdtemp(prefix="tv", dir="/tmp"), "ip_spts", netsettings=True)
            try:
                boxes.append(box.start())
                return box
            except OSError:
                shutil.rmtree(box.root, ignore_errors=True)
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.5)

    yield make
    for box in boxes:
        remove_box(box)


def net_daemon(net_box, tavid):
    box = net_box()
    daemon = tavid(box, ["-m", "ip_spts"])
    ready(box, daemon)
    return box, daemon


ETH1 = {"dhcp": "0", "address": "10.10.10.10", "netmask": "255.255.255.0", "gateway": "10.10.10.1", "dns": "10.10.10.1"}
GET_REQUEST = '{"action":"GET","object":"/unified_services/ip/settings","args":{}}'


def test_ifconfig_get_returns_eth1_without_its_name(net_box, tavid):
    box, daemon = net_daemon(net_box, tavid)
    assert send(daemon, "get", "output_ip_ifconfig") == json.dumps({"result": ETH1}, separators=(",", ":")).encode()
    assert [exchange["request"] for exchange in box.netsettings.exchanges()] == [GET_REQUEST]
    # The last eth1 wins; an entry without a name is passed over.
    box.netsettings.set_interfaces([{"interface": "eth1", "address": "1.1.1.1"}, {"address": "9.9.9.9"},
                                    {"interface": "eth1", "address": "2.2.2.2"}, {"interface": "eth0"}])
    assert send(daemon, "get", "output_ip_ifconfig") == b'{"result":{"address":"2.2.2.2"}}'


def test_ifconfig_set_posts_for_eth1_and_restarts_the_interface(net_box, tavid):
    box, daemon = net_daemon(net_box, tavid)
    assert send(daemon, "set", "output_ip_ifconfig", interface="eth0", address="10.0.0.5") == b"{}"
    (exchange,) = box.netsettings.exchanges()
    assert exchange["request"] == ('{"action":"POST","object":"/unified_services/ip/settings",'
                                   '"args":[{"interface":"eth1","address":"10.0.0.5"}]}')
    assert [(name, args) for _, name, args in box.calls()] == [("network_eth1", ["restart"])]
    assert box.netsettings.interfaces()[1]["address"] == "10.0.0.5"
    assert box.netsettings.interfaces()[0]["address"] == "192.168.1.100"
    # The accepted set rewrote the settings file, which has no record of the interface.
    assert [record["object"] for record in box.stored_settings()["records"]] == ["device", "input_hdmi", "output_ip"]


def test_ifconfig_set_refused_by_the_service_does_not_restart(net_box, tavid):
    box, daemon = net_daemon(net_box, tavid)
    assert send(daemon, "set", "output_ip_ifconfig", address="10.0.0") == UNSUCCESSFUL % 13
    assert box.calls() == []
    box.set_script_status("network_eth1", 1)
    assert send(daemon, "set", "output_ip_ifconfig", address="10.0.0.6") == UNSUCCESSFUL % 13
    assert [name for _, name, _ in box.calls()] == ["network_eth1"]


def test_ifconfig_with_the_service_down_fails_and_warns(net_box, tavid):
    box, daemon = net_daemon(net_box, tavid)
    box.netsettings.set_fault("down")
    since = len(daemon.stderr())
    assert send(daemon, "get", "output_ip_ifconfig") == UNSUCCESSFUL % 13
    assert send(daemon, "set", "output_ip_ifconfig", address="10.0.0.7") == UNSUCCESSFUL % 13
    text = "Could not connect to TCP command interface on localhost:49998"
    assert new_log_lines(daemon, since) == [
        wrn_line("inet_create_tcp_client_socket", "Could not connect socket"),
        wrn_line("cmd_json_get_output_ip_ifconfig", text),
        wrn_line("inet_create_tcp_client_socket", "Could not connect socket"),
        wrn_line("cmd_json_set_output_ip_ifconfig", text)]
    assert box.calls() == []


def test_ifconfig_answer_that_is_not_json_is_a_json_error(net_box, tavid):
    box, daemon = net_daemon(net_box, tavid)
    box.netsettings.set_fault("garbage", garbage="<html>")
    since = len(daemon.stderr())
    assert send(daemon, "get", "output_ip_ifconfig") == JSON_ERROR
    assert send(daemon, "set", "output_ip_ifconfig", address="10.0.0.8") == JSON_ERROR
    assert new_log_lines(daemon, since) == [wrn_line("cmd_json_get_output_ip_ifconfig", "JSON error"),
                                            wrn_line("cmd_json_set_output_ip_ifconfig", "JSON error")]
    assert box.calls() == []


def test_ifconfig_service_that_never_answers_times_out_after_5_s(net_box, tavid):
    box, daemon = net_daemon(net_box, tavid)
    box.netsettings.set_fault("silent")
    since = len(daemon.stderr())
    started = time.monotonic()
    reply = send(daemon, "get", "output_ip_ifconfig")
    assert NETSETTINGS_WAIT <= time.monotonic() - started < NETSETTINGS_WAIT + SLOW
    # The get produced no value: there is nothing to put under "result".
    assert reply == b'{"warningCode":1103,"description":"JSON command unsuccessful (error: 8)"}'
    assert new_log_lines(daemon, since) == [wrn_line(
        "cmd_json_get_output_ip_ifconfig", "Timeout while waiting for POLL response on TCP command interface")]
