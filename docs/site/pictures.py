"""The pictures of the page of kivctl serve in docs/pictures, whose plots show the last MINUTES.

usage: pictures.py BUILD_DIRECTORY MINUTES
"""
import contextlib
import math
import pathlib
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests/checks"))
from page import HOT, PHONE, POWER, VALUES, By, Page, Simulator, cell, serve

LABELS = ["FPGA FABRIC Digital Temperature #5", "Board Top Near FPGA Temperature", "Board Bottom Near CVL Temperature",
           "Board Rear Side Temperature", "Board Front Side Temperature", "QSFP1 Case Temperature", "QSFP2 Case Temperature"]


def vary(simulator, seconds):
    """Temperatures and loads of card 2 go up and down for so long."""
    end = time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        wave = [math.sin(left / period) for period in (90, 140, 200, 310, 170, 120, 260)]
        sensors = zip(LABELS, (74, 61, 55, 47, 41, 64, 52), (95, 75, 75, 70, 70, 70, 70), wave)
        simulator.change(2, hwmon=[POWER] + [
            {"label": label, "input": round(middle + 3 * up), "max": top, "critical": top + 10}
            for label, middle, top, up in sensors],
            registers={"1": {"0x21460": round(2e7 + 4e6 * wave[0]), "0x214A0": round(6e6 + 2e6 * wave[2]),
                             "0x31860": round(3e7 + 3e6 * wave[3]), "0x318E0": round(1e7 + 3e6 * wave[4])}})
        time.sleep(min(5, left))


def make_pictures(build, folder, stack, seconds):
    cards = [{"id": number} for number in range(1, 9)]
    simulator = Simulator(build, folder, cards, stack)
    page = Page(serve(build, simulator, stack)[1], folder, stack)
    page.until("all cards", lambda: len(page.browser.find_elements(By.CSS_SELECTOR, "#all tbody tr")) == len(cards))
    vary(simulator, seconds)
    simulator.change(3, links=[True, False])
    simulator.change(5, removed=True)
    simulator.change(6, ptp_management={"masterLockingStatus": 1}, firmware={"status": "writing"})
    simulator.change(7, hwmon=[HOT, POWER])
    simulator.ask("POST", "/cards/8/http_faults", {"path": "/", "cut": "before"})
    page.stale(5, *VALUES)
    page.shows(cell(6, "ptp"), "free run")
    page.shows(cell(6, "flash"), "writing")
    for name, fragment, size, scheme in (("page", "", (1280, 370), "light"),
                                         ("page-card", "#card=2", (1280, 960), "light"),
                                         ("page-phone", "", PHONE, "dark")):
        page.size(size)
        page.scheme(scheme)
        page.browser.get("about:blank")
        page.browser.get(page.url + fragment)
        page.shows("main", "Card 2", *(["Lowest"] if fragment else []))
        (ROOT / "docs/pictures").mkdir(exist_ok=True)
        file = ROOT / f"docs/pictures/{name}.png"
        page.browser.save_screenshot(str(file))
        subprocess.run(["optipng", "-quiet", "-strip", "all", file], check=True)


with contextlib.ExitStack() as all_of_it:
    make_pictures(pathlib.Path(sys.argv[1]), pathlib.Path(all_of_it.enter_context(tempfile.TemporaryDirectory())), all_of_it,
                  float(sys.argv[2]) * 60)
