"""Harness of the browser tests: the operator's console served by the real taviweb, in front of
the real daemon and the box simulator, driven through headless Chromium (Debian's chromium,
chromium-driver and python3-selenium: scripts/deps.sh browser).

The boxes, daemons and taviweb come from the integration tests' harness (tests/integration/
conftest.py), with its rules: every daemon is ended with SIGTERM and judged at the end of its
test. One browser serves every test of a module; its console log is read after each test,
which fails on any entry of level SEVERE (an error in the page, a failed load).

Environment: TAVID_BIN, TAVIWEB_BIN (the tests are skipped without them), TAVID_LAUNCHER;
CONSOLE_SCREENSHOTS names a folder where the tests that show a box save their screenshots
(console.png at a desktop's width, console-phone.png at a phone's).
"""

import importlib.util
import json
import shutil
import sys
import tempfile
import time
from pathlib import Path

import pytest

HARNESS = Path(__file__).resolve().parents[1] / "integration" / "conftest.py"
_spec = importlib.util.spec_from_file_location("integration_harness", HARNESS)
harness = importlib.util.module_from_spec(_spec)
sys.modules["integration_harness"] = harness
_spec.loader.exec_module(harness)
tavisim = harness.tavisim

# The integration harness's fixtures, used here as they are.
make_box, tavid, taviweb = harness.make_box, harness.tavid, harness.taviweb

CHROMEDRIVER = "/usr/bin/chromedriver"
DESKTOP = (1400, 1000)
PHONE = (390, 844)
# How long the page may take to show what the box answered: tavid serves one request at a time,
# each ends with 50 ms of silence, and a daemon under the sanitizers is slower.
PAGE_WAIT = 60.0


@pytest.fixture(scope="module")
def browser():
    """One headless Chromium for the module, its console and network logs recorded."""
    webdriver = pytest.importorskip("selenium.webdriver")
    from selenium.webdriver.chrome.service import Service
    if not Path(CHROMEDRIVER).exists():
        pytest.skip(f"{CHROMEDRIVER} is missing: scripts/deps.sh browser installs it")
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     f"--window-size={DESKTOP[0]},{DESKTOP[1]}", "--disable-extensions",
                     "--no-first-run", "--disable-background-networking"):
        options.add_argument(argument)
    profile = tempfile.mkdtemp(prefix="console-chromium-")
    options.add_argument(f"--user-data-dir={profile}")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    try:
        yield driver
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)


@pytest.fixture
def page(browser):
    """The module's browser at a desktop's size, for one test; the test fails on any error in
    the browser's console log."""
    browser.set_window_size(*DESKTOP)
    browser.get("about:blank")
    browser.get_log("browser")
    browser.get_log("performance")
    yield browser
    browser.get("about:blank")
    severe = [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"]
    assert severe == []


@pytest.fixture
def netsettings_box():
    """Factory of boxes that also serve the network-settings service (the eth1 settings), one at
    a time since its port is fixed."""
    boxes = []

    def make(mode: str) -> tavisim.Box:
        box = tavisim.Box(tempfile.mkdtemp(prefix="tv", dir="/tmp"), mode, netsettings=True)
        boxes.append(box)
        return box.start()

    yield make
    for box in boxes:
        harness.remove_box(box)


def wait_until(condition, what: str, timeout: float = PAGE_WAIT):
    """The condition's first true value, polled; the test fails with `what` when it does not come."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"{what}: not within {timeout} s"
        time.sleep(0.05)


def transferred_bytes(driver) -> int:
    """The bytes the browser received over the network since its performance log was last read
    (headers and bodies as they came, compressed or not)."""
    total = 0
    for entry in driver.get_log("performance"):
        message = json.loads(entry["message"])["message"]
        if message["method"] == "Network.loadingFinished":
            total += int(message["params"]["encodedDataLength"])
    return total
