"""Apps that cannot be installed: whatever the device has stays as it was."""
import pytest

from conftest import app_files, run, zip_of

KETTLE = "org.example.kettle"


def damaged(archive):
    """The same archive, the content of its last files damaged."""
    place = archive.rindex(b"PK\x01\x02") // 2
    return archive[:place] + b"\0" * 40 + archive[place + 40:]


def update(**facts):
    return zip_of(app_files("Kettle", "2.0", **facts))


# How the next version arrives, and what is said of it.
FAILING = {
    "no archive": (b"nothing", None),
    "an empty file": (b"", None),
    "its second half missing": (update()[:len(update()) // 2], None),
    "damaged content": (damaged(update(files={"Long.txt": bytes(range(256)) * 200})), "failed"),
    "without a name, and damaged": (damaged(update(info={"BXBundleDisplayName": ""},
                                                   files={"Long.txt": bytes(range(256)) * 200})), "failed"),
    "a path out of the app": (zip_of({**app_files("Kettle", "2.0"), "Kettle.app/../../out": b"x"}), None),
    "two apps in one": (zip_of({**app_files("Kettle", "2.0"), **app_files("Pot", "2.0")}), None),
}


@pytest.mark.parametrize("name", FAILING)
def test_an_app_whose_update_cannot_be_installed_stays(world, name):
    content, result = FAILING[name]
    path = world.add("Kettle", "1.0")
    world.add("Pebble", "1.0")
    assert world.sync().code == 0
    path.write_bytes(content)
    world.add("Pebble", "2.0")
    answer = world.sync()
    assert world.apps() == {KETTLE: "1.0", "org.example.pebble": "2.0"}, answer.text
    assert not any(app["placeholder"] for app in world.listed().values())
    assert result is None or answer.results().get(KETTLE) == result, answer.text
    world.add("Kettle", "2.0")
    assert world.sync().code == 0
    assert world.apps()[KETTLE] == "2.0"


@pytest.mark.parametrize("name", ["damaged content", "without a name, and damaged"])
def test_a_demoted_app_that_cannot_come_back_stays_demoted(world, name):
    path = world.add("Kettle", "1.0")
    world.sync()
    assert run("demote", world.device, KETTLE).code == 0
    path.write_bytes(FAILING[name][0])
    answer = world.sync("--install", KETTLE)
    assert answer.code == 1, answer.text
    assert world.listed().get(KETTLE, {}).get("demoted"), answer.text


def test_a_demoted_app_comes_back_from_a_whole_archive(world):
    world.add("Kettle", "1.0")
    world.sync()
    assert run("demote", world.device, KETTLE).code == 0
    answer = world.sync("--install", KETTLE)
    assert answer.results() == {KETTLE: "installed"}, answer.text
    assert world.apps() == {KETTLE: "1.0"}
