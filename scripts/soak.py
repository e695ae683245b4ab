#!/usr/bin/python3
"""Soak of tavid against the box simulator.

A bounded run of mixed requests: gets of every object and instance, sets of valid and invalid
values, arrayedArgs, whole-object sets, stores and restores, the interface configuration,
executes of the output mode (the current one, refused ones and, with --mode all, real changes
that restart the daemon through the init script stand-in) and, in the IP modes, streaming
restarts (a new destination or a service switched off and on restarts the streaming child).

Every daemon process is an epoch: it is started (or restarted by a mode change), warmed up with
whole cycles of the request mix for a fifth of its time (at least one cycle), left to settle
and measured; then it runs whole cycles until its share of the time is up, settles again and is
measured again. Every valid change of a cycle is undone within the cycle, so after each cycle
the daemon holds what it held after warm-up, and the stored settings file must be the same
text. At the end of an epoch:

  open descriptors   the same targets, exactly (sockets and pipes by kind)
  child processes    the same programs, exactly; no zombie among them
  live heap          at most --heap-tolerance bytes (4) more per request after warm-up, over
                     at least 150 requests (fewer fail the run: it could not have told)
  resident memory    VmRSS at most --rss-tolerance-kib (64 KiB) above the warm-up figure
  replies            each as the protocol defines it, and byte for byte what the same step
                     answered in the epoch's first cycle

With --mode all the epochs go round rf, ip_spts, ip_mpts. Every daemon, in whichever mode, must
hold the same descriptors of its own after warm-up as the first one, which this program started
(the modes differ in their children only, which each epoch checks against its mode): this
catches a descriptor that a daemon hands down to the next through the init script, also in the
3-minute run's one epoch per mode. The restarted daemons are not children of this program: the
old daemon's init script starts them in the background. This program therefore makes itself
the child subreaper, so that they are reparented here and reaped here.

The live heap is read from the daemon itself, exactly, at quiet points: this program builds
scripts/soak_heap.c with the machine's C compiler into the box root and preloads it into every
daemon (LD_PRELOAD on the first daemon's command line and in the init script's, so that each
restarted daemon has it too; the daemon is not changed for it). Its thread answers on a Unix
socket with glibc's mallinfo2(): the bytes of chunks handed out (uordblks) and of chunks mapped
on their own (hblkhd). The daemon runs with malloc's per-thread cache off
(GLIBC_TUNABLES=glibc.malloc.tcache_count=0), since the chunks waiting there count as handed
out: with it on, the figure crept by 17 to 20 bytes a request over 3 minutes as the cache
filled with more sizes. After warm-up and after every cycle the soak waits until the poll
cycle is idle and takes the least of three readings; the verdict is the growth from warm-up to
the end divided by the requests in between. Measured in the 3-minute run: 0 bytes in every
mode over 375 to 728 requests each (RF 107 440 bytes after warm-up, after every cycle and at the
end, IP SPTS 82 688, IP MPTS 93 952; also 0 in each of 12 minutes' six daemons, 816 to 1 248
requests each), while a leak of a 16-byte block per request measures 32 to 33.4 bytes per
request (a 16-byte block takes a 32-byte chunk) and one of 40 bytes 48 to 49.

Resident memory stays a reported figure and a coarse guard for memory outside malloc: glibc
malloc makes VmRSS creep for a while as each request's short-lived buffers land in new places
of the arena, until its layout settles (with the per-thread cache on, an hour in RF mode from a
one-cycle warm-up: +76 KiB, +36 KiB from minute 12), hence 64 KiB. When the heap probe cannot be
used (the daemon runs under TAVID_LAUNCHER, such as qemu-arm or valgrind, or is built for
another machine or with a sanitizer, whose malloc is not glibc's), the soak says so and judges
memory by resident memory alone, which shows gross leaks only. The VmRSS and the live heap
after every cycle are in the JSON figures.

Only 127.0.0.1 is used: the daemon's command port (a free one) and the network-settings
service (localhost:49998, fixed by the daemon; --no-netsettings leaves the interface
configuration out of the mix when another box serves that port).

Usage:
  /usr/bin/python3 scripts/soak.py --tavid build/host/src/tavid [--minutes 3]
      [--mode all|rf|ip_spts|ip_mpts] [--epochs N] [--heap-tolerance BYTES] [--json FILE]

TAVID_BIN names the daemon when --tavid is not given; TAVID_LAUNCHER is put in front of it,
as in the integration tests. Exit status: 0 when every check passed, 1 on any drift or
unexpected reply, 2 when the soak could not run.
"""

import argparse
import ctypes
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "tests" / "integration"))
sys.path.insert(0, str(REPO / "sim"))
import conftest  # noqa: E402  (found through the path set just above)
import tavidefaults  # noqa: E402
import tavisim  # noqa: E402

MODES = tavisim.MODES
# Warm-up: at least this many whole cycles and this share of the epoch's time.
WARMUP_CYCLES = 1
WARMUP_SHARE = 0.2
# The verdict on memory: the live heap may grow by at most this many bytes per request over
# the requests after warm-up, of which there must be at least this many. A healthy daemon's heap
# is the same to the byte after every cycle, so 150 requests suffice: a leak of 16 bytes a request
# (a 32-byte chunk) grows it by 4,800 bytes, eight times the tolerance. Fewer would be a risk on a
# loaded CI machine, where the RF daemon of the 3-minute run makes about 270 after warm-up.
HEAP_TOLERANCE = 4.0
MIN_MEASURED_REQUESTS = 150
# Without the heap probe, resident memory may grow by this much (the allocator's arena settling).
RSS_TOLERANCE_KIB = 64
DEFAULT_MINUTES = 3.0
DEFAULT_EPOCHS_ALL = 3  # rf, ip_spts, ip_mpts: two mode changes
# Bounds on every loop: a request takes at least the daemon's 50 ms read time-out, so no epoch
# can send more than this many per second.
MAX_REQUESTS_PER_SECOND = 25
SETTLE_QUIET = 0.3
SETTLE_TIMEOUT = 20.0
RESTART_TIMEOUT = 30.0
REPORTED_FAILURES = 20
SAMPLES_KEPT = 60
# The live heap at a quiet point: the least of this many readings (a poll pass may hold a buffer).
HEAP_READINGS = 3
PROBE_SOURCE = REPO / "scripts" / "soak_heap.c"
PROBE_TIMEOUT = 5.0
# Symbols of the sanitizer runtimes that replace malloc with their own.
SANITIZER_MALLOCS = (b"__asan_init", b"__hwasan_init", b"__msan_init", b"__tsan_init",
                     b"__lsan_init")

PR_SET_CHILD_SUBREAPER = 36

OK = b"{}"
UNSUCCESSFUL = b'{"warningCode":1103,"description":"JSON command unsuccessful (error: 13)"}'
JSON_ERROR = b'{"warningCode":1103,"description":"JSON error"}'

INPUT_OBJECTS = ("input_hdmi", "input_hdmi_enc", "input_hdmi_ts", "input_hdmi_services",
                 "input_hdmi_streams", "input_hdmi_status")
OUTPUT_OBJECTS = {
    "output_rf": ("output_calibration", "output_rf", "output_rf_mod", "output_rf_ts",
                  "output_rf_services", "output_rf_status"),
    "output_ip": ("output_ip", "output_ip_dst", "output_ip_ts", "output_ip_services",
                  "output_ip_status"),
}
# Their gets answer with an array also for one instance.
ARRAY_GETS = {"input_hdmi_services", "input_hdmi_streams", "output_rf_services",
              "output_ip_services"}


class SoakError(Exception):
    """The soak cannot go on (the daemon ended, a restart did not come up, a get failed)."""


# ---------------------------------------------------------------------------------------------
# Requests and what they must be answered with


def request_text(action: str, obj: str, args=None, arrayed=None) -> bytes:
    request = {"action": action, "object": obj}
    if args is not None:
        request["args"] = args
    if arrayed is not None:
        request["arrayedArgs"] = arrayed
    return json.dumps(request, separators=(",", ":")).encode()


def error(description: str) -> bytes:
    return json.dumps({"errorCode": 5002, "description": description},
                      separators=(",", ":")).encode()


def error_naming_any(description: str) -> re.Pattern:
    """An error whose argument name is the last one the daemon recorded, whichever it was."""
    name = rb"(?:[a-z_]+|\(null\))"
    return re.compile(re.escape(error(description + " (NAME)")).replace(b"NAME", name))


def kind(key: str):
    """A reply that is a JSON object with this one key ("result" or "arrayedResult")."""
    def check(reply: bytes) -> bool:
        try:
            answer = json.loads(reply)
        except ValueError:
            return False
        return isinstance(answer, dict) and list(answer) == [key]
    check.__name__ = key
    return check


RESULT = kind("result")
ARRAYED = kind("arrayedResult")


@dataclass
class Step:
    label: str
    kind: str  # get, set, arrayed, invalid, execute
    text: bytes
    expect: object  # bytes, a compiled pattern or a check of the reply


def answered_as_expected(step: Step, reply: bytes) -> bool:
    if isinstance(step.expect, bytes):
        return reply == step.expect
    if isinstance(step.expect, re.Pattern):
        return step.expect.fullmatch(reply) is not None
    return step.expect(reply)


def describe(expect) -> str:
    if isinstance(expect, bytes):
        return expect.decode(errors="replace")
    if isinstance(expect, re.Pattern):
        return expect.pattern.decode(errors="replace")
    return f"a reply holding only {expect.__name__!r}"


# ---------------------------------------------------------------------------------------------
# The request mix of one mode


def layout(mode: str) -> dict:
    plan = tavidefaults.LAYOUTS[mode]
    return {"inputs": plan["inputs"], "output": plan["output"],
            "outputs": len(plan["output_ts_tags"])}


def instanced_objects(mode: str) -> list:
    """(object, id key, instances) of every object the mode has."""
    plan = layout(mode)
    return ([("device_status", "device_id", 1), ("device", "device_id", 1)]
            + [(name, "input_id", plan["inputs"]) for name in INPUT_OBJECTS]
            + [("debug_code", "id", plan["inputs"])]
            + [(name, "output_id", plan["outputs"]) for name in OUTPUT_OBJECTS[plan["output"]]])


def get_step(obj: str, args: dict, whole: bool) -> Step:
    expect = ARRAYED if whole or obj in ARRAY_GETS else RESULT
    label = "get " + obj + "".join(f" {key}={value}" for key, value in args.items())
    return Step(label, "get", request_text("get", obj, args), expect)


# The objects also asked for with an id in hexadecimal and with one past the end (which
# answers with every instance): one of each kind of id key.
ODD_ID_GETS = ("device", "input_hdmi_enc", "debug_code", "output_rf_mod", "output_ip_dst")


def gets(mode: str) -> list:
    """Every object: all instances, then each instance."""
    steps = []
    for obj, key, count in instanced_objects(mode):
        steps.append(get_step(obj, {}, True))
        steps += [get_step(obj, {key: str(n)}, False) for n in range(count)]
        if obj in ODD_ID_GETS:
            steps += [get_step(obj, {key: "0x0"}, False), get_step(obj, {key: "7"}, True)]
    return steps


def first_instance_gets(mode: str) -> list:
    return [get_step(obj, {key: "0"}, False) for obj, key, _ in instanced_objects(mode)]


def set_step(label: str, obj: str, args: dict, expect=OK) -> Step:
    return Step(label, "set", request_text("set", obj, args), expect)


def arrayed_step(label: str, action: str, obj: str, arrayed: list, expect=OK) -> Step:
    return Step(label, "arrayed", request_text(action, obj, arrayed=arrayed), expect)


def bumped(value: str) -> str:
    return str(int(value, 0) + 1)


def renamed(value: str) -> str:
    return "soak" if value != "soak" else "soak-2"


def flipped(value: str) -> str:
    return "0" if value == "1" else "1"


def moved(value: str) -> str:
    return str(int(value, 0) + 8000)


@dataclass
class Toggle:
    """A valid change and its undoing: sets `key` of `obj` to the changed value, later back."""

    label: str
    obj: str
    ids: dict
    key: str
    base: str
    change: object  # base value -> changed value

    def there(self) -> Step:
        return set_step(f"set {self.label}", self.obj, {**self.ids, self.key: self.change(self.base)})

    def back(self) -> Step:
        return set_step(f"set {self.label} back", self.obj, {**self.ids, self.key: self.base})


@dataclass
class ArrayedToggle:
    """The same change on every output at once, as one request of arrayedArgs."""

    label: str
    obj: str
    elements: list  # (ids, base) per element
    key: str
    change: object

    def there(self) -> Step:
        return arrayed_step(f"arrayed {self.label}", "set", self.obj,
                            [{**ids, self.key: self.change(base)} for ids, base in self.elements])

    def back(self) -> Step:
        return arrayed_step(f"arrayed {self.label} back", "set", self.obj,
                            [{**ids, self.key: base} for ids, base in self.elements])


def input_toggles(base: dict) -> list:
    hdmi = base["input_hdmi"]
    ts = hdmi["ts"]
    service = ts["services"][0]
    stream = service["streams"][0]
    tags = {"input_id": "0", "service_tag": service["service_tag"]}
    return [Toggle("gop size", "input_hdmi_enc", {"input_id": "0"}, "video_gopsize",
                   hdmi["video_gopsize"], bumped),
            Toggle("tsid", "input_hdmi_ts", {"input_id": "0"}, "tsid", ts["tsid"], bumped),
            Toggle("network name", "input_hdmi_ts", {"input_id": "0"}, "network_name",
                   ts["network_name"], renamed),
            Toggle("service name", "input_hdmi_services", tags, "service_name",
                   service["service_name"], renamed),
            Toggle("stream bitrate", "input_hdmi_streams",
                   {**tags, "stream_tag": stream["stream_tag"]}, "bitrate", stream["bitrate"], bumped),
            Toggle("debug code", "debug_code", {"id": "0", "code": "50"}, "state",
                   base["debug_code"]["state"], flipped)]


def service_by_tag(output: dict, tag: str) -> dict:
    return next(service for service in output["ts"]["services"] if service["service_tag"] == tag)


def rf_toggles(base: dict) -> list:
    outputs = base["output_rf_all"]
    tag = outputs[0]["ts"]["services"][0]["service_tag"]
    switches = [({"output_id": str(n), "service_tag": tag}, service_by_tag(out, tag)["enabled"])
                for n, out in enumerate(outputs)]
    return [ArrayedToggle("rf frequencies", "output_rf_mod",
                          [({"output_id": str(n)}, out["frequency"]) for n, out in enumerate(outputs)],
                          "frequency", moved),
            ArrayedToggle("rf service switch", "output_rf_services", switches, "enabled", flipped),
            Toggle("rf network name", "output_rf_ts", {"output_id": "0"}, "network_name",
                   outputs[0]["ts"]["network_name"], renamed),
            Calibration(base["output_calibration"]["i"], base["output_calibration"]["q"])]


def ip_toggles(base: dict) -> list:
    out = base["output_ip"]
    service = out["ts"]["services"][0]
    return [Toggle("destination port", "output_ip_dst", {"output_id": "0"}, "dst_port",
                   out["dst_port"], moved),
            Toggle("ip service switch", "output_ip_services",
                   {"output_id": "0", "service_tag": service["service_tag"]}, "enabled",
                   service["enabled"], flipped),
            Toggle("ip network name", "output_ip_ts", {"output_id": "0"}, "network_name",
                   out["ts"]["network_name"], renamed)]


def toggles(mode: str, base: dict) -> list:
    output = ip_toggles(base) if layout(mode)["output"] == "output_ip" else rf_toggles(base)
    return input_toggles(base) + output


@dataclass
class Calibration:
    """A calibration and its undoing; its get has no "enabled" to take the value back from."""

    i: str
    q: str

    def there(self) -> Step:
        return set_step("set calibration", "output_calibration",
                        {"output_id": "0", "enabled": "1", "i": "3", "q": "-2"})

    def back(self) -> Step:
        return set_step("set calibration back", "output_calibration",
                        {"output_id": "0", "enabled": "0", "i": self.i, "q": self.q})


def whole_object_sets(mode: str, base: dict) -> list:
    """Each storable object set to what it holds: the largest requests of the protocol."""
    plan = layout(mode)
    output = base["output_rf_all"][0] if plan["output"] == "output_rf" else base["output_ip"]
    return [set_step("set input_hdmi as is", "input_hdmi", base["input_hdmi"]),
            set_step(f"set {plan['output']} as is", plan["output"], output)]


def protocol_errors() -> list:
    """Requests the dispatcher refuses before any object sees them."""
    cases = [
        ("empty request", b"", error("JSON command is invalid (JSON object)")),
        ("cut request", b'{"action":"get","object":"device"',
         error("JSON command is invalid (JSON object)")),
        ("array request", b"[1,2]", error("JSON command is invalid (JSON object)")),
        ("action null", request_text(None, "device", {}),
         error("JSON command requires a valid action (JSON string)")),
        ("no args", request_text("get", "device"),
         error("JSON command requires valid arguments (JSON object)")),
        ("object null", request_text("get", None, {}),
         error("JSON command requires a valid object (JSON string)")),
        ("unknown object", request_text("get", "soak", {}),
         error("JSON command has an unknown object (soak)")),
        ("unknown action", request_text("delete", "device", {}),
         error("JSON command has an unknown action (delete)")),
        ("set device_status", request_text("set", "device_status", {}),
         error("JSON command has an unknown action (set)")),
        ("args and arrayedArgs", request_text("set", "input_hdmi_enc", {"input_id": "0"}, []),
         error("JSON command requires valid arguments (JSON object)")),
        ("args array", request_text("set", "input_hdmi_ts", []),
         error("JSON command requires valid arguments (JSON object)")),
        ("reset level 4", request_text("execute", "reset", {"level": "4"}),
         error_naming_any("JSON command argument out of bounds")),
    ]
    return [Step(label, "invalid", text, expect) for label, text, expect in cases]


def invalid_input_values(base: dict) -> list:
    tag = base["input_hdmi"]["ts"]["services"][0]["service_tag"]
    cases = [
        ("input past the end", "input_hdmi_enc", {"input_id": "9", "video_gopsize": "25"},
         error("JSON command argument out of bounds (input_id)")),
        ("gop size 12a", "input_hdmi_enc", {"input_id": "0", "video_gopsize": "12a"},
         error("JSON command has an invalid argument (video_gopsize)")),
        ("tsid as a number", "input_hdmi_ts", {"input_id": "0", "tsid": 5},
         error("JSON command argument not found (tsid)")),
        ("unknown service", "input_hdmi_services", {"input_id": "0", "service_tag": "99", "lcn": "1"},
         error_naming_any("JSON command argument out of bounds")),
        ("no service tag", "input_hdmi_services", {"input_id": "0", "lcn": "1"},
         error_naming_any("JSON command is missing a mandatory argument")),
        ("unknown stream", "input_hdmi_streams",
         {"input_id": "0", "service_tag": tag, "stream_tag": "99", "pid": "300"},
         error_naming_any("JSON command argument out of bounds")),
        ("debug code without state", "debug_code", {"id": "0", "code": "50"}, JSON_ERROR),
    ]
    return [Step(f"set {label}", "invalid", request_text("set", obj, args), expect)
            for label, obj, args, expect in cases]


def invalid_output_values(mode: str, base: dict) -> list:
    if layout(mode)["output"] == "output_rf":
        cases = [
            ("rf type DVB-T", "output_rf_mod", {"output_id": "0", "type": "DVB-T"},
             error("JSON command argument out of bounds (type)")),
            ("rf frequency 474000x", "output_rf_mod", {"output_id": "0", "frequency": "474000x"},
             error("JSON command has an invalid argument (frequency)")),
            ("rf enabled 2, refused by the module", "output_rf_mod",
             {"output_id": "0", "enabled": "2"}, UNSUCCESSFUL),
            ("calibration without q", "output_calibration",
             {"output_id": "0", "enabled": "0", "i": "0"}, JSON_ERROR),
            ("rf output past the end", "output_rf_mod", {"output_id": "2", "frequency": "474000"},
             error("JSON command argument out of bounds (output_id)")),
        ]
    else:
        cases = [
            ("address as a number", "output_ip_dst", {"output_id": "0", "dst_addr": 1},
             error("JSON command has an invalid argument (dst_addr)")),
            ("network version x", "output_ip_ts", {"output_id": "0", "network_version": "x"},
             error("JSON command has an invalid argument (network_version)")),
            ("unknown ip service", "output_ip_services",
             {"output_id": "0", "service_tag": "99", "enabled": "1"},
             error_naming_any("JSON command argument out of bounds")),
            ("ip output past the end", "output_ip_dst", {"output_id": "1", "dst_port": "5000"},
             error("JSON command argument out of bounds (output_id)")),
        ]
    return [Step(f"set {label}", "invalid", request_text("set", obj, args), expect)
            for label, obj, args, expect in cases]


def half_applied_arrayed(base: dict) -> Step:
    """The first element is taken, the second refused; the toggle's undoing follows later."""
    gop = base["input_hdmi"]["video_gopsize"]
    return arrayed_step("arrayed gop size, second refused", "set", "input_hdmi_enc",
                        [{"input_id": "0", "video_gopsize": bumped(gop)},
                         {"input_id": "0", "video_gopsize": "x"}],
                        error("JSON command has an invalid argument (video_gopsize)"))


def mode_executes(mode: str) -> list:
    device = {"device_id": "0"}
    cases = [("execute the current mode", {**device, "output_mode": mode}, OK),
             ("execute mode RF", {**device, "output_mode": "RF"},
              error("JSON command argument out of bounds (output_mode)")),
             ("execute mode as a number", {**device, "output_mode": 2},
              error("JSON command has an invalid argument (output_mode)"))]
    steps = [Step(label, "execute", request_text("execute", "device", args), expect)
             for label, args, expect in cases]
    steps.append(Step("set device", "invalid",
                      request_text("set", "device", {**device, "output_mode": mode}),
                      error("JSON command has an unknown action (set)")))
    return steps


def settings_executes() -> list:
    return [Step("store settings", "execute", request_text("execute", "store_settings", {}), OK),
            Step("restore settings", "execute", request_text("execute", "restore_settings", {}), OK)]


def streaming_restart_in_one_request(base: dict) -> Step:
    out = base["output_ip"]
    return arrayed_step("arrayed destination there and back", "set", "output_ip_dst",
                        [{"output_id": "0", "dst_port": moved(out["dst_port"])},
                         {"output_id": "0", "dst_port": out["dst_port"]}])


def ifconfig_steps(base: dict) -> list:
    """The service takes the address it has (the interface is restarted) and refuses a bad one."""
    dns = base["output_ip_ifconfig"]["dns"]
    return [get_step("output_ip_ifconfig", {}, False),
            set_step("set ifconfig dns as is", "output_ip_ifconfig", {"dns": dns}),
            Step("set ifconfig address 300.1.1.1", "invalid",
                 request_text("set", "output_ip_ifconfig", {"address": "300.1.1.1"}), UNSUCCESSFUL)]


def cycle(mode: str, base: dict, netsettings: bool) -> list:
    """One cycle of the mix. Every valid change in it is undone in it."""
    changes = toggles(mode, base)
    ip = layout(mode)["output"] == "output_ip"
    steps = gets(mode)
    steps += [change.there() for change in changes]
    steps.append(half_applied_arrayed(base))
    steps += first_instance_gets(mode)
    steps += protocol_errors() + invalid_input_values(base) + invalid_output_values(mode, base)
    # Undone last first: a change may move what a later one lands on (switching a service off
    # moves the multiplexer's master input, which takes the output's network name).
    steps += [change.back() for change in reversed(changes)]
    steps += whole_object_sets(mode, base)
    steps += [streaming_restart_in_one_request(base)] if ip else []
    steps += mode_executes(mode) + settings_executes()
    steps += ifconfig_steps(base) if netsettings else []
    return steps


# ---------------------------------------------------------------------------------------------
# What a daemon holds at the start of an epoch


def ask(port: int, obj: str, args: dict):
    reply = conftest.request(port, request_text("get", obj, args))
    try:
        answer = json.loads(reply)
    except ValueError:
        answer = None
    if not isinstance(answer, dict) or not {"result", "arrayedResult"} & set(answer):
        raise SoakError(f"get {obj} {args} answered {reply!r}")
    return answer.get("result", answer.get("arrayedResult"))


def base_values(port: int, mode: str, netsettings: bool) -> dict:
    """The values that the mix changes and changes back, as the daemon holds them now."""
    base = {"input_hdmi": ask(port, "input_hdmi", {"input_id": "0"}),
            "debug_code": ask(port, "debug_code", {"id": "0"})}
    if layout(mode)["output"] == "output_rf":
        base["output_rf_all"] = ask(port, "output_rf", {})
        base["output_calibration"] = ask(port, "output_calibration", {"output_id": "0"})
    else:
        base["output_ip"] = ask(port, "output_ip", {"output_id": "0"})
    if netsettings:
        base["output_ip_ifconfig"] = ask(port, "output_ip_ifconfig", {})
    return base


# ---------------------------------------------------------------------------------------------
# The daemon process as the kernel sees it


def proc_status(pid: int) -> dict:
    """VmRSS, VmHWM and RssAnon in KiB."""
    figures = {}
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        name, _, value = line.partition(":")
        if name in ("VmRSS", "VmHWM", "RssAnon"):
            figures[name] = int(value.split()[0])
    return figures


def fd_targets(pid: int, hidden: int | None = None) -> dict:
    """What each open descriptor refers to; sockets, pipes and anonymous inodes by kind only,
    since their numbers change with every connection. `hidden` is the heap probe's own."""
    base = f"/proc/{pid}/fd"
    targets = {}
    for fd in os.listdir(base):
        if int(fd) == hidden:
            continue
        try:
            target = os.readlink(f"{base}/{fd}")
        except FileNotFoundError:
            continue
        targets[int(fd)] = re.sub(r":\[\d+\]$", "", target)
    return targets


def stat_fields(pid: str):
    """(command name, state, ppid) from /proc/PID/stat. The name is the executed file's (a
    script's own, not its interpreter's) and stays readable for a zombie."""
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
        head, _, tail = stat.read().rpartition(")")
    fields = tail.split()
    return head.partition("(")[2], fields[0], int(fields[1])


def children(pid: int) -> list:
    """(command name, state) of every process whose parent is pid."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            name, state, ppid = stat_fields(entry)
        except (OSError, IndexError, ValueError):
            continue
        if ppid == pid:
            found.append((name, state))
    return sorted(found)


def snapshot(pid: int, hidden_fd: int | None = None) -> dict:
    status = proc_status(pid)
    kids = children(pid)
    targets = fd_targets(pid, hidden_fd)
    return {"rss_kib": status["VmRSS"], "rss_anon_kib": status["RssAnon"],
            "hwm_kib": status["VmHWM"], "fds": len(targets),
            "fd_targets": sorted(targets.values()),
            # Past the standard streams, which each daemon gets from whoever started it.
            "own_fd_targets": sorted(target for fd, target in targets.items() if fd > 2),
            "children": sorted(name for name, state in kids if state != "Z"),
            "zombies": sum(1 for _, state in kids if state == "Z")}


# ---------------------------------------------------------------------------------------------
# Daemon processes: the first one is ours, the restarted ones are reparented to us


def become_subreaper():
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl(PR_SET_CHILD_SUBREAPER)")


class Instance:
    """One daemon process; its exit status once it has been reaped. The first daemon is reaped
    through its Popen, which would otherwise reap it behind our back."""

    def __init__(self, pid: int, popen=None):
        self.pid = pid
        self.popen = popen
        self.status = None
        self.probe_fd = None  # the heap probe's listening descriptor, once it has answered

    def ended(self) -> bool:
        if self.status is None:
            self.status = self.popen.poll() if self.popen else self._waitpid()
        return self.status is not None

    def _waitpid(self) -> int | None:
        done, status = os.waitpid(self.pid, os.WNOHANG)
        return os.waitstatus_to_exitcode(status) if done == self.pid else None

    def wait(self, timeout: float) -> int | None:
        deadline = time.monotonic() + timeout
        while not self.ended() and time.monotonic() < deadline:
            time.sleep(0.02)
        return self.status

    def stop(self, timeout: float = conftest.STOP_WAIT) -> int | None:
        """SIGTERM, as the box ends it; SIGKILL when it does not end in time."""
        if self.ended():
            return self.status
        os.kill(self.pid, signal.SIGTERM)
        if self.wait(timeout) is None:
            os.kill(self.pid, signal.SIGKILL)
            self.wait(timeout)
            return None
        return self.status


def wait_for(predicate, timeout: float, what: str):
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            raise SoakError(f"{what}: not within {timeout} s")
        time.sleep(0.02)


def led_cleared(box: tavisim.Box, mode: str) -> bool:
    return Path(box.path(tavisim.ALARM_LEDS[mode] + "/brightness")).read_text() == "0"


def light_leds(box: tavisim.Box):
    """Lit again, so that the next daemon clearing its LED shows its first poll pass is over."""
    for led in set(tavisim.ALARM_LEDS.values()):
        Path(box.path(led + "/brightness")).write_text("1\n")


def wait_ready(box: tavisim.Box, daemon: Instance, port: int, mode: str):
    def ready() -> bool:
        if daemon.ended():
            raise SoakError(f"tavid (PID {daemon.pid}) ended with status {daemon.status}")
        return conftest.tcp_listening(port) and led_cleared(box, mode)
    wait_for(ready, RESTART_TIMEOUT, f"tavid (PID {daemon.pid}) ready in mode {mode}")


def settle(box: tavisim.Box, daemon: Instance):
    """The poll cycle has nothing left to push (the bus idle) and the children stay as they are,
    both for SETTLE_QUIET seconds."""
    def state():
        return len(box.bus.transactions()), children(daemon.pid)
    deadline = time.monotonic() + SETTLE_TIMEOUT
    last, since = state(), time.monotonic()
    while time.monotonic() - since < SETTLE_QUIET:
        if time.monotonic() > deadline:
            raise SoakError(f"tavid (PID {daemon.pid}) did not come to rest")
        time.sleep(0.02)
        now = state()
        if now != last:
            last, since = now, time.monotonic()


def forget_simulator_logs(box: tavisim.Box):
    """The simulator keeps every bus transfer and module command; a long soak must not."""
    box.bus.clear_log()
    for module in box.modules.values():
        module.clear_commands()
    os.truncate(box.path("bus.log"), 0)


def streaming_left_running(box: tavisim.Box) -> list:
    """Stand-ins that still run. Only a process running the box's stand-in counts: on a busy
    machine the number of one that has ended is soon another program's."""
    program = os.fsencode(box.path("opt/bin/qel2ip"))
    left = []
    for run in box.qel2ip_runs():
        try:
            words = Path(f"/proc/{run['pid']}/cmdline").read_bytes().split(b"\0")
        except (FileNotFoundError, ProcessLookupError):
            continue
        if run["running"] and program in words:
            left.append(run["pid"])
    return left


def restarted_pid(box: tavisim.Box, known: set) -> int | None:
    try:
        pids = [int(pid) for pid in Path(box.path("tavid.pid")).read_text().split()]
    except FileNotFoundError:
        return None
    fresh = [pid for pid in pids if pid not in known]
    return fresh[-1] if fresh else None


# ---------------------------------------------------------------------------------------------
# The live heap, through the heap probe preloaded into each daemon


def elf_machine(path: str) -> bytes:
    """The ELF class, byte order and machine of an executable or library."""
    with open(path, "rb") as elf:
        head = elf.read(20)
    return head[4:6] + head[18:20]


def heap_probe_unusable(tavid: str) -> str | None:
    """Why the heap probe cannot be preloaded into this daemon, if it cannot. The probe is built
    for this machine and preloaded into a daemon that runs directly: under a launcher the preload
    would reach the launcher (an emulator of another machine, a memory checker with a malloc of
    its own), not the daemon's C library."""
    if conftest.launcher():
        return f"the daemon runs under TAVID_LAUNCHER ({' '.join(conftest.launcher())})"
    if elf_machine(tavid) != elf_machine(sys.executable):
        return "the daemon is built for another machine"
    if any(symbol in Path(tavid).read_bytes() for symbol in SANITIZER_MALLOCS):
        return "the daemon is built with a sanitizer, whose malloc replaces the C library's"
    return None


class HeapProbe:
    """scripts/soak_heap.c, built for this machine into the box root and preloaded into every
    daemon (the first by its command line, the restarted ones by the init script's); each
    daemon answers on heap/<pid> in the root with its malloc's figures."""

    def __init__(self, root: str, tavid: str):
        self.library = os.path.join(root, "soak_heap.so")
        self.directory = os.path.join(root, "heap")
        self.exe = os.path.realpath(tavid)

    def build(self):
        compiler = [os.environ.get("CC", "cc"), "-std=c11", "-D_GNU_SOURCE", "-O2", "-Wall",
                    "-Wextra", "-Werror", "-fPIC", "-shared", "-pthread", "-o", self.library,
                    str(PROBE_SOURCE)]
        done = subprocess.run(compiler, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise OSError(f"{' '.join(compiler)} failed: {done.stderr.strip()}")
        os.mkdir(self.directory)

    def wrapper(self) -> list:
        """What each daemon's command starts with. No blanks in it: the init script splits it.
        malloc's per-thread cache is off: the chunks it holds count as handed out, and as it
        fills with chunks of more sizes the figure creeps (by 17 to 20 bytes a request here)."""
        return ["env", f"LD_PRELOAD={self.library}", f"SOAK_HEAP_EXE={self.exe}",
                f"SOAK_HEAP_DIR={self.directory}", "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"]

    def read(self, daemon: Instance) -> dict:
        """One answer of the daemon's probe."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as channel:
            channel.settimeout(PROBE_TIMEOUT)
            try:
                channel.connect(os.path.join(self.directory, str(daemon.pid)))
                answer = b""
                while chunk := channel.recv(256):
                    answer += chunk
            except OSError as failure:
                raise SoakError(f"the heap probe of tavid (PID {daemon.pid}) did not answer: "
                                f"{failure}") from None
        words = answer.decode(errors="replace").split()
        if len(words) != 4 or not all(word.isdigit() for word in words[1:]):
            raise SoakError(f"the heap probe of tavid (PID {daemon.pid}) answered {answer!r}")
        if words[0] != "glibc":
            raise SoakError(f"tavid (PID {daemon.pid}) does not use the C library's malloc: its "
                            "live heap cannot be read")
        in_use, mmapped, fd = map(int, words[1:])
        return {"in_use": in_use, "mmapped": mmapped, "fd": fd}

    def live(self, daemon: Instance) -> int:
        """Bytes the daemon's malloc has handed out and not had back, at a quiet point: the
        least of a few readings."""
        readings = [self.read(daemon) for _ in range(HEAP_READINGS)]
        daemon.probe_fd = readings[0]["fd"]
        return min(reading["in_use"] + reading["mmapped"] for reading in readings)


# ---------------------------------------------------------------------------------------------
# Running the mix


@dataclass
class Epoch:
    mode: str
    pid: int
    requests: int = 0
    errors: int = 0
    cycles: int = 0
    by_kind: dict = field(default_factory=dict)
    warmup: dict = field(default_factory=dict)
    end: dict = field(default_factory=dict)
    warmup_requests: int = 0  # requests sent when the warm-up was measured
    end_requests: int = 0  # and when the end was
    # After every cycle past warm-up: [requests since warm-up, VmRSS KiB, live heap bytes]
    samples: list = field(default_factory=list)
    failures: list = field(default_factory=list)
    duration_s: float = 0.0

    def fail(self, what: str):
        self.errors += 1
        if len(self.failures) < REPORTED_FAILURES:
            self.failures.append(what)

    def measured_requests(self) -> int:
        """Requests between the measurement after warm-up and the one at the end."""
        return self.end_requests - self.warmup_requests

    def heap_growth_per_request(self) -> float | None:
        if "heap" not in self.end or not self.measured_requests():
            return None
        return (self.end["heap"] - self.warmup["heap"]) / self.measured_requests()


class Runner:
    def __init__(self, box: tavisim.Box, port: int, netsettings: bool, heap: HeapProbe | None):
        self.box = box
        self.port = port
        self.netsettings = netsettings
        self.heap = heap

    def send(self, epoch: Epoch, step: Step) -> bytes:
        """The reply. A daemon that does not answer ends the soak: waiting on would only add
        a reply time-out per request."""
        epoch.requests += 1
        epoch.by_kind[step.kind] = epoch.by_kind.get(step.kind, 0) + 1
        try:
            return conftest.request(self.port, step.text)
        except OSError as failure:
            epoch.fail(f"{step.label}: no reply ({failure})")
            raise SoakError(f"tavid did not answer {step.label!r}: {failure}") from None

    @staticmethod
    def check(epoch: Epoch, step: Step, reply: bytes, first: bytes | None):
        if not answered_as_expected(step, reply):
            epoch.fail(f"{step.label}: answered {reply[:300]!r}, expected {describe(step.expect)}")
        elif first is not None and reply != first:
            epoch.fail(f"{step.label}: answered {reply[:300]!r}, the first cycle {first[:300]!r}")

    def run_cycle(self, epoch: Epoch, steps: list, first: dict):
        """One whole cycle. The replies of the epoch's first cycle are kept in `first` by step,
        and the later cycles' compared with them."""
        for index, step in enumerate(steps):
            reply = self.send(epoch, step)
            self.check(epoch, step, reply, first.get(index))
            first.setdefault(index, reply)
        epoch.cycles += 1
        forget_simulator_logs(self.box)

    def live_heap(self, daemon: Instance) -> dict:
        """At a quiet point (settled): the probe's connections are closed before a snapshot."""
        return {"heap": self.heap.live(daemon)} if self.heap else {}

    def measure(self, daemon: Instance) -> dict:
        if daemon.ended():
            raise SoakError(f"tavid (PID {daemon.pid}) ended with status {daemon.status}")
        settle(self.box, daemon)
        heap = self.live_heap(daemon)
        return {**snapshot(daemon.pid, daemon.probe_fd), **heap,
                "settings": self.box.stored_settings()["text"]}

    def sample(self, epoch: Epoch, daemon: Instance):
        settle(self.box, daemon)
        heap = self.live_heap(daemon).get("heap")
        epoch.samples.append([epoch.requests - epoch.warmup_requests,
                              proc_status(daemon.pid)["VmRSS"], heap])

    def run_epoch(self, epoch: Epoch, daemon: Instance, deadline: float):
        started = time.monotonic()
        settle(self.box, daemon)
        base = base_values(self.port, epoch.mode, self.netsettings)
        steps = cycle(epoch.mode, base, self.netsettings)
        first = {}
        warm_until = started + (deadline - started) * WARMUP_SHARE
        while epoch.cycles < WARMUP_CYCLES or time.monotonic() < warm_until:
            self.run_cycle(epoch, steps, first)
        epoch.warmup = self.measure(daemon)
        epoch.warmup_requests = epoch.requests
        budget = epoch.requests + int((deadline - time.monotonic()) * MAX_REQUESTS_PER_SECOND)
        self.loop(epoch, daemon, steps, first, budget, deadline)
        epoch.end = self.measure(daemon)
        epoch.end_requests = epoch.requests
        epoch.duration_s = round(time.monotonic() - started, 1)

    def loop(self, epoch: Epoch, daemon: Instance, steps: list, first: dict, budget: int,
             deadline: float):
        """Whole cycles while another one fits before the deadline and within the budget."""
        cycle_time = 0.0
        while (time.monotonic() + cycle_time < deadline and epoch.requests + len(steps) <= budget
               and not daemon.ended()):
            began = time.monotonic()
            self.run_cycle(epoch, steps, first)
            cycle_time = time.monotonic() - began
            self.sample(epoch, daemon)


# ---------------------------------------------------------------------------------------------
# Checks of an epoch and across epochs


@dataclass
class Limits:
    heap_per_request: float  # bytes
    rss_kib: int


def memory_problems(epoch: Epoch, limits: Limits) -> list:
    """The live heap's growth per request after warm-up, when the probe measured it, and the
    resident memory's growth, a coarse guard for memory outside malloc."""
    warm, end = epoch.warmup, epoch.end
    measured = epoch.measured_requests()
    if measured < MIN_MEASURED_REQUESTS:
        return [f"only {measured} requests after warm-up, too few to judge memory by (at least "
                f"{MIN_MEASURED_REQUESTS}: give the soak more time)"]
    problems = []
    per_request = epoch.heap_growth_per_request()
    if per_request is not None and per_request > limits.heap_per_request:
        problems.append(f"the live heap grew by {end['heap'] - warm['heap']} bytes over {measured} "
                        f"requests after warm-up, {per_request:.1f} bytes per request (tolerance "
                        f"{limits.heap_per_request:g}): a leak")
    growth = end["rss_kib"] - warm["rss_kib"]
    if growth > limits.rss_kib:
        problems.append(f"resident memory grew by {growth} KiB (tolerance {limits.rss_kib} KiB)")
    return problems


def compare_epoch(epoch: Epoch, limits: Limits) -> list:
    if not epoch.warmup or not epoch.end:
        return ["the epoch did not run to its end"]
    warm, end = epoch.warmup, epoch.end
    problems = []
    for key in ("fd_targets", "children"):
        if warm[key] != end[key]:
            problems.append(f"{key}: {warm[key]} after warm-up, {end[key]} at the end")
    for name, figures in (("after warm-up", warm), ("at the end", end)):
        if figures["zombies"]:
            problems.append(f"{figures['zombies']} zombie(s) {name}")
    problems += memory_problems(epoch, limits)
    if warm["settings"] != end["settings"]:
        problems.append("the stored settings differ from those after warm-up")
    streaming = ["qel2ip"] if layout(epoch.mode)["output"] == "output_ip" else []
    if warm["children"] != streaming:
        problems.append(f"children after warm-up: {warm['children']}, expected {streaming}")
    return problems


def compare_daemons(epochs: list) -> list:
    """Every daemon, restarted or not and in whichever mode, holds the descriptors of its own
    that the first one (started by this program) held after warm-up: the output modes differ in
    their children only, which each epoch checks against its mode. The standard streams are left
    aside (the first daemon writes to files of its own, the restarted ones to the init script's
    log). A descriptor that a daemon hands down to the next one through the init script shows
    here."""
    measured = [(number, epoch) for number, epoch in enumerate(epochs) if epoch.warmup]
    if not measured:
        return []
    model_number, model = measured[0]
    return [f"epoch {number} ({epoch.mode}): descriptors {epoch.warmup['own_fd_targets']} after "
            f"warm-up, epoch {model_number} ({model.mode}): {model.warmup['own_fd_targets']}"
            for number, epoch in measured[1:]
            if epoch.warmup["own_fd_targets"] != model.warmup["own_fd_targets"]]


def epoch_problems(epochs: list, limits: Limits) -> list:
    problems = []
    for number, epoch in enumerate(epochs):
        found = compare_epoch(epoch, limits) + epoch.failures
        problems += [f"epoch {number} ({epoch.mode}): {problem}" for problem in found]
    return problems + compare_daemons(epochs)


# ---------------------------------------------------------------------------------------------
# The whole soak


def planned_modes(mode: str, epochs: int | None) -> list:
    if mode != "all":
        return [mode]
    return [MODES[n % len(MODES)] for n in range(epochs or DEFAULT_EPOCHS_ALL)]


class Soak:
    def __init__(self, args):
        self.args = args
        self.modes = planned_modes(args.mode, args.epochs)
        self.netsettings = not args.no_netsettings
        # A box with four modules serves every mode (IP SPTS uses the one at 0x32).
        box_mode = args.mode if args.mode != "all" else "rf"
        self.box = tavisim.Box(tempfile.mkdtemp(prefix="tv", dir="/tmp"), box_mode,
                               netsettings=self.netsettings)
        self.heap_note = heap_probe_unusable(args.tavid)
        self.heap = None if self.heap_note else HeapProbe(self.box.root, args.tavid)
        self.wrapper = self.heap.wrapper() if self.heap else []
        self.port = conftest.free_port()
        self.runner = Runner(self.box, self.port, self.netsettings, self.heap)
        self.epochs = []
        self.problems = []
        self.daemon = None
        self.final_status = None
        self.started = time.monotonic()
        self.duration = 0.0

    def prepare(self):
        if self.heap:
            self.heap.build()
        else:
            print(f"soak: NOTE the live heap is not measured: {self.heap_note}; memory is judged "
                  f"by resident memory alone ({self.args.rss_tolerance_kib} KiB allowed), which "
                  "shows gross leaks only", flush=True)
        self.box.start()

    def start_first(self, mode: str) -> Instance:
        shutil.copy(self.box.path(f"opt/bin/default_settings_{mode}.conf"),
                    self.box.path("data/settings.conf"))
        first = conftest.Daemon(self.box, ["-m", mode], self.port, self.wrapper).start()
        # A restart gets its "-m" from the init script, after these.
        self.box.configure_restart(conftest.tavid_bin(), ["-c", str(self.port)],
                                   [*self.wrapper, *conftest.launcher()])
        return Instance(first.process.pid, first.process)

    def change_mode(self, epoch: Epoch, new: str) -> Instance:
        """Executes the new mode: the daemon copies that mode's defaults into place and ends,
        and its init script starts the next daemon in the background."""
        light_leds(self.box)
        step = Step(f"execute mode {new}", "execute",
                    request_text("execute", "device", {"device_id": "0", "output_mode": new}), OK)
        self.runner.check(epoch, step, self.runner.send(epoch, step), None)
        status = self.daemon.wait(RESTART_TIMEOUT)
        if status != 0:
            epoch.fail(f"tavid (PID {self.daemon.pid}) ended with status {status} on the mode change")
        known = {done.pid for done in self.epochs}
        wait_for(lambda: restarted_pid(self.box, known) is not None, RESTART_TIMEOUT,
                 f"a daemon restarted in mode {new}")
        return Instance(restarted_pid(self.box, known))

    def run(self):
        self.started = time.monotonic()
        seconds = self.args.minutes * 60
        for number, mode in enumerate(self.modes):
            if number == 0:
                self.daemon = self.start_first(mode)
            else:
                self.daemon = self.change_mode(self.epochs[-1], mode)
            epoch = Epoch(mode, self.daemon.pid)
            self.epochs.append(epoch)
            wait_ready(self.box, self.daemon, self.port, mode)
            deadline = self.started + seconds * (number + 1) / len(self.modes)
            print(f"soak: epoch {number} ({mode}, PID {self.daemon.pid}) until "
                  f"{deadline - self.started:.0f} s", flush=True)
            self.runner.run_epoch(epoch, self.daemon, deadline)
            report_epoch(number, epoch)

    def finish(self):
        """Ends the last daemon as the box does and checks that nothing is left behind."""
        self.duration = time.monotonic() - self.started
        if self.daemon is not None:
            self.final_status = self.daemon.stop()
            if self.final_status != 0:
                self.problems.append(f"the last tavid ended with status {self.final_status}")
        leftover = streaming_left_running(self.box)
        if leftover:
            self.problems.append(f"streaming children left running: {leftover}")
        streaming_starts = len(self.box.qel2ip_runs())
        self.box.stop()
        strays = reap_strays()
        if strays:
            self.problems.append(f"processes left for this program to reap: {strays}")
        if not self.args.keep:
            shutil.rmtree(self.box.root, ignore_errors=True)
        return streaming_starts

    def summary(self, streaming_starts: int) -> dict:
        limits = Limits(self.args.heap_tolerance, self.args.rss_tolerance_kib)
        problems = self.problems + epoch_problems(self.epochs, limits)
        last = self.epochs[-1] if self.epochs else Epoch("", 0)
        return {
            "mode": self.args.mode, "minutes": self.args.minutes,
            "duration_s": round(self.duration, 1),
            "requests": sum(epoch.requests for epoch in self.epochs),
            "errors": sum(epoch.errors for epoch in self.epochs),
            "by_kind": merged_counts(self.epochs),
            "mode_changes": max(len(self.epochs) - 1, 0),
            "streaming_starts": streaming_starts,
            "heap_measured": self.heap is not None, "heap_note": self.heap_note,
            "heap_tolerance_bytes_per_request": self.args.heap_tolerance,
            "min_measured_requests": MIN_MEASURED_REQUESTS,
            "rss_tolerance_kib": self.args.rss_tolerance_kib,
            "peak_rss_kib": max((epoch.end.get("hwm_kib", 0) for epoch in self.epochs), default=0),
            "warmup": public(last.warmup), "end": public(last.end),
            "final_exit_status": self.final_status,
            "epochs": [epoch_summary(epoch) for epoch in self.epochs],
            "problems": problems,
            "ok": not problems,
        }


def heap_figures(epoch: Epoch) -> str:
    per_request = epoch.heap_growth_per_request()
    if per_request is None:
        return ""
    return (f"live heap {epoch.warmup['heap']} -> {epoch.end['heap']} bytes, "
            f"{per_request:+.2f} bytes per request; ")


def report_epoch(number: int, epoch: Epoch):
    warm, end = epoch.warmup, epoch.end
    print(f"soak: epoch {number} ({epoch.mode}) {epoch.requests} requests, {epoch.errors} errors, "
          f"{epoch.cycles} cycles, {epoch.measured_requests()} requests after warm-up; "
          f"{heap_figures(epoch)}RSS {warm['rss_kib']} -> {end['rss_kib']} KiB (peak "
          f"{end['hwm_kib']}), fds {warm['fds']} -> {end['fds']}, children {warm['children']} -> "
          f"{end['children']}, zombies {end['zombies']}", flush=True)


def public(figures: dict) -> dict:
    """The figures without the settings text."""
    return {key: value for key, value in figures.items() if key != "settings"}


def thinned(samples: list) -> list:
    step = max(1, -(-len(samples) // SAMPLES_KEPT))
    return samples[::step]


def epoch_summary(epoch: Epoch) -> dict:
    per_request = epoch.heap_growth_per_request()
    return {"mode": epoch.mode, "pid": epoch.pid, "duration_s": epoch.duration_s,
            "requests": epoch.requests, "errors": epoch.errors, "cycles": epoch.cycles,
            "measured_requests": epoch.measured_requests(),
            "heap_growth_per_request": None if per_request is None else round(per_request, 3),
            "by_kind": epoch.by_kind, "warmup": public(epoch.warmup), "end": public(epoch.end),
            "samples": thinned(epoch.samples), "failures": epoch.failures}


def merged_counts(epochs: list) -> dict:
    counts = {}
    for epoch in epochs:
        for name, count in epoch.by_kind.items():
            counts[name] = counts.get(name, 0) + count
    return counts


def reap_strays() -> list:
    """What is still a child of this program once every daemon has been reaped: processes
    orphaned below it, reaped here when they have ended."""
    strays = []
    while True:
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            break
        if pid == 0:
            break
        strays.append(pid)
    return strays + [name for name, _ in children(os.getpid())]


def heap_verdict(summary: dict) -> str:
    if not summary["heap_measured"]:
        return f"live heap not measured: {summary['heap_note']}"
    growths = ", ".join(f"{epoch['mode']} {epoch['heap_growth_per_request']:+.2f}"
                        for epoch in summary["epochs"]
                        if epoch["heap_growth_per_request"] is not None)
    return (f"live heap growth per request after warm-up: {growths or 'none measured'} bytes "
            f"(tolerance {summary['heap_tolerance_bytes_per_request']:g}, over at least "
            f"{summary['min_measured_requests']} requests per daemon)")


def print_summary(summary: dict):
    warm, end = summary["warmup"], summary["end"]
    kinds = ", ".join(f"{kind} {count}" for kind, count in sorted(summary["by_kind"].items()))
    lines = [
        f"mode {summary['mode']}, {summary['duration_s']} s, {summary['mode_changes']} mode "
        f"change(s), {summary['streaming_starts']} streaming start(s)",
        f"requests {summary['requests']} ({kinds}), errors {summary['errors']}",
        heap_verdict(summary),
        f"last daemon: RSS {warm.get('rss_kib')} KiB after warm-up, {end.get('rss_kib')} KiB at the "
        f"end (anon {warm.get('rss_anon_kib')} -> {end.get('rss_anon_kib')}), tolerance "
        f"{summary['rss_tolerance_kib']} KiB",
        f"peak RSS (VmHWM) {summary['peak_rss_kib']} KiB",
        f"fds {warm.get('fds')} -> {end.get('fds')}, children {warm.get('children')} -> "
        f"{end.get('children')}, zombies {end.get('zombies')}",
    ]
    for line in lines:
        print("soak: " + line)
    for problem in summary["problems"]:
        print("soak: FAIL " + problem)
    print("soak: " + ("passed" if summary["ok"] else "FAILED"), flush=True)


def parse_args(argv):
    parser = argparse.ArgumentParser(prog="soak",
                                     description="Soak test of tavid against the box simulator.")
    parser.add_argument("--tavid", default=os.environ.get("TAVID_BIN", ""),
                        help="the daemon binary (default: $TAVID_BIN)")
    parser.add_argument("--minutes", type=float, default=DEFAULT_MINUTES,
                        help=f"how long to run (default {DEFAULT_MINUTES:g})")
    parser.add_argument("--mode", choices=("all", *MODES), default="all",
                        help="one output mode, or all of them in turn with mode changes")
    parser.add_argument("--epochs", type=int, default=None,
                        help=f"with --mode all: daemons in turn (default {DEFAULT_EPOCHS_ALL})")
    parser.add_argument("--json", metavar="FILE", help="write the figures as JSON")
    parser.add_argument("--heap-tolerance", type=float, default=HEAP_TOLERANCE,
                        help="live heap growth allowed, in bytes per request after warm-up "
                             f"(default {HEAP_TOLERANCE:g})")
    parser.add_argument("--rss-tolerance-kib", type=int, default=RSS_TOLERANCE_KIB,
                        help=f"resident memory growth allowed (default {RSS_TOLERANCE_KIB})")
    parser.add_argument("--no-netsettings", action="store_true",
                        help="leave the interface configuration out (localhost:49998 is taken)")
    parser.add_argument("--keep", action="store_true", help="keep the box root for a look")
    args = parser.parse_args(argv)
    if not args.tavid:
        parser.error("name the daemon with --tavid or TAVID_BIN")
    if args.minutes <= 0 or (args.epochs is not None and args.epochs < 1):
        parser.error("--minutes and --epochs must be positive")
    if args.epochs is not None and args.mode != "all":
        parser.error("--epochs goes with --mode all")
    args.tavid = os.path.abspath(args.tavid)
    return args


def main(argv=None) -> int:
    args = parse_args(argv)
    os.environ["TAVID_BIN"] = args.tavid
    become_subreaper()
    try:
        soak = Soak(args)
        soak.prepare()
    except OSError as failure:
        print(f"soak: cannot start: {failure}", file=sys.stderr)
        return 2
    try:
        soak.run()
    except (SoakError, OSError) as failure:
        soak.problems.append(f"the soak stopped: {failure}")
    finally:
        streaming_starts = soak.finish()
    summary = soak.summary(streaming_starts)
    print_summary(summary)
    if args.json:
        Path(args.json).write_text(json.dumps(summary, indent=2) + "\n")
    return 0 if summary["ok"] else 1


if __name__ == "__main__":
    sys.exit(main())
