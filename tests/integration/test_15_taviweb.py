"""taviweb against the real daemon and the box simulator: every endpoint and every error status,
authentication, the Origin and content-type checks, the daemon stopped and started again, and
the status cache's limit on the requests the daemon gets, counted at the simulated modules.

Environment: TAVIWEB_BIN names the taviweb binary (the tests are skipped without it), TAVID_BIN
the daemon's; TAVID_LAUNCHER is put in front of both.
"""

import hashlib
import json
import re
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

import pytest

from conftest import (MODES, REPLY_WAIT, START_WAIT, TCP_ESTABLISHED, fetch, free_port, launcher, module_commands,
                      post_api, ready, request, taviweb_bin, tcp_sockets, wait_for)

GET_DEVICE = b'{"action":"get","object":"device","args":{"device_id":"0"}}'
METRICS_TYPE = "text/plain; version=0.0.4; charset=utf-8"
# A long refresh interval: every status request of a test falls into one round.
LONG = ("-i", "600")
# The console's files, as built into taviweb.
WWW = Path(__file__).resolve().parents[2] / "taviweb" / "www"
WWW_TYPES = {".html": "text/html; charset=utf-8", ".js": "text/javascript; charset=utf-8",
             ".css": "text/css; charset=utf-8", ".svg": "image/svg+xml", ".json": "application/json",
             ".png": "image/png", ".ico": "image/x-icon"}
# The output status object of each mode.
OUTPUT_STATUS = {"rf": "output_rf_status", "ip_spts": "output_ip_status", "ip_mpts": "output_ip_status"}


def error_body(text: str) -> bytes:
    return json.dumps({"error": text}, separators=(",", ":")).encode()


def run_taviweb(*args, timeout: float = 10.0):
    done = subprocess.run([*launcher(), taviweb_bin(), *args], stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=timeout)
    return done.returncode, done.stdout, done.stderr


def metric_lines(text: bytes, name: str) -> list:
    """The sample lines of one metric (without its HELP and TYPE lines)."""
    return [line for line in text.decode().splitlines() if re.match(re.escape(name) + r"[{ ]", line)]


def promtool_check(text: bytes):
    done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, timeout=30)
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b""), done


@pytest.fixture
def rf_box(make_box, tavid):
    """An RF box whose daemon has made its first poll pass: (box, daemon)."""
    box = make_box("rf")
    daemon = tavid(box, ["-m", "rf"])
    ready(box, daemon)
    return box, daemon


# ---------------------------------------------------------------------------------------------
# The command line


def test_help_is_a_manual_page():
    status, out, err = run_taviweb("--help")
    assert (status, err) == (0, b"")
    lines = out.decode().splitlines()
    assert [line for line in lines if line and not line[0].isspace()] == [
        "NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "EXAMPLES"]
    assert "       taviweb [-l ADDRESS:PORT] [-H TAVID_HOST] [-p TAVID_PORT] [-i SECONDS]" in lines


@pytest.mark.parametrize("args, message", [
    (["-p", "0"], "invalid port '0' (1 to 65535)"),
    (["-l", "localhost:80"], "invalid listening address 'localhost:80' (ADDRESS:PORT, for example "
                             "127.0.0.1:8080 or [::1]:8080)"),
    (["-i", "0"], "invalid interval '0' (seconds, above 0, at most 3600)"),
    (["-x"], "unknown option '-x'"),
    (["--auth"], "option '--auth' needs a value"),
])
def test_a_bad_command_line_exits_2(args, message):
    status, out, err = run_taviweb(*args)
    assert (status, out) == (2, b"")
    assert err == f"taviweb: {message}\nTry 'taviweb --help' for more information.\n".encode()


def test_an_address_in_use_exits_1():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = taken.getsockname()[1]
        status, out, err = run_taviweb("-l", f"127.0.0.1:{port}")
    assert (status, out) == (1, b"")
    assert err == f"taviweb: cannot listen on 127.0.0.1:{port} (Address already in use)\n".encode()


def test_a_missing_authentication_file_exits_1(tmp_path):
    status, out, err = run_taviweb("--auth", str(tmp_path / "users"))
    assert (status, out) == (1, b"")
    assert err == f"taviweb: cannot read {tmp_path}/users (No such file or directory)\n".encode()


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_sigterm_and_sigint_end_it_cleanly(taviweb, sig):
    web = taviweb(free_port(), ["-v"])
    assert fetch(web.url + "/metrics").status == 200
    # A request is logged once its answer has gone out, which the client may see first.
    wait_for(lambda: web.stdout().endswith(b"GET /metrics 200\n"), what="the request logged")
    assert web.stop(sig) == 0
    assert web.stdout() == (f"taviweb: serving http://127.0.0.1:{web.port}, tavid at 127.0.0.1 port "
                            f"{web.command[-2]}\ntaviweb: GET /metrics 200\n"
                            f"taviweb: stopping (signal {int(sig)})\n").encode()
    assert web.stderr() == b""


# ---------------------------------------------------------------------------------------------
# POST /api


def test_the_daemons_reply_comes_back_byte_for_byte(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    for body in (GET_DEVICE, b'{"action":"get","object":"output_rf_mod","args":{"output_id":"0"}}',
                 b'{"action":"set","object":"device_status","args":{}}',
                 b'{"action":"get","object":"nothing","args":{}}'):
        direct = request(daemon.port, body)
        answer = post_api(web, body)
        assert (answer.status, answer.headers["content-type"], answer.body) == (200, "application/json", direct)
    assert post_api(web, GET_DEVICE).body == b'{"result":{"output_mode":"rf","device_id":"0"}}'


def test_a_set_through_the_api_reaches_the_module(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    answer = post_api(web, b'{"action":"set","object":"output_rf_mod","args":{"output_id":"0","frequency":"482000"}}')
    assert (answer.status, answer.body) == (200, b"{}")
    wait_for(lambda: box.module(0x30).state()["applied"]["parameters"]["frequency"] == 482000,
             what="the module took the frequency")


@pytest.mark.parametrize("body, message", [
    (b"", "the body is not JSON: unexpected token near end of file"),
    (b"get device", "the body is not JSON: invalid token near 'get'"),
    (b"[]", "the body is not a JSON object"),
    (b'"get"', "the body is not a JSON object"),
    (b'{"action":"get"} {}', "the body is not JSON: end of file expected near '{'"),
])
def test_a_body_that_is_not_a_json_object_is_400(rf_box, taviweb, body, message):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    answer = post_api(web, body)
    assert (answer.status, answer.headers["content-type"], answer.body) == (400, "application/json",
                                                                             error_body(message))


def test_a_body_above_64_kib_is_413(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    largest = GET_DEVICE + b" " * (65536 - len(GET_DEVICE))
    answer = post_api(web, largest)
    assert (answer.status, answer.body) == (200, b'{"result":{"output_mode":"rf","device_id":"0"}}')
    answer = post_api(web, largest + b" ")
    assert (answer.status, answer.body) == (413, error_body("the body is larger than 65536 bytes"))


@pytest.mark.parametrize("content_type", [None, "text/plain", "application/x-www-form-urlencoded",
                                          "multipart/form-data; boundary=x"])
def test_a_body_not_sent_as_json_is_415(rf_box, taviweb, content_type):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    headers = {} if content_type is None else {"Content-Type": content_type}
    answer = fetch(web.url + "/api", "POST", GET_DEVICE, headers)
    assert (answer.status, answer.body) == (415, error_body("the body must be sent as Content-Type: "
                                                            "application/json"))


def test_a_request_from_another_site_is_403(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    reset = b'{"action":"execute","object":"reset","args":{"level":"4"}}'
    for origin in ("http://evil.example", "null", f"http://127.0.0.1:{web.port + 1}"):
        answer = post_api(web, reset, {"Origin": origin})
        assert (answer.status, answer.body) == (403, error_body("requests from another site are refused"))
    assert box.calls() == []
    same_site = post_api(web, GET_DEVICE, {"Origin": web.url})
    assert (same_site.status, same_site.body) == (200, b'{"result":{"output_mode":"rf","device_id":"0"}}')


def test_unknown_paths_and_methods(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    assert (fetch(web.url + "/nope").status, fetch(web.url + "/nope").body) == (404, error_body("no such path"))
    answer = fetch(web.url + "/api")
    assert (answer.status, answer.headers["allow"], answer.body) == (
        405, "POST", error_body("method not allowed; allowed: POST"))
    answer = fetch(web.url + "/metrics", "POST", b"{}", {"Content-Type": "application/json"})
    assert (answer.status, answer.headers["allow"]) == (405, "GET, HEAD")
    head = fetch(web.url + "/metrics", "HEAD")
    assert (head.status, head.headers["content-type"], head.body) == (200, METRICS_TYPE, b"")


# ---------------------------------------------------------------------------------------------
# GET /api/status and GET /metrics in every mode


@pytest.mark.parametrize("mode", MODES)
def test_status_and_metrics_of_each_mode(make_box, tavid, taviweb, mode):
    box = make_box(mode)
    daemon = tavid(box, ["-m", mode])
    ready(box, daemon)
    box.set_temperature(52750)
    web = taviweb(daemon.port, LONG)
    status = fetch(web.url + "/api/status")
    assert (status.status, status.headers["content-type"]) == (200, "application/json")
    document = status.json()
    assert list(document) == ["up", "age", "interval", "objects"]
    assert document["up"] is True and document["interval"] == 600.0 and 0 <= document["age"] < 60
    output = OUTPUT_STATUS[mode]
    assert list(document["objects"]) == ["device_status", "input_hdmi_status", output]
    for name, reply in document["objects"].items():
        assert reply == json.loads(request(daemon.port, f'{{"action":"get","object":"{name}","args":{{}}}}'.encode()))
    assert document["objects"]["device_status"] == {"arrayedResult": [{"temperature": "52", "device_id": "0"}]}

    metrics = fetch(web.url + "/metrics")
    assert (metrics.status, metrics.headers["content-type"]) == (200, METRICS_TYPE)
    promtool_check(metrics.body)
    assert metric_lines(metrics.body, "tavi_up") == ["tavi_up 1"]
    assert metric_lines(metrics.body, "tavi_temperature_celsius") == ["tavi_temperature_celsius 52"]
    inputs = document["objects"]["input_hdmi_status"]["arrayedResult"]
    assert metric_lines(metrics.body, "tavi_input_hdmi_locked") == [
        f'tavi_input_hdmi_locked{{input="{i["input_id"]}"}} {i["lock"]}' for i in inputs]
    assert metric_lines(metrics.body, "tavi_input_hdmi_video_format_info") == [
        f'tavi_input_hdmi_video_format_info{{input="{i["input_id"]}",format="{i["video_format"]}"}} 1' for i in inputs]
    outputs = document["objects"][output]["arrayedResult"]
    if mode == "rf":
        assert metric_lines(metrics.body, "tavi_output_rf_max_bitrate_bytes_per_second") == [
            f'tavi_output_rf_max_bitrate_bytes_per_second{{output="{o["output_id"]}"}} {int(o["max_bitrate"]) * 125}'
            for o in outputs]
        assert metric_lines(metrics.body, "tavi_output_rf_bitrate_bytes_per_second") == [
            f'tavi_output_rf_bitrate_bytes_per_second{{output="{o["output_id"]}"}} {int(o["bitrate"]) * 125}'
            for o in outputs]
        assert metric_lines(metrics.body, "tavi_output_rf_overflow") == [
            f'tavi_output_rf_overflow{{output="{o["output_id"]}"}} {int(o["overflow"] == "yes")}' for o in outputs]
        assert metric_lines(metrics.body, "tavi_output_ip_bitrate_bytes_per_second") == []
    else:
        assert metric_lines(metrics.body, "tavi_output_ip_bitrate_bytes_per_second") == [
            f'tavi_output_ip_bitrate_bytes_per_second{{output="{o["output_id"]}"}} {int(o["bitrate"]) * 125}'
            for o in outputs]
        assert metric_lines(metrics.body, "tavi_output_rf_overflow") == []
    assert metric_lines(metrics.body, "tavi_web_http_requests_total") == [
        'tavi_web_http_requests_total{path="/api/status",code="200"} 1']


def test_an_overflowing_output_and_an_input_without_lock_show(rf_box, taviweb):
    box, daemon = rf_box
    box.module(0x31).set_values({"status": {"lock": 0}})
    box.module(0x30).set_values({"status": {"overflow": 1}})
    web = taviweb(daemon.port, LONG)
    metrics = fetch(web.url + "/metrics").body
    assert 'tavi_input_hdmi_locked{input="1"} 0' in metric_lines(metrics, "tavi_input_hdmi_locked")
    assert 'tavi_output_rf_overflow{output="0"} 1' in metric_lines(metrics, "tavi_output_rf_overflow")


# ---------------------------------------------------------------------------------------------
# The status cache


def test_ten_clients_and_scrapes_cause_one_status_round(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    for module in box.modules.values():
        module.clear_commands()
    first = fetch(web.url + "/api/status").json()
    per_round = module_commands(box, "get_status")
    assert per_round == len(first["objects"]["input_hdmi_status"]["arrayedResult"]) + len(
        first["objects"]["output_rf_status"]["arrayedResult"])
    failures = []

    def poll(client: int):
        for _ in range(5):
            for path in ("/api/status", "/metrics"):
                answer = fetch(web.url + path)
                if answer.status != 200:
                    failures.append((client, path, answer.status))

    clients = [threading.Thread(target=poll, args=(n,)) for n in range(10)]
    for client in clients:
        client.start()
    for client in clients:
        client.join()
    assert failures == []
    assert module_commands(box, "get_status") == per_round
    assert fetch(web.url + "/api/status").json()["objects"] == first["objects"]


def test_polled_without_pause_the_daemon_gets_at_most_one_round_per_interval(rf_box, taviweb):
    box, daemon = rf_box
    interval = 0.5
    web = taviweb(daemon.port, ["-i", str(interval)])
    for module in box.modules.values():
        module.clear_commands()
    started = time.monotonic()
    assert fetch(web.url + "/metrics").status == 200
    per_round = module_commands(box, "get_status")
    while time.monotonic() - started < 6 * interval:
        assert fetch(web.url + "/metrics").status == 200
    elapsed = time.monotonic() - started
    # Each request that started a round waited for it: only whole rounds were made.
    rounds, rest = divmod(module_commands(box, "get_status"), per_round)
    assert rest == 0
    assert 2 <= rounds <= elapsed / interval + 1, (rounds, elapsed)


# ---------------------------------------------------------------------------------------------
# The daemon stopped and started again


def test_the_daemon_stopped_and_started_again(make_box, tavid, taviweb):
    box = make_box("rf")
    daemon = tavid(box, ["-m", "rf"])
    ready(box, daemon)
    web = taviweb(daemon.port, ["-i", "0.3"])
    assert fetch(web.url + "/api/status").json()["up"] is True
    assert daemon.stop() == 0

    answer = post_api(web, GET_DEVICE)
    assert (answer.status, answer.body) == (502, error_body(
        f"tavid did not answer: cannot reach tavid at 127.0.0.1 port {daemon.port} (Connection refused)"))
    refused = f"cannot reach tavid at 127.0.0.1 port {daemon.port} (Connection refused)"
    wait_for(lambda: fetch(web.url + "/api/status").json().get("error") == refused, what="the round failed")
    document = fetch(web.url + "/api/status").json()
    assert (document["up"], document["objects"]) == (False, {})
    metrics = fetch(web.url + "/metrics").body
    assert metric_lines(metrics, "tavi_up") == ["tavi_up 0"]
    assert metric_lines(metrics, "tavi_temperature_celsius") == []
    assert metric_lines(metrics, "tavi_web_tavid_failures_total")[0] != "tavi_web_tavid_failures_total 0"
    assert 'tavi_web_http_requests_total{path="/api",code="502"} 1' in metrics.decode()
    promtool_check(metrics)

    again = tavid(box, ["-m", "rf"], port=daemon.port)
    ready(box, again)
    wait_for(lambda: fetch(web.url + "/api/status").json()["up"] is True, what="the daemon answering again")
    assert metric_lines(fetch(web.url + "/metrics").body, "tavi_up") == ["tavi_up 1"]
    assert post_api(web, GET_DEVICE).body == b'{"result":{"output_mode":"rf","device_id":"0"}}'


def test_a_daemon_that_does_not_answer_in_time_is_502(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, [*LONG, "-t", "0.5"])
    daemon.send_signal(signal.SIGSTOP)
    try:
        late = f"no complete reply from 127.0.0.1 port {daemon.port} within 0.5 s"
        answer = post_api(web, GET_DEVICE)
        assert (answer.status, answer.body) == (502, error_body(f"tavid did not answer: {late}"))
        document = fetch(web.url + "/api/status").json()
        assert (document["up"], document["error"]) == (False, late)
    finally:
        daemon.send_signal(signal.SIGCONT)
    assert post_api(web, GET_DEVICE).body == b'{"result":{"output_mode":"rf","device_id":"0"}}'


def test_a_request_waiting_on_a_stuck_daemon_is_answered_when_taviweb_stops(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    daemon.send_signal(signal.SIGSTOP)
    try:
        outcome = {}
        waiting = threading.Thread(target=lambda: outcome.update(answer=post_api(web, GET_DEVICE)))
        waiting.start()
        wait_for(lambda: len(tcp_connections(daemon.port)) > 0, what="taviweb connected to the daemon")
        assert web.stop() == 0
        waiting.join(REPLY_WAIT)
        assert (outcome["answer"].status, outcome["answer"].body) == (503, error_body("taviweb is stopping"))
    finally:
        daemon.send_signal(signal.SIGCONT)


def tcp_connections(port: int) -> list:
    """The established connections to the port (the kernel's table)."""
    return [row for row in tcp_sockets() if row.remote_port == port and row.state == TCP_ESTABLISHED]


# ---------------------------------------------------------------------------------------------
# Authentication


@pytest.fixture
def users(tmp_path):
    """An authentication file with the user "operator" and the password "open sesame"."""
    hashed = subprocess.run(["openssl", "passwd", "-6", "open sesame"], capture_output=True, check=True,
                            timeout=30).stdout.decode().strip()
    path = tmp_path / "users"
    path.write_text(f"# the box's operators\noperator:{hashed}\n")
    return str(path)


def basic(user: str, password: str) -> dict:
    import base64  # noqa: PLC0415
    return {"Authorization": "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()}


def test_with_authentication_every_path_but_the_metrics_needs_the_password(rf_box, taviweb, users):
    box, daemon = rf_box
    web = taviweb(daemon.port, [*LONG, "--auth", users])
    right = basic("operator", "open sesame")
    for path, method, body in (("/api/status", "GET", None), ("/api", "POST", GET_DEVICE), ("/nope", "GET", None)):
        for headers in ({}, basic("operator", "open sesamE"), basic("operators", "open sesame"),
                        {"Authorization": "Bearer x"}):
            answer = fetch(web.url + path, method, body, {"Content-Type": "application/json", **headers})
            assert (answer.status, answer.body) == (401, error_body("authentication required")), (path, headers)
            assert answer.headers["www-authenticate"] == 'Basic realm="taviweb", charset="UTF-8"'
    assert post_api(web, GET_DEVICE, right).body == b'{"result":{"output_mode":"rf","device_id":"0"}}'
    assert fetch(web.url + "/api/status", headers=right).json()["up"] is True
    # Once the right password has passed, a wrong one still does not.
    assert fetch(web.url + "/api/status", headers=basic("operator", "open sesamE")).status == 401
    assert fetch(web.url + "/nope", headers=right).status == 404
    metrics = fetch(web.url + "/metrics")
    assert metrics.status == 200
    assert 'tavi_web_http_requests_total{path="/api",code="401"} 4' in metrics.body.decode()
    assert 'tavi_web_http_requests_total{path="/api/status",code="401"} 5' in metrics.body.decode()


def test_without_authentication_no_password_is_asked(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    assert fetch(web.url + "/api/status", headers=basic("anyone", "anything")).status == 200


# ---------------------------------------------------------------------------------------------
# The console's files


def www_files() -> dict:
    """Path -> the file's bytes: every file of the folder at /<name>, and index.html at /."""
    files = {"/" + path.name: path.read_bytes() for path in sorted(WWW.iterdir())}
    files["/"] = files["/index.html"]
    return files


def www_type(path: str) -> str:
    return WWW_TYPES[Path("/index.html" if path == "/" else path).suffix]


def etag_of(content: bytes) -> str:
    return '"' + hashlib.sha256(content).hexdigest()[:32] + '"'


def test_every_file_of_the_console_is_served_with_its_type_and_tag(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    files = www_files()
    assert len(files) >= 2
    for path, content in files.items():
        answer = fetch(web.url + path)
        assert (answer.status, answer.body) == (200, content), path
        assert answer.headers["content-type"] == www_type(path)
        assert answer.headers["cache-control"] == "no-cache"
        assert answer.headers["etag"] == etag_of(content)
        assert answer.headers["content-length"] == str(len(content))
        assert answer.headers["x-content-type-options"] == "nosniff"
        head = fetch(web.url + path, "HEAD")
        assert (head.status, head.body, head.headers["content-length"]) == (200, b"", str(len(content)))
    assert fetch(web.url + "/index.htm").status == 404
    assert fetch(web.url + "/", "POST", b"x").status == 405


def test_a_reload_of_an_unchanged_file_costs_a_304(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    for path, content in www_files().items():
        tag = etag_of(content)
        for sent in (tag, f'W/{tag}', f'"other", {tag}', "*"):
            answer = fetch(web.url + path, headers={"If-None-Match": sent})
            assert (answer.status, answer.body) == (304, b""), (path, sent)
            assert (answer.headers["etag"], answer.headers["cache-control"]) == (tag, "no-cache")
        changed = fetch(web.url + path, headers={"If-None-Match": '"' + "0" * 32 + '"'})
        assert (changed.status, changed.body) == (200, content), path
    metrics = fetch(web.url + "/metrics").body.decode()
    assert 'tavi_web_http_requests_total{path="/",code="304"} 4' in metrics
    assert 'tavi_web_http_requests_total{path="/",code="200"} 1' in metrics


def test_with_authentication_the_console_needs_the_password(rf_box, taviweb, users):
    box, daemon = rf_box
    web = taviweb(daemon.port, [*LONG, "--auth", users])
    for path, content in www_files().items():
        for headers in ({}, basic("operator", "open sesamE")):
            answer = fetch(web.url + path, headers=headers)
            assert (answer.status, answer.body) == (401, error_body("authentication required")), path
            assert answer.headers["www-authenticate"] == 'Basic realm="taviweb", charset="UTF-8"'
        refused_304 = fetch(web.url + path, headers={"If-None-Match": etag_of(content)})
        assert refused_304.status == 401
        answer = fetch(web.url + path, headers=basic("operator", "open sesame"))
        assert (answer.status, answer.body) == (200, content), path


# ---------------------------------------------------------------------------------------------
# The description of the protocol


def test_the_description_of_the_protocol_is_what_the_daemon_answers(rf_box, taviweb):
    """Every object's get on the RF box gives the arguments the description lists, in its order."""
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    answer = fetch(web.url + "/api/schema")
    assert answer.status == 200
    assert (answer.headers["content-type"], answer.headers["cache-control"]) == ("application/json", "no-cache")
    assert fetch(web.url + "/api/schema", headers={"If-None-Match": answer.headers["etag"]}).status == 304
    objects = answer.json()["objects"]
    assert objects[0]["name"] == "device_status" and objects[-1]["name"] == "reset"
    checked = []
    for described in objects:
        if "get" not in described["actions"] or "id" not in described or described.get("list"):
            continue
        request_body = json.dumps({"action": "get", "object": described["name"], "args": {described["id"]: "0"}})
        reply = json.loads(post_api(web, request_body.encode()).body)
        if "result" not in reply:
            continue  # an object of another mode's hardware
        given = [arg["name"] for arg in described["args"] if arg.get("get", True)]
        assert list(reply["result"]) == [*given, described["id"]], described["name"]
        for arg in described["args"]:
            if "words" in arg:
                assert reply["result"][arg["name"]] in arg["words"], (described["name"], arg["name"])
        checked.append(described["name"])
    assert checked == ["device_status", "device", "input_hdmi", "input_hdmi_enc", "input_hdmi_ts",
                       "input_hdmi_status", "debug_code", "output_calibration", "output_rf", "output_rf_mod",
                       "output_rf_ts", "output_rf_status"]


def test_with_authentication_the_description_needs_the_password(rf_box, taviweb, users):
    box, daemon = rf_box
    web = taviweb(daemon.port, [*LONG, "--auth", users])
    assert fetch(web.url + "/api/schema").status == 401
    assert fetch(web.url + "/api/schema", headers=basic("operator", "open sesame")).json()["objects"][0] == {
        "name": "device_status", "id": "device_id", "actions": ["get"], "args": [{"name": "temperature"}]}


# ---------------------------------------------------------------------------------------------
# Slow clients


def test_a_slow_client_blocks_nobody_and_an_idle_one_is_closed(rf_box, taviweb):
    box, daemon = rf_box
    web = taviweb(daemon.port, LONG)
    with socket.create_connection(("127.0.0.1", web.port), timeout=START_WAIT) as slow:
        slow.sendall(b"POST /api HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: 60\r\n\r\n{")
        assert post_api(web, GET_DEVICE).status == 200
        assert fetch(web.url + "/metrics").status == 200
        started = time.monotonic()
        slow.settimeout(30)
        assert slow.recv(100) == b""  # taviweb closed the idle connection
        assert time.monotonic() - started < 25
