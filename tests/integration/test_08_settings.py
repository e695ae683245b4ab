"""The settings file in every output mode: what a store writes byte for byte, what a restore
at start-up makes of good, broken and foreign files, a daemon started again on the same root,
the reset levels, and a change of output mode through the device object."""

import json
import os
import re
import signal
from pathlib import Path

import pytest

import tavisim
from conftest import (MODES, TS_TRACES, UNSUCCESSFUL, barrier, error, first_start_lines, get, led_cleared, log_lines,
                      msg, new_log_lines, record_arg, request, restarted_pid, send, settings_text, settle, start_ready,
                      tcp_listening, wait_for, wrn_line)

SETTINGS = "data/settings.conf"
STORE = b'{"action":"execute","object":"store_settings","args":{}}'
RESTORE = b'{"action":"execute","object":"restore_settings","args":{}}'
# The warning lines of a restore, without the letter that ends every PSI sync: the restored
# settings bring syncs of their own, which the tests of the objects count.
RESTORE_TRACES = (*TS_TRACES, "hal_mod_tarn_sync_psi")

# The objects whose gets must come back the same from a daemon started again, by mode.
STATE_OBJECTS = {
    "rf": ("device", "input_hdmi", "input_hdmi_services", "input_hdmi_streams", "debug_code", "output_rf",
           "output_rf_services", "output_calibration"),
    "ip_spts": ("device", "input_hdmi", "input_hdmi_services", "input_hdmi_streams", "debug_code", "output_ip",
                "output_ip_services"),
    "ip_mpts": ("device", "input_hdmi", "input_hdmi_services", "input_hdmi_streams", "debug_code", "output_ip",
                "output_ip_services"),
}


# ---------------------------------------------------------------------------------------------
# Helpers


def defaults(box, mode: str) -> bytes:
    return Path(box.path(f"opt/bin/default_settings_{mode}.conf")).read_bytes()


def stored(box) -> bytes:
    return Path(box.path(SETTINGS)).read_bytes()


def put_settings(box, text: bytes):
    Path(box.path(SETTINGS)).write_bytes(text)


def records(text: bytes) -> list:
    """The records of a settings file, without their "\\n\\r" ends."""
    assert text.endswith(b"\n\r")
    return text.split(b"\n\r")[:-1]


def restore_warning(record: bytes) -> tuple:
    return wrn_line("cmd_restore_settings", "Could not restore: " + record.decode())


def restore_lines(daemon) -> list:
    return log_lines(daemon.stderr(), leave_out=RESTORE_TRACES)


def start(make_box, tavid, mode: str, *args, settings: bytes | None = None, box=None):
    """A daemon ready on the box (a new one unless given) with these settings stored (None: no
    settings file), and the bus at rest after their restore: (box, daemon)."""
    prepare = None if settings is None else (lambda box: put_settings(box, settings))
    return start_ready(make_box, tavid, mode, *args, prepare=prepare, box=box, at_rest=True)


def state(daemon, mode: str) -> dict:
    return {obj: send(daemon, "get", obj) for obj in STATE_OBJECTS[mode]}


# ---------------------------------------------------------------------------------------------
# Store and restore


@pytest.mark.parametrize("mode", MODES)
def test_a_first_start_stores_nothing_until_asked(make_box, tavid, mode):
    box, daemon = start(make_box, tavid, mode)
    assert not os.path.exists(box.path(SETTINGS))
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == first_start_lines(mode)
    assert request(daemon.port, STORE) == b"{}"
    assert stored(box) == settings_text(daemon)
    written = records(stored(box))
    assert [json.loads(record)["object"] for record in written] == [
        json.loads(record)["object"] for record in records(defaults(box, mode))]
    assert written[0] == b'{"action":"set","object":"device","args":{"output_mode":"%s","device_id":"0"}}' % mode.encode()


@pytest.mark.parametrize("mode", MODES)
def test_restoring_the_factory_file_and_storing_again_gives_the_same_bytes(make_box, tavid, mode):
    box = make_box(mode)
    factory = defaults(box, mode)
    box, daemon = start(make_box, tavid, mode, "-v", settings=factory, box=box)
    assert re.search(msg("Restoring settings... (/data/settings.conf)"), daemon.stdout())
    # Only the device record is refused: the output mode is not a setting.
    assert restore_lines(daemon) == [restore_warning(records(factory)[0])]
    # Restoring writes nothing.
    assert stored(box) == factory
    assert request(daemon.port, STORE) == b"{}"
    assert stored(box) == factory
    assert re.search(msg("Storing settings... (/data/settings.conf)"), daemon.stdout())


# One change per mode: the object, its arguments, and the text it changes in the stored record.
CHANGES = {
    "rf": [("input_hdmi_enc", {"input_id": "1", "video_gopsize": "31"}, 2, '"video_gopsize":"25"', '"video_gopsize":"31"'),
           ("output_rf_mod", {"output_id": "1", "frequency": "498000"}, 6, '"frequency":"490000"', '"frequency":"498000"')],
    "ip_spts": [("input_hdmi_enc", {"input_id": "0", "video_gopsize": "31"}, 1, '"video_gopsize":"25"',
                 '"video_gopsize":"31"'),
                ("output_ip_dst", {"output_id": "0", "dst_port": "6000"}, 2, '"dst_port":"5000"', '"dst_port":"6000"')],
    "ip_mpts": [("input_hdmi_enc", {"input_id": "3", "video_gopsize": "31"}, 4, '"video_gopsize":"25"',
                 '"video_gopsize":"31"'),
                ("output_ip_dst", {"output_id": "0", "dst_addr": "239.9.9.9"}, 5, '"dst_addr":"239.0.0.1"',
                 '"dst_addr":"239.9.9.9"')],
}


def changed(text: bytes, index: int, old: str, new: str) -> bytes:
    lines = records(text)
    assert lines[index].count(old.encode()) == 1
    lines[index] = lines[index].replace(old.encode(), new.encode())
    return b"".join(line + b"\n\r" for line in lines)


@pytest.mark.parametrize("mode", MODES)
def test_every_accepted_set_rewrites_the_whole_file(make_box, tavid, mode):
    box = make_box(mode)
    expected = defaults(box, mode)
    box, daemon = start(make_box, tavid, mode, settings=expected, box=box)
    for obj, args, index, old, new in CHANGES[mode]:
        assert send(daemon, "set", obj, **args) == b"{}"
        expected = changed(expected, index, old, new)
        assert stored(box) == expected
    # A refused set leaves the file as it was.
    Path(box.path(SETTINGS)).write_bytes(b"kept")
    assert send(daemon, "set", "input_hdmi_enc", input_id="0", video_gopsize="x") == error(
        "JSON command has an invalid argument (video_gopsize)")
    assert stored(box) == b"kept"


@pytest.mark.parametrize("mode", MODES)
def test_a_daemon_started_again_on_the_same_root_answers_the_same(make_box, tavid, mode):
    box = make_box(mode)
    box, first = start(make_box, tavid, mode, settings=defaults(box, mode), box=box)
    for obj, args, _, _, _ in CHANGES[mode]:
        assert send(first, "set", obj, **args) == b"{}"
    settle(box)
    before, text = state(first, mode), stored(box)
    assert first.stop() == 0
    Path(box.path(tavisim.ALARM_LEDS[mode] + "/brightness")).write_text("1\n")
    box, second = start(make_box, tavid, mode, box=box)
    assert state(second, mode) == before
    assert stored(box) == text


@pytest.mark.parametrize("mode", MODES)
def test_restore_on_request_answers_ok_although_the_device_record_is_refused(make_box, tavid, mode):
    box = make_box(mode)
    factory = defaults(box, mode)
    box, daemon = start(make_box, tavid, mode, settings=factory, box=box)
    since = len(daemon.stderr())
    assert request(daemon.port, RESTORE) == b"{}"
    assert new_log_lines(daemon, since) == [restore_warning(records(factory)[0])]
    assert stored(box) == factory


# ---------------------------------------------------------------------------------------------
# Bad settings files at start-up


def truncated_third(text: bytes) -> bytes:
    """The first two records whole, then half of the third."""
    lines = records(text)
    return lines[0] + b"\n\r" + lines[1] + b"\n\r" + lines[2][:len(lines[2]) // 2]


@pytest.mark.parametrize("mode", MODES)
def test_a_truncated_third_record_ends_the_restore_after_two(make_box, tavid, mode):
    box = make_box(mode)
    factory = changed(defaults(box, mode), 1, '"video_gopsize":"25"', '"video_gopsize":"33"')
    third = records(factory)[2]
    box, daemon = start(make_box, tavid, mode, settings=truncated_third(factory), box=box)
    assert restore_lines(daemon) == [restore_warning(records(factory)[0])]
    # Record two (HDMI input 0) was applied; the third was not.
    assert get(daemon, "input_hdmi_enc", input_id="0")["result"]["video_gopsize"] == "33"
    if b'"output_ip"' in third:
        assert get(daemon, "output_ip_dst", output_id="0")["result"]["dst_addr"] == ""
    else:
        assert json.loads(third[:third.index(b',"ts"')] + b"}}")["object"] == "input_hdmi"
        assert get(daemon, "input_hdmi_services", input_id="1")["arrayedResult"][0]["enabled"] == "0"


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("text", [b"", b"not json at all", b"\n\r\n\r", b"[1, 2]"], ids=["empty", "garbage",
                                                                                          "blank", "array"])
def test_a_file_without_records_restores_nothing_and_warns_nothing(make_box, tavid, mode, text):
    box, daemon = start(make_box, tavid, mode, settings=text)
    # An array is a value, handed on as it is and refused; anything else ends the file.
    assert restore_lines(daemon) == ([restore_warning(b"[1,2]")] if text == b"[1, 2]" else [])
    assert get(daemon, "input_hdmi_enc", input_id="0")["result"]["video_gopsize"] == "25"
    assert stored(box) == text


# A daemon started with another mode's factory file, and the records it refuses: the device
# record always; an HDMI input record whose service tags are another mode's; the records of
# instances that do not exist in this mode. IP MPTS takes the IP SPTS output record: its
# output exists and offers a service with tag 0.
FOREIGN = [("rf", "ip_spts", [0, 1, 2]), ("ip_spts", "rf", [0, 1, 2, 3, 4, 5, 6]), ("ip_mpts", "ip_spts", [0, 1])]


@pytest.mark.parametrize("mode, other, refused", FOREIGN)
def test_another_modes_file_is_refused_record_by_record(make_box, tavid, mode, other, refused):
    box = make_box(mode)
    foreign = defaults(box, other)
    box, daemon = start(make_box, tavid, mode, settings=foreign, box=box)
    lines = records(foreign)
    assert restore_lines(daemon) == [restore_warning(lines[index]) for index in refused]
    assert get(daemon, "device", device_id="0")["result"]["output_mode"] == mode
    assert box.calls() == []
    assert stored(box) == foreign


def test_a_settings_path_that_cannot_be_read_warns_and_the_store_then_fails(make_box, tavid):
    box = make_box("rf")
    os.mkdir(box.path(SETTINGS))
    box, daemon = start(make_box, tavid, "rf", box=box)
    assert restore_lines(daemon) == [wrn_line("cmd_restore_settings", "Error while reading settings file..."),
                                     wrn_line("main", "Could not restore settings...")]
    # The set is applied all the same; only its storing failed.
    since = len(daemon.stderr())
    assert send(daemon, "set", "input_hdmi_enc", input_id="0", video_gopsize="40") == UNSUCCESSFUL % 14
    assert new_log_lines(daemon, since) == [
        wrn_line("cmd_store_settings", "Could not open settings file for storing...")]
    assert get(daemon, "input_hdmi_enc", input_id="0")["result"]["video_gopsize"] == "40"
    assert request(daemon.port, STORE) == UNSUCCESSFUL % 14
    assert os.path.isdir(box.path(SETTINGS))


# ---------------------------------------------------------------------------------------------
# Reset


@pytest.mark.parametrize("mode", MODES)
def test_a_reset_level_out_of_range_does_nothing(make_box, tavid, mode):
    box = make_box(mode)
    box, daemon = start(make_box, tavid, mode, settings=defaults(box, mode), box=box)
    name = record_arg(daemon)
    for level in ("4", "-1", "0x10", ""):
        assert send(daemon, "execute", "reset", level=level) == error(f"JSON command argument out of bounds ({name})")
    reply = request(daemon.port, b'{"action":"execute","object":"reset","args":{"level":2}}')
    assert reply == error(f"JSON command is missing a mandatory argument ({name})")
    assert box.calls() == []
    assert stored(box) == defaults(box, mode)
    assert daemon.running()


def test_a_failing_reboot_fails_the_reset_after_the_files_are_gone(make_box, tavid):
    box = make_box("rf")
    box.set_script_status("reboot", 1)
    box, daemon = start(make_box, tavid, "rf", settings=defaults(box, "rf"), box=box)
    Path(box.path("data/network_eth1.conf")).write_text("x")
    assert send(daemon, "execute", "reset", level="2") == UNSUCCESSFUL % 13
    assert [(name, args) for _, name, args in box.calls()] == [("reboot", [])]
    assert os.listdir(box.path("data")) == []
    assert daemon.running()


# ---------------------------------------------------------------------------------------------
# A change of output mode


@pytest.mark.parametrize("mode, new", [("rf", "ip_spts"), ("rf", "ip_mpts"), ("ip_mpts", "rf"),
                                       ("ip_mpts", "ip_spts")])
def test_a_mode_change_restarts_the_daemon_in_the_new_mode_with_its_defaults(make_box, tavid, mode, new):
    box, daemon = start(make_box, tavid, mode)
    for led in set(tavisim.ALARM_LEDS.values()):
        Path(box.path(led + "/brightness")).write_text("1\n")
    assert send(daemon, "execute", "device", device_id="0", output_mode=new) == b"{}"
    assert daemon.wait() == 0
    assert stored(box) == defaults(box, new)
    assert [(name, args) for _, name, args in box.calls()] == [("tavid", ["restart"])]
    wait_for(lambda: restarted_pid(box) is not None, what="restarted daemon")
    pid = restarted_pid(box)
    wait_for(lambda: tcp_listening(daemon.port) and led_cleared(box, new), timeout=20, what="new daemon ready")
    assert Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[-3:-1] == [b"-m", new.encode()]
    settle(box)
    assert get(daemon, "device", device_id="0") == {"result": {"output_mode": new, "device_id": "0"}}
    # The new daemon runs the new mode's objects with its defaults restored.
    assert request(daemon.port, STORE) == b"{}"
    assert stored(box) == defaults(box, new)
    os.kill(pid, signal.SIGTERM)
    wait_for(lambda: not tavisim.process_running(pid), what="new daemon ended")


@pytest.mark.parametrize("mode", MODES)
def test_a_failing_copy_of_the_defaults_changes_nothing(make_box, tavid, mode):
    box = make_box(mode)
    factory = defaults(box, mode)
    new = "rf" if mode != "rf" else "ip_mpts"
    os.remove(box.path(f"opt/bin/default_settings_{new}.conf"))
    box, daemon = start(make_box, tavid, mode, settings=factory, box=box)
    assert send(daemon, "execute", "device", device_id="0", output_mode=new) == UNSUCCESSFUL % 13
    barrier(daemon)  # a restart would have ended the main loop before it served this
    assert daemon.running()
    assert box.calls() == []
    assert stored(box) == factory
    assert get(daemon, "device", device_id="0")["result"]["output_mode"] == mode
