"""Start-up, the first poll pass, shutdown and restart on signals."""

import signal
import time

import pytest

from conftest import matches, msg, wrn

FIRST_PASS_WARNINGS = (
    wrn("cmd_restore_settings", "Could not open settings file for restoring..."),
    wrn("main", "Could not restore settings..."),
    wrn("main", "Alarm led not cleared..."),
)


def wait_for(predicate, timeout=10.0):
    deadline = time.monotonic() + timeout
    while not predicate():
        assert time.monotonic() < deadline, "condition not met in time"
        time.sleep(0.02)


def test_first_start_without_settings_warns_once(box, tavid):
    daemon = tavid(box)
    wait_for(lambda: b"Alarm led" in daemon.stderr())
    time.sleep(0.2)
    assert matches(daemon.stderr(), *FIRST_PASS_WARNINGS), daemon.stderr()
    assert daemon.stdout() == b""  # messages need -v


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_shutdown_on_signal(box, tavid, sig):
    daemon = tavid(box, ["-v"])
    wait_for(lambda: b"Alarm led" in daemon.stderr())
    assert daemon.stop(sig) == 0
    pid = daemon.process.pid
    assert matches(daemon.stdout(), msg("Restoring settings... (/data/settings.conf)"),
                   msg(f"Shutdown requested (PID {pid})")), daemon.stdout()
    assert matches(daemon.stderr(), *FIRST_PASS_WARNINGS)
    assert box.calls() == []


def test_restart_on_sigusr1_runs_the_init_script(box, tavid):
    daemon = tavid(box, ["-v"])
    wait_for(lambda: b"Alarm led" in daemon.stderr())
    assert daemon.stop(signal.SIGUSR1) == 0
    pid = daemon.process.pid
    assert matches(daemon.stdout(), msg("Restoring settings... (/data/settings.conf)"),
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
    with _connect(daemon.port, 10) as sock:
        sock.sendall(b'{"action":"get",')
        time.sleep(0.02)
        daemon.send_signal(signal.SIGTERM)
        reply = _read_until_closed(sock, 10)
    assert reply == b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}'
    assert daemon.wait() == 0
