"""The page follows a sync, and what a person does on it takes effect on the device."""
import fcntl
import http.client
import os
import re
import signal
import urllib.parse

import pytest
from conftest import SECONDS, ActionChains, Sync, Watch, sync_status, until, worlds
from selenium.webdriver.common.keys import Keys

HARBOR, KETTLE, LOOM = "org.example.harbor", "org.example.kettle", "org.example.loom"

# Notes each state that an icon goes through, and how far its ring was then.
RECORD = """
window.recorded = [];
new MutationObserver((changes) => changes.forEach(({target}) => {
    if (!target.matches(".place > .icon")) return;
    recorded.push([target.dataset.state, Number(target.style.getPropertyValue("--part")), target.classList.contains("arrived"),
                   getComputedStyle(target).animationName]);
})).observe(document.querySelector("#pages"), {subtree: true, attributes: true});
"""


@pytest.mark.parametrize("motion, animation", [("no-preference", "arrive"), ("reduce", "none")])
def test_an_app_comes_in_with_a_ring_that_fills_and_springs_to_colour(world, page, begin, motion, animation):
    for archive in world.library.iterdir():
        archive.unlink()
    world.add("Harbor", files={"bytes": os.urandom(300_000)})
    page.prefer(prefers_color_scheme="light", prefers_reduced_motion=motion)
    seen = page.open(begin(Watch, world.device).address)
    assert (seen["device"], seen["apps"], seen["title"]) == ("device", {}, "No sync is running")
    page.browser.execute_script(RECORD)
    begin(Sync, world, "--bandwidth", "50kB/s")
    seen = page.until(lambda page: page["title"] == "The sync has ended" and not page["syncing"] and page["log"] and
                      page["apps"][HARBOR]["state"] == "installed" and page["apps"][HARBOR]["picture"])
    assert seen["apps"][HARBOR]["words"] == "version 1.0"
    assert seen["rows"] == {"Harbor": {"stage": "installed", "reason": ""}}
    assert seen["figures"]["finished"] == "1 of 1" and seen["figures"]["sent"].endswith(" kB") and not seen["figures"]["left"]
    assert seen["tab"] == "device"
    recorded = page.browser.execute_script("return recorded")
    rings = [ring for state, ring, _, _ in recorded if state == "waiting"]
    assert rings == sorted(rings) and len({ring for ring in rings if 0 < ring < 1}) >= 2, recorded
    arrivals = [(state, name) for state, _, arrived, name in recorded if arrived]
    assert arrivals and set(arrivals) == {("installed", animation)}, recorded


def test_a_sync_under_way_has_its_figures_and_its_rows(held_sync, page):
    seen = page.until(lambda page: page["figures"]["rate"] and page["figures"]["left"])
    assert seen["syncing"] and seen["title"] == "Syncing"
    assert seen["tab"].endswith(" % – device")
    assert seen["figures"]["finished"] == "0 of 3" and seen["figures"]["sent"].endswith(" of 9.0 MB")
    assert seen["figures"]["rate"].endswith("/s") and seen["figures"]["left"].endswith(" min")
    assert seen["rows"]["Harbor"]["stage"].endswith(" %") and seen["rows"]["Kettle"]["stage"] == "queued"
    held_sync.process.terminate()
    seen = page.until(lambda page: page["title"].startswith("The sync has ended") and not page["syncing"])
    assert "sync" in seen["rows"]["Kettle"]["stage"] + seen["rows"]["Kettle"]["reason"]


def test_a_page_that_is_opened_later_shows_the_same(held_sync, page):
    page.until(lambda page: page["log"])
    page.browser.refresh()
    seen = page.until(lambda page: page["apps"].get(HARBOR, {}).get("progress", 0) > 0 and page["log"])
    assert seen["syncing"] and list(seen["rows"]) == ["Harbor", "Kettle", "Loom"]


def test_a_tap_has_an_app_come_first(held_sync, page, world):
    page.tap(LOOM)
    assert page.until(lambda page: page["answer"])["answer"] == "Loom comes first."
    assert worlds.run("cancel", world.device, HARBOR).code == 0  # what is under way makes room
    until(lambda: sync_status(world), lambda apps: apps[LOOM]["stage"] == "transferring" and apps[KETTLE]["stage"] == "queued")
    page.until(lambda page: page["apps"][LOOM]["progress"] > 0 and page["apps"][KETTLE]["progress"] == 0)


def take_back_after(page, ask):
    """Asks in some way to take Kettle back, and says first no, then yes."""
    ask()
    seen = page.until(lambda page: page["dialog"] == "take-back")
    assert (seen["focus"], seen["question"]) == ("keep", "Take Kettle back?")
    page.element("#keep").click()
    seen = page.until(lambda page: page["dialog"] is None)
    assert KETTLE in seen["apps"] and not seen["answer"] and seen["focus"] == KETTLE
    ask()
    page.until(lambda page: page["dialog"] == "take-back")
    page.element("#take").click()
    seen = page.until(lambda page: KETTLE not in page["apps"] and page["answer"])
    assert seen["answer"] == "Kettle is taken back."
    assert seen["focus"] == LOOM  # what stands in its place has the focus


@pytest.mark.parametrize("way", ["long press", "right click", "menu key", "Delete"])
def test_an_app_can_be_taken_back(held_sync, page, world, way):
    def ask():
        if way == "long press":
            page.hold(KETTLE)
        elif way == "right click":
            ActionChains(page.browser).context_click(page.place(KETTLE)).perform()
        else:
            page.browser.execute_script("arguments[0].focus()", page.place(KETTLE))
            # Chromium makes this event of the menu key, which the driver cannot press.
            page.browser.execute_script("document.activeElement.dispatchEvent(new Event('contextmenu', "
                                        "{bubbles: true, cancelable: true}))") if way == "menu key" else page.type(Keys.DELETE)

    take_back_after(page, ask)
    until(lambda: sync_status(world), lambda apps: apps[KETTLE]["stage"] == "failed")
    until(world.listed, lambda apps: KETTLE not in apps)
    page.until(lambda page: page["rows"]["Kettle"]["stage"] == "failed" and page["rows"]["Kettle"]["reason"])


def test_all_of_it_goes_with_keys_alone(held_sync, page, world):
    for _ in range(20):
        page.type(Keys.TAB)
        if page.look()["focus"] == HARBOR:
            break
    page.type(Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
    assert page.look()["focus"] == LOOM
    page.type(Keys.ARROW_RIGHT)
    assert page.look()["focus"] == LOOM
    page.type(Keys.HOME, Keys.END, Keys.ARROW_LEFT)
    seen = page.look()
    assert seen["focus"] == KETTLE and seen["about"].startswith("Kettle: on its way")
    page.type(Keys.ENTER)
    page.until(lambda page: page["answer"] == "Kettle comes first.")
    page.type(Keys.DELETE)
    page.until(lambda page: page["focus"] == "keep")
    page.type(Keys.ESCAPE)
    assert page.until(lambda page: page["dialog"] is None)["focus"] == KETTLE
    page.type(Keys.DELETE, Keys.TAB)
    assert page.look()["focus"] == "take"
    page.type(Keys.ENTER)
    page.until(lambda page: KETTLE not in page["apps"] and page["focus"] == LOOM)
    until(world.listed, lambda apps: KETTLE not in apps)
    # From the screen Tab leads on, not through each app, and back to the app that had the focus.
    page.type(Keys.TAB)
    assert page.look()["focus"] == "rows"
    ActionChains(page.browser).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
    assert page.look()["focus"] == LOOM


def test_a_key_after_a_long_press_is_heard(held_sync, page):
    page.hold(KETTLE)  # its click ends on the dialog, not on the app
    page.type(Keys.ESCAPE)
    page.until(lambda page: page["dialog"] is None and page["focus"] == KETTLE)
    page.type(Keys.ENTER)
    page.until(lambda page: page["answer"] == "Kettle comes first.")


def test_what_cannot_be_done_is_said(held_sync, page):
    page.expects_failures = True
    held_sync.end()
    page.until(lambda page: not page["syncing"])
    page.tap(HARBOR)
    assert "No sync is running" in page.until(lambda page: page["answer"])["answer"]
    page.hold(HARBOR)
    page.element("#take").click()
    page.until(lambda page: page["dialog"] is None and "No sync is running" in page["answer"])


def test_an_installed_app_has_nothing_to_come_or_to_be_taken_back(plain_world, page, begin):
    plain_world.add("Kettle")
    assert plain_world.sync().code == 0
    page.open(begin(Watch, plain_world.device).address)
    page.until(lambda page: page["apps"])
    page.tap(KETTLE)
    page.until(lambda page: page["answer"] == "Kettle: version 1.0")
    page.type(Keys.DELETE)
    page.until(lambda page: page["answer"].startswith("Kettle is not on its way"))
    page.tap(KETTLE)
    page.until(lambda page: page["answer"] == "Kettle: version 1.0")
    ActionChains(page.browser).click_and_hold(page.place(KETTLE)).perform()
    page.until(lambda page: page["answer"].startswith("Kettle is not on its way"))
    ActionChains(page.browser).release().perform()  # the end of a long press is no tap
    seen = page.look()
    assert seen["answer"].startswith("Kettle is not on its way") and seen["dialog"] is None


def test_a_server_that_ends_is_told_of_and_one_that_comes_back_is_found(held_sync, page, world, begin):
    page.expects_failures = True
    watch = held_sync.watch
    watch.end()
    seen = page.until(lambda page: page["stale"])
    assert seen["stale"].startswith("Not live since ") and "does not answer" in seen["stale"]
    page.tap(HARBOR)
    page.until(lambda page: page["answer"].startswith("qrd watch does not answer"))

    # It has another token now, so this page cannot know it.
    again = begin(Watch, world.device, port=watch.port)
    page.until(lambda page: "started anew, with another address" in page["stale"])
    page.tap(HARBOR)
    page.until(lambda page: page["answer"].startswith("It was refused"))
    first = page.browser.current_window_handle
    page.browser.switch_to.new_window("tab")
    page.open(again.address)
    page.browser.switch_to.window(first)
    seen = page.until(lambda page: not page["stale"])
    page.until(lambda page: page["apps"][HARBOR]["progress"] > seen["apps"][HARBOR]["progress"])


def test_a_server_that_falls_silent_is_told_of(held_sync, page):
    page.expects_failures = True
    os.kill(held_sync.watch.process.pid, signal.SIGSTOP)
    page.until(lambda page: page["stale"].startswith("Not live since "))
    os.kill(held_sync.watch.process.pid, signal.SIGCONT)
    page.until(lambda page: not page["stale"])


def test_more_pages_than_may_watch_are_told_so(held_sync, page, begin):
    page.expects_failures = True
    address = urllib.parse.urlsplit(held_sync.watch.address)
    cookie = f"qrd-{address.port}={address.query.removeprefix('token=')}"

    class Watcher(http.client.HTTPConnection):
        """One that watches beside the page."""

        def __init__(self):
            super().__init__(address.hostname, address.port, timeout=SECONDS)
            self.request("GET", "/events", headers={"Cookie": cookie})
            self.answer = self.getresponse()

        def end(self):
            self.answer.close()
            self.close()

    page.browser.get("about:blank")
    watchers = []
    while len(watchers) < 8:  # until the page's own place is free
        watcher = begin(Watcher)
        watchers += [watcher] if watcher.answer.status == 200 else []
    page.browser.get(f"http://{address.netloc}/")
    page.until(lambda page: "too many pages watch this device" in page["stale"])
    for watcher in watchers:
        watcher.end()
    page.until(lambda page: page["shown"] and not page["stale"])


@pytest.mark.parametrize("text, said", [
    ("process 1234 since 1795347727: a backup\n", r"The device is in use by a backup since \d\d:\d\d:07 \(process 1234\)\."),
    ("nonsense", r"The device is in use by another command\."),
])
def test_a_device_that_another_command_has_says_which(plain_world, page, begin, text, said):
    page.open(begin(Watch, plain_world.device).address)
    with open(plain_world.device / "device-lock", "r+", encoding="ascii") as lock:
        fcntl.lockf(lock, fcntl.LOCK_EX)
        lock.truncate()
        lock.write(text)
        lock.flush()
        page.until(lambda page: re.fullmatch(said, page["user"]) and page["title"] == "In use")
    page.until(lambda page: not page["user"] and page["title"] == "No sync is running")


def test_an_app_that_waits_says_why_and_until_when(tmp_path, page, begin):
    world = worlds.World(tmp_path)
    world.create("--no-coordination")
    app = tmp_path / "Kettle.app"
    assert worlds.run("pack", "--init", "Kettle", "-o", tmp_path).code == 0
    assert worlds.run("pack", app, "-o", world.library / "Kettle.archive").code == 0
    assert world.sync().code == 0
    assert worlds.run("launch", world.device, KETTLE, "--busy").code == 0
    (app / "Info.plist").write_text((app / "Info.plist").read_text().replace(">1.0<", ">2.0<"))
    assert worlds.run("pack", app, "-o", world.library / "Kettle.archive").code == 0
    page.open(begin(Watch, world.device).address)
    begin(Sync, world)
    seen = page.until(lambda page: page["apps"][KETTLE]["stage"] == "waiting" and
                      page["apps"][KETTLE]["state"] != "running")
    assert "busy" in seen["rows"]["Kettle"]["reason"] and "; next try at " in seen["rows"]["Kettle"]["reason"]
    assert seen["rows"]["Kettle"]["stage"] == "waiting"
    assert seen["apps"][KETTLE]["state"] == "updating"
    assert seen["apps"][KETTLE]["words"] == "waiting: " + seen["rows"]["Kettle"]["reason"]
    page.until_drawn("pause")


def test_an_update_that_fails_has_a_badge_and_its_reason(plain_world, page, begin):
    plain_world.add("Kettle")
    assert plain_world.sync().code == 0
    archive = plain_world.add("Kettle", version="2.0", files={"bytes": os.urandom(400_000)})
    content = bytearray(archive.read_bytes())
    content[len(content) // 2] ^= 255
    archive.write_bytes(content)
    page.open(begin(Watch, plain_world.device).address)
    begin(Sync, plain_world, "--bandwidth", "200kB/s")
    seen = page.until(lambda page: page["title"] == "The sync has ended; 1 app failed")
    assert seen["rows"]["Kettle"]["stage"] == "failed" and "damaged" in seen["rows"]["Kettle"]["reason"]
    seen = page.until(lambda page: page["apps"][KETTLE]["stage"] == "failed")
    assert seen["apps"][KETTLE]["state"] == "installed" and seen["apps"][KETTLE]["words"].startswith("failed: ")
    page.until_drawn("badge")


def test_a_demoted_app_is_pale_with_an_arrow(plain_world, page, begin):
    plain_world.add("Kettle")
    assert plain_world.sync().code == 0
    page.open(begin(Watch, plain_world.device).address)
    assert worlds.run("demote", plain_world.device, KETTLE).code == 0
    seen = page.until(lambda page: page["apps"][KETTLE]["state"] == "demoted")
    assert "its data" in seen["apps"][KETTLE]["words"]
    page.until_drawn("arrow")
