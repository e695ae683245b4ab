"""The operator's console in a browser, against the real daemon and the box simulator: what it
shows of a box in RF and IP modes, changes reaching the simulated box, the daemon's refusals shown
in words beside the form that keeps what was typed, the confirmations of a reset and of a change
of output mode (which the console then follows), tavid stopped and started again, a page that
asks for nothing but the status cache once shown, the size of the first load, and (the `page`
fixture) no error in the browser's console.
"""

import json
import os
from pathlib import Path

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

from conftest import DESKTOP, PHONE, harness, transferred_bytes, wait_until

# The page refreshes the status at taviweb's interval: one second keeps the tests short. taviweb
# logs every request it serves.
TAVIWEB_ARGS = ("-i", "1", "-v")
FIRST_LOAD_LIMIT = 150 * 1024
SCREENSHOTS = os.environ.get("CONSOLE_SCREENSHOTS", "")


FIND_FORM = "const form = [...document.forms].find((one) => one.getAttribute('aria-label') === arguments[0]);"


class Console:
    """The page as an operator meets it: sections by their heading, forms by their name, fields
    by their label."""

    def __init__(self, driver, web):
        self.driver, self.web = driver, web

    def open(self):
        self.driver.get(self.web.url + "/")
        self.wait_ready()
        return self

    def wait_ready(self):
        wait_until(lambda: self.driver.execute_script(
            "return document.querySelector('main').getAttribute('aria-busy') === 'false'"
            " && document.querySelector('#banner').hidden"), "the console showed the box")

    def text(self, css: str) -> str:
        return self.driver.find_element(By.CSS_SELECTOR, css).text

    def headings(self) -> list:
        return self.driver.execute_script(
            "return [...document.querySelectorAll('main h2')].map((heading) => heading.textContent);")

    def status(self, heading: str) -> dict:
        """The status list of a section: label -> value."""
        return self.driver.execute_script(
            "const section = [...document.querySelectorAll('main section')]"
            ".find((one) => one.querySelector('h2').textContent === arguments[0]);"
            "const list = section.querySelector('dl.status');"
            "return Object.fromEntries([...list.querySelectorAll('dt')].map((term) =>"
            " [term.textContent, term.nextElementSibling.textContent]));", heading)

    def form(self, name: str):
        return self.driver.find_element(By.CSS_SELECTOR, f"form[aria-label={json.dumps(name, ensure_ascii=False)}]")

    def field(self, form_name: str, label: str):
        """The control of a form (in it, or in a table's row and owned by it) that this label names."""
        control = self.driver.execute_script(
            FIND_FORM + "return [...form.elements].find((one) => one.labels?.[0]?.textContent === arguments[1]);",
            form_name, label)
        assert control is not None, f"no field {label!r} in {form_name!r}"
        return control

    def values(self, form_name: str) -> dict:
        """Every field of a form: label -> value."""
        return self.driver.execute_script(
            FIND_FORM + "return Object.fromEntries([...form.elements].filter((one) => one.labels?.length)"
            ".map((one) => [one.labels[0].textContent, one.value]));", form_name)

    def type(self, form_name: str, label: str, value: str):
        control = self.field(form_name, label)
        control.send_keys(Keys.CONTROL, "a")
        control.send_keys(value)

    def save(self, form_name: str) -> str:
        """Submits the form by keyboard (Enter in its first text field) and returns its message."""
        first = self.driver.execute_script(
            FIND_FORM + "form.querySelector('output').textContent = '';"
            "return [...form.elements].find((one) => one.matches('input:not([readonly])'));", form_name)
        first.send_keys(Keys.ENTER)
        return wait_until(lambda: self.message(form_name), f"a message in {form_name}")

    def message(self, form_name: str) -> str:
        """The form's message once its exchange is over ("" until then)."""
        return self.driver.execute_script(
            FIND_FORM + "const text = form ? form.querySelector('output').textContent : '';"
            "return text === 'Sending…' ? '' : text;", form_name)

    def asked(self, button) -> list:
        """Presses a button that asks first: the confirmation's lines, left open."""
        button.click()
        dialog = self.driver.find_element(By.ID, "confirm")
        wait_until(dialog.is_displayed, "the confirmation")
        return dialog.text.splitlines()

    def answer(self, choice: str):
        """Closes the confirmation with its button of this text."""
        dialog = self.driver.find_element(By.ID, "confirm")
        dialog.find_element(By.XPATH, f".//button[.='{choice}']").click()
        wait_until(lambda: not dialog.is_displayed(), "the confirmation closed")

    def requests_since(self, since: int) -> list:
        """The requests taviweb has served since its log was this long."""
        return self.web.stdout()[since:].decode().splitlines()

    def after_status_round(self):
        """Returns once the page has asked for the status again: whatever it does at once after
        an answer (reading a form again) was done before its timer came round."""
        since = len(self.web.stdout())
        wait_until(lambda: "taviweb: GET /api/status 200" in self.requests_since(since), "a status round")

    def screenshot(self, name: str, size, mobile: bool = False):
        """With CONSOLE_SCREENSHOTS, the top of the page in a viewport of this size, saved there."""
        if not SCREENSHOTS:
            return
        width, height = size
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": mobile})
        try:
            self.driver.execute_script("window.scrollTo(0, 0)")
            Path(SCREENSHOTS).mkdir(parents=True, exist_ok=True)
            assert self.driver.save_screenshot(str(Path(SCREENSHOTS) / name))
        finally:
            self.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})


def daemon_get(daemon, obj: str, **args) -> dict:
    return harness.get(daemon, obj, **args)


def started(box, tavid, taviweb, mode: str):
    daemon = tavid(box, ["-m", mode])
    harness.ready(box, daemon)
    web = taviweb(daemon.port, TAVIWEB_ARGS)
    return daemon, web


@pytest.fixture
def rf(make_box, tavid, taviweb, page):
    """An RF box, its daemon, taviweb and the console open on it: (box, daemon, console)."""
    box = make_box("rf")
    daemon, web = started(box, tavid, taviweb, "rf")
    return box, daemon, Console(page, web).open()


def cancelled_then_confirmed(console: Console, button, question: list, box, daemon):
    """A button that asks first, pressed and cancelled (nothing reaches the box: an answer of
    tavid after it proves no request came before), pressed again and confirmed."""
    assert console.asked(button) == question
    console.answer("Cancel")
    harness.barrier(daemon)
    assert box.calls() == []
    assert console.asked(button) == question
    console.answer(question[-1])


def schema_words(console: Console, obj: str, arg: str) -> list:
    described = harness.fetch(console.web.url + "/api/schema").json()
    (row,) = [row for row in described["objects"] if row["name"] == obj]
    (found,) = [one for one in row["args"] if one["name"] == arg]
    return found["words"]


# ---------------------------------------------------------------------------------------------
# What the console shows


def test_the_first_load_is_small_and_shows_the_rf_box(netsettings_box, tavid, taviweb, page):
    box = netsettings_box("rf")
    daemon, web = started(box, tavid, taviweb, "rf")
    console = Console(page, web).open()
    loaded = transferred_bytes(page)
    assert 0 < loaded < FIRST_LOAD_LIMIT, loaded
    print(f"first load: {loaded} bytes")
    assert console.headings() == ["Box", "Settings and maintenance", "HDMI input 0", "HDMI input 1", "HDMI input 2",
                                  "HDMI input 3", "RF output 0", "RF output 1", "Hardware debug code 0",
                                  "Hardware debug code 1", "Hardware debug code 2", "Hardware debug code 3"]
    assert console.text("#summary").startswith("tavid: answering · status of ")
    assert console.status("Box") == {"Temperature (°C)": "45"}
    assert Select(console.field("Box: Output mode", "Output mode")).first_selected_option.text == "rf"
    assert console.status("HDMI input 0") == {"Locked (1/0)": "1", "Video format": "1080p50"}
    status = harness.fetch(web.url + "/api/status").json()["objects"]["output_rf_status"]["arrayedResult"]
    for output in ("0", "1"):
        (mine,) = [element for element in status if element["output_id"] == output]
        assert console.status(f"RF output {output}") == {
            "Maximum bitrate (kbit/s)": mine["max_bitrate"], "Overflow": mine["overflow"],
            "Bitrate (kbit/s)": mine["bitrate"]}
        modulation = daemon_get(daemon, "output_rf_mod", output_id=output)["result"]
        shown = console.values(f"RF output {output}: Modulation")
        assert shown["Frequency (kHz)"] == modulation["frequency"]
        assert shown["Level (dBm)"] == modulation["level"]
        assert shown["Type"] == modulation["type"]
        assert shown["Constellation"] == modulation["constellation"]
    # Only the words the box accepts are offered, in its order.
    for label, arg in (("Type", "type"), ("Constellation", "constellation"), ("Guard interval", "guardinterval"),
                       ("Code rate", "coderate"), ("FFT mode", "fftmode"), ("Carrier type", "carriertype"),
                       ("Interleave", "interleave"), ("Sync frame", "syncframe")):
        offered = [option.get_attribute("value") for option in
                   Select(console.field("RF output 0: Modulation", label)).options]
        assert offered == schema_words(console, "output_rf_mod", arg), label
    services = daemon_get(daemon, "output_rf_services", output_id="0")["arrayedResult"]
    for service in services:
        shown = console.values(f"RF output 0: Services · Service tag {service['service_tag']}")
        assert (shown["Name"], shown["SID"], shown["LCN"], shown["PMT PID"], shown["On (1/0)"]) == (
            service["service_name"], service["sid"], service["lcn"], service["pmt_pid"], service["enabled"])
    assert console.form("Settings and maintenance: Reset").text.splitlines() == [
        "Reset (level 0)", "Reset (level 1)", "Reset (level 2)", "Reset (level 3)"]
    console.screenshot("console.png", DESKTOP)
    console.screenshot("console-phone.png", PHONE, mobile=True)


def test_the_ip_box_shows_its_destination_bitrate_and_eth1(netsettings_box, tavid, taviweb, page):
    box = netsettings_box("ip_spts")
    daemon, web = started(box, tavid, taviweb, "ip_spts")
    harness.stream(box, daemon, "239.1.2.3", "1234", "0")
    harness.wait_for(lambda: harness.bitrate(daemon) != b'{"result":{"bitrate":"0","output_id":"0"}}',
                     what="the streaming program's statistics")
    console = Console(page, web).open()
    assert console.headings() == ["Box", "Settings and maintenance", "HDMI input", "IP output",
                                  "Hardware debug code"]
    assert console.values("IP output: Destination") == {"Destination address": "239.1.2.3", "Destination port": "1234"}
    assert console.status("IP output") == {"Bitrate (kbit/s)": "12500"}
    assert console.values("Settings and maintenance: Streaming interface (eth1)") == {
        "DHCP (1/0)": "0", "Address": "10.10.10.10", "Netmask": "255.255.255.0", "Gateway": "10.10.10.1",
        "DNS server": "10.10.10.1"}
    assert console.values("IP output: Services · Service tag 0")["On (1/0)"] == "1"


# ---------------------------------------------------------------------------------------------
# Changes


def test_a_frequency_changed_in_the_form_reaches_the_module(rf):
    box, daemon, console = rf
    console.type("RF output 0: Modulation", "Frequency (kHz)", "482000")
    assert console.save("RF output 0: Modulation") == "Saved."
    harness.wait_for(lambda: harness.module_parameters(box, 0x30)["frequency"] == 482000,
                     what="the module took the frequency")
    assert daemon_get(daemon, "output_rf_mod", output_id="0")["result"]["frequency"] == "482000"
    # The form shows what the box now holds.
    assert console.values("RF output 0: Modulation")["Frequency (kHz)"] == "482000"


def test_a_renamed_service_reaches_the_modules_announced_services(rf):
    box, daemon, console = rf
    name = "HDMI input 0: Services · Service tag 3"
    assert console.values(name)["Name"] == "HDMI 1"
    console.type(name, "Name", "Channel One")
    assert console.save(name) == "Saved."
    harness.wait_for(lambda: [service["service_name"] for service in box.module(0x30).psi()["services"]]
                     == ["Channel One"], what="the module announces the new name")
    assert console.values(name)["Name"] == "Channel One"


def test_an_invalid_value_shows_the_daemons_error_and_keeps_the_form(rf):
    box, daemon, console = rf
    before = daemon_get(daemon, "output_rf_mod", output_id="1")["result"]
    console.type("RF output 1: Modulation", "Level (dBm)", "-5")
    console.type("RF output 1: Modulation", "Frequency (kHz)", "48200x")
    expected = "The box refused this (error 5002): JSON command has an invalid argument (frequency)"
    since = len(console.web.stdout())
    assert console.save("RF output 1: Modulation") == expected
    console.after_status_round()
    assert [line for line in console.requests_since(since) if "/api/status" not in line] == [
        "taviweb: POST /api 200"]
    frequency = console.field("RF output 1: Modulation", "Frequency (kHz)")
    assert frequency.get_attribute("aria-invalid") == "true"
    problem = console.driver.find_element(By.ID, frequency.get_attribute("aria-describedby"))
    assert problem.text == expected
    assert console.values("RF output 1: Modulation")["Frequency (kHz)"] == "48200x"
    assert console.values("RF output 1: Modulation")["Level (dBm)"] == "-5"
    assert daemon_get(daemon, "output_rf_mod", output_id="1")["result"] == before


def test_a_reset_asks_first_and_once_confirmed_runs_the_boxs_reset(rf):
    box, daemon, console = rf
    maintenance = "Settings and maintenance"
    console.form(f"{maintenance}: Store the settings").find_element(By.TAG_NAME, "button").click()
    wait_until(lambda: console.message(f"{maintenance}: Store the settings") == "Done.", "the store's answer")
    assert box.stored_settings()["records"][0] == {"action": "set", "object": "device",
                                                   "args": {"output_mode": "rf", "device_id": "0"}}
    button = console.form(f"{maintenance}: Reset").find_element(By.XPATH, ".//button[.='Reset (level 2)']")
    question = ["Reset (level 2)?",
                "Erases the stored settings of the inputs and outputs and the streaming interface's (eth1) settings, "
                "then the box reboots.",
                "Cancel", "Reset (level 2)"]
    cancelled_then_confirmed(console, button, question, box, daemon)
    wait_until(lambda: console.message(f"{maintenance}: Reset") == "Done.", "the reset's answer")
    assert [(name, args) for _, name, args in box.calls()] == [("reboot", [])]
    assert not os.path.exists(box.path("data/settings.conf"))


# ---------------------------------------------------------------------------------------------
# tavid gone and back


def test_tavid_stopped_shows_it_unreachable_and_its_restart_recovers(make_box, tavid, taviweb, page):
    box = make_box("rf")
    daemon, web = started(box, tavid, taviweb, "rf")
    console = Console(page, web).open()
    assert daemon.stop() == 0
    banner = console.driver.find_element(By.ID, "banner")
    wait_until(banner.is_displayed, "the banner")
    status = harness.fetch(web.url + "/api/status").json()
    assert status["up"] is False
    assert banner.text == f"tavid does not answer: {status['error']}. The console tries again by itself."
    assert console.text("#summary") == "tavid: not answering"
    again = tavid(box, ["-m", "rf"], port=daemon.port)
    harness.ready(box, again)
    console.wait_ready()
    assert not banner.is_displayed()
    assert console.text("#summary").startswith("tavid: answering · status of ")
    assert console.values("RF output 0: Modulation")["Frequency (kHz)"] == daemon_get(again, "output_rf_mod", output_id="0")[
        "result"]["frequency"]


def test_once_shown_the_page_only_follows_the_status_cache(rf):
    box, daemon, console = rf
    since = len(console.web.stdout())
    wait_until(lambda: len(console.requests_since(since)) >= 3, "three status rounds", timeout=harness.REPLY_WAIT)
    assert set(console.requests_since(since)) == {"taviweb: GET /api/status 200"}


def test_a_mode_change_asks_first_and_the_console_follows_the_box_into_it(rf):
    box, daemon, console = rf
    name = "Box: Output mode"
    Select(console.field(name, "Output mode")).select_by_value("ip_mpts")
    apply = console.form(name).find_element(By.XPATH, ".//button[.='Apply']")
    question = ["Output mode: ip_mpts?",
                "The box changes its output mode: that mode's factory settings replace the current settings and tavid "
                "restarts.",
                "Cancel", "Output mode: ip_mpts"]
    cancelled_then_confirmed(console, apply, question, box, daemon)
    assert daemon.wait() == 0
    assert [(name, args) for _, name, args in box.calls()] == [("tavid", ["restart"])]
    wait_until(lambda: "IP output" in console.headings(), "the console in the new mode")
    console.wait_ready()
    assert console.headings() == ["Box", "Settings and maintenance", "HDMI input 0", "HDMI input 1", "HDMI input 2",
                                  "HDMI input 3", "IP output", "Hardware debug code 0", "Hardware debug code 1",
                                  "Hardware debug code 2", "Hardware debug code 3"]
    assert Select(console.field(name, "Output mode")).first_selected_option.text == "ip_mpts"
