"""What the page makes of any names, any number of apps, any width, and for everybody."""
import os
import plistlib
import shutil
import sqlite3

import pytest
from conftest import HELD, ROOT, Sync, Watch, worlds
from selenium.webdriver.common.keys import Keys

KETTLE = "org.example.kettle"
NAMES = {
    "markup": "<img src=x onerror=\"document.title='broken into'\"><b>Bold</b>&amp;</span><script>1</script>",
    "right to left": "مرحبا بالعالم",
    "an override of direction": "abc \u202egnp.exe\u2067",
    "accents without end": "e" + "\u0301" * 200,
    "long": "Wandering" * 40,
    "lines": "one\u2028two\u2029three",
}


def named(world, number, name):
    """Adds an app that a person sees under this name."""
    world.add(f"App{number}", info={"BXBundleDisplayName": name}, files={"bytes": os.urandom(1_000_000)})
    return f"org.example.app{number}"


@pytest.mark.parametrize("width", [1280, 320])
def test_a_name_is_text_whatever_it_holds(plain_world, page, begin, width):
    apps = {named(plain_world, number, name): name.replace("\u202e", "").replace("\u2067", "")
            for number, name in enumerate(NAMES.values())}
    page.resize(width)
    page.open(begin(Watch, plain_world.device).address)
    begin(Sync, plain_world, "--bandwidth", HELD)
    seen = page.until(lambda page: len(page["apps"]) == len(page["rows"]) == len(apps))
    assert {app: seen["apps"][app]["name"] for app in apps} == apps
    assert set(seen["rows"]) == set(apps.values())
    assert seen["tab"].endswith("% – device") and seen["overhang"] == 0
    made = page.browser.execute_script("return document.querySelectorAll('#all b, #all script, [onerror], img[src=x]').length")
    assert made == 0
    for app, name in apps.items():
        page.tap(app)
        page.until(lambda page, name=name: page["answer"] == f"{name} comes first.")
        assert page.browser.execute_script("return document.querySelector('#answer bdi').textContent") == name
        style = page.browser.execute_script("const {unicodeBidi, direction} = getComputedStyle(arguments[0]);"
                                            "return [unicodeBidi, direction]",
                                            page.place(app).find_element("css selector", ".name"))
        assert style == ["isolate", "rtl" if name == NAMES["right to left"] else "ltr"]
        box = page.place(app).find_element("css selector", ".name").rect
        assert box["width"] <= width / 4 and box["height"] < 30


def test_a_device_without_apps_says_so(plain_world, page, begin):
    page.open(begin(Watch, plain_world.device).address)
    assert page.element("#empty").is_displayed() and page.element("#sync .nothing").is_displayed()
    assert not page.element("#bar").is_displayed() and not page.element("#turn").is_displayed()
    assert page.look()["title"] == "No sync is running"
    assert page.faults() == []


def test_three_hundred_apps_have_pages(plain_world, page, begin):
    for number in range(300):
        plain_world.add(f"App{number:03}")
    assert plain_world.sync(megabytes=400).code == 0
    page.resize(320)
    seen = page.open(begin(Watch, plain_world.device).address)
    assert (len(seen["apps"]), seen["pages"], seen["turn"], seen["overhang"]) == (300, 13, "1 of 13", 0)
    page.element("#on").click()
    page.until(lambda page: page["turn"] == "2 of 13")
    page.browser.execute_script("arguments[0].focus()", page.place("org.example.app000"))
    page.type(Keys.ARROW_DOWN, Keys.ARROW_RIGHT)
    page.until(lambda page: page["focus"] == "org.example.app005" and page["turn"] == "1 of 13")
    page.type(Keys.END)
    page.until(lambda page: page["focus"] == "org.example.app299" and page["turn"] == "13 of 13")
    assert not page.element("#on").is_enabled()
    page.type(Keys.HOME)
    page.until(lambda page: page["turn"] == "1 of 13")
    for archive in list(plain_world.library.iterdir())[:150]:
        plain_world.add(archive.stem, version="2.0")
    begin(Sync, plain_world)
    seen = page.until(lambda page: page["title"] == "The sync has ended" and len(page["rows"]) == 150)
    page.until(lambda page: {app["state"] for app in page["apps"].values()} == {"installed"})
    assert page.browser.execute_script("return document.querySelectorAll('#log li').length") <= 200


def arrange(device, pages):
    """Lays out the home screen of a device that nobody has."""
    with sqlite3.connect(device / "var/db/device.sqlite") as database:
        database.execute("INSERT OR REPLACE INTO homeScreen VALUES ('layout', ?)", [plistlib.dumps(pages, fmt=plistlib.FMT_BINARY)])
    database.close()


@pytest.fixture
def folder(plain_world, page, begin):
    """A device with a folder of two apps, one of them demoted, beside a third app."""
    for name in ("Kettle", "Loom", "Quill"):
        plain_world.add(name)
    assert plain_world.sync().code == 0
    assert worlds.run("demote", plain_world.device, KETTLE).code == 0
    arrange(plain_world.device, [["org.example.quill", {"displayName": "<b>Tools", "iconLists": [[KETTLE, "org.example.loom"]]}]])
    page.open(begin(Watch, plain_world.device).address)
    return plain_world


def test_a_folder_opens_and_its_apps_are_as_others(folder, page):
    seen = page.look()
    assert seen["folders"] == ["<b>Tools, folder of 2 apps"] and list(seen["apps"]) == ["org.example.quill"]
    assert len(page.browser.find_elements("css selector", ".tile .icon")) == 2
    page.browser.execute_script("arguments[0].focus()", page.place("org.example.quill"))
    page.type(Keys.ARROW_RIGHT, Keys.ENTER)
    seen = page.until(lambda page: page["dialog"] == "folder")
    assert seen["focus"] == KETTLE and seen["apps"][KETTLE]["state"] == "demoted"
    page.type(Keys.ENTER)
    page.until(lambda page: page["answer"].startswith("Kettle: not here"))
    assert page.faults() == []
    page.type(Keys.ARROW_RIGHT)
    assert page.look()["focus"] == "org.example.loom"
    assert worlds.run("uninstall", folder.device, "org.example.loom").code == 0
    page.until(lambda page: "org.example.loom" not in page["apps"])
    page.type(Keys.ESCAPE)
    assert page.until(lambda page: page["dialog"] is None)["focus"] == "<b>Tools"
    assert worlds.run("uninstall", folder.device, KETTLE).code == 0
    page.until(lambda page: page["folders"] == [] and page["focus"] == "org.example.quill")


@pytest.mark.parametrize("width", [320, 480, 800, 1024, 1280, 2560])
def test_nothing_is_wider_than_the_window(held_sync, page, width):
    page.resize(width)
    assert page.look()["overhang"] == 0
    page.hold(KETTLE)
    assert page.look()["overhang"] == 0
    dialog = page.element("#take-back").rect
    assert 0 <= dialog["x"] and dialog["x"] + dialog["width"] <= width


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_nothing_serious_keeps_anybody_out(held_sync, page, scheme):
    page.prefer(prefers_color_scheme=scheme, prefers_reduced_motion="reduce")
    page.until(lambda page: page["log"] and page["figures"]["rate"])
    page.tap(KETTLE)
    page.until(lambda page: page["answer"])
    assert page.faults() == []
    page.hold(KETTLE)
    assert page.faults() == []
    page.element("#keep").click()
    page.expects_failures = True
    held_sync.watch.end()
    page.until(lambda page: page["stale"])
    assert page.faults() == []


def test_the_sample_apps_come_in(tmp_path, page, begin):
    """Its picture is the one that README.md shows: build/browser/watch.png."""
    world = worlds.World(tmp_path)
    world.device = tmp_path / "Ada's handheld"
    world.create()

    def pack(*names, version="1.0", **files):
        for name in names:
            app = tmp_path / name
            shutil.copytree(ROOT / "examples/apps" / name, app, dirs_exist_ok=True)
            info = app / f"{name}.app/Info.plist"
            info.write_text(info.read_text().replace(">1.0<", f">{version}<"))
            for path, content in files.items():
                (app / f"{name}.app" / path).write_bytes(content)
            assert worlds.run("pack", app, "-o", world.library / f"{name}.archive").code == 0

    pack("Kettle", "Parcel", "Pebble", "Quill", "Sparrow")
    assert world.sync().code == 0
    assert worlds.run("demote", world.device, "org.example.parcel").code == 0
    pack("Kettle", "Pebble", "Quill", version="1.1")
    damaged = world.library / "Pebble.archive"
    content = bytearray(damaged.read_bytes())
    content[len(content) // 2] ^= 255
    damaged.write_bytes(content)
    pack("Fernbook", "Loom", "Marrow", "Tideline")
    pack("Harbor", maps=os.urandom(4_000_000))
    (world.library / "Parcel.archive").unlink()
    page.resize(1360, 840)
    page.open(begin(Watch, world.device).address)
    begin(Sync, world, "--bandwidth", "300kB/s")
    seen = page.until(lambda page: page["apps"].get("org.example.harbor", {}).get("progress", 0) > 0.3 and page["figures"]["left"]
                      and all(app["picture"] for app in page["apps"].values()))
    page.picture("watch")
    assert seen["apps"]["org.example.parcel"]["state"] == "demoted"
    assert seen["apps"]["org.example.pebble"]["stage"] == "failed"
