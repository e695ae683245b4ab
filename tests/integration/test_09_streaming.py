"""The streaming program of the IP modes: started with the destination while a service of the
IP output is switched on, restarted for a new destination, stopped with SIGTERM (SIGKILL when
it ignores that), its bit rate read from its statistics file, and what happens when it is
missing."""

import os
import re
import signal
import time
from pathlib import Path

import pytest

from conftest import (PSI_SYNCED, UNSUCCESSFUL, barrier, bitrate, count, destination, events, gone, ip_apply, messages,
                      msg, new_log_lines, new_messages, start_ready, stream, switch, wait_for, wrn_line)

IP_MODES = ("ip_spts", "ip_mpts")
UNITS = {"ip_spts": "0", "ip_mpts": "4"}
# The IP output's service of HDMI input 0, by mode.
FIRST_SERVICE = {"ip_spts": "0", "ip_mpts": "3"}


# ---------------------------------------------------------------------------------------------
# Helpers


def runs(box) -> list:
    return box.qel2ip_runs()


def running(box) -> list:
    return [run for run in box.qel2ip_runs() if run["running"]]


def argv(box, addr: str, port: str, unit: str) -> list:
    return [box.path("opt/bin/qel2ip"), "-d", addr, "-p", port, "-i", unit]


def stop_warnings(daemon, since: int) -> list:
    """The warnings about the program that the daemon logged after the first `since` bytes of
    its standard error."""
    return [line for line in new_log_lines(daemon, since) if line[1].startswith("hal_qel2ip_")]


def logged(daemon, pattern: bytes, times: int = 1):
    """Waits until the daemon's messages hold the pattern that many times (a message may follow
    the event it tells of by a poll), and checks that two more poll cycles add none."""
    wait_for(lambda: count(pattern, daemon.stdout()) >= times, what=f"message {pattern!r}")
    barrier(daemon, 2)
    assert count(pattern, daemon.stdout()) == times, daemon.stdout()


# ---------------------------------------------------------------------------------------------
# Start and stop


@pytest.mark.parametrize("mode", IP_MODES)
def test_a_switched_on_service_starts_the_program_with_the_destination_and_no_environment(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode, "-v")
    since = len(daemon.stdout())
    destination(daemon, "239.1.2.3", "1234")
    barrier(daemon, 2)
    # A destination alone starts nothing: no service is switched on, and its apply stops the
    # program that never ran.
    assert new_messages(daemon, since) == ["Storing settings... (/data/settings.conf)",
                                           *ip_apply("Stopping qel2ip... (PID -1)")]
    assert runs(box) == []
    switch(daemon, FIRST_SERVICE[mode], "1")
    wait_for(lambda: len(runs(box)) == 1, what="streaming program started")
    (run,) = runs(box)
    unit = UNITS[mode]
    assert (run["argv"], run["env"], run["running"]) == (argv(box, "239.1.2.3", "1234", unit), {}, True)
    logged(daemon, msg("Starting qel2ip...") + msg(f"qel2ip started for destination 239.1.2.3:1234 (QEL: {unit}) "
                                                  f"(PID {run['pid']})"))
    wait_for(lambda: bitrate(daemon) != b'{"result":{"bitrate":"0","output_id":"0"}}', what="statistics")
    assert bitrate(daemon) == b'{"result":{"bitrate":"12500","output_id":"0"}}'
    assert box.qel2ip_stats() == {unit: "12.5"}


@pytest.mark.parametrize("mode", IP_MODES)
def test_switching_every_service_off_stops_the_program_with_sigterm(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode, "-v")
    run = stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE[mode])
    pid = run["pid"]
    switch(daemon, FIRST_SERVICE[mode], "0")
    wait_for(lambda: gone(pid), what="streaming program stopped")
    logged(daemon, msg(f"Stopping qel2ip... (PID {pid})") + msg(f"Qel2ip stopped with SIGTERM (PID {pid})"))
    assert events(box) == ["start"]
    assert len(runs(box)) == 1
    # Without a child the bit rate is 0, whatever the statistics file holds.
    box.set_qelstat(UNITS[mode], "garbage\n")
    assert bitrate(daemon) == b'{"result":{"bitrate":"0","output_id":"0"}}'
    assert b"qelstat" not in daemon.stderr()


def test_every_apply_with_a_service_switched_on_starts_the_program_again(make_box, tavid):
    box, daemon = start_ready(make_box, tavid, "ip_mpts", "-v")
    first = stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE["ip_mpts"])
    switch(daemon, "2", "1")
    wait_for(lambda: len(runs(box)) == 2 and len(running(box)) == 1, what="second start")
    switch(daemon, "3", "0")
    wait_for(lambda: len(runs(box)) == 3 and len(running(box)) == 1, what="third start")
    assert gone(first["pid"]) and gone(runs(box)[1]["pid"])
    last = running(box)[0]
    assert last["argv"] == argv(box, "239.1.2.3", "1234", "4")
    switch(daemon, "2", "0")
    wait_for(lambda: running(box) == [], what="program stopped")
    logged(daemon, msg("Starting qel2ip..."), 3)
    logged(daemon, re.escape(b"Qel2ip stopped with SIGTERM"), 3)


@pytest.mark.parametrize("mode", IP_MODES)
def test_a_new_destination_stops_the_running_program_and_starts_it_again(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode, "-v")
    old = stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE[mode])["pid"]
    destination(daemon, "239.7.7.7", "7000")
    wait_for(lambda: len(runs(box)) == 2 and len(running(box)) == 1, what="restart")
    new = running(box)[0]
    assert gone(old)
    assert new["argv"] == argv(box, "239.7.7.7", "7000", UNITS[mode])
    logged(daemon, msg("Starting qel2ip...") + msg(f"Qel2ip already running (PID {old})")
           + msg(f"Stopping qel2ip... (PID {old})") + msg(f"Qel2ip stopped with SIGTERM (PID {old})")
           + msg(f"qel2ip started for destination 239.7.7.7:7000 (QEL: {UNITS[mode]}) (PID {new['pid']})"))


@pytest.mark.parametrize("mode", IP_MODES)
def test_the_program_stops_with_the_daemon(make_box, tavid, mode):
    box, daemon = start_ready(make_box, tavid, mode, "-v")
    pid = stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE[mode])["pid"]
    assert daemon.stop() == 0
    assert gone(pid)
    assert re.search(msg(f"Stopping qel2ip... (PID {pid})") + msg(f"Qel2ip stopped with SIGTERM (PID {pid})"),
                     daemon.stdout())


@pytest.mark.parametrize("mode", IP_MODES)
def test_the_factory_settings_stream_from_the_start(make_box, tavid, mode):
    def factory(box):
        Path(box.path("data/settings.conf")).write_bytes(
            Path(box.path(f"opt/bin/default_settings_{mode}.conf")).read_bytes())

    box, daemon = start_ready(make_box, tavid, mode, "-v", prepare=factory)
    barrier(daemon, 2)
    # Every service of the output is switched on at the factory. The first pass restores the
    # settings after its poll cycle; the next one applies them all at once: one start.
    wait_for(lambda: len(running(box)) == 1, what="streaming program running")
    (run,) = runs(box)
    assert run["argv"] == argv(box, "239.0.0.1", "5000", UNITS[mode])
    texts = messages(daemon.stdout())
    restored = texts[texts.index("Restoring settings... (/data/settings.conf)"):]
    assert [text for text in restored if "qel2ip" in text.lower()] == [
        "Starting qel2ip...", f"qel2ip started for destination 239.0.0.1:5000 (QEL: {UNITS[mode]}) (PID {run['pid']})"]


# ---------------------------------------------------------------------------------------------
# Faults of the program


@pytest.mark.parametrize("mode", IP_MODES)
@pytest.mark.parametrize("fault", ["missing", "not executable"])
def test_a_missing_program_is_warned_about_and_nothing_is_started(make_box, tavid, mode, fault):
    def spoil(box):
        program = box.path("opt/bin/qel2ip")
        if fault == "missing":
            os.remove(program)
        else:
            os.chmod(program, 0o644)

    box, daemon = start_ready(make_box, tavid, mode, "-v", prepare=spoil)
    since = len(daemon.stderr())
    destination(daemon, "239.1.2.3", "1234")
    switch(daemon, FIRST_SERVICE[mode], "1")
    line = wrn_line("hal_qel2ip_start", "Qel2ip does not exist or is not executable")
    barrier(daemon, 2)
    # The switch's sync ends its PSI sync, then its apply fails the start.
    assert new_log_lines(daemon, since) == [PSI_SYNCED, line]
    assert runs(box) == []
    logged(daemon, msg("Starting qel2ip...") + msg("</APPLY_SETTINGS>"))
    assert bitrate(daemon) == b'{"result":{"bitrate":"0","output_id":"0"}}'
    # The next apply tries again.
    destination(daemon, "239.1.2.4", "1234")
    barrier(daemon, 2)
    assert new_log_lines(daemon, since) == [PSI_SYNCED, line, line]
    assert daemon.running()


# The stop: SIGTERM, then the daemon looks for the program's end every 10 ms for 5 s (500
# sleeps); SIGKILL when no signal has ended it by then, and one more look only, since both waits
# share those 500 sleeps. The stand-ins below behave the same on every run, so that each outcome
# is certain.


def test_a_program_that_a_sigterm_ends_4_s_later_is_stopped_with_sigterm(make_box, tavid):
    box, daemon = start_ready(make_box, tavid, "ip_spts", "-v")
    box.configure_qel2ip(sigterm_delay_ms=4000)
    pid = stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE["ip_spts"])["pid"]
    since = len(daemon.stderr())
    switch(daemon, FIRST_SERVICE["ip_spts"], "0")
    logged(daemon, msg(f"Stopping qel2ip... (PID {pid})") + msg(f"Qel2ip stopped with SIGTERM (PID {pid})"))
    assert events(box) == ["start", "sigterm_held", "sigterm_end"]
    assert stop_warnings(daemon, since) == []


@pytest.mark.parametrize("mode", IP_MODES)
def test_a_program_still_running_5_s_after_sigterm_is_killed_and_looked_for_once(make_box, tavid, mode):
    """The program would end 15 s after its SIGTERM, and its parent can collect it only 2 s
    after it has ended. The daemon kills it 5 s after the SIGTERM; its one look after that
    comes while the end is held back, so the stop fails and the program, not collected, still
    counts as running: its rate is read, and the next start stops it first, which collects it
    as ended by a signal."""
    box, daemon = start_ready(make_box, tavid, mode, "-v")
    box.configure_qel2ip(sigterm_delay_ms=15000, reap_delay_ms=2000)
    pid = stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE[mode])["pid"]
    if "untraced" in events(box):
        pytest.skip(f"no tracing of processes here, which holds the program's end back: {box.qel2ip_log()}")
    since = len(daemon.stderr())
    asked = time.time()
    switch(daemon, FIRST_SERVICE[mode], "0")
    wait_for(lambda: "released" in events(box), timeout=30, what="the program's end let go")
    log = box.qel2ip_log()
    assert [entry["event"] for entry in log] == ["start", "sigterm_held", "ended", "released"], log
    _, _, ended, _ = log
    # SIGKILL ended it, 5 s or more after the SIGTERM, which came after the request, and before
    # its own end 15 s after the SIGTERM (a margin for a daemon slowed down by a checker or an
    # emulator on a busy machine, whose 500 sleeps of 10 ms then take longer).
    assert ended["signal"] == signal.SIGKILL
    assert ended["time"] - asked >= 5.0
    failed = [wrn_line("hal_qel2ip_stop", f"Could not stop qel2ip with SIGTERM (PID {pid})"),
              wrn_line("hal_qel2ip_stop", f"Could not stop qel2ip with SIGKILL (PID {pid})")]
    assert stop_warnings(daemon, since) == failed
    assert count(re.escape(b"Qel2ip stopped with"), daemon.stdout()) == 0
    assert bitrate(daemon) == b'{"result":{"bitrate":"12500","output_id":"0"}}'
    box.configure_qel2ip()
    switch(daemon, FIRST_SERVICE[mode], "1")
    wait_for(lambda: len(runs(box)) == 2, what="the program started again")
    unit, new = UNITS[mode], runs(box)[1]["pid"]
    logged(daemon, msg("Starting qel2ip...") + msg(f"Qel2ip already running (PID {pid})")
           + msg(f"Stopping qel2ip... (PID {pid})") + msg(f"Qel2ip stopped with SIGTERM (PID {pid})")
           + msg(f"qel2ip started for destination 239.1.2.3:1234 (QEL: {unit}) (PID {new})"))
    assert stop_warnings(daemon, since) == failed


# ---------------------------------------------------------------------------------------------
# The statistics file


@pytest.mark.parametrize("mode", IP_MODES)
@pytest.mark.parametrize("text, reply, warning", [
    ("12.5", b'{"result":{"bitrate":"12500","output_id":"0"}}', None),
    ("0.75", b'{"result":{"bitrate":"750","output_id":"0"}}', None),
    ("12.5\n", UNSUCCESSFUL % 13, "Couldn't convert bitrate from '{}'"),
    ("fast", UNSUCCESSFUL % 13, "Couldn't convert bitrate from '{}'"),
    ("", UNSUCCESSFUL % 13, "Couldn't read '{}'"),
    (None, UNSUCCESSFUL % 13, "Couldn't open '{}'"),
], ids=["rate", "fraction", "newline", "text", "empty", "missing"])
def test_the_bitrate_is_read_from_the_statistics_file_while_the_program_runs(make_box, tavid, mode, text, reply,
                                                                            warning):
    box, daemon = start_ready(make_box, tavid, mode)
    unit = UNITS[mode]
    stream(box, daemon, "239.1.2.3", "1234", FIRST_SERVICE[mode])
    wait_for(lambda: box.qel2ip_stats().get(unit) == "12.5", what="statistics written")
    box.set_qelstat(unit, text)
    since = len(daemon.stderr())
    assert bitrate(daemon) == reply
    lines = [] if warning is None else [wrn_line("hal_qel2ip_get_bitrate", warning.format(f"/tmp/qelstat{unit}"))]
    assert new_log_lines(daemon, since) == lines
