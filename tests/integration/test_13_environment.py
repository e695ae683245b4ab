"""What the box's own environment does to the daemon: the programs it runs inherit none of its
sockets and find SIGPIPE as it is by default; a log reader that goes away does not end it; texts
cut to a length stay whole characters and a module's broken text is answered repaired, so that
the settings file survives both; without an IPv4 address yet the command channel still opens;
and a box root that a shell or PATH would split is refused."""

import json
import os
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from conftest import (REPLY_WAIT, START_WAIT, answers, daemon_env, err, free_port, get, gone, launcher,
                      led_cleared, matches, request, run_tavid, send, start_ready, stream, tavid_bin, tcp_listening,
                      wait_for)

SIGPIPE_BIT = 1 << (signal.SIGPIPE - 1)  # in the masks of /proc/<pid>/status
REPLACEMENT = "\ufffd"


def sockets_held(pid: int) -> list:
    """The sockets among the open descriptors of a process."""
    held = []
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            target = os.readlink(f"/proc/{pid}/fd/{fd}")
        except FileNotFoundError:
            continue
        if target.startswith("socket:"):
            held.append((fd, target))
    return held


# ---------------------------------------------------------------------------------------------
# What the programs that the daemon runs inherit


def test_the_streaming_program_holds_no_socket_of_the_daemon(make_box, tavid):
    """The listening socket is not inherited: it would keep the port taken after the daemon."""
    box, daemon = start_ready(make_box, tavid, "ip_spts")
    pid = stream(box, daemon, "239.1.2.3", "1234", "0")["pid"]
    assert sockets_held(daemon.process.pid) != []
    assert sockets_held(pid) == []


# Stands in for reboot: records its descriptors and its signal masks, then leaves a process
# behind that keeps every descriptor it was given but the standard ones.
REBOOT_LEAVING_A_PROCESS = """#!/bin/sh
root={root}
ls -l /proc/$$/fd/ >"$root/reboot.fds"
grep -E '^Sig(Ign|Cgt):' /proc/$$/status >"$root/reboot.signals"
sleep 120 </dev/null >/dev/null 2>&1 &
echo $! >"$root/reboot.left"
"""


def test_a_box_command_holds_no_socket_and_its_leftover_does_not_hold_the_reply(make_box, tavid):
    """The reply to the reset ends while the process that reboot left behind still runs: the
    client's connection is not held open by it. reboot itself finds SIGPIPE at its default."""
    box, daemon = start_ready(make_box, tavid, "rf")
    reboot = Path(box.path("sbin/reboot"))
    reboot.write_text(REBOOT_LEAVING_A_PROCESS.format(root=box.root))
    reboot.chmod(0o755)
    try:
        assert send(daemon, "execute", "reset", level="0") == b"{}"
        left = int(Path(box.path("reboot.left")).read_text())
        assert not gone(left), "the leftover ended before the reply"
        assert sockets_held(left) == []
    finally:
        left_file = Path(box.path("reboot.left"))
        if left_file.exists():
            os.kill(int(left_file.read_text()), signal.SIGKILL)
    assert "socket:" not in Path(box.path("reboot.fds")).read_text()
    signals = dict(line.split(":\t") for line in Path(box.path("reboot.signals")).read_text().splitlines())
    assert int(signals["SigIgn"], 16) & SIGPIPE_BIT == 0
    answers(daemon)


# ---------------------------------------------------------------------------------------------
# SIGPIPE


def test_a_log_reader_that_goes_away_does_not_end_the_daemon(make_box):
    """tavid -v 2>&1 | reader, and the reader ends: the daemon's next lines fail to be written,
    the daemon goes on answering, and SIGTERM ends it with status 0."""
    box = make_box("rf")
    port = free_port()
    process = subprocess.Popen([*launcher(), tavid_bin(), "-v", "-c", str(port), "-m", "rf"],
                               env=daemon_env(box.root), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT)
    try:
        wait_for(lambda: tcp_listening(port) or process.poll() is not None, what="the daemon listening")
        assert process.poll() is None
        process.stdout.close()
        # A set logs the store of the settings at -v while it is handled: the first line meets
        # the closed pipe before the reply goes out.
        set_frequency = b'{"action":"set","object":"output_rf_mod","args":{"output_id":"0","frequency":"482000"}}'
        assert request(port, set_frequency) == b"{}"
        assert request(port, b'{"action":"get","object":"device","args":{"device_id":"0"}}') == \
            b'{"result":{"output_mode":"rf","device_id":"0"}}'
        process.send_signal(signal.SIGTERM)
        assert process.wait(REPLY_WAIT) == 0
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()


# ---------------------------------------------------------------------------------------------
# Texts cut to a length, and a module's broken text

NAME = "ABCDEFGHIJKLMN\u00e9"  # 16 bytes: the module's 15 would split the last character
CUT = "ABCDEFGHIJKLMN"


def first_service(daemon) -> dict:
    """The service of HDMI input 0 (module 0x30)."""
    (service,) = get(daemon, "input_hdmi_services", input_id="0")["arrayedResult"]
    return service


def stored_record(box, obj: str, id_key: str) -> dict:
    """The arguments of instance 0's record in the settings file."""
    (args,) = [record["args"] for record in box.stored_settings()["records"]
               if record["object"] == obj and record["args"][id_key] == "0"]
    return args


def stored_frequency(box) -> str:
    return stored_record(box, "output_rf", "output_id")["frequency"]


def test_a_name_cut_for_the_module_is_cut_between_characters(make_box, tavid):
    """"ABCDEFGHIJKLMNé" reaches the module, comes back and is stored as "ABCDEFGHIJKLMN";
    the settings file stays, and the next set is stored."""
    box, daemon = start_ready(make_box, tavid, "rf", at_rest=True)
    tag = first_service(daemon)["service_tag"]
    assert send(daemon, "set", "input_hdmi_services", input_id="0", service_tag=tag, service_name=NAME) == b"{}"
    assert send(daemon, "set", "input_hdmi_ts", input_id="0", network_name=NAME) == b"{}"
    assert first_service(daemon)["service_name"] == CUT
    assert get(daemon, "input_hdmi_ts", input_id="0")["result"]["network_name"] == CUT
    parameters = box.module(0x30).state()["settings"]["parameters"]
    assert (parameters["service_name"], parameters["network_name"]) == (CUT, CUT)
    stored_ts = stored_record(box, "input_hdmi", "input_id")["ts"]
    assert (stored_ts["services"][0]["service_name"], stored_ts["network_name"]) == (CUT, CUT)
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency="482000") == b"{}"
    assert stored_frequency(box) == "482000"


def test_a_name_that_is_not_utf8_is_answered_repaired_and_stored(make_box, tavid):
    """A corrupted module answers bytes that are no UTF-8: each invalid byte is replaced by
    U+FFFD in the reply, and the settings file is written all the same."""
    box, daemon = start_ready(make_box, tavid, "rf", at_rest=True)
    box.module(0x30).set_values({"service_name": "AB\xff\xc3C"})
    repaired = f"AB{REPLACEMENT}{REPLACEMENT}C"
    assert first_service(daemon)["service_name"] == repaired
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency="482000") == b"{}"
    assert stored_frequency(box) == "482000"
    assert stored_record(box, "input_hdmi", "input_id")["ts"]["services"][0]["service_name"] == repaired


def test_a_long_name_in_an_error_is_cut_between_characters(box, tavid):
    """The description holds 1023 bytes: 36 before the name, then 987 of a name of two-byte
    characters, which would split the 494th."""
    daemon = tavid(box)
    name = "\u00e9" * 600
    reply = request(daemon.port, json.dumps({"action": "get", "object": name, "args": {}}).encode())
    assert json.loads(reply) == {"errorCode": 5002, "description": f"JSON command has an unknown object ({name[:493]}"}
    answers(daemon)


# ---------------------------------------------------------------------------------------------
# No IPv4 address yet

# A network of the daemon's own with loopback up and an IPv6 address that is not loopback: a
# passive lookup with AI_ADDRCONFIG then answers IPv6 only, as on a box waiting for DHCP.
IPV6_ONLY = "ip link set lo up && ip -6 addr add 2001:db8::1/128 dev lo && exec \"$@\""
LOOKUP = ("import socket; print(sorted({a[0].name for a in socket.getaddrinfo(None, 1, 0, socket.SOCK_STREAM, 0, "
          "socket.AI_PASSIVE | socket.AI_ADDRCONFIG)}))")


def in_network(script: str) -> list:
    """A wrapper that runs the rest of the line in a user and network namespace prepared by the
    script."""
    return ["unshare", "-rn", "--", "/bin/sh", "-c", script, "sh"]


@pytest.fixture(scope="module")
def ipv6_only():
    """The lookup as the daemon makes it answers IPv6 only in such a network."""
    try:
        done = subprocess.run(in_network(IPV6_ONLY) + ["/usr/bin/python3", "-c", LOOKUP], capture_output=True,
                              timeout=REPLY_WAIT)
    except FileNotFoundError:
        pytest.skip("no unshare here to give the daemon a network of its own")
    if done.returncode != 0:
        pytest.skip(f"no user and network namespaces here: {done.stderr.decode(errors='replace').strip()}")
    assert done.stdout == b"['AF_INET6']\n"


def listening_rows(pid: int, port: int) -> list:
    """The local addresses of the sockets listening on the port in the process's network."""
    rows = []
    for table in ("tcp", "tcp6"):
        with open(f"/proc/{pid}/net/{table}", encoding="ascii") as lines:
            next(lines)
            for line in lines:
                fields = line.split()
                address, _, number = fields[1].rpartition(":")
                if int(number, 16) == port and fields[3] == "0A":
                    rows.append(address)
    return rows


def test_without_an_ipv4_address_the_channel_opens_on_the_ipv4_wildcard(box, tavid, ipv6_only):
    daemon = tavid(box, ["-m", "rf"], wrapper=in_network(IPV6_ONLY), listen=False)
    pid = daemon.process.pid
    wait_for(lambda: listening_rows(pid, daemon.port) or not daemon.running(), timeout=START_WAIT,
             what="the daemon listening in its network")
    assert listening_rows(pid, daemon.port) == ["00000000"]
    wait_for(lambda: led_cleared(box, "rf") or not daemon.running(), what="the first poll pass")
    reply = subprocess.run(["nsenter", "-t", str(pid), "-U", "-n", "--preserve-credentials", "/usr/bin/python3",
                            str(Path(__file__).resolve().parents[2] / "scripts" / "request.py"), "-p",
                            str(daemon.port), '{"action":"get","object":"device","args":{"device_id":"0"}}'],
                           capture_output=True, timeout=REPLY_WAIT)
    assert reply.stdout == b'{"result":{"output_mode":"rf","device_id":"0"}}', reply.stderr
    assert b"[ERR]" not in daemon.stderr()
    assert daemon.stop() == 0


# ---------------------------------------------------------------------------------------------
# Box roots that a shell or PATH would split

REFUSED = err("boxroot_init", "TAVID_ROOT must name an existing absolute directory (the simulated box)")
# A daemon that took the root would stop at this option, before it touches any path under it.
NO_FURTHER = ["-m", "none"]


@pytest.mark.parametrize("name", ["a b", "a:b", "a;b", "a'b", "a$b", "a*b", "a\\b", "a\u00e9"],
                         ids=["space", "colon", "semicolon", "quote", "dollar", "star", "backslash", "non-ascii"])
def test_a_root_that_a_shell_or_path_would_split_is_refused(name):
    """Refused as a relative root is, with nothing touched: neither the root's data nor "a",
    what a shell would take for the first word of "<base>/a b/data/*"."""
    with tempfile.TemporaryDirectory(prefix="tv", dir="/tmp") as base:
        root = Path(base, name)
        kept = [root / "data" / "kept", Path(base, "a", "kept")]
        for path in kept:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("kept")
        status, out, errors = run_tavid(NO_FURTHER, str(root))
        assert (status, out) == (0, b"")
        assert matches(errors, REFUSED), errors
        assert [path.read_text() for path in kept] == ["kept", "kept"]


@pytest.mark.parametrize("root", ["/", "//", "/.", "/tmp/.."])
def test_the_machines_own_root_is_refused(root):
    status, out, errors = run_tavid(NO_FURTHER, root)
    assert (status, out) == (0, b"")
    assert matches(errors, REFUSED), errors


def test_a_root_of_every_character_taken_is_accepted():
    """Letters, digits and / . _ - + , are taken: the root is accepted, and the next check,
    the options', speaks."""
    with tempfile.TemporaryDirectory(prefix="tv", dir="/tmp") as base:
        root = Path(base, "Box_A.b-1+2,3")
        root.mkdir()
        status, out, errors = run_tavid(NO_FURTHER, str(root))
    assert (status, out) == (0, b"")
    assert matches(errors, err("main", "Option 'none' received an unknown output mode. Please choose \"rf\", "
                                       "\"ip_spts\" or \"ip_mpts\".")), errors
