"""Figure 7 of the benchmark suite: what taviweb costs the box.

Ten clients poll GET /api/status every second and Prometheus scrapes GET /metrics every 5 s, for
a window, against taviweb, the daemon and the simulator in RF mode: the requests that reach the
daemon per second (taviweb's own count of its exchanges), the status rounds and the shortest time
between two of them (from the modules' status reads at the simulator; target: at most one round
per refresh interval), taviweb's CPU share and resident memory. Beside them, the size of the stripped board binary.
"""

import http.client
import subprocess
import threading
import time
from pathlib import Path

from boxrun import BenchError, Daemon, Sim, median

SECTION = "7. taviweb"
CLIENTS = 10
POLL_S = 1.0
SCRAPE_S = 5.0
INTERVAL_S = 5.0  # taviweb's default refresh interval
WINDOW_S = {False: 60.0, True: 10.0}  # full, quick


def fetch(port: int, path: str) -> tuple:
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    try:
        connection.request("GET", path)
        response = connection.getresponse()
        return response.status, response.read()
    finally:
        connection.close()


def tavid_exchanges(port: int) -> int:
    """taviweb's own count of the exchanges with the daemon (answered and not)."""
    _, text = fetch(port, "/metrics")
    count = 0
    for line in text.decode().splitlines():
        if line.startswith(("tavi_web_tavid_request_duration_seconds_count ", "tavi_web_tavid_failures_total ")):
            count += int(float(line.split()[1]))
    return count


def status_read_times(sim: Sim) -> list:
    """When the modules took each status read, in order."""
    return [entry["time"] for entry in sim.control({"cmd": "module_log"})["commands"]
            if entry["command"] == "get_status"]


def cpu_ns(pid: int) -> int:
    """Time on a CPU of every thread of the process, in ns (the scheduler's own account)."""
    total = 0
    for task in Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text().split()[0])
    return total


class Load:
    """The clients: each polls at its own phase of the second; one scraper every 5 s."""

    def __init__(self, port: int, window: float):
        self.port, self.window = port, window
        self.failures, self.requests = [], 0
        self.lock = threading.Lock()

    def _loop(self, path: str, period: float, phase: float, began: float):
        n = 0
        while True:
            due = began + phase + n * period
            if due >= began + self.window:
                return
            time.sleep(max(0.0, due - time.monotonic()))
            status, _ = fetch(self.port, path)
            with self.lock:
                self.requests += 1
                if status != 200:
                    self.failures.append((path, status))
            n += 1

    def run(self):
        began = time.monotonic()
        threads = [threading.Thread(target=self._loop, args=("/api/status", POLL_S, n * POLL_S / CLIENTS, began))
                   for n in range(CLIENTS)]
        threads.append(threading.Thread(target=self._loop, args=("/metrics", SCRAPE_S, 0.05, began)))
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if self.failures:
            raise BenchError(f"taviweb answered {self.failures[:5]}")
        return time.monotonic() - began


def load_run(tavid: Path, taviweb: Path, window: float) -> dict:
    with Sim("rf") as sim, Daemon.tavid(sim, tavid) as daemon:
        daemon.wait_listening()
        sim.wait_bus_quiet(0.3)
        web = Daemon(sim, lambda port: [taviweb, "-l", f"127.0.0.1:{port}", "-p", daemon.port,
                                        "-i", INTERVAL_S])
        with web:
            web.wait_listening()
            sim.control({"cmd": "clear_module_log"})
            if fetch(web.port, "/api/status")[0] != 200:
                raise BenchError("taviweb did not answer the first status request")
            per_round = len(status_read_times(sim))
            exchanges = tavid_exchanges(web.port)
            cpu = cpu_ns(web.process.pid)
            elapsed = Load(web.port, window).run()
            cpu = cpu_ns(web.process.pid) - cpu
            reads = status_read_times(sim)
            if len(reads) % per_round:
                raise BenchError(f"{len(reads)} status reads are no whole number of rounds of {per_round}")
            starts = reads[::per_round]
            return {
                "tavid_requests_per_s": (tavid_exchanges(web.port) - exchanges) / elapsed,
                "rounds": len(starts),
                "shortest_gap_s": min(later - earlier for earlier, later in zip(starts, starts[1:])),
                "cpu_percent": cpu / 1e9 / elapsed * 100,
                "rss_kb": web.status_kb("VmRSS"),
                "hwm_kb": web.status_kb("VmHWM"),
                "window_s": elapsed,
            }


def figure_taviweb(settings, report, row_type, tavid: Path, taviweb: Path, board: tuple, quick: bool):
    """Adds the rows of figure 7; board is (the board build's directory, how it was found)."""
    window = WINDOW_S[quick]
    runs = [load_run(tavid, taviweb, window) for _ in range(settings.runs)]
    load = (f"RF box, {CLIENTS} clients each polling /api/status every {POLL_S:g} s and a scrape of "
            f"/metrics every {SCRAPE_S:g} s for {window:g} s; refresh interval {INTERVAL_S:g} s")
    row = report.add(row_type(SECTION, "requests to the daemon", "per s",
                              [run["tavid_requests_per_s"] for run in runs], "<= 0.8 (one round of 3-4 per 5 s)",
                              note=load))
    row.met = median(row.values) <= 4 / INTERVAL_S
    row = report.add(row_type(SECTION, "shortest time between the starts of two status rounds", "s",
                              [run["shortest_gap_s"] for run in runs], f">= {INTERVAL_S:g} (one round per interval)"))
    # The first read of a round comes after the round's first request, which can take a few ms
    # more or less than the one before.
    row.met = min(row.values) >= INTERVAL_S - 0.05
    most = int(window // INTERVAL_S) + 1
    row = report.add(row_type(SECTION, "status rounds in the window (the first one included)", "rounds",
                              [run["rounds"] for run in runs], f"<= {most} (window / interval, plus the first)"))
    row.met = max(row.values) <= most
    report.add(row_type(SECTION, "taviweb's CPU time", "% of a core", [run["cpu_percent"] for run in runs]))
    report.add(row_type(SECTION, "taviweb's resident memory after the load: VmRSS", "kB",
                        [run["rss_kb"] for run in runs]))
    report.add(row_type(SECTION, "taviweb's resident memory after the load: VmHWM", "kB",
                        [run["hwm_kb"] for run in runs]))
    build, how = board
    stripped = Path(build) / "taviweb.stripped"
    subprocess.run(["arm-linux-gnueabihf-strip", "-o", str(stripped), str(Path(build) / "taviweb" / "taviweb")],
                   check=True)
    report.add(row_type(SECTION, "stripped board binary of taviweb (32-bit ARM, -Os)", "bytes",
                        [stripped.stat().st_size], note=how))
    report.raw["taviweb"] = runs
    report.note(SECTION, (
        "taviweb is measured as the host build of the suite (RelWithDebInfo) serving the load "
        "above. The rounds come from the simulator: a round reads the module of every HDMI input "
        "and RF output once, so the modules' status reads fall into whole rounds, and the first "
        "read of each round says when it started. The requests to the daemon are taviweb's own "
        "count of its exchanges, a round being three requests (four after a change of output "
        "mode); each stops the daemon's hardware loop for at least 50 ms. The board binary links "
        "libstdc++ statically and needs Jansson, libmicrohttpd and libcrypt on the box; Debian's "
        "libmicrohttpd brings GnuTLS with its libraries along."))
