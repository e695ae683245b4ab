"""Start-up, the first poll pass, shutdown and restart on signals."""

import signal

import pytest

from conftest import (TS_TRACES, _connect, _read_until_closed, accepted, first_start_lines, log_lines, matches,
                      messages, msg, ready, request, tcp_listening, wait_for)

FIRST_PASS_WARNINGS = first_start_lines("rf")


def test_first_start_without_settings_warns_once(box, tavid):
    daemon = tavid(box)
    ready(box, daemon)
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == FIRST_PASS_WARNINGS
    assert box.leds()["leds"]["sys/class/leds/rgb_red"] == {"brightness": "0", "trigger": "none"}
    assert daemon.stdout() == b""  # messages need -v


def stop_on(daemon, sig: int) -> bytes:
    """Stops the daemon with the signal: what it wrote to its standard output from then on."""
    since = len(daemon.stdout())
    assert daemon.stop(sig) == 0
    return daemon.stdout()[since:]


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_shutdown_on_signal(box, tavid, sig):
    daemon = tavid(box, ["-v"])
    ready(box, daemon)
    assert messages(daemon.stdout())[-1] == "Restoring settings... (/data/settings.conf)"
    assert matches(stop_on(daemon, sig), msg(f"Shutdown requested (PID {daemon.process.pid})"))
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == FIRST_PASS_WARNINGS
    assert box.calls() == []


def test_restart_on_sigusr1_runs_the_init_script(box, tavid):
    daemon = tavid(box, ["-v"])
    ready(box, daemon)
    assert matches(stop_on(daemon, signal.SIGUSR1), msg(f"Restart (SIGUSR1) requested (PID {daemon.process.pid})"))
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == FIRST_PASS_WARNINGS
    calls = box.calls()
    assert [(name, args) for _, name, args in calls] == [("tavid", ["restart"])]


def test_the_restarted_daemon_answers(box, tavid):
    daemon = tavid(box)
    assert daemon.stop(signal.SIGUSR1) == 0
    wait_for(lambda: tcp_listening(daemon.port), timeout=20)
    assert request(daemon.port, b"[]") == b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}'


def test_a_signal_during_a_request_ends_the_daemon_after_it(box, tavid):
    daemon = tavid(box)
    ready(box, daemon)
    with _connect(daemon.port, 10) as sock:
        sock.sendall(b'{"action":"get",')
        wait_for(lambda: accepted(sock), what="the request accepted")
        daemon.send_signal(signal.SIGTERM)
        reply = _read_until_closed(sock, 10)
    assert reply == b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}'
    assert daemon.wait() == 0
