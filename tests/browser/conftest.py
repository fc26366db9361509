"""Opens the page of `qrd watch` in a browser, on real devices, and looks at it as a person does.

Nothing here sleeps: a test waits until the page, or the device, is as it expects. A sync is held by a bandwidth at which it would
take minutes. When a test ends, the browser must have had nothing to complain of; what the page showed then is a picture in
build/browser.
"""
import dataclasses
import importlib.util
import json
import os
import pathlib
import re
import signal
import subprocess

import pytest
from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.support.wait import WebDriverWait

ROOT = pathlib.Path(__file__).parents[2]
finding = importlib.util.spec_from_file_location("worlds", ROOT / "tests/poison/conftest.py")
worlds = importlib.util.module_from_spec(finding)
finding.loader.exec_module(worlds)
plain_world = worlds.plain_world

QRD = os.environ["QRD"]
PICTURES = ROOT / "build/browser"
SECONDS = 90  # after which something hangs
HELD = "20kB/s"  # at which a sync of some megabytes takes minutes
AXE = PICTURES / "node_modules/axe-core/axe.min.js"

# What the page shows, in one object; only then, that who asks again and again leaves it the time to change.
LOOK = """
const told = arguments[0];
const look = () => {
const text = (element) => element?.textContent.trim() ?? "";
const lines = (selector) => [...document.querySelectorAll(selector)];
const focused = document.activeElement;
return {
    shown: !document.querySelector("#all").hidden,
    device: text(document.querySelector("#device")),
    tab: document.title,
    apps: Object.fromEntries(lines("[data-app]").map((button) => {
        const icon = button.querySelector(".icon");
        return [button.dataset.app, {
            name: text(button.querySelector(".name")), words: text(button.querySelector(".unseen")).replace(/^, /, ""),
            state: icon.dataset.state, stage: icon.dataset.stage, progress: Number(icon.style.getPropertyValue("--part")),
            picture: !icon.querySelector("img").hidden, letter: text(icon.querySelector(".letter")),
        }];
    })),
    folders: lines("[data-folder]").map((button) => text(button.querySelector(".name")) + text(button.querySelector(".unseen"))),
    pages: lines("#pages > ul").length,
    turn: text(document.querySelector("#dots")),
    syncing: !document.querySelector("#syncing").hidden,
    title: text(document.querySelector("#sync-title")),
    user: text(document.querySelector("#in-use")),
    figures: Object.fromEntries(lines("#figures dd").map((dd) => [dd.className, text(dd)])),
    rows: Object.fromEntries(lines("#rows li").map((row) => [text(row.querySelector(".name")),
        {stage: text(row.querySelector(".stage")), reason: text(row.querySelector(".reason"))}])),
    log: lines("#log li").map((line) => text(line.querySelector(".text"))),
    about: text(document.querySelector("#caption .about")),
    answer: text(document.querySelector("#folder").open ? document.querySelector("#folder-answer") : document.querySelector("#answer")),
    stale: text(document.querySelector("#stale")),
    dialog: lines("dialog[open]").map((dialog) => dialog.id).at(-1) ?? null,
    question: text(document.querySelector("#take-back[open] h2")),
    focus: focused?.dataset.app ?? focused?.dataset.folder ?? focused?.id,
    overhang: document.documentElement.scrollWidth - document.documentElement.clientWidth,
};
};
setTimeout(() => told(look()), 30);
"""


class Watch:
    """`qrd watch` on a device."""

    def __init__(self, device, port=0):
        self.process = subprocess.Popen([QRD, "watch", device, "--port", str(port)], stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()
        assert re.fullmatch(r"http://127\.0\.0\.1:\d+/\?token=[0-9a-f]{32}", self.address), self.address
        self.port = int(self.address.split(":")[2].split("/")[0])

    def end(self):
        self.process.terminate()
        self.process.send_signal(signal.SIGCONT)  # a test may have stopped it
        self.process.wait(SECONDS)


@dataclasses.dataclass
class Page:
    """The page in the browser."""
    browser: webdriver.Chrome
    expects_failures: bool = False  # of requests; the browser itself notes each

    def open(self, address):
        self.browser.get(address)
        return self.until(lambda page: page["shown"])

    def look(self):
        return self.browser.execute_async_script(LOOK)

    def until(self, holds):
        """Waits until that holds of what the page shows, and returns it."""
        return until(self.look, holds)

    def place(self, app):
        return self.browser.find_element("css selector", f'[data-app="{app}"], [data-folder="{app}"]')

    def element(self, selector):
        return self.browser.find_element("css selector", selector)

    def until_drawn(self, part):
        """Waits until this part of an icon has faded in."""
        opacity = f"return getComputedStyle(document.querySelector('.place .{part}')).opacity"
        until(lambda: self.browser.execute_script(opacity), lambda opacity: opacity == "1")

    def tap(self, app):
        self.place(app).click()

    def hold(self, app):
        """A long press, until its dialog is there."""
        ActionChains(self.browser).click_and_hold(self.place(app)).perform()
        self.until(lambda page: page["dialog"] == "take-back")
        ActionChains(self.browser).release().perform()

    def type(self, *keys):
        for key in keys:
            ActionChains(self.browser).send_keys(key).perform()

    def resize(self, width, height=900):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def prefer(self, **features):
        """Sets what the person likes, such as prefers_color_scheme="dark"."""
        named = [{"name": name.replace("_", "-"), "value": value} for name, value in features.items()]
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": named})

    def picture(self, name):
        self.browser.save_screenshot(str(PICTURES / f"{name}.png"))

    def complaints(self):
        """What the browser had to say since the last time. That the icon of a version that has just gone is not there is
        no fault: the next version's address follows."""
        said = [entry for entry in self.browser.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]
        return [entry["message"] for entry in said
                if entry["source"] != "network" or not (self.expects_failures or "/icon?" in entry["message"])]

    def faults(self):
        """What axe-core finds that is serious or critical."""
        self.browser.execute_script(AXE.read_text())
        found = self.browser.execute_async_script("axe.run().then(arguments[0])")
        return [(fault["id"], fault["impact"], [node["html"][:200] for node in fault["nodes"]])
                for fault in found["violations"] if fault["impact"] in ("serious", "critical")]


def until(look, holds):
    """Looks until that holds of what is seen, and returns it."""
    seen = None

    def holds_now(_):
        nonlocal seen
        seen = look()
        return holds(seen)

    try:
        WebDriverWait(None, SECONDS, poll_frequency=0.02).until(holds_now)
    except TimeoutException:
        raise AssertionError("this is how it stayed: " + json.dumps(seen, ensure_ascii=False)[:8000]) from None
    return seen


@pytest.fixture(scope="session")
def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    words = ["--headless=new", "--disable-dev-shm-usage", "--disable-gpu", "--no-first-run", "--disable-component-update",
             "--disable-background-networking", "--hide-scrollbars", "--lang=en"]
    for word in words + (["--no-sandbox"] if os.geteuid() == 0 else []):
        options.add_argument(word)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    made = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    made.set_script_timeout(SECONDS)
    yield made
    made.quit()


@pytest.fixture
def begin():
    """Starts what does not outlive the test."""
    begun = []

    def start(make, *words, **options):
        begun.append(make(*words, **options))
        return begun[-1]

    yield start
    for one in reversed(begun):
        one.end()


@pytest.fixture
def page(browser, begin, request):
    PICTURES.mkdir(parents=True, exist_ok=True)
    made = Page(browser)
    made.resize(1280)
    made.prefer(prefers_color_scheme="light", prefers_reduced_motion="no-preference")
    yield made
    made.picture(request.node.name.replace("[", "-").rstrip("]"))
    complaints = made.complaints()
    for handle in browser.window_handles[1:]:
        browser.switch_to.window(handle)
        browser.close()
    browser.switch_to.window(browser.window_handles[0])
    browser.delete_all_cookies()
    browser.get("about:blank")
    assert not complaints


class Sync:
    """`qrd sync`, which goes on by itself."""

    def __init__(self, world, *options):
        self.process = subprocess.Popen([QRD, "sync", world.device, "--library", world.library, *options],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def end(self):
        self.process.terminate()
        self.process.wait(SECONDS)


@pytest.fixture
def world(tmp_path):
    """A device, and a library of three apps of which each would be held for minutes."""
    made = worlds.World(tmp_path)
    made.create()
    for name in ("Harbor", "Kettle", "Loom"):
        made.add(name, files={"bytes": os.urandom(3_000_000)})
    return made


@pytest.fixture
def held_sync(world, begin, page):
    """A sync of all three that is under way, and the page open beside it."""
    watch = begin(Watch, world.device)
    page.open(watch.address)
    sync = begin(Sync, world, "--bandwidth", HELD)
    page.until(lambda page: len(page["apps"]) == 3 and page["apps"]["org.example.harbor"]["progress"] > 0)
    sync.watch = watch  # which a test may end
    return sync


def sync_status(world):
    """The stages of the running sync, by app, and what each has sent."""
    apps = worlds.run("status", world.device, "--json").report()["apps"]
    return {app["identifier"]: app for app in apps}
