"""A fleet watched by a real Prometheus: three simulated boxes, each with its own tavid and
taviweb, scraped every second. Prometheus's query API reports the temperature of each box and
that all three are up; when one daemon stops, its tavi_up falls to 0 and the alert rules of
monitoring/ see it. The monitoring files themselves pass promtool.

Environment: TAVIWEB_BIN and TAVID_BIN (the tests are skipped without them); /usr/bin/prometheus
and promtool (Debian's prometheus package).
"""

import json
import shutil
import subprocess
from pathlib import Path
from urllib.parse import quote

import pytest

from conftest import START_WAIT, fetch, free_port, ready, tcp_listening, wait_for

MONITORING = Path(__file__).resolve().parents[2] / "monitoring"
PROMETHEUS = "/usr/bin/prometheus"
# Prometheus needs a few scrapes and rule evaluations, each a second apart.
SCRAPE_WAIT = 60.0
TEMPERATURES = (41000, 52000, 63000)  # millidegrees, one per box


def promtool(*args) -> subprocess.CompletedProcess:
    return subprocess.run(["promtool", *args], capture_output=True, timeout=60)


def test_the_alert_rules_and_the_fleet_configuration_pass_promtool():
    rules = promtool("check", "rules", str(MONITORING / "alerts.yml"))
    assert rules.returncode == 0, rules.stdout + rules.stderr
    assert b"SUCCESS: 5 rules found" in rules.stdout
    config = promtool("check", "config", str(MONITORING / "prometheus.yml"))
    assert config.returncode == 0, config.stdout + config.stderr


class Prometheus:
    """/usr/bin/prometheus scraping the targets every second, with the alert rules of
    monitoring/, its data in a directory of its own."""

    def __init__(self, directory: Path, targets: list):
        if not Path(PROMETHEUS).exists():
            pytest.skip(f"{PROMETHEUS} is missing (Debian's prometheus package)")
        self.port = free_port()
        self.url = f"http://127.0.0.1:{self.port}"
        shutil.copy(MONITORING / "alerts.yml", directory / "alerts.yml")
        config = directory / "prometheus.yml"
        config.write_text(json.dumps({
            "global": {"scrape_interval": "1s", "scrape_timeout": "1s", "evaluation_interval": "1s"},
            "rule_files": ["alerts.yml"],
            "scrape_configs": [{"job_name": "tavi", "static_configs": [{"targets": targets}]}],
        }))
        self.log = directory / "prometheus.log"
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(
                [PROMETHEUS, f"--config.file={config}", f"--storage.tsdb.path={directory / 'data'}",
                 f"--web.listen-address=127.0.0.1:{self.port}"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def wait_ready(self):
        wait_for(lambda: self._ready(), timeout=SCRAPE_WAIT, what="Prometheus ready")
        return self

    def _ready(self) -> bool:
        assert self.process.poll() is None, self.log.read_text()
        return tcp_listening(self.port) and fetch(self.url + "/-/ready").status == 200

    def query(self, expression: str) -> dict:
        """The instant vector as {instance: value}."""
        answer = fetch(f"{self.url}/api/v1/query?query={quote(expression)}")
        assert answer.status == 200, answer.body
        result = answer.json()["data"]["result"]
        return {sample["metric"].get("instance"): sample["value"][1] for sample in result}

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(START_WAIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture
def prometheus(tmp_path):
    started = []

    def start(targets: list) -> Prometheus:
        started.append(Prometheus(tmp_path, targets))
        return started[-1].wait_ready()

    yield start
    for each in started:
        each.stop()


def test_prometheus_watches_three_boxes_and_sees_one_daemon_stop(make_box, tavid, taviweb, prometheus):
    boxes, daemons, webs = [], [], []
    for temperature in TEMPERATURES:
        box = make_box("rf")
        box.set_temperature(temperature)
        daemon = tavid(box, ["-m", "rf"])
        boxes.append(box)
        daemons.append(daemon)
    for box, daemon in zip(boxes, daemons):
        ready(box, daemon)
        webs.append(taviweb(daemon.port, ["-i", "1"]))
    instances = [f"127.0.0.1:{web.port}" for web in webs]
    watcher = prometheus(instances)

    all_up = {instance: "1" for instance in instances}
    wait_for(lambda: watcher.query("tavi_up") == all_up, timeout=SCRAPE_WAIT, what="all three boxes up")
    assert watcher.query("tavi_temperature_celsius") == {
        instance: str(temperature // 1000) for instance, temperature in zip(instances, TEMPERATURES)}
    assert watcher.query('up{job="tavi"}') == all_up
    assert watcher.query("count by (instance) (tavi_input_hdmi_locked)") == {
        instance: "4" for instance in instances}

    assert daemons[1].stop() == 0
    down = {**all_up, instances[1]: "0"}
    wait_for(lambda: watcher.query("tavi_up") == down, timeout=SCRAPE_WAIT, what="the stopped daemon's tavi_up at 0")
    wait_for(lambda: watcher.query('ALERTS{alertname="TaviDaemonNotAnswering",alertstate="pending"}')
             == {instances[1]: "1"}, timeout=SCRAPE_WAIT, what="the alert pending for the stopped daemon")
    assert watcher.query('up{job="tavi"}') == all_up
    # Without the daemon the box's own figures of that box go stale; taviweb's own stay.
    wait_for(lambda: set(watcher.query("tavi_temperature_celsius")) == {instances[0], instances[2]},
             timeout=SCRAPE_WAIT, what="the stopped box's temperature gone")
    assert set(watcher.query("tavi_web_tavid_failures_total")) == set(instances)
