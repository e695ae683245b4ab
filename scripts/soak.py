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
  resident memory    VmRSS at most --rss-tolerance-kib above the warm-up figure (see below)
  replies            each as the protocol defines it, and byte for byte what the same step
                     answered in the epoch's first cycle

With --mode all the epochs go round rf, ip_spts, ip_mpts; the epochs of one mode must also
agree with each other on descriptors and children after warm-up, which catches anything a
restarted daemon inherits from the one before. The restarted daemons are not children of this
program: the old daemon's init script starts them in the background. This program therefore
makes itself the child subreaper, so that they are reparented here and reaped here.

Resident memory: the daemon's live heap stays flat under this mix (in RF mode 106 830 bytes
between requests at the start and at the end of a 4-minute run under massif; IP SPTS the same
with heaptrack; nothing lost at exit), yet glibc malloc makes its VmRSS creep for a while: freed
chunks wait in per-size caches and bins, and the short-lived buffers of each request (the
request text grown in 100-byte steps, the reply, the settings file's stdio buffer) land in new
places of the arena, touching pages of it that had not been used yet, until its layout settles.
Measured in RF mode over an hour (29 127 requests) after a one-cycle warm-up: +76 KiB, of which
+40 KiB in the first 10 minutes and +4 KiB in the last 20. Hence the warm-up's fifth of the
epoch (the same hour measured from minute 12: +36 KiB) and a tolerance of 64 KiB (16 pages). A
leak shows as a steady slope instead: the tolerance catches about a byte per request in an hour
of one mode, and only gross leaks in the 3-minute run, whose strength is the exact checks of
descriptors, children and zombies; the VmRSS after every cycle is in the JSON figures.

Only 127.0.0.1 is used: the daemon's command port (a free one) and the network-settings
service (localhost:49998, fixed by the daemon; --no-netsettings leaves the interface
configuration out of the mix when another box serves that port).

Usage:
  /usr/bin/python3 scripts/soak.py --tavid build/host/src/tavid [--minutes 3]
      [--mode all|rf|ip_spts|ip_mpts] [--epochs N] [--json FILE]

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
RSS_SAMPLES_KEPT = 60

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


def fd_targets(pid: int) -> dict:
    """What each open descriptor refers to; sockets, pipes and anonymous inodes by kind only,
    since their numbers change with every connection."""
    base = f"/proc/{pid}/fd"
    targets = {}
    for fd in os.listdir(base):
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


def snapshot(pid: int) -> dict:
    status = proc_status(pid)
    kids = children(pid)
    targets = fd_targets(pid)
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


def restarted_pid(box: tavisim.Box, known: set) -> int | None:
    try:
        pids = [int(pid) for pid in Path(box.path("tavid.pid")).read_text().split()]
    except FileNotFoundError:
        return None
    fresh = [pid for pid in pids if pid not in known]
    return fresh[-1] if fresh else None


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
    rss_samples_kib: list = field(default_factory=list)
    failures: list = field(default_factory=list)
    duration_s: float = 0.0

    def fail(self, what: str):
        self.errors += 1
        if len(self.failures) < REPORTED_FAILURES:
            self.failures.append(what)


class Runner:
    def __init__(self, box: tavisim.Box, port: int, netsettings: bool):
        self.box = box
        self.port = port
        self.netsettings = netsettings

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

    def measure(self, daemon: Instance) -> dict:
        if daemon.ended():
            raise SoakError(f"tavid (PID {daemon.pid}) ended with status {daemon.status}")
        settle(self.box, daemon)
        return {**snapshot(daemon.pid), "settings": self.box.stored_settings()["text"]}

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
        budget = epoch.requests + int((deadline - time.monotonic()) * MAX_REQUESTS_PER_SECOND)
        self.loop(epoch, daemon, steps, first, budget, deadline)
        epoch.end = self.measure(daemon)
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
            epoch.rss_samples_kib.append(proc_status(daemon.pid)["VmRSS"])


# ---------------------------------------------------------------------------------------------
# Checks of an epoch and across epochs


def compare_epoch(epoch: Epoch, tolerance_kib: int) -> list:
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
    growth = end["rss_kib"] - warm["rss_kib"]
    if growth > tolerance_kib:
        problems.append(f"resident memory grew by {growth} KiB (tolerance {tolerance_kib} KiB)")
    if warm["settings"] != end["settings"]:
        problems.append("the stored settings differ from those after warm-up")
    streaming = ["qel2ip"] if layout(epoch.mode)["output"] == "output_ip" else []
    if warm["children"] != streaming:
        problems.append(f"children after warm-up: {warm['children']}, expected {streaming}")
    return problems


def compare_modes(epochs: list) -> list:
    """A daemon restarted into a mode holds what the first daemon of that mode held, its
    standard streams aside (the first writes to files of its own, the restarted to the init
    script's log)."""
    problems = []
    first = {}
    for number, epoch in enumerate(epochs):
        if not epoch.warmup:
            continue
        model_number, model = first.setdefault(epoch.mode, (number, epoch))
        for key in ("own_fd_targets", "children"):
            if epoch.warmup[key] != model.warmup[key]:
                problems.append(f"epoch {number} ({epoch.mode}): {key} {epoch.warmup[key]} after "
                                f"warm-up, epoch {model_number}: {model.warmup[key]}")
    return problems


def epoch_problems(epochs: list, tolerance_kib: int) -> list:
    problems = []
    for number, epoch in enumerate(epochs):
        found = compare_epoch(epoch, tolerance_kib) + epoch.failures
        problems += [f"epoch {number} ({epoch.mode}): {problem}" for problem in found]
    return problems + compare_modes(epochs)


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
        self.port = conftest.free_port()
        self.runner = Runner(self.box, self.port, self.netsettings)
        self.epochs = []
        self.problems = []
        self.daemon = None
        self.final_status = None
        self.started = time.monotonic()
        self.duration = 0.0

    def start_first(self, mode: str) -> Instance:
        shutil.copy(self.box.path(f"opt/bin/default_settings_{mode}.conf"),
                    self.box.path("data/settings.conf"))
        first = conftest.Daemon(self.box, ["-m", mode], self.port).start()
        # A restart gets its "-m" from the init script, after these.
        self.box.configure_restart(conftest.tavid_bin(), ["-c", str(self.port)], conftest.launcher())
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
        leftover = [run["pid"] for run in self.box.qel2ip_runs() if run["running"]]
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
        problems = self.problems + epoch_problems(self.epochs, self.args.rss_tolerance_kib)
        last = self.epochs[-1] if self.epochs else Epoch("", 0)
        return {
            "mode": self.args.mode, "minutes": self.args.minutes,
            "duration_s": round(self.duration, 1),
            "requests": sum(epoch.requests for epoch in self.epochs),
            "errors": sum(epoch.errors for epoch in self.epochs),
            "by_kind": merged_counts(self.epochs),
            "mode_changes": max(len(self.epochs) - 1, 0),
            "streaming_starts": streaming_starts,
            "rss_tolerance_kib": self.args.rss_tolerance_kib,
            "peak_rss_kib": max((epoch.end.get("hwm_kib", 0) for epoch in self.epochs), default=0),
            "warmup": public(last.warmup), "end": public(last.end),
            "final_exit_status": self.final_status,
            "epochs": [epoch_summary(epoch) for epoch in self.epochs],
            "problems": problems,
            "ok": not problems,
        }


def report_epoch(number: int, epoch: Epoch):
    warm, end = epoch.warmup, epoch.end
    print(f"soak: epoch {number} ({epoch.mode}) {epoch.requests} requests, {epoch.errors} errors, "
          f"{epoch.cycles} cycles; RSS {warm['rss_kib']} -> {end['rss_kib']} KiB (peak "
          f"{end['hwm_kib']}), fds {warm['fds']} -> {end['fds']}, children {warm['children']} -> "
          f"{end['children']}, zombies {end['zombies']}", flush=True)


def public(figures: dict) -> dict:
    """The figures without the settings text."""
    return {key: value for key, value in figures.items() if key != "settings"}


def thinned(samples: list) -> list:
    step = max(1, -(-len(samples) // RSS_SAMPLES_KEPT))
    return samples[::step]


def epoch_summary(epoch: Epoch) -> dict:
    return {"mode": epoch.mode, "pid": epoch.pid, "duration_s": epoch.duration_s,
            "requests": epoch.requests, "errors": epoch.errors, "cycles": epoch.cycles,
            "by_kind": epoch.by_kind, "warmup": public(epoch.warmup), "end": public(epoch.end),
            "rss_samples_kib": thinned(epoch.rss_samples_kib), "failures": epoch.failures}


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


def print_summary(summary: dict):
    warm, end = summary["warmup"], summary["end"]
    kinds = ", ".join(f"{kind} {count}" for kind, count in sorted(summary["by_kind"].items()))
    lines = [
        f"mode {summary['mode']}, {summary['duration_s']} s, {summary['mode_changes']} mode "
        f"change(s), {summary['streaming_starts']} streaming start(s)",
        f"requests {summary['requests']} ({kinds}), errors {summary['errors']}",
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
        soak.box.start()
    except OSError as failure:
        print(f"soak: cannot start the box: {failure}", file=sys.stderr)
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
