"""Start-up, the first poll pass, shutdown and restart on signals."""

import re
import signal
import time

import pytest

from conftest import contains, msg, request, wait_for, wrn

FIRST_PASS_WARNINGS = (
    wrn("cmd_restore_settings", "Could not open settings file for restoring..."),
    wrn("main", "Could not restore settings..."),
)
DEVICE = b'{"action":"get","object":"device","args":{"device_id":"0"}}'


def ready(daemon):
    """Waits until the box is built and the daemon answers."""
    wait_for(lambda: daemon.process.poll() is None and _answers(daemon))


def _answers(daemon) -> bool:
    try:
        return request(daemon.port, DEVICE, wait=2) != b""
    except OSError:
        return False


def test_first_start_without_settings_warns_once(box, tavid):
    daemon = tavid(box)
    ready(daemon)
    stderr = daemon.stderr()
    assert contains(stderr, *FIRST_PASS_WARNINGS), stderr
    for warning in FIRST_PASS_WARNINGS:
        assert len(re.findall(warning, stderr)) == 1
    assert b"Alarm led not cleared" not in stderr
    assert box.leds()["leds"]["sys/class/leds/rgb_red"] == {"brightness": "0", "trigger": "none"}
    assert daemon.stdout() == b""  # messages need -v


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_shutdown_on_signal(box, tavid, sig):
    daemon = tavid(box, ["-v"])
    ready(daemon)
    assert daemon.stop(sig) == 0
    pid = daemon.process.pid
    assert contains(daemon.stdout(), msg("</INIT_HAL> Done"), msg("Restoring settings... (/data/settings.conf)"),
                    msg(f"Shutdown requested (PID {pid})")), daemon.stdout()
    assert contains(daemon.stderr(), *FIRST_PASS_WARNINGS)
    assert box.calls() == []


def test_restart_on_sigusr1_runs_the_init_script(box, tavid):
    daemon = tavid(box, ["-v"])
    ready(daemon)
    assert daemon.stop(signal.SIGUSR1) == 0
    pid = daemon.process.pid
    assert contains(daemon.stdout(), msg("Restoring settings... (/data/settings.conf)"),
                    msg(f"Restart (SIGUSR1) requested (PID {pid})")), daemon.stdout()
    calls = box.calls()
    assert [(name, args) for _, name, args in calls] == [("tavid", ["restart"])]


def test_the_restarted_daemon_answers(box, tavid):
    from conftest import request, tcp_listening
    daemon = tavid(box)
    assert daemon.stop(signal.SIGUSR1) == 0
    wait_for(lambda: tcp_listening(daemon.port), timeout=20)
    assert request(daemon.port, b"[]") == b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}'


def test_a_signal_during_a_request_ends_the_daemon_after_it(box, tavid):
    from conftest import _connect, _read_until_closed
    daemon = tavid(box)
    ready(daemon)
    with _connect(daemon.port, 10) as sock:
        sock.sendall(b'{"action":"get",')
        time.sleep(0.02)
        daemon.send_signal(signal.SIGTERM)
        reply = _read_until_closed(sock, 10)
    assert reply == b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}'
    assert daemon.wait() == 0
