"""tavictl, the command-line client, against a fake daemon that records the exact request bytes
and answers a scripted reply.

Environment: TAVICTL_BIN names the client binary; the tests are skipped when it is not set.
TAVID_LAUNCHER, when set, is put in front of it as for the daemon.
"""

import json
import os
import re
import socket
import subprocess
import threading
import time

import pytest

from conftest import READ_SILENCE, SLOW, free_port, launcher, request

RUN_WAIT = 2 * SLOW  # longer than any bound of these tests, far below the client's default time-out
HELP_SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "EXAMPLES"]


def tavictl_bin() -> str:
    path = os.environ.get("TAVICTL_BIN", "")
    if not path:
        pytest.skip("TAVICTL_BIN is not set: name the tavictl binary to run its tests")
    return path


def run_tavictl(*args, port=None):
    """(status, stdout, stderr); with a port, "-p port" comes first."""
    command = [*launcher(), tavictl_bin(), *(["-p", str(port)] if port is not None else []), *args]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_WAIT)
    return done.returncode, done.stdout, done.stderr


class FakeDaemon:
    """Serves connections on 127.0.0.1 one after the other the way tavid does: reads until 50 ms of
    silence, then sends the reply (in the given pieces, 20 ms apart) and closes. With hold, it
    never answers and waits for the client to give up. Per connection it records the request
    bytes and whether the client had half-closed before the reply was due."""

    def __init__(self, reply=b"{}", pieces=None, hold=False, port=0):
        self.pieces = pieces if pieces is not None else [reply]
        self.hold = hold
        self.requests = []
        self.half_closed = []
        self.failures = []
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", port))
        self.listener.listen(4)
        self.listener.settimeout(0.02)
        self.port = self.listener.getsockname()[1]
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while not self.stopping.is_set():
            try:
                conn, _ = self.listener.accept()
            except socket.timeout:
                continue
            with conn:
                try:
                    self._answer(conn)
                except OSError as error:
                    self.failures.append(error)

    def _answer(self, conn):
        data, closed = self._read_until_silence(conn)
        self.requests.append(data)
        self.half_closed.append(closed or self._peer_closed(conn))
        if self.hold:
            self._wait_for_client_close(conn)
            return
        for number, piece in enumerate(self.pieces):
            if number:
                time.sleep(0.02)
            conn.sendall(piece)

    @staticmethod
    def _read_until_silence(conn):
        conn.settimeout(READ_SILENCE)
        data = bytearray()
        while True:
            try:
                chunk = conn.recv(65536)
            except socket.timeout:
                return bytes(data), False
            if not chunk:
                return bytes(data), True
            data += chunk

    @staticmethod
    def _peer_closed(conn) -> bool:
        try:
            return conn.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) == b""
        except (BlockingIOError, socket.timeout):
            return False

    @staticmethod
    def _wait_for_client_close(conn):
        conn.settimeout(RUN_WAIT)
        try:
            while conn.recv(65536):
                pass
        except OSError:
            pass

    def requests_so_far(self) -> list:
        """The requests of every connection made before now. Connections are served one after the
        other in the order in which they came, so the answer to one more, the test's own (left
        out), comes after all of them."""
        assert request(self.port, b"") == b"".join(self.pieces)
        return self.requests[:-1]

    def stop(self):
        self.stopping.set()
        self.thread.join(RUN_WAIT)
        self.listener.close()


@pytest.fixture
def fake():
    """Factory fake(reply=b"{}", pieces=None, hold=False, port=0) -> FakeDaemon. At the end every
    client is checked never to have half-closed before its reply, and every reply to have been
    sent whole."""
    tavictl_bin()
    daemons = []

    def start(**script) -> FakeDaemon:
        daemon = FakeDaemon(**script)
        daemons.append(daemon)
        return daemon

    yield start
    for daemon in daemons:
        daemon.stop()
    assert not any(closed for daemon in daemons for closed in daemon.half_closed)
    assert [failure for daemon in daemons for failure in daemon.failures] == []


def sent(daemon: FakeDaemon) -> bytes:
    """The one request the daemon received."""
    assert len(daemon.requests) == 1
    return daemon.requests[0]


def compact(value) -> bytes:
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode()


# ---------------------------------------------------------------------------------------------
# Building the request


def test_pairs_become_string_arguments_in_command_line_order(fake):
    daemon = fake()
    status, out, err = run_tavictl("set", "output_rf_mod", "output_id=0", "frequency=474000", port=daemon.port)
    assert (status, out, err) == (0, b"{}\n", b"")
    assert sent(daemon) == (b'{"action":"set","object":"output_rf_mod",'
                            b'"args":{"output_id":"0","frequency":"474000"}}')


def test_without_pairs_the_args_object_is_empty(fake):
    daemon = fake()
    assert run_tavictl("get", "device", port=daemon.port)[0] == 0
    assert sent(daemon) == b'{"action":"get","object":"device","args":{}}'


def test_values_are_quoted_as_json_needs(fake):
    daemon = fake()
    value = 'say "hi" \\ back=slash'
    assert run_tavictl("set", "output_ip_ts", f"name={value}", port=daemon.port)[0] == 0
    assert sent(daemon) == (b'{"action":"set","object":"output_ip_ts",'
                            b'"args":{"name":"say \\"hi\\" \\\\ back=slash"}}')


def test_control_characters_non_ascii_and_empty_values_survive(fake):
    daemon = fake()
    pairs = {"service_name": "Caf\u00e9 \u00dcber", "provider": "a\tb\nc\x01", "level": "", "k\u00e9y": "-3"}
    assert run_tavictl("set", "input_hdmi_services", *[f"{k}={v}" for k, v in pairs.items()],
                       port=daemon.port)[0] == 0
    assert sent(daemon) == compact({"action": "set", "object": "input_hdmi_services", "args": pairs})
    assert b"\\t" in sent(daemon) and b"\\n" in sent(daemon) and b"\\u0001" in sent(daemon)


def test_a_key_given_twice_keeps_its_place_and_its_last_value(fake):
    daemon = fake()
    assert run_tavictl("set", "output_rf_mod", "level=1", "output_id=0", "level=2", port=daemon.port)[0] == 0
    assert sent(daemon) == b'{"action":"set","object":"output_rf_mod","args":{"level":"2","output_id":"0"}}'


def test_action_and_object_are_sent_as_given(fake):
    daemon = fake()
    assert run_tavictl("GET", "no_such_object", port=daemon.port)[0] == 0
    assert sent(daemon) == b'{"action":"GET","object":"no_such_object","args":{}}'


def test_options_may_follow_the_operands(fake):
    daemon = fake()
    assert run_tavictl("get", "output_rf", "output_id=1", "-p", str(daemon.port))[0] == 0
    assert sent(daemon) == b'{"action":"get","object":"output_rf","args":{"output_id":"1"}}'


def test_the_host_option_tries_every_address_of_a_name(fake):
    daemon = fake()
    assert run_tavictl("-H", "localhost", "get", "device", port=daemon.port)[0] == 0
    assert sent(daemon) == b'{"action":"get","object":"device","args":{}}'


def test_a_large_request_arrives_whole(fake):
    daemon = fake()
    big = "x" * 100000
    assert run_tavictl("set", "output_ip_ts", f"name={big}", port=daemon.port)[0] == 0
    assert sent(daemon) == compact({"action": "set", "object": "output_ip_ts", "args": {"name": big}})


# ---------------------------------------------------------------------------------------------
# --raw, --json-args, --arrayed


@pytest.mark.parametrize("text", ['{"action":"get","object":"device","args":{"device_id":"0"}}',
                                  '{ "action" : "get" }  trailing',
                                  "not json {"])
def test_raw_sends_its_text_unchanged(fake, text):
    daemon = fake()
    assert run_tavictl("--raw", text, port=daemon.port)[0] == 0
    assert sent(daemon) == text.encode()


def test_an_empty_raw_request_sends_nothing_and_still_waits_for_the_reply(fake):
    daemon = fake(reply=b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}')
    status, out, err = run_tavictl("--raw", "", port=daemon.port)
    assert (status, err) == (2, b"")
    assert out == b'{\n  "errorCode": 5002,\n  "description": "JSON command is invalid (JSON object)"\n}\n'
    assert sent(daemon) == b""


def test_json_args_is_sent_as_the_args_object(fake):
    daemon = fake()
    assert run_tavictl("--json-args", '{ "output_id": "0", "level": 2, "ts": {"tsid": "1"} }',
                       "set", "output_rf", port=daemon.port)[0] == 0
    assert sent(daemon) == (b'{"action":"set","object":"output_rf",'
                            b'"args":{"output_id":"0","level":2,"ts":{"tsid":"1"}}}')


def test_pairs_are_added_to_json_args_and_replace_its_keys(fake):
    daemon = fake()
    assert run_tavictl("--json-args", '{"output_id":"1","level":"-3"}', "set", "output_rf_mod",
                       "output_id=0", "enabled=1", port=daemon.port)[0] == 0
    assert sent(daemon) == (b'{"action":"set","object":"output_rf_mod",'
                            b'"args":{"output_id":"0","level":"-3","enabled":"1"}}')


def test_arrayed_is_sent_as_arrayed_args(fake):
    daemon = fake()
    elements = '[{"output_id":"0","frequency":"474000"}, {"output_id":"1","frequency":"482000"}]'
    assert run_tavictl("--arrayed", elements, "set", "output_rf_mod", port=daemon.port)[0] == 0
    assert sent(daemon) == (b'{"action":"set","object":"output_rf_mod","arrayedArgs":'
                            b'[{"output_id":"0","frequency":"474000"},{"output_id":"1","frequency":"482000"}]}')


def test_an_empty_arrayed_list_is_sent(fake):
    daemon = fake()
    assert run_tavictl("--arrayed", "[]", "execute", "store_settings", port=daemon.port)[0] == 0
    assert sent(daemon) == b'{"action":"execute","object":"store_settings","arrayedArgs":[]}'


# ---------------------------------------------------------------------------------------------
# The reply and the exit status


def test_a_result_is_printed_indented_in_the_daemons_key_order(fake):
    daemon = fake(reply=b'{"result":{"type":"dvb-t","frequency":"474000","enabled":"1","output_id":"0"}}')
    status, out, err = run_tavictl("get", "output_rf_mod", "output_id=0", port=daemon.port)
    assert status == 0 and err == b""
    assert out == (b'{\n  "result": {\n    "type": "dvb-t",\n    "frequency": "474000",\n'
                   b'    "enabled": "1",\n    "output_id": "0"\n  }\n}\n')


def test_an_arrayed_result_exits_0(fake):
    reply = {"arrayedResult": [{"output_mode": "rf", "device_id": "0"}, {"zeta": "\u00e9", "device_id": "1"}]}
    daemon = fake(reply=compact(reply))
    status, out, _ = run_tavictl("get", "device", port=daemon.port)
    assert status == 0
    assert out == json.dumps(reply, indent=2, ensure_ascii=False).encode() + b"\n"


def test_a_warning_exits_1(fake):
    daemon = fake(reply=b'{"warningCode":1103,"description":"JSON command unsuccessful (error: 13)"}')
    status, out, err = run_tavictl("set", "output_rf_mod", "output_id=0", "level=99", port=daemon.port)
    assert (status, err) == (1, b"")
    assert out == b'{\n  "warningCode": 1103,\n  "description": "JSON command unsuccessful (error: 13)"\n}\n'


def test_an_error_exits_2(fake):
    daemon = fake(reply=b'{"errorCode":5002,"description":"JSON command has an unknown action (set)"}')
    status, out, err = run_tavictl("set", "device_status", port=daemon.port)
    assert (status, err) == (2, b"")
    assert out == b'{\n  "errorCode": 5002,\n  "description": "JSON command has an unknown action (set)"\n}\n'


def test_a_reply_in_pieces_is_read_until_the_daemon_closes(fake):
    reply = compact({"result": {"name": "y" * 200000, "output_id": "0"}})
    daemon = fake(pieces=[reply[:10], reply[10:150000], reply[150000:]])
    status, out, err = run_tavictl("get", "output_ip_ts", "output_id=0", port=daemon.port)
    assert (status, err) == (0, b"")
    assert out == json.dumps(json.loads(reply), indent=2).encode() + b"\n"


@pytest.mark.parametrize("reply", [b"hello", b'{"result":', b"[1,2]", b'{"a":1} {"b":2}'])
def test_a_reply_that_is_not_a_json_object_exits_3(fake, reply):
    daemon = fake(reply=reply)
    status, out, err = run_tavictl("get", "device", port=daemon.port)
    assert (status, out) == (3, b"")
    assert err == b"tavictl: the reply is not a JSON object:\n" + reply + b"\n"


def test_a_connection_closed_without_a_reply_exits_3(fake):
    daemon = fake(reply=b"")
    status, out, err = run_tavictl("get", "device", port=daemon.port)
    assert (status, out) == (3, b"")
    assert err == b"tavictl: the daemon closed the connection without a reply\n"


def test_an_unreachable_daemon_exits_3():
    port = free_port()
    status, out, err = run_tavictl("get", "device", port=port)
    assert (status, out) == (3, b"")
    assert err == f"tavictl: cannot reach tavid at 127.0.0.1 port {port} (Connection refused)\n".encode()


def test_a_daemon_that_never_answers_exits_3_at_the_time_out(fake):
    daemon = fake(hold=True)
    started = time.monotonic()
    status, out, err = run_tavictl("-t", "0.3", "get", "device", port=daemon.port)
    elapsed = time.monotonic() - started
    assert (status, out) == (3, b"")
    assert err == f"tavictl: no complete reply from 127.0.0.1 port {daemon.port} within 0.3 s\n".encode()
    assert 0.3 <= elapsed < 0.3 + SLOW
    assert sent(daemon) == b'{"action":"get","object":"device","args":{}}'


def test_the_default_port_is_49999(fake):
    try:
        daemon = fake(port=49999)
    except OSError:
        pytest.skip("port 49999 is in use on this machine")
    assert run_tavictl("get", "device")[0] == 0
    assert sent(daemon) == b'{"action":"get","object":"device","args":{}}'


# ---------------------------------------------------------------------------------------------
# Bad command lines and --help


@pytest.mark.parametrize("args, message", [
    ([], "ACTION and OBJECT are needed"),
    (["get"], "ACTION and OBJECT are needed"),
    (["get", "device", "device_id"], "argument 'device_id' is not key=value"),
    (["get", "device", "=0"], "argument '=0' is not key=value"),
    (["--raw", "{}", "get", "device"], "--raw sends its text alone: no ACTION, OBJECT, --json-args or --arrayed"),
    (["--raw", "{}", "--json-args", "{}"], "--raw sends its text alone: no ACTION, OBJECT, --json-args or --arrayed"),
    (["--json-args", "[]", "get", "device"], "--json-args: a JSON object is needed"),
    (["--json-args", "{", "get", "device"], "--json-args: invalid JSON ("),
    (["--arrayed", '{"a":"1"}', "set", "device"], "--arrayed: a JSON array of objects is needed"),
    (["--arrayed", '[{"a":"1"}, "b"]', "set", "device"], "--arrayed: a JSON array of objects is needed"),
    (["--arrayed", "[]", "--json-args", "{}", "set", "device"], "--arrayed and --json-args cannot be combined"),
    (["--arrayed", "[]", "set", "device", "a=1"], "--arrayed and key=value arguments cannot be combined"),
    (["-p", "0", "get", "device"], "invalid port '0' (1 to 65535)"),
    (["-p", "65536", "get", "device"], "invalid port '65536' (1 to 65535)"),
    (["-p", "49999x", "get", "device"], "invalid port '49999x' (1 to 65535)"),
    (["-t", "0", "get", "device"], "invalid time-out '0' (seconds, above 0, at most 3600)"),
    (["-t", "soon", "get", "device"], "invalid time-out 'soon' (seconds, above 0, at most 3600)"),
    (["-x", "get", "device"], "unknown option '-x'"),
    (["--verbose", "get", "device"], "unknown option '--verbose'"),
    (["get", "device", "-p"], "option '-p' needs a value"),
    (["get", "device", "--raw"], "option '--raw' needs a value"),
])
def test_a_bad_command_line_exits_2_without_connecting(fake, args, message):
    daemon = fake()
    status, out, err = run_tavictl(*args, port=daemon.port)
    assert (status, out) == (2, b"")
    # A message that ends in "(" goes on with the JSON parser's own words.
    text = re.escape(f"tavictl: {message}") + (r"[^\n]*\)" if message.endswith("(") else "")
    assert re.fullmatch(text + re.escape("\nTry 'tavictl --help' for more information.\n"), err.decode()), err
    assert daemon.requests_so_far() == []


def test_text_that_is_not_utf8_exits_2(fake):
    daemon = fake()
    command = [*launcher(), tavictl_bin(), "-p", str(daemon.port), "set", "output_ip_ts", b"name=\xff\xfe"]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_WAIT)
    assert (done.returncode, done.stdout) == (2, b"")
    assert done.stderr == (b"tavictl: argument 'name=\xff\xfe' is not valid UTF-8\n"
                           b"Try 'tavictl --help' for more information.\n")
    assert daemon.requests_so_far() == []


def test_help_is_a_manual_page_and_connects_nowhere(fake):
    daemon = fake()
    status, out, err = run_tavictl("--help", port=daemon.port)
    assert (status, err) == (0, b"")
    lines = out.decode().splitlines()
    assert [line for line in lines if line and not line[0].isspace()] == HELP_SECTIONS
    assert "       tavictl get output_rf output_id=0" in lines
    assert "       tavictl set output_rf_mod output_id=0 frequency=474000" in lines
    assert any("127.0.0.1" in line for line in lines) and any("49999" in line for line in lines)
    assert run_tavictl("-h")[:2] == (0, out)
    assert daemon.requests_so_far() == []
