"""Command-line options: every refusal prints its error line and exits with status 0."""

import signal
from pathlib import Path

import pytest

from conftest import answers, err, listening_sockets, log_lines, matches, run_tavid, wait_for

BAD_PORT = "Option '{}' recieved an invalid port number. Please use valid number between 0 and 65535."
DEFAULT_PORT = 49999
BAD_MODE = "Option '{}' received an unknown output mode. Please choose \"rf\", \"ip_spts\" or \"ip_mpts\"."


@pytest.mark.parametrize("args, shown", [
    (["-c", "65536"], "65536"),
    (["-c", "12x"], "12x"),
    (["-c", "-1"], "-1"),
    (["-c", "4294967296"], "4294967296"),
    (["-c99999"], "-c99999"),
])
def test_an_invalid_port_is_refused(box, args, shown):
    status, out, errors = run_tavid(args, box.root)
    assert status == 0
    assert out == b""
    assert matches(errors, err("main", BAD_PORT.format(shown))), errors


@pytest.mark.parametrize("args, shown", [(["-m", "RF"], "RF"), (["-m", "ip"], "ip"), (["-mrf "], "-mrf ")])
def test_an_unknown_mode_is_refused(box, args, shown):
    status, out, errors = run_tavid(args, box.root)
    assert status == 0
    assert matches(errors, err("main", BAD_MODE.format(shown))), errors


@pytest.mark.parametrize("option", ["-c", "-m"])
def test_an_option_without_its_argument_is_refused(box, option):
    status, _, errors = run_tavid(["-v", option], box.root)
    assert status == 0
    assert matches(errors, err("main", f"Option '{option}' requires an argument.")), errors


@pytest.mark.parametrize("args, shown", [(["-x"], "-x"), (["--port", "1"], "--port"), (["-v", "-h"], "-h")])
def test_an_unknown_option_is_refused(box, args, shown):
    status, _, errors = run_tavid(args, box.root)
    assert status == 0
    assert matches(errors, err("main", f"Unknown option '{shown}'.")), errors


def test_the_first_bad_option_stops_the_parse(box):
    status, _, errors = run_tavid(["-m", "tv", "-c", "bad"], box.root)
    assert status == 0
    assert matches(errors, err("main", BAD_MODE.format("tv"))), errors


@pytest.mark.parametrize("root", [None, "", "relative/root", "/no/such/box"])
def test_without_a_box_root_the_host_build_refuses_to_start(root):
    status, out, errors = run_tavid(["-c", "0"], root)
    assert status == 0
    assert out == b""
    assert matches(errors, err("boxroot_init",
                               "TAVID_ROOT must name an existing absolute directory (the simulated box)")), errors


def ephemeral_ports() -> range:
    """The ports the kernel picks from for a socket bound to port 0."""
    low, high = map(int, Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split())
    return range(low, high + 1)


def test_an_empty_port_is_port_zero_and_the_kernel_picks_the_port(box, tavid):
    daemon = tavid(box, port="", listen=False)  # the command line's only -c is -c ""
    wait_for(lambda: listening_sockets(daemon.pid) or not daemon.running(), what="a listening socket")
    ((address, port),) = listening_sockets(daemon.pid)
    # Every IPv4 address, on a port from the kernel's own range; not the default port.
    assert address == "0.0.0.0"
    assert port in ephemeral_ports() and port != DEFAULT_PORT, port
    daemon.port = port
    answers(daemon)
    assert [line for line in log_lines(daemon.stderr()) if line[0] == "ERR"] == []
    assert daemon.stop(signal.SIGTERM) == 0


def test_the_highest_port_is_accepted(box, tavid):
    daemon = tavid(box, port=65535)
    assert daemon.stop() == 0


@pytest.mark.parametrize("mode", ["rf", "ip_spts", "ip_mpts"])
def test_every_mode_starts(make_box, tavid, mode):
    daemon = tavid(make_box(mode), ["-m", mode])
    assert daemon.stop() == 0
