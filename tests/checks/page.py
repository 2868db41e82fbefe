"""The page of kivctl serve, in a real browser: what it shows of cards that misbehave, and that it can be used by keyboard,
on a phone and without the network.

usage: page.py ROOT BUILD_DIRECTORY
"""
import contextlib
import json
import os
import pathlib
import shutil
import sys
import tempfile

import checking

SYSTEM_PYTHON = "/usr/bin/python3"
try:
    from selenium import webdriver
    from selenium.common.exceptions import StaleElementReferenceException
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    # The distribution's module is where the distribution's Python is.
    if os.path.exists(SYSTEM_PYTHON) and not os.path.samefile(sys.executable, SYSTEM_PYTHON):
        os.execv(SYSTEM_PYTHON, [SYSTEM_PYTHON, "-B", *sys.argv])
    checking.skip("the Python module selenium is not installed")

LIMIT = 30
WIDE, PHONE = (1300, 800), (360, 740)
HOSTILE = "<img src=x onerror=\"document.body.id='taken'\">"
POWER = {"label": "Board Power", "input": 63, "max": 75}
HOT = {"label": "QSFP1 Case Temperature", "input": 72, "max": 70, "critical": 75}


class Page:
    def __init__(self, url, folder, stack):
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for word in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage", "no-first-run", "no-proxy-server",
                     "disable-background-networking", "disable-component-update", "disable-sync", "disable-lcd-text",
                     "hide-scrollbars", f"user-data-dir={folder / 'browser'}",
                     "host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"):
            options.add_argument(f"--{word}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        service = webdriver.chrome.service.Service(shutil.which("chromedriver"))
        self.browser = webdriver.Chrome(service=service, options=options)
        stack.callback(self.browser.quit)
        self.url = url
        self.size(WIDE)
        self.browser.get(url)

    def size(self, size):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": size[0], "height": size[1], "deviceScaleFactor": 1, "mobile": False})

    def scheme(self, name):
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": name}]})

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.find(selector).get_attribute("textContent")

    def keys(self, *keys):
        self.browser.switch_to.active_element.send_keys(*keys)

    def focused(self):
        return self.browser.switch_to.active_element.text.strip()

    def until(self, what, condition):
        """Waits until the condition holds; says what was waited for, and what the page showed instead."""
        try:
            WebDriverWait(self.browser, LIMIT, 0.05, [StaleElementReferenceException]).until(lambda _: condition())
        except Exception as error:
            raise SystemExit(f"waited in vain for: {what} ({type(error).__name__})\n{self.find('body').text}")

    def shows(self, selector, *words):
        self.until(f"{words} in {selector}", lambda: all(word in self.text(selector) for word in words))

    def stale(self, card, *cells):
        """Waits until these of a card's cells are greyed and tell since when, and the others not."""
        script = """return [...document.querySelectorAll(arguments[0])].filter((cell) => cell.textContent.includes(
            "stale since") && getComputedStyle(cell).fontStyle === "italic").map((cell) => cell.dataset.cell)"""
        self.until(f"stale cells {cells} of card {card}", lambda: set(
            self.browser.execute_script(script, f"#all tr[data-card='{card}'] td")) == set(cells))


def cell(card, name):
    return f"#all tr[data-card='{card}'] td[data-cell='{name}']"


VALUES = {"port-0", "port-1", "ptp", "hottest", "power", "flash"}


def check_healthy(page):
    for name, words in (("state", ["ok"]), ("port-0", ["up", "43 · 10 %"]), ("ptp", ["locked"]), ("power", ["63"]),
                        ("hottest", ["47 / 75 °C"]), ("age", ["s"])):
        page.shows(cell(1, name), *words)
    page.stale(1)
    page.shows("#all .attention", "No card needs attention")


def check_keyboard(page):
    """A card is opened and left without a pointer, and the focus is where a person expects it."""
    page.keys(Keys.TAB)
    page.until("the first card has the focus", lambda: page.focused() == "Card 1")
    page.browser.execute_async_script(  # Numbers come in between.
        "const done = arguments[0]; new MutationObserver(() => done()).observe(document.getElementById('summary'),"
        "{subtree: true, characterData: true})")
    page.keys(Keys.TAB)
    page.until("the second card has the focus", lambda: page.focused() == "Card 2")
    page.keys(Keys.ENTER)
    page.until("card 2 is shown, and its heading has the focus", lambda: page.focused().startswith("Card 2"))
    page.keys(Keys.ESCAPE)
    page.until("all cards are shown, and card 2 has the focus", lambda: page.focused() == "Card 2"
               and not page.find("#one").is_displayed())


def check_detail(page):
    page.browser.execute_script("location.hash = '#card=1'")
    for part, words in (("ports", ["42.5 %", "10.0 %"]), ("sensors", ["FPGA fabric", "58", "95", "100"]),
                        ("ptp", ["locked", "0x001DC1FFFE123456", "37 s"]), ("pci_link", ["x16 gen 4"]),
                        ("flash", ["idle", "boots next"]), ("streams", ["4 8 16"]), ("sources", ["answers"])):
        page.shows(f"#one [data-part='{part}']", *words)
    for kind, words in (("temperature", ["QSFP2 case", "42 °C"]), ("load", ["42.5 %"]), ("ptp_offset", ["Lowest"])):
        page.shows(f"#one [data-plot='{kind}']", *words)
        page.until(f"a line in the plot of {kind}", lambda: page.find(
            f"[data-plot='{kind}'] svg .series").get_attribute("d").startswith("M"))
    page.keys(Keys.ESCAPE)


def check_hostile_text(page):
    """Card 2 calls the state of its flash what a browser would take for an element."""
    page.shows(cell(2, "flash"), HOSTILE)
    page.browser.execute_script("location.hash = '#card=2'")
    page.shows("#one [data-part='flash']", HOSTILE)
    assert not page.browser.find_elements(By.CSS_SELECTOR, "main img, #taken"), "a text of a card became an element"
    page.keys(Keys.ESCAPE)


def check_phone(page):
    """Also with the long reason of a server that fails."""
    page.size(PHONE)
    for fragment in ("#card=1", "#"):
        page.browser.execute_script(f"location.hash = '{fragment}'")
        page.until(f"all of {fragment} is as wide as a phone", lambda: page.browser.execute_script(
            "return innerWidth === 360 && document.documentElement.scrollWidth <= innerWidth"))
    page.until("all cells of a card are seen", lambda: all(
        page.find(cell(1, name)).is_displayed() for name in VALUES | {"state", "age"}))
    page.size(WIDE)


def check_changes(page, simulator):
    """What goes wrong is marked where it is, listed on top and said to screen readers; and it goes again."""
    simulator.change(1, hwmon=[HOT])
    page.shows(cell(1, "hottest"), "72 / 70 °C", "QSFP1 case")
    page.shows("#all .attention", "Card 1: QSFP1 case above max: 72 °C")
    page.shows("#changes", "Card 1: QSFP1 case above max")
    assert "warn" in page.find(cell(1, "hottest") + " b").get_attribute("class")
    simulator.change(2, hwmon=[HOT])
    page.shows("#all .attention li:nth-child(2)", "Card 2")
    page.browser.execute_script("document.querySelector('#all .attention li:nth-child(2) a').focus()")
    simulator.change(2, hwmon=[{**HOT, "input": 75}])
    page.shows("#all .attention li:nth-child(1)", "Card 2: QSFP1 case critical")
    assert page.focused().startswith("✖ Card 2"), "what moves keeps the focus"
    simulator.change(2, hwmon=[{**HOT, "input": 40}])
    simulator.change(1, hwmon=[{**HOT, "input": 75}], links=[True, False])
    page.shows(cell(1, "state"), "critical")
    page.shows(cell(1, "port-1"), "down")
    page.shows("#all .attention", "Card 1: QSFP1 case critical")
    simulator.change(1, hwmon=[{**HOT, "input": 40}], links=[True, True])
    page.shows(cell(1, "state"), "ok")
    page.shows("#changes", "Card 1: ok")


def check_lost_server(page, simulator):
    """Its values grow stale; what the driver tells stays, and what it still tells itself."""
    simulator.ask("POST", "/cards/1/http_faults", {"path": "/hps/firmware/status", "status": 503})
    page.shows("#all .attention", "Card 1: management server answers in part only")
    page.stale(1, "flash")
    simulator.ask("POST", "/cards/1/http_faults", {"path": "/", "cut": "before"})
    page.stale(1, "hottest", "power", "flash", "ptp")
    page.shows(cell(1, "port-0"), "up")
    page.shows("#all .attention", "Card 1: management server does not answer since")
    page.stale(2)
    check_phone(page)
    simulator.ask("DELETE", "/cards/1/http_faults")
    page.stale(1)


def check_lost_card(page, simulator):
    simulator.change(1, removed=True)
    page.shows(cell(1, "state"), "lost")
    page.stale(1, *VALUES)
    page.shows(cell(1, "age"), "since")
    page.shows("#changes", "Card 1: lost since")
    page.browser.execute_script("location.hash = '#card=1'")
    page.shows("#one", "lost since", "stale since")
    simulator.change(1, removed=False)
    page.shows("#one h2", "ok")
    page.keys(Keys.ESCAPE)
    page.stale(1)


def check_lost_programs(page, simulator, server, restart):
    server.terminate()
    server.wait(LIMIT)
    page.shows("#trouble", "No answer from kivctl serve since")
    page.shows(cell(1, "age"), "since")
    restart()
    page.shows("#changes", "kivctl serve answers again")
    page.stale(1)
    simulator.process.terminate()
    page.shows("#trouble", "The driver does not answer since")
    page.shows(cell(1, "state"), "lost")


def check_log(page):
    """Nothing was complained of, and nobody else was asked."""
    complaints = [entry["message"] for entry in page.browser.get_log("browser")]
    events = [json.loads(entry["message"])["message"] for entry in page.browser.get_log("performance")]
    asked = {event["params"]["request"]["url"] for event in events if event["method"] == "Network.requestWillBeSent"
             and event["params"]["documentURL"].startswith(page.url)}
    complaints += [f"asked for {url}" for url in asked if not url.startswith((page.url, "data:"))]
    assert not complaints and any(url.endswith("cards.json") for url in asked), complaints


checking.need("chromium", "chromedriver")
build = pathlib.Path(sys.argv[2])
with contextlib.ExitStack() as stack:
    folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
    simulator = checking.Simulator(build, folder, [{"id": 1}, {"id": 2, "firmware": {"status": HOSTILE}}], stack)
    server, line = checking.serve(build, simulator.environment, stack)
    page = Page(url := json.loads(line)["url"], folder, stack)
    check_healthy(page)
    check_keyboard(page)
    check_hostile_text(page)
    check_detail(page)
    check_changes(page, simulator)
    check_lost_server(page, simulator)
    check_lost_card(page, simulator)
    check_log(page)
    check_lost_programs(page, simulator, server, lambda: checking.serve(build, simulator.environment, stack, url.split("/")[2]))
print("the page shows what the cards do")
