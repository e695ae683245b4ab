"""Requests checked in order, answered byte for byte."""

import json
from pathlib import Path

import pytest

from conftest import error, request, settings_text


def warning(description: str) -> bytes:
    return json.dumps({"warningCode": 1103, "description": description}, separators=(",", ":")).encode()


INVALID = error("JSON command is invalid (JSON object)")


@pytest.mark.parametrize("text, reply", [
    (b"not json", INVALID),
    (b"[]", INVALID),
    (b'"get"', INVALID),
    (b"42", INVALID),
    (b"{", INVALID),
    (b'{"action":"get"\x00,"object":"device","args":{}}', INVALID),
    (b'{"object":"device","args":{}}', error("JSON command requires a valid action (JSON string)")),
    (b'{"action":7,"object":"device","args":{}}', error("JSON command requires a valid action (JSON string)")),
    (b'{"action":"get","object":"device"}', error("JSON command requires valid arguments (JSON object)")),
    (b'{"action":"get","args":{}}', error("JSON command requires a valid object (JSON string)")),
    (b'{"action":"get","object":["device"],"args":{}}', error("JSON command requires a valid object (JSON string)")),
    (b'{"action":"get","object":"nope","args":{}}', error("JSON command has an unknown object (nope)")),
    (b'{"action":"get","object":"Device","args":{}}', error("JSON command has an unknown object (Device)")),
    (b'{"action":"set","object":"device_status","args":{}}', error("JSON command has an unknown action (set)")),
    (b'{"action":"Execute","object":"reset","args":{}}', error("JSON command has an unknown action (Execute)")),
    (b'{"action":"execute","object":"store_settings","args":{},"arrayedArgs":[]}',
     error("JSON command requires valid arguments (JSON object)")),
    (b'{"action":"execute","object":"store_settings","args":[]}',
     error("JSON command requires valid arguments (JSON object)")),
    (b'{"action":"execute","object":"reset","args":{"level":"4"}}', error("JSON command argument out of bounds ((null))")),
    (b'{"action":"execute","object":"reset","args":{"level":2}}',
     error("JSON command is missing a mandatory argument ((null))")),
    (b'{"action":"get","object":"device","args":{}} and then some',
     b'{"arrayedResult":[{"output_mode":"rf","device_id":"0"}]}'),
])
def test_request_checks(box, tavid, text, reply):
    daemon = tavid(box)
    assert request(daemon.port, text) == reply


def test_store_settings_writes_one_set_request_per_instance_in_table_order(box, tavid):
    daemon = tavid(box)
    assert request(daemon.port, b'{"action":"execute","object":"store_settings","args":{}}') == b"{}"
    text = Path(box.path("/data/settings.conf")).read_bytes()
    assert text.endswith(b"\n\r")
    records = [json.loads(line) for line in text.split(b"\n\r")[:-1]]
    assert [(r["action"], r["object"], list(r["args"])[-1], r["args"][list(r["args"])[-1]]) for r in records] == [
        ("set", "device", "device_id", "0"),
        ("set", "input_hdmi", "input_id", "0"), ("set", "input_hdmi", "input_id", "1"),
        ("set", "input_hdmi", "input_id", "2"), ("set", "input_hdmi", "input_id", "3"),
        ("set", "output_rf", "output_id", "0"), ("set", "output_rf", "output_id", "1"),
    ]
    assert text == settings_text(daemon)


def test_execute_takes_arrayed_args_element_by_element(box, tavid):
    daemon = tavid(box)
    text = b'{"action":"execute","object":"reset","arrayedArgs":[{"level":"0"},{"level":"9"},{"level":"0"}]}'
    assert request(daemon.port, text) == error("JSON command argument out of bounds ((null))")
    assert [name for _, name, _ in box.calls()] == ["reboot"]


def test_restore_settings_on_request(box, tavid):
    daemon = tavid(box)
    restore = b'{"action":"execute","object":"restore_settings","args":{}}'
    assert request(daemon.port, restore) == warning("JSON command unsuccessful (error: 14)")
    Path(box.path("/data/settings.conf")).write_bytes(b"")
    assert request(daemon.port, restore) == b"{}"


@pytest.mark.parametrize("level, removed, kept", [
    ("0", [], ["settings.conf", "interface.eth0"]),
    ("1", ["interface.eth0", "network.conf"], ["settings.conf", "interface.eth1"]),
    ("2", ["settings.conf", "interface.eth1", "network_eth1.conf"], ["interface.eth0", "network.conf"]),
    ("3", ["settings.conf", "interface.eth0", "other"], []),
])
def test_reset_levels(box, tavid, level, removed, kept):
    daemon = tavid(box)
    data = Path(box.path("/data"))
    for name in ["settings.conf", "interface.eth0", "network.conf", "interface.eth1", "network_eth1.conf", "other"]:
        (data / name).write_text("x")
    reply = request(daemon.port, b'{"action":"execute","object":"reset","args":{"level":"%s"}}' % level.encode())
    assert reply == b"{}"
    assert [name for _, name, _ in box.calls()] == ["reboot"]
    for name in removed:
        assert not (data / name).exists(), name
    for name in kept:
        assert (data / name).exists(), name
