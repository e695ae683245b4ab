#!/usr/bin/python3
"""The benchmark suite: what the daemon costs the box and where the time goes, in figures.

    bench/run.sh [--quick] [--out FILE] [--only N,N...] [--soak-minutes M]

Builds the host daemon and the in-process benchmark program (build/bench, RelWithDebInfo, no
sanitizers), runs every figure against the box simulator and writes the report: bench/RESULTS.md
for a full run, build/bench/RESULTS-quick.md with --quick (few runs, short windows, few
requests: it only keeps every figure's code path working). The raw measurements go to
build/bench/RESULTS.json (RESULTS-quick.json). bench/README.md says what each figure means.

Targets that are missed are reported, not failed: the run fails only when a figure cannot be
measured at all.
"""

import argparse
import dataclasses
import datetime
import json
import os
import platform
import socket
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, str(Path(__file__).resolve().parent))
import boxrun  # noqa: E402  (found through the path set just above)
from boxrun import (MODES, PYTHON, REPO, BenchError, Daemon, Sim, bus_figures,  # noqa: E402
                    median, percentile)
from taviweb import figure_taviweb  # noqa: E402

BUILD = REPO / "build" / "bench"
TAVID = BUILD / "src" / "tavid"
TAVIWEB = BUILD / "taviweb" / "taviweb"
BENCH = BUILD / "bench" / "tavid_bench"
SOAK = REPO / "scripts" / "soak.py"
NETSETTINGS_PORT = 49998

# What the protocol itself costs a request: the channel reads until 50 ms of silence.
READ_TIMEOUT_S = 0.050
# The I2C library retries a transfer that is not acknowledged every 10 ms: a module that is busy
# for 1 ms after a command answers its wait byte at the first retry.
I2C_RETRY_S = 0.010

# The targets. The idle poll pass has none of its own: its target is its first measurement
# with this suite (x86-64, RelWithDebInfo), to be held from then on.
TARGETS = {
    "idle_cpu_percent": 0.5,
    "idle_poll_instructions": 22954,
    "floor_ratio": 3.0,
    "board_binary_bytes": 512 * 1024,
}

I2C_IO_FUNCTIONS = ("i2c_open(", "i2c_write(", "i2c_read(", "i2c_close(")


@dataclass(frozen=True)
class Settings:
    runs: int  # callgrind runs, bus-economy runs, start-ups, qemu runs
    idle_windows: int
    idle_seconds: float
    latency_requests: int
    store_repeat: int
    quiet_seconds: float  # how long the bus must stay silent to count as settled
    idle_bus_seconds: float
    soak_minutes: float | None  # None: the soak's own length
    soak_mode: str | None  # None: the soak's own (every mode in turn)


FULL = Settings(runs=3, idle_windows=5, idle_seconds=20.0, latency_requests=500, store_repeat=20,
                quiet_seconds=0.5, idle_bus_seconds=5.0, soak_minutes=None, soak_mode=None)
QUICK = Settings(runs=1, idle_windows=1, idle_seconds=2.0, latency_requests=10, store_repeat=3,
                 quiet_seconds=0.3, idle_bus_seconds=1.0, soak_minutes=0.1, soak_mode="rf")


def compact(value) -> str:
    return json.dumps(value, separators=(",", ":"))


@dataclass(frozen=True)
class Request:
    """A representative request; a set alternates between its variants, so that every one of
    them really changes the box."""

    name: str
    what: str
    variants: tuple
    stores: int  # settings stores the request makes (one per accepted "set" element)

    def text(self, n: int = 0) -> str:
        return compact(self.variants[n % len(self.variants)])


def rf_mod_set(output_id: str, frequency: str, constellation: str) -> dict:
    return {"output_id": output_id, "frequency": frequency, "constellation": constellation}


REQUESTS = (
    Request("get_rf_all", "get of all RF outputs",
            ({"action": "get", "object": "output_rf", "args": {}},), 0),
    Request("get_hdmi_tree", "get of HDMI input 0 (whole TS tree)",
            ({"action": "get", "object": "input_hdmi", "args": {"input_id": "0"}},), 0),
    Request("set_mod", "set of RF output 0's modulation",
            ({"action": "set", "object": "output_rf_mod", "args": rf_mod_set("0", "482000", "16-qam")},
             {"action": "set", "object": "output_rf_mod", "args": rf_mod_set("0", "474000", "64-qam")}),
            1),
    Request("set_arrayed", "set with arrayedArgs (both RF outputs)",
            ({"action": "set", "object": "output_rf_mod",
              "arrayedArgs": [{"output_id": "0", "frequency": "490000"},
                              {"output_id": "1", "frequency": "498000"}]},
             {"action": "set", "object": "output_rf_mod",
              "arrayedArgs": [{"output_id": "0", "frequency": "474000"},
                              {"output_id": "1", "frequency": "482000"}]}),
            2),
)
FIRST_REQUEST = compact({"action": "get", "object": "device", "args": {"device_id": "0"}})
STORE_REQUEST = compact({"action": "execute", "object": "store_settings", "args": {}})


def reply_ok(request: Request, reply: str) -> bool:
    if request.variants[0]["action"] == "set":
        return reply == "{}"
    return reply.startswith(('{"result":', '{"arrayedResult":'))


# ---------------------------------------------------------------------------------------------
# Figures: each is a list of rows, each row one figure with its runs


@dataclass
class Row:
    section: str
    name: str
    unit: str
    values: list
    target: str = ""
    met: bool | None = None
    note: str = ""

    @property
    def median(self):
        return median(self.values)


@dataclass
class Report:
    rows: list = field(default_factory=list)
    notes: dict = field(default_factory=dict)  # section -> paragraphs
    raw: dict = field(default_factory=dict)

    def add(self, row: Row) -> Row:
        self.rows.append(row)
        return row

    def note(self, section: str, text: str):
        self.notes.setdefault(section, []).append(text)


def log(text: str):
    print(f"bench: {text}", flush=True)


# ---- callgrind runs of the in-process program ------------------------------------------------


def bench_ops(mode: str) -> list:
    ops = ["poll"]
    if mode == "rf":
        ops += [f"request:{request.name}={request.text()}" for request in REQUESTS]
    return ops + ["store"]


def run_bench(sim: Sim, args, valgrind=()) -> list:
    """The in-process program on a simulator's box; its JSON lines, each with the bus transfers
    that fell inside its measurement."""
    sim.clear_bus_log()
    done = subprocess.run([*valgrind, str(BENCH), sim.mode, *args],
                          env={**os.environ, "TAVID_ROOT": sim.root}, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=1800)
    if done.returncode != 0:
        raise BenchError(f"tavid_bench {sim.mode} {args} failed ({done.returncode}): {done.stderr[-2000:]}")
    transfers = sim.transfers()
    lines = [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]
    for line in lines:
        inside = [t for t in transfers if line["start"] <= t["time"] <= line["end"]]
        line["bus"] = bus_figures(inside)
    return lines


def callgrind_run(mode: str, workdir: Path) -> dict:
    """One run of every in-process operation of a mode under callgrind: by label, the dump's
    instructions, those of the bus I/O within them, and the program's line."""
    prefix = workdir / f"callgrind.{mode}"
    for old in workdir.glob(prefix.name + "*"):
        old.unlink()
    with Sim(mode) as sim:
        lines = run_bench(sim, bench_ops(mode),
                          valgrind=("valgrind", "--tool=callgrind", f"--callgrind-out-file={prefix}"))
    dumps = boxrun.callgrind_dumps(str(prefix))
    figures = {}
    for line in lines:
        dump = dumps.get(line["label"])
        if dump is None:
            raise BenchError(f"no callgrind dump for {line['label']}")
        figures[line["label"]] = {"total": dump["total"],
                                  "io": boxrun.inclusive_of(dump, I2C_IO_FUNCTIONS), "line": line}
    return figures


def callgrind_runs(settings: Settings, report: Report) -> dict:
    """mode -> list of runs (callgrind_run results)."""
    runs = {mode: [] for mode in MODES}
    with tempfile.TemporaryDirectory(prefix="tbcg", dir=BUILD) as workdir:
        for n in range(settings.runs):
            for mode in MODES:
                log(f"callgrind run {n + 1}/{settings.runs}, {mode}")
                runs[mode].append(callgrind_run(mode, Path(workdir)))
    report.raw["callgrind"] = runs
    return runs


def instructions(runs: list, label: str, part: str = "total") -> list:
    return [run[label][part] for run in runs]


def own_instructions(runs: list, label: str) -> list:
    """The operation's instructions without the bus I/O inside it."""
    return [run[label]["total"] - run[label]["io"] for run in runs]


# ---- 1. idle cost ----------------------------------------------------------------------------


def cpu_shares(processes, windows: int, seconds: float) -> list:
    """Per process, its CPU time as a percentage of one core in each window; the processes are
    measured over the same windows, so that they see the same machine."""
    shares = [[] for _ in processes]
    for _ in range(windows):
        began = time.monotonic()
        cpu = [process.cpu_ns() for process in processes]
        time.sleep(seconds)
        elapsed = time.monotonic() - began
        for n, process in enumerate(processes):
            shares[n].append(100.0 * (process.cpu_ns() - cpu[n]) / 1e9 / elapsed)
    return shares


def idle_margin(floor: float, target: float) -> str:
    if floor >= target:
        return (f"It is above the {target} % target by itself, so no change of the daemon can meet the "
                "target on this machine: the wake-ups of the loop that the daemon must keep are the floor.")
    return (f"It leaves {number(target - floor)} % of the {target} % target to the daemon's own work; "
            "how much of a core a wake-up costs depends on the machine and on what else runs on it "
            "(see the spread, and the load average above).")


def figure_idle(settings: Settings, report: Report, cg: dict):
    section = "1. Idle cost"
    log(f"idle: {settings.idle_windows} windows of {settings.idle_seconds:g} s")
    with Sim("rf") as sim:
        daemon = Daemon.tavid(sim, TAVID).start()
        floor = Daemon(sim, lambda port: [BENCH, "none", f"idle_loop:{port}"])
        try:
            daemon.wait_listening()
            sim.wait_bus_quiet(settings.quiet_seconds)
            floor.start().wait_listening()
            tavid_shares, floor_shares = cpu_shares([daemon, floor], settings.idle_windows,
                                                    settings.idle_seconds)
        finally:
            floor.stop()
            daemon.stop()
    target = TARGETS["idle_cpu_percent"]
    idle = report.add(Row(section, f"tavid idle in RF mode, CPU per {settings.idle_seconds:g} s window",
                          "% of a core", tavid_shares, f"< {target} %"))
    idle.met = idle.median < target
    loop = report.add(Row(section, "the main loop alone, same windows (channel poll + 5 ms sleep, no HAL)",
                          "% of a core", floor_shares))
    above = report.add(Row(section, "tavid above the loop alone", "% of a core",
                           [a - b for a, b in zip(tavid_shares, floor_shares)]))
    baseline = TARGETS["idle_poll_instructions"]
    poll = report.add(Row(section, "one idle poll pass (hal_poll, nothing changed), RF box", "instructions",
                          instructions(cg["rf"], "poll"), f"<= {baseline:,} (first measurement)"))
    poll.met = poll.median <= baseline
    report.raw["idle"] = {"tavid": tavid_shares, "floor": floor_shares}
    report.note(section, (
        f"The main loop alternates a poll pass and a 5 ms sleep: about 190 wake-ups a second, each "
        f"with one poll() of the command socket. The same loop with no HAL behind it (`tavid_bench none "
        f"idle_loop`), measured in the same windows, costs {number(loop.median)} % of a core on this "
        f"machine: that is the documented loop's own floor. {idle_margin(loop.median, target)} tavid "
        f"adds {number(above.median)} % to it: its poll passes, {number(poll.median)} instructions each. "
        f"Most of a pass is the change test of every transport stream, service and stream (the "
        f"checksum of each group, tested by its producer and by each reader, in both phases: about "
        f"200 groups a pass in RF mode); the groups remember the bytes their checksum was last "
        f"computed over, so that an unchanged group costs a comparison instead of a crc32 "
        f"(66,876 instructions a pass before that, 83 % of them in crc32)."))


# ---- 2. request handling without I/O ----------------------------------------------------------


def figure_requests(report: Report, cg: dict):
    section = "2. Request handling without I/O"
    runs = cg["rf"]
    store_floor = instructions(runs, "store.floor")
    store_own = own_instructions(runs, "store")
    target = TARGETS["floor_ratio"]
    for request in REQUESTS:
        own = own_instructions(runs, request.name)
        floor = instructions(runs, request.name + ".floor")
        report.add(Row(section, f"{request.what}: handling, bus I/O excluded", "instructions", own,
                       note=f"bus I/O inside it: {number(median(instructions(runs, request.name, 'io')))}"))
        report.add(Row(section, f"{request.what}: Jansson floor", "instructions", floor))
        ratio = report.add(Row(section, f"{request.what}: handling / floor", "ratio",
                               [a / b for a, b in zip(own, floor)], f"<= {target:g}"))
        ratio.met = ratio.median <= target
        if request.stores:
            documented = [f + request.stores * s for f, s in zip(floor, store_floor)]
            report.add(Row(section, f"{request.what}: handling / (floor + serialising the records of "
                                    f"its {request.stores} settings store(s))", "ratio",
                           [a / b for a, b in zip(own, documented)]))
    report.note(section, (
        "The floor is Jansson's own work for the request, measured in the same run with the "
        "daemon's flags: json_loads of the request text plus json_dumps of the reply the daemon "
        "gave. Serialising with JSON_PRESERVE_ORDER dominates it. The handling is everything "
        "cmd_json_handler does, less the I2C library's transfers (i2c_open, i2c_write, i2c_read, "
        "i2c_close and what they call); the module frames are built and checked inside it."))
    report.note(section, (
        f"Every accepted \"set\" element rewrites the whole settings file before the reply "
        f"(the store: one record per object, each the object's \"get\", refreshed from its module). "
        f"The store alone costs {number(median(store_own))} instructions in RF mode, of which "
        f"{number(median(store_floor))} are Jansson serialising the records: so a set, whose reply "
        f"is \"{{}}\", is tens of times its plain floor, and within the target once the "
        f"serialising that the documented store needs is counted in the floor. The documented "
        f"behaviour (a store after each set, records built by the get handlers) is the floor here."))


# ---- 3. client latency ------------------------------------------------------------------------


def figure_latency(settings: Settings, report: Report, memory: dict):
    section = "3. Client latency"
    log(f"latency: {settings.latency_requests} requests of each kind")
    latencies = {}
    with Sim("rf") as sim, Daemon.tavid(sim, TAVID) as daemon:
        daemon.wait_listening()
        sim.wait_bus_quiet(settings.quiet_seconds)
        for request in REQUESTS:
            latencies[request.name] = []
            for n in range(settings.latency_requests):
                reply, seconds = daemon.request(request.text(n))
                if not reply_ok(request, reply):
                    raise BenchError(f"{request.name}: unexpected reply {reply[:200]}")
                latencies[request.name].append(seconds)
        memory["latency_vmhwm_kb"] = daemon.status_kb("VmHWM")
        memory["latency_requests"] = settings.latency_requests * len(REQUESTS)
    for request in REQUESTS:
        excess = [1000.0 * (s - READ_TIMEOUT_S) for s in latencies[request.name]]
        report.add(Row(section, f"{request.what}: excess over 50 ms, median", "ms", [median(excess)],
                       note=f"{len(excess)} requests"))
        report.add(Row(section, f"{request.what}: excess over 50 ms, 99th percentile", "ms",
                       [percentile(excess, 0.99)]))
    report.raw["latency_s"] = latencies
    report.note(section, (
        "Latency is measured by the client, from connecting to the daemon closing the connection; "
        "the excess is what lies above the 50 ms read time-out. Up to 5 ms of it is the loop's "
        "sleep (2.5 ms on average), the rest is the handling: above all the module transactions, "
        "which the simulator serves from Python with one connection and one thread per "
        "transaction (the bus time of each request, measured from the simulator's log, is in "
        "figure 4). Each set also rewrites the settings file, which reads every object back from "
        "its module and ends by putting the new file on the disk (fsync of the file and of its "
        "directory)."))


# ---- 4. bus economy ---------------------------------------------------------------------------


def request_bus(settings: Settings, report: Report):
    """Per representative request: the transfers while it is handled (up to the reply) and those
    of the poll cycles that push its changes (after the reply, until the bus is quiet)."""
    section = "4. Bus economy"
    handling = {request.name: [] for request in REQUESTS}
    pushing = {request.name: [] for request in REQUESTS}
    spans = {request.name: [] for request in REQUESTS}
    with Sim("rf") as sim, Daemon.tavid(sim, TAVID) as daemon:
        daemon.wait_listening()
        sim.wait_bus_quiet(settings.quiet_seconds)
        for n in range(settings.runs):
            for request in REQUESTS:
                sim.clear_bus_log()
                reply, _ = daemon.request(request.text(n))
                replied = time.time()
                if not reply_ok(request, reply):
                    raise BenchError(f"{request.name}: unexpected reply {reply[:200]}")
                transfers = sim.wait_bus_quiet(settings.quiet_seconds)
                during = [t for t in transfers if t["time"] <= replied]
                handling[request.name].append(bus_figures(during))
                pushing[request.name].append(bus_figures([t for t in transfers if t["time"] > replied]))
                span = during[-1]["time"] - during[0]["time"] if during else 0.0
                spans[request.name].append(1000.0 * span)
        sim.clear_bus_log()
        time.sleep(settings.idle_bus_seconds)
        idle = bus_figures(sim.transfers())
    for request in REQUESTS:
        for when, figures in (("while handled", handling), ("then pushed by the poll cycles", pushing)):
            runs = figures[request.name]
            report.add(Row(section, f"{request.what}: {when}", "transfers", [f["transfers"] for f in runs],
                           note=f"{number(median([f['bytes'] for f in runs]))} bytes, "
                                f"module commands: {number(median([f['commands'] for f in runs]))}"))
        report.add(Row(section, f"{request.what}: simulated bus time while handled (first to last transfer)",
                       "ms", spans[request.name]))
    row = report.add(Row(section, f"tavid idle for {settings.idle_bus_seconds:g} s "
                                  f"(about {int(settings.idle_bus_seconds / 0.0052)} poll passes)",
                         "transfers", [idle["transfers"]], "0"))
    row.met = idle["transfers"] == 0
    report.raw["request_bus"] = {"handling": handling, "pushing": pushing, "span_ms": spans}


def start_daemon_until_answered(sim: Sim, settings: Settings) -> dict:
    """Starts tavid, sends the first request as soon as it listens; the time to that reply, the
    transfers until then, and the whole start-up's until the bus falls quiet."""
    daemon = Daemon.tavid(sim, TAVID).start()
    try:
        daemon.wait_listening()
        reply, _ = daemon.request(FIRST_REQUEST)
        answered = time.monotonic() - daemon.started
        replied = time.time()
        if not reply.startswith('{"result":'):
            raise BenchError(f"first request answered {reply[:200]}")
        transfers = sim.wait_bus_quiet(settings.quiet_seconds)
        settled = max((t["time"] for t in transfers), default=replied)
        return {"answered_s": answered,
                "settled_s": answered + max(0.0, settled - replied),
                "until_answered": bus_figures([t for t in transfers if t["time"] <= replied]),
                "startup": bus_figures(transfers)}
    finally:
        daemon.stop()


def startups(mode: str, settings: Settings, busy_ms: int) -> dict:
    """Start-ups of a fresh box (no settings file), and of a box powered up with the settings
    file that its first run stored (modules back at their factory values)."""
    found = {"fresh": [], "stored": []}
    for _ in range(settings.runs):
        with Sim(mode) as sim:
            sim.set_busy(busy_ms)
            found["fresh"].append(start_daemon_until_answered(sim, settings))
            with Daemon.tavid(sim, TAVID) as daemon:
                daemon.wait_listening()
                reply, _ = daemon.request(STORE_REQUEST)
                if reply != "{}":
                    raise BenchError(f"store_settings answered {reply[:200]}")
            stored = Path(sim.path("data/settings.conf")).read_bytes()
        with Sim(mode) as sim:
            sim.set_busy(busy_ms)
            Path(sim.path("data/settings.conf")).write_bytes(stored)
            found["stored"].append(start_daemon_until_answered(sim, settings))
    return found


BOX_STATES = {"fresh": "fresh box", "stored": "box with a settings file"}


def figure_startup(settings: Settings, report: Report):
    section = "4. Bus economy"
    commands_1ms = []
    answered_1ms = []
    for mode in MODES:
        log(f"start-ups in mode {mode}")
        quick = startups(mode, settings, 0)
        slow = startups(mode, settings, 1)
        report.raw.setdefault("startup", {})[mode] = {"busy_0ms": quick, "busy_1ms": slow}
        for state, what in BOX_STATES.items():
            runs = quick[state]
            whole = [run["startup"] for run in runs]
            report.add(Row(section, f"start-up, {mode}, {what}: until the bus falls quiet", "transfers",
                           [f["transfers"] for f in whole],
                           note=f"{number(median([f['bytes'] for f in whole]))} bytes, "
                                f"{number(median([f['commands'] for f in whole]))} module commands; "
                                f"{number(median([r['until_answered']['transfers'] for r in runs]))} "
                                "transfers before the first answered request"))
        for state, what in BOX_STATES.items():
            runs = slow[state]
            commands = median([r["startup"]["commands"] for r in runs])
            answered = median([r["answered_s"] for r in runs])
            commands_1ms.append(commands)
            answered_1ms.append(answered)
            report.add(Row(section, f"start-up time, {mode}, {what}, modules busy 1 ms: to the first "
                                    "answered request", "s", [r["answered_s"] for r in runs],
                           note=f"{number(commands)} module commands: "
                                f"{number(commands * I2C_RETRY_S)} s of retry waits"))
    report.note(section, (
        "Transfers are the simulator's: a write (a command frame, or the single wait byte) or a read "
        "(the reply frame); bytes are those written plus those asked for. A module command is one "
        "bracket of three transfers. A get reads each value back from its module, so it costs a "
        "command per value; a set writes the values it changes, then the store that follows reads "
        "every object of the box back from the modules (figure 6): that read-back is most of a "
        "set's traffic. The poll cycles after it push only what changed."))
    report.note(section, (
        "Start-up: the assembly and the first poll cycle bring every object to its module, and "
        "the restore replays the settings file through the setters, whose drivers write each value "
        "to its module. The first request waits behind all of it: the listening socket opens just "
        "before the first loop pass, whose command poll finds nothing yet, and that pass then runs "
        "the first poll cycle and the restore before the next pass answers. With modules that "
        "are busy 1 ms after each command, every "
        "command's wait byte is refused once and retried 10 ms later (the I2C library's documented "
        "retry interval), so start-up takes about 10 ms a command: that interval, not the daemon's "
        f"own work, sets the time (for example {number(answered_1ms[-1])} s for "
        f"{number(commands_1ms[-1])} commands in the last case)."))


def figure_bus_inprocess(report: Report, cg: dict):
    section = "4. Bus economy"
    for mode in MODES:
        runs = cg[mode]
        row = report.add(Row(section, f"one poll pass with nothing changed, {mode} (in-process)",
                             "transfers", [run["poll"]["line"]["bus"]["transfers"] for run in runs], "0"))
        row.met = all(value == 0 for value in row.values)


# ---- 5. memory and size -----------------------------------------------------------------------


def newest_source_mtime() -> float:
    newest = 0.0
    for top in ("src", "lnklist", "i2c", "gpio", "it9300", "client", "taviweb", "cmake"):
        for path in (REPO / top).rglob("*"):
            if path.is_file():
                newest = max(newest, path.stat().st_mtime)
    return max(newest, (REPO / "CMakeLists.txt").stat().st_mtime)


def sysroot() -> Path:
    root = Path(os.environ.get("TAVID_SYSROOT", REPO / "sysroot-armhf"))
    if not (root / "usr/lib/arm-linux-gnueabihf/pkgconfig/jansson.pc").exists():
        log("making the armhf sysroot (scripts/armhf-sysroot.sh)")
        subprocess.run([str(REPO / "scripts" / "armhf-sysroot.sh"), str(root)], check=True)
    return root.resolve()


def board_build(host_root: bool) -> tuple:
    """The board daemon (box paths, or TAVID_ROOT paths for qemu runs) and how it was found: the
    shared build when it is newer than every source, else a build of this suite's own."""
    shared = REPO / ("build-board-hostroot" if host_root else "build-board")
    binaries = [shared / "src" / "tavid", shared / "taviweb" / "taviweb"]
    if all(binary.exists() and binary.stat().st_mtime >= newest_source_mtime() for binary in binaries):
        return shared, f"{shared.relative_to(REPO)}/, newer than every source"
    why = "older than the sources" if all(binary.exists() for binary in binaries) else "absent"
    own = BUILD / ("board-hostroot" if host_root else "board")
    log(f"building the board daemon in {own.relative_to(REPO)} ({shared.relative_to(REPO)} is {why})")
    subprocess.run([str(REPO / "scripts" / "deps.sh"), "board"], check=True)
    subprocess.run(["cmake", "-S", str(REPO), "-B", str(own),
                    f"-DCMAKE_TOOLCHAIN_FILE={REPO / 'cmake' / 'toolchain-armhf.cmake'}",
                    f"-DTAVID_SYSROOT={sysroot()}", "-DCMAKE_BUILD_TYPE=Release",
                    "-DCMAKE_C_FLAGS_RELEASE=-Os -DNDEBUG", "-DCMAKE_CXX_FLAGS_RELEASE=-Os -DNDEBUG",
                    f"-DTAVID_HOST_ROOT={'ON' if host_root else 'OFF'}", "-DTAVID_TESTS=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", str(own), "-j2", "--target", "tavid", "taviweb"], check=True,
                   stdout=subprocess.DEVNULL)
    return own, f"{own.relative_to(REPO)}/, built for this run: {shared.relative_to(REPO)}/ is {why}"


def cache_value(build: Path, key: str) -> str:
    for line in (build / "CMakeCache.txt").read_text().splitlines():
        if line.startswith(key + ":"):
            return line.split("=", 1)[1]
    raise BenchError(f"{key} not in {build}/CMakeCache.txt")


def figure_board_size(report: Report):
    section = "5. Memory and size"
    build, how = board_build(host_root=False)
    stripped = BUILD / "tavid.board.stripped"
    subprocess.run(["arm-linux-gnueabihf-strip", "-o", str(stripped), str(build / "src" / "tavid")],
                   check=True)
    size = stripped.stat().st_size
    target = TARGETS["board_binary_bytes"]
    row = report.add(Row(section, "stripped board binary (32-bit ARM, -Os)", "bytes", [size],
                         f"< {target} (512 KiB)", note=how))
    row.met = size < target
    report.note(section, (
        "The board binary is the daemon as the box runs it: 32-bit ARM, -Os, libstdc++ and libgcc "
        "linked statically (so the box needs only glibc, Jansson and zlib), stripped."))


def figure_qemu(settings: Settings, report: Report):
    section = "5. Memory and size"
    build, how = board_build(host_root=True)
    binary = build / "src" / "tavid"
    launcher = cache_value(build, "TAVID_QEMU_COMMAND").split()
    guest_files = [binary, *Path("/usr/arm-linux-gnueabihf/lib").glob("*.so*"),
                   *(sysroot() / "usr/lib/arm-linux-gnueabihf").glob("*.so*"),
                   *(sysroot() / "lib/arm-linux-gnueabihf").glob("*.so*")]
    rss, hwm, guest = [], [], []
    for n in range(settings.runs):
        log(f"qemu-arm run {n + 1}/{settings.runs}")
        with Sim("rf") as sim, Daemon.tavid(sim, binary, launcher) as daemon:
            daemon.wait_listening()
            sim.wait_bus_quiet(settings.quiet_seconds)
            for request in REQUESTS:
                reply, _ = daemon.request(request.text())
                if not reply_ok(request, reply):
                    raise BenchError(f"{request.name} under qemu-arm: unexpected reply {reply[:200]}")
            rss.append(daemon.status_kb("VmRSS"))
            hwm.append(daemon.status_kb("VmHWM"))
            guest.append(daemon.mapped_rss_kb(guest_files))
    note = f"RF mode, after start-up and one of each representative request; the daemon of {how}"
    report.add(Row(section, "qemu-arm process running the board daemon: VmRSS", "kB", rss, note=note))
    report.add(Row(section, "qemu-arm process running the board daemon: VmHWM", "kB", hwm))
    report.add(Row(section, "of which resident in the guest's mapped files (daemon binary, ARM libraries)",
                   "kB", guest))
    report.note(section, (
        "Under qemu-arm the resident memory is the emulator's process: its translator, its code "
        "cache and its own host libraries are counted with the guest, so the figure is far above "
        "what the box would show. The guest's own share is at least what its mapped files hold "
        "resident (the row above) plus its heap, which qemu keeps in anonymous memory that cannot "
        "be told apart from its own; the host daemon's VmHWM is the better measure of the "
        "daemon's own memory."))


def port_free(port: int) -> bool:
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


def soak_command(settings: Settings, out: Path) -> list:
    """scripts/soak.py, by default in all three modes with mode changes; the interface
    configuration is left out when something else serves its fixed port."""
    command = [PYTHON, str(SOAK), "--tavid", str(TAVID), "--json", str(out)]
    if settings.soak_minutes is not None:
        command += ["--minutes", f"{settings.soak_minutes:g}"]
    if settings.soak_mode is not None:
        command += ["--mode", settings.soak_mode]
    if not port_free(NETSETTINGS_PORT):
        command.append("--no-netsettings")
    return command


def figure_soak(settings: Settings, report: Report, memory: dict):
    section = "5. Memory and size"
    report.add(Row(section, f"host tavid after the {memory['latency_requests']} requests of the "
                            "latency figure: VmHWM", "kB", [memory["latency_vmhwm_kb"]]))
    if not SOAK.exists():
        report.add(Row(section, "host tavid after the soak: VmHWM", "kB", [],
                       note="not measured: scripts/soak.py is not there"))
        return
    with tempfile.TemporaryDirectory(prefix="tbsoak", dir=BUILD) as workdir:
        out = Path(workdir) / "soak.json"
        command = soak_command(settings, out)
        log("soak: " + " ".join(command[1:]))
        done = subprocess.run(command, cwd=REPO, stdin=subprocess.DEVNULL, capture_output=True, text=True)
        if not out.exists():
            raise BenchError(f"the soak did not run ({done.returncode}): {done.stderr[-2000:]}")
        soak = json.loads(out.read_text())
    report.raw["soak"] = soak
    checks = ("its checks passed" if soak["ok"] else
              f"it reported {len(soak['problems'])} problem(s), listed in the raw JSON in build/bench/")
    report.add(Row(section, "host tavid, peak of every daemon of the soak (scripts/soak.py): VmHWM", "kB",
                   [soak["peak_rss_kib"]],
                   note=f"{soak['duration_s']:g} s, {soak['requests']} requests, "
                        f"{soak['mode_changes']} mode changes; {checks}"))


# ---- 6. persistence ---------------------------------------------------------------------------


def figure_persistence(settings: Settings, report: Report, cg: dict):
    section = "6. Persistence cost"
    for mode in MODES:
        log(f"stores in mode {mode}")
        with Sim(mode) as sim:
            lines = run_bench(sim, ["-n", str(settings.store_repeat), "store", "replace"])
        stores = [line for line in lines if line["label"] == "store"]
        replaces = [line for line in lines if line["label"] == "replace"]
        report.raw.setdefault("persistence", {})[mode] = lines
        report.add(Row(section, f"{mode}: bytes written by one store (the whole file)", "bytes",
                       [line["bytes"] for line in stores]))
        report.add(Row(section, f"{mode}: time of one store", "ms",
                       [line["wall_ns"] / 1e6 for line in stores]))
        report.add(Row(section, f"{mode}: of which putting the file on the disk (written to the temporary "
                                f"file, fsync, rename, fsync of the directory; alone)", "ms",
                       [line["wall_ns"] / 1e6 for line in replaces]))
        report.add(Row(section, f"{mode}: bus transfers of one store (its gets refresh from the modules)",
                       "transfers", [line["bus"]["transfers"] for line in stores]))
        report.add(Row(section, f"{mode}: instructions of one store, bus I/O excluded", "instructions",
                       own_instructions(cg[mode], "store")))
        report.add(Row(section, f"{mode}: Jansson floor (serialising the records)", "instructions",
                       instructions(cg[mode], "store.floor")))
    report.note(section, (
        "Measured in-process (tavid_bench), on the simulator's bus, one store at a time: the "
        "store that follows every accepted set is the same call. It rewrites the whole file, one "
        "record per object, each built by the object's get handler, which reads the values back "
        "from the modules; so a store's time here is mostly the simulated bus. The records go to "
        "a temporary file beside the settings file, which is flushed to the disk (fsync), renamed "
        "over the settings file, and the directory synced, so that a power cut leaves the old "
        "file or the new one whole. Each mode's \"putting the file on the disk\" row times that "
        "part alone: this host's disk here, the flash on the box."))


# ---------------------------------------------------------------------------------------------
# The report


def run_text(command) -> str:
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ""


def first_line(command) -> str:
    return (run_text(command).splitlines() or [f"no {command[0]}"])[0]


def proc_value(path: str, key: str) -> str:
    with open(path, encoding="ascii") as lines:
        return next((line.split(":", 1)[1].strip() for line in lines if line.startswith(key)), "?")


def load_average() -> str:
    with open("/proc/loadavg", encoding="ascii") as loadavg:
        return " ".join(loadavg.read().split()[:3])


def machine() -> list:
    compiler = cache_value(BUILD, "CMAKE_CXX_COMPILER")
    return [
        f"{proc_value('/proc/cpuinfo', 'model name')}, {os.cpu_count()} cores, "
        f"{proc_value('/proc/meminfo', 'MemTotal')}; {platform.system()} {platform.release()}",
        f"load average at the start: {load_average()}",
        f"compiler: {first_line([compiler, '--version'])}; "
        f"Jansson {first_line(['pkg-config', '--modversion', 'jansson'])}; "
        f"{first_line(['valgrind', '--version'])}; {first_line(['qemu-arm', '--version'])}",
    ]


def revision() -> str:
    head = run_text(["git", "-C", str(REPO), "rev-parse", "--short", "HEAD"]) or "?"
    dirty = run_text(["git", "-C", str(REPO), "status", "--porcelain", "--untracked-files=no"])
    return head + (" with uncommitted changes" if dirty else "")


def number(value) -> str:
    if value is None:
        return "-"
    if isinstance(value, float) and not value.is_integer():
        return f"{value:,.3f}" if abs(value) < 10 else f"{value:,.1f}"
    return f"{int(value):,}"


def spread(values) -> str:
    if len(values) < 2:
        return "-"
    return f"{number(min(values))} to {number(max(values))}"


def verdict(row: Row) -> str:
    if row.met is None:
        return ""
    return "met" if row.met else "**missed**"


def table(rows) -> list:
    lines = ["| figure | unit | median | spread (min to max) | runs | target | |",
             "|---|---|---:|---|---:|---|---|"]
    for row in rows:
        name = row.name + (f" ({row.note})" if row.note else "")
        lines.append(f"| {name} | {row.unit} | {number(row.median)} | {spread(row.values)} | "
                     f"{len(row.values)} | {row.target} | {verdict(row)} |")
    return lines


def write_report(report: Report, path: Path, raw_path: Path, quick: bool, began: float, header: list):
    sections = []
    for row in report.rows:
        if row.section not in sections:
            sections.append(row.section)
    lines = ["# tavid benchmark results", "",
             f"{'Quick run (CI: keeps the figures working; not for comparison)' if quick else 'Full run'} "
             f"of `bench/run.sh{' --quick' if quick else ''}`, "
             f"{datetime.datetime.now().strftime('%Y-%m-%d %H:%M')}, revision {revision()}, "
             f"{(time.monotonic() - began) / 60:.1f} minutes.", ""]
    lines += [f"- {line}" for line in header + [f"load average at the end: {load_average()}"]]
    lines += ["- host figures: build/bench (RelWithDebInfo, -O2, no sanitizers), against the box "
              "simulator (sim/tavisim.py) in its own process", "- the representative requests:"]
    lines += [f"  - {request.what}: `{request.text()}`" for request in REQUESTS]
    lines += ["", "Medians of the runs; the spread is the smallest and the largest run. What each "
              "figure means: bench/README.md.", ""]
    targeted = [row for row in report.rows if row.met is not None]
    lines += ["## Targets", ""] + table(targeted)
    lines += ["", "Where a target is missed, the notes of its section say where the cost goes.", ""]
    for section in sections:
        lines += [f"## {section}", ""] + table([row for row in report.rows if row.section == section])
        for paragraph in report.notes.get(section, []):
            lines += ["", paragraph]
        lines.append("")
    path.write_text("\n".join(lines))
    raw_path.write_text(json.dumps(report.raw, indent=1, default=str))
    log(f"wrote {path} and {raw_path}")


# ---------------------------------------------------------------------------------------------


def build():
    subprocess.run([str(REPO / "scripts" / "deps.sh")], check=True)
    subprocess.run(["cmake", "-S", str(REPO), "-B", str(BUILD), "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DTAVID_SANITIZE=OFF", "-DTAVID_BENCH=ON", "-DTAVID_TESTS=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", str(BUILD), "-j2", "--target", "tavid", "tavid_bench", "taviweb"],
                   check=True, stdout=subprocess.DEVNULL)


def parse_args(argv):
    parser = argparse.ArgumentParser(prog="bench/run.sh", description="The tavid benchmark suite.")
    parser.add_argument("--quick", action="store_true", help="few runs, short windows (CI)")
    parser.add_argument("--out", type=Path, help="the report (default: bench/RESULTS.md, or "
                                                 "build/bench/RESULTS-quick.md with --quick)")
    parser.add_argument("--only", default="1,2,3,4,5,6,7", help="the figures to run, e.g. 1,4")
    parser.add_argument("--soak-minutes", type=float,
                        help="length of the soak of figure 5 (default: the soak's own; 0.1 with --quick)")
    return parser.parse_args(argv)


def main(argv=None) -> int:
    args = parse_args(argv)
    settings = QUICK if args.quick else FULL
    if args.soak_minutes is not None:
        settings = dataclasses.replace(settings, soak_minutes=args.soak_minutes)
    out = args.out or (BUILD / "RESULTS-quick.md" if args.quick else REPO / "bench" / "RESULTS.md")
    only = {int(n) for n in args.only.split(",")}
    began = time.monotonic()
    build()
    header = machine()
    report = Report()
    try:
        cg = callgrind_runs(settings, report) if only & {1, 2, 4, 6} else {}
        memory = {}
        if 1 in only:
            figure_idle(settings, report, cg)
        if 2 in only:
            figure_requests(report, cg)
        if 3 in only or 5 in only:
            figure_latency(settings, report, memory)
        if 4 in only:
            request_bus(settings, report)
            figure_bus_inprocess(report, cg)
            figure_startup(settings, report)
        if 5 in only:
            figure_soak(settings, report, memory)
            figure_board_size(report)
            figure_qemu(settings, report)
        if 6 in only:
            figure_persistence(settings, report, cg)
        if 7 in only:
            figure_taviweb(settings, report, Row, TAVID, TAVIWEB, board_build(host_root=False), args.quick)
    except (BenchError, subprocess.CalledProcessError, subprocess.TimeoutExpired, OSError) as error:
        log(f"FAILED: {error}")
        return 1
    raw = BUILD / ("RESULTS-quick.json" if args.quick else "RESULTS.json")
    write_report(report, out, raw, args.quick, began, header)
    return 0


if __name__ == "__main__":
    sys.exit(main())
