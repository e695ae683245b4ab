"""Module faults against the real daemon: every fault the simulated modules and their bus can
show, met at start-up, by a "set", by an apply and by a PSI sync, and the bus going away under
a running daemon. Each test says what the daemon must answer, log and leave behind, and ends
with the daemon answering again once the fault is gone.

The warnings of the module driver name the module and the driver's error text: a failed bus
transfer is "hdmi i2c error", a broken reply frame "hdmi reply invalid", and the error bytes 1,
3, 4 and 5 of a reply are "hdmi command invalid", "hdmi command timeout", "hdmi command
argument out of bounds" and "hdmi command error". Error byte 2 ("command unknown") is silent
and counts as done, and a reply that echoes the wrong code is taken as it is."""

from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

import pytest

from conftest import (MODULE_WAIT, START_WAIT, TS_TRACES, UNSUCCESSFUL, answers, barrier, err_line, get, log_lines,
                      module_parameters, new_log_lines, ready, rf_frequency, send, settle, slots, start_ready,
                      tcp_listening, took, wait_for, wrn_line)

# Command codes of the module protocol.
SET_FREQUENCY = 0x03
SET_EXTRA_SERVICE_SID = 0x63
APPLY = 0x70
ALL_CODES = range(0x100)

NACKS = 5  # refused transfers: well within the 500 ms for which the driver retries a transfer
BUSY_MS = 50  # well within the 30 s for which the driver waits for a busy module
# A module that stays busy while the test acts in its transaction, until the test mends it:
# well within the time for which the driver waits.
TRANSACTION_MS = int(MODULE_WAIT * 1000) // 2

FACTORY_FREQUENCY = 474000  # module 0x30's
NEW_FREQUENCY = 498000


@dataclass(frozen=True)
class Fault:
    """One way a module or its bus goes wrong, and what it does to a command that meets it."""

    name: str
    error: str | None  # the driver's text for the failed command; None: the command succeeds
    carried_out: bool  # whether the module executed the command all the same

    def __str__(self):
        return self.name


FAULTS = [
    Fault("absent", "hdmi i2c error", False),
    Fault("nack", None, True),
    Fault("busy", None, True),
    Fault("unknown", None, False),
    Fault("error 1", "hdmi command invalid", False),
    Fault("error 3", "hdmi command timeout", False),
    Fault("error 4", "hdmi command argument out of bounds", False),
    Fault("error 5", "hdmi command error", False),
    Fault("corrupt tag", "hdmi reply invalid", True),
    Fault("corrupt end", "hdmi reply invalid", True),
    Fault("corrupt length", "hdmi reply invalid", True),
    Fault("corrupt code", None, True),
]
# The set test shows the text of every error byte. Elsewhere a failing command is a failing
# command whatever its text, and one error byte stands for them all.
OTHER_ERRORS = ("error 1", "error 3", "error 5")
PHASE_FAULTS = [fault for fault in FAULTS if fault.name not in OTHER_ERRORS]


def codes(code: int | None):
    return ALL_CODES if code is None else (code,)


def set_errors(module, code: int | None, error: int):
    for each in codes(code):
        module.set_fault(error=(each, error))


# How each kind of fault is put in place for the command `code` of the module at `addr`
# (None: every command); the bus faults hit every transfer to the address.
INJECT = {
    "absent": lambda box, addr, code, arg: box.bus.set_absent(addr),
    "nack": lambda box, addr, code, arg: box.bus.nack_next(addr, NACKS),
    "busy": lambda box, addr, code, arg: box.module(addr).set_fault(busy_ms=BUSY_MS),
    "unknown": lambda box, addr, code, arg: box.module(addr).set_fault(unknown=list(codes(code))),
    "error": lambda box, addr, code, arg: set_errors(box.module(addr), code, int(arg)),
    "corrupt": lambda box, addr, code, arg: box.module(addr).set_fault(corrupt=(code, arg)),
}


def refused(box, addr: int, data: bytes | None = None) -> int:
    return sum(1 for transfer in box.bus.transactions()
               if transfer.addr == addr and not transfer.ack and data in (None, transfer.data))


def replied(box, addr: int, code: int | None, check) -> bool:
    return any(check(entry, bytes.fromhex(entry["reply"])) for entry in box.module(addr).commands()
               if code is None or entry["code"] == code)


# How the bus and command logs show that the fault was met.
MET = {
    "absent": lambda box, addr, code, arg: refused(box, addr) > 0,
    "nack": lambda box, addr, code, arg: refused(box, addr) == NACKS,
    "busy": lambda box, addr, code, arg: refused(box, addr, b"\x00") > 0,  # the wait byte
    "unknown": lambda box, addr, code, arg: replied(box, addr, code, lambda entry, _: entry["error"] == 2),
    "error": lambda box, addr, code, arg: replied(box, addr, code, lambda entry, _: entry["error"] == int(arg)),
    "corrupt": lambda box, addr, code, arg: replied(box, addr, code, CORRUPTED[arg]),
}
CORRUPTED = {
    "tag": lambda entry, reply: reply[0] == ord("$"),
    "end": lambda entry, reply: reply[-1] == ord("\n"),
    "length": lambda entry, reply: reply[3] == 0xFF,
    "code": lambda entry, reply: reply[1] == entry["code"] ^ 0x80,
}


def inject(fault: Fault, box, addr: int, code: int | None = None):
    """Puts the fault in place, with the logs cleared so that met() sees only what follows."""
    box.bus.clear_log()
    box.module(addr).clear_commands()
    kind, _, arg = fault.name.partition(" ")
    INJECT[kind](box, addr, code, arg)


def met(fault: Fault, box, addr: int, code: int | None = None) -> bool:
    kind, _, arg = fault.name.partition(" ")
    return MET[kind](box, addr, code, arg)


def mend(box, addr: int):
    box.bus.set_absent(addr, False)
    box.bus.nack_next(addr, 0)
    box.module(addr).clear_faults()


# ---------------------------------------------------------------------------------------------
# Helpers


def applies(box, addr: int) -> int:
    return box.module(addr).state()["applies"]


# ---------------------------------------------------------------------------------------------
# At start-up


def assembly_failure(error: str) -> list:
    """A failed read breaks the assembly at HDMI input 1: its firmware read only warns, its
    first read fails the input's constructors from the innermost out, and the RF assembly
    gives up with its mode number and its error line."""
    return [wrn_line("mod_tarn_get_info", f"mod_tarn_1 - Could not get info ({error})"),
            wrn_line("mod_tarn_get_audio_pid", f"mod_tarn_1 - Could not get audio PID ({error})"),
            wrn_line("hal_mod_tarn_service_new_audio_stream", "Could not create"),
            wrn_line("hal_mod_tarn_ts_new_service", "Could not create"),
            wrn_line("new_hal_mod_tarn_ts", "Could not create"),
            wrn_line("new_hal_mod_tarn_input_hdmi", "Could not create"),
            wrn_line("main", "0"),
            err_line("main", "Could not initialize HAL (RF)")]


NO_SETTINGS_FILE = [wrn_line("cmd_restore_settings", "Could not open settings file for restoring..."),
                    wrn_line("main", "Could not restore settings...")]


def input_1(daemon) -> tuple:
    """HDMI input 1's GOP size, SID and service name, as its module gave them at start."""
    gop = get(daemon, "input_hdmi_enc", input_id="1")["result"]["video_gopsize"]
    (service,) = get(daemon, "input_hdmi_services", input_id="1")["arrayedResult"]
    return gop, service["sid"], service["service_name"]


@pytest.mark.parametrize("fault", PHASE_FAULTS, ids=str)
def test_a_module_fault_from_power_up(make_box, tavid, fault):
    """Every command to HDMI input 1's module meets the fault from power-up. A failing
    command ends the start: the assembly fails, the daemon ends with status 0 and never
    listens. A module that knows no command builds an input of zeros, silently; the other
    faults are ridden out. Once the module is mended a daemon starts and reads it."""
    box = make_box("rf")
    inject(fault, box, 0x31)
    daemon = tavid(box, ["-m", "rf"], listen=fault.error is None)
    if fault.error is not None:
        assert daemon.wait(START_WAIT) == 0
        assert log_lines(daemon.stderr()) == assembly_failure(fault.error)
        assert not tcp_listening(daemon.port)
        assert met(fault, box, 0x31)
        mend(box, 0x31)
        daemon = tavid(box, ["-m", "rf"], port=daemon.port)
    else:
        assert met(fault, box, 0x31)
    ready(box, daemon)
    settle(box)
    assert log_lines(daemon.stderr(), leave_out=TS_TRACES) == NO_SETTINGS_FILE
    assert input_1(daemon) == (("0", "0", "") if fault.name == "unknown" else ("25", "2", "HDMI 2"))
    answers(daemon)


# ---------------------------------------------------------------------------------------------
# During a "set"


@pytest.mark.parametrize("fault", FAULTS, ids=str)
def test_a_module_fault_during_a_set(make_box, tavid, fault):
    """RF output 0's frequency set meets the fault on its module. A failing command turns the
    reply into the warning 13, logs the driver's warning and keeps the daemon's frequency and
    the settings file as they were; "command unknown" is answered "{}" although the module
    kept its frequency. A get reads the module back, so afterwards the daemon holds whatever
    the module took, also from a command whose reply was broken, and applies it."""
    box, daemon = start_ready(make_box, tavid, "rf")
    since = len(daemon.stderr())
    inject(fault, box, 0x30, SET_FREQUENCY)
    reply = send(daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY))
    settle(box)
    assert met(fault, box, 0x30, SET_FREQUENCY)
    mend(box, 0x30)
    if fault.error is None:
        assert (reply, new_log_lines(daemon, since)) == (b"{}", [])
    else:
        assert reply == UNSUCCESSFUL % 13
        assert new_log_lines(daemon, since) == [
            wrn_line("mod_tarn_set_frequency", f"mod_tarn_0 - Could not set frequency ({fault.error})")]
    assert box.stored_settings()["exists"] == (fault.error is None)
    taken = NEW_FREQUENCY if fault.carried_out else FACTORY_FREQUENCY
    assert module_parameters(box, 0x30, "settings")["frequency"] == taken
    assert module_parameters(box, 0x30)["frequency"] == (taken if fault.error is None else FACTORY_FREQUENCY)
    assert rf_frequency(daemon) == str(taken)
    wait_for(lambda: module_parameters(box, 0x30)["frequency"] == taken, what="the module's value applied")
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency="490000") == b"{}"
    wait_for(lambda: module_parameters(box, 0x30)["frequency"] == 490000, what="a later set applied")


# ---------------------------------------------------------------------------------------------
# During an apply and during a PSI sync. A restore request switches the services of HDMI
# inputs 0 and 1 on at RF output 1. It changes settings held in memory only, so no module
# hears of it until the poll cycle: multiplexer 1 makes input 0 its master, which gives module
# 0x30 the output's identity and announces input 1's service in its first extra-service slot
# (the PSI sync); then both inputs apply, module 0x31 hearing nothing but its apply.

SWITCH_ON = (b'{"action":"set","object":"output_rf","args":{"output_id":"1","ts":{"services":['
             b'{"service_tag":"3","enabled":"1"},{"service_tag":"2","enabled":"1"}]}}}\n\r')
PSI_DONE = wrn_line("hal_mod_tarn_sync_psi", "C")  # the closing line of every completed PSI sync


def switch_on(box, daemon):
    Path(box.path("data/settings.conf")).write_bytes(SWITCH_ON)
    assert send(daemon, "execute", "restore_settings") == b"{}"


@pytest.mark.parametrize("fault", PHASE_FAULTS, ids=str)
def test_a_module_fault_during_an_apply(make_box, tavid, fault):
    """HDMI input 1's apply meets the fault. A failing apply warns and stays owed, so every
    poll cycle tries it again while requests are still served; a module that carries it out
    but breaks the reply applies every time. Once mended, the next try succeeds and the
    warnings stop. "Command unknown" counts as applied: no warning, no retry, no apply."""
    box, daemon = start_ready(make_box, tavid, "rf")
    since, before = len(daemon.stderr()), applies(box, 0x31)
    inject(fault, box, 0x31, APPLY)
    switch_on(box, daemon)
    warning = wrn_line("mod_tarn_apply", f"mod_tarn_1 - Could not apply ({fault.error})")
    if fault.error is not None:
        wait_for(lambda: new_log_lines(daemon, since).count(warning) >= 2, what="the apply tried again")
        answers(daemon)
    else:
        settle(box)
    assert met(fault, box, 0x31, APPLY)
    mend(box, 0x31)
    settle(box)
    lines = new_log_lines(daemon, since)
    failed = lines.count(warning)
    assert lines == [PSI_DONE] + [warning] * failed
    assert (failed >= 2) == (fault.error is not None)
    carried_out = failed if fault.carried_out else 0
    assert applies(box, 0x31) - before == carried_out + (0 if fault.name == "unknown" else 1)
    answers(daemon)


def psi(box, addr: int) -> list:
    """The services a module announces: its own (slot None), then its enabled slots."""
    services = box.module(addr).psi()["services"]
    return [(service["slot"], service["sid"], service["service_name"]) for service in services]


def announced(sid: int | None) -> list:
    """Module 0x30's own service, and input 1's in its first slot under this SID (None: no
    slot announced)."""
    return [(None, 1, "HDMI 1")] + ([] if sid is None else [(0, sid, "HDMI 2")])


def psi_lines(fault: Fault) -> list:
    """A failing slot command ends the PSI sync at once, without its closing line; an absent
    module has failed the identity's first command before."""
    if fault.error is None:
        return [PSI_DONE]
    sid = wrn_line("mod_tarn_set_extra_service_info_sid",
                   f"mod_tarn_0 - Could not set extra service SID ({fault.error})")
    if fault.name == "absent":
        return [wrn_line("mod_tarn_set_tsid", f"mod_tarn_0 - Could not set TSID ({fault.error})"), sid]
    return [sid]


@pytest.mark.parametrize("fault", PHASE_FAULTS, ids=str)
def test_a_module_fault_during_a_psi_sync(make_box, tavid, fault):
    """The master module meets the fault on the first command of the slot that is to announce
    input 1's service. A failing command stops the PSI sync there: the slot is never enabled
    and the module announces its own service only; the sync is not tried again. "Command
    unknown" leaves the slot's SID at 0 and announces it so. Once mended, the next change of
    the output's identity syncs the PSI in full."""
    box, daemon = start_ready(make_box, tavid, "rf")
    since = len(daemon.stderr())
    inject(fault, box, 0x30, SET_EXTRA_SERVICE_SID)
    switch_on(box, daemon)
    expected = psi_lines(fault)
    wait_for(lambda: new_log_lines(daemon, since)[:len(expected)] == expected, what="the PSI sync")
    assert met(fault, box, 0x30, SET_EXTRA_SERVICE_SID)
    mend(box, 0x30)
    settle(box)
    lines = new_log_lines(daemon, since)
    rest = lines[len(expected):]
    # An absent module also fails input 0's apply, which is tried again until it is mended.
    retried = [wrn_line("mod_tarn_apply", f"mod_tarn_0 - Could not apply ({fault.error})")] * len(rest)
    assert (lines[:len(expected)], rest) == (expected, retried if fault.name == "absent" else [])
    slot = slots(box, 0x30)[0]
    if fault.error is not None:
        assert (slot["enable"], slot["sid"]) == (0, 2 if fault.carried_out else 0)
        assert psi(box, 0x30) == announced(None)
    else:
        sid = 0 if fault.name == "unknown" else 2
        assert (slot["enable"], slot["sid"], slot["service_name"]) == (1, sid, "HDMI 2")
        assert psi(box, 0x30) == announced(sid)
    since = len(daemon.stderr())
    assert send(daemon, "set", "output_rf_ts", output_id="1", network_version="3") == b"{}"
    wait_for(lambda: box.module(0x30).psi()["network_version"] == 3, what="the identity applied")
    settle(box)
    assert new_log_lines(daemon, since) == [PSI_DONE]
    assert psi(box, 0x30) == announced(2)


# ---------------------------------------------------------------------------------------------
# The bus going away


def test_without_the_bus_every_module_command_fails_until_it_is_back(make_box, tavid):
    """With the bus device gone, each module command fails at once with the bus error: a get
    and a set of the RF output answer the warning 13, a request without module commands is
    served as ever. Back, the same requests succeed and the set is applied."""
    box, daemon = start_ready(make_box, tavid, "rf")
    since = len(daemon.stderr())
    box.close_bus()
    assert send(daemon, "get", "output_rf_mod", output_id="0") == UNSUCCESSFUL % 13
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY)) == UNSUCCESSFUL % 13
    answers(daemon)
    failed = [wrn_line("mod_tarn_get_output_type", "mod_tarn_0 - Could not get output type (hdmi i2c error)"),
              wrn_line("mod_tarn_set_frequency", "mod_tarn_0 - Could not set frequency (hdmi i2c error)")]
    assert new_log_lines(daemon, since) == failed
    assert not box.stored_settings()["exists"]
    box.open_bus()
    assert rf_frequency(daemon) == str(FACTORY_FREQUENCY)
    assert send(daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY)) == b"{}"
    barrier(daemon, 2)
    assert module_parameters(box, 0x30)["frequency"] == NEW_FREQUENCY
    assert new_log_lines(daemon, since) == failed


def test_the_bus_going_away_in_the_middle_of_a_transaction(make_box, tavid):
    """The bus goes while the daemon waits for a busy module that has taken a frequency: the
    wait fails at once, the set answers the warning 13 and the daemon keeps its frequency.
    With the bus back, a get reads what the module took and the daemon applies it."""
    box, daemon = start_ready(make_box, tavid, "rf")
    since = len(daemon.stderr())
    box.module(0x30).set_fault(busy_ms=TRANSACTION_MS)
    with ThreadPoolExecutor(1) as pool:
        pending = pool.submit(send, daemon, "set", "output_rf_mod", output_id="0", frequency=str(NEW_FREQUENCY))
        wait_for(lambda: took(box, 0x30, "set_frequency"), what="the frame taken")
        assert box.module(0x30).busy()
        box.close_bus()
        assert pending.result() == UNSUCCESSFUL % 13
    assert new_log_lines(daemon, since) == [
        wrn_line("mod_tarn_set_frequency", "mod_tarn_0 - Could not set frequency (hdmi i2c error)")]
    box.module(0x30).clear_faults()
    box.open_bus()
    assert module_parameters(box, 0x30)["frequency"] == FACTORY_FREQUENCY
    assert rf_frequency(daemon) == str(NEW_FREQUENCY)
    wait_for(lambda: module_parameters(box, 0x30)["frequency"] == NEW_FREQUENCY, what="the module's value applied")
    answers(daemon)
