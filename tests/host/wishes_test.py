"""A person reaches a restore and a visit to the store as a sync: what runs is asked while one of its calls is held."""
import json
import os
import subprocess
from contextlib import contextmanager

import pytest
from json_test import QRD, WAIT, World, ask, run, states
from watch_test import Watch

NAMES = ["One", "Two", "Three", "Four"]


def identifier(name):
    return f"org.example.{name.lower()}"


@pytest.fixture(params=[[], ["--no-coordination"]], ids=["coordinated", "own"])
def backed_up(request, tmp_path):
    """A device with a backup in which each app has data."""
    world = World(tmp_path, *request.param)
    for name in NAMES:
        world.add(name)
    world.sync()
    for name in NAMES:
        data = world.device / "var/mobile/Containers/Data/Application" / identifier(name)
        data.mkdir(parents=True, exist_ok=True)
        (data / "letter").write_text(name)
    world.backup, world.options = tmp_path / "backup", request.param
    run("backup", world.device, "-o", world.backup)
    return world


def new_device(world, name):
    device = world.folder / name
    run("device", "create", device, *world.options)
    return device


def disturb(*words):
    if not os.environ.get("DISTURB"):
        pytest.skip("this build has no supervisor of system calls")
    return subprocess.Popen([os.environ["DISTURB"], *map(str, words)], stdout=subprocess.PIPE, text=True)


def calls_of(world, under, kind, *command):
    """What a command asks of the files below a folder: each call's number and path."""
    listed = world.folder / "calls"
    process = disturb("--under", under, "--calls", kind, "--list", listed, QRD, *command)
    process.communicate(timeout=WAIT)
    if process.returncode == 125:
        pytest.skip("this system does not let a process supervise another one's calls")
    assert process.returncode == 0
    return [(int(number), path) for number, _, path in (line.split("\t") for line in listed.read_text().splitlines())]


def last_calls(calls, part_of):
    """The last call for each app, in their order: so are they brought."""
    last = {part_of(path): number for number, path in calls}
    return sorted((number, app) for app, number in last.items() if app)


class Held:
    """A command that is held at one of its calls below a folder."""

    def __init__(self, world, under, kind, number, *command):
        begun, self._go_on = world.folder / "begun", world.folder / "go-on"
        for pipe in (begun, self._go_on):
            os.mkfifo(pipe)
        self.process = disturb("--under", under, "--calls", kind, "--at", number, "--hold",
                                f"echo >{begun}; cat {self._go_on}", QRD, *command)
        begun.read_text()

    def end(self):
        """Lets it go on. The events that it has printed, and what became of each app."""
        self._go_on.write_text("")
        events = [json.loads(line) for line in self.process.communicate(timeout=WAIT)[0].splitlines()]
        report = events[-1]["report"]
        began = [event["app"]["identifier"] for event in events
                 if event["event"] == "app" and event["app"]["stage"] == "transferring" and event["app"]["fraction"] == 0]
        return list(dict.fromkeys(began)), {app["identifier"]: app["result"] for app in report["apps"]}


@contextmanager
def page_of(device):
    page = Watch(device)
    try:
        yield page
    finally:
        page.process.kill()
        page.process.communicate()


def see_and_wish(device, purpose, apps):
    """The page and `status` show it; the second app and the one under way are taken back, the last comes next."""
    with page_of(device) as page:
        sync = page.until("sync", lambda sync: sync["running"])
        assert sync["purpose"] == purpose
        assert {app["identifier"]: app["stage"] for app in sync["apps"]} == \
            {app: "transferring" if app == apps[0] else "queued" for app in apps}
        assert [app["identifier"] for app in ask("status", "status", device)["apps"]] == [app["identifier"] for app in sync["apps"]]
        assert page.act("prioritize", "org.example.none") == (409, {"error": "'org.example.none' does not wait for its transfer."})
        assert page.act("cancel", "org.example.none") == \
            (409, {"error": "'org.example.none' is not being installed; `qrd status` shows what is."})
        run("prioritize", device, apps[3])
        assert page.act("cancel", apps[1]) == (200, {"done": True})
        run("cancel", device, apps[0])


def test_a_restore_is_shown_and_does_what_a_person_wants(backed_up):
    data, command = backed_up.backup / "Data", ["restore", "--from", backed_up.backup, "--json=lines"]
    calls = calls_of(backed_up, data, "reads", *command, new_device(backed_up, "tried"))
    in_order = last_calls(calls, lambda path: path.split("/")[1] if "letter" in path else "")
    apps = [app for _, app in in_order]
    device = new_device(backed_up, "new")
    held = Held(backed_up, data, "reads", in_order[0][0], *command, device)
    see_and_wish(device, "a restore", apps)
    assert held.end() == ([apps[0], apps[3], apps[2]],
                          {apps[0]: "cancelled", apps[1]: "cancelled", apps[2]: "restored", apps[3]: "restored"})
    assert set(states(device)) == {apps[2], apps[3]}
    waiting = list((device / "var/mobile/Library/RestoreData").glob("*/letter"))
    assert len(waiting) == 2, "the data of the others is gone"


def test_an_app_can_be_taken_back_when_a_restore_has_made_its_placeholder(backed_up):
    command = ["restore", "--from", backed_up.backup, "--json=lines"]
    tried, device = new_device(backed_up, "tried"), new_device(backed_up, "new")
    folder = "var/mobile/Media"
    last = calls_of(backed_up, tried / folder, "changes", *command, tried)[-1][0]
    held = Held(backed_up, device / folder, "changes", last, *command, device)
    run("cancel", device, identifier("Two"))
    assert held.end()[1] == {identifier(name): "cancelled" if name == "Two" else "restored" for name in NAMES}
    assert set(states(device)) == {identifier(name) for name in NAMES if name != "Two"}
    assert len(list((device / "var/mobile/Library/RestoreData").glob("*/letter"))) == 3


@pytest.mark.parametrize("backed_up", [[]], ids=["coordinated"], indirect=True)
def test_a_visit_to_the_store_is_shown_and_does_what_a_person_wants(backed_up):
    command = ["store", "--catalogue", backed_up.library, "--json=lines"]
    tried, device = new_device(backed_up, "tried"), new_device(backed_up, "new")
    for restored in (tried, device):
        run("restore", restored, "--from", backed_up.backup)
    in_order = last_calls(calls_of(backed_up, backed_up.library, "reads", *command, tried),
                          lambda path: identifier(path[1:-4]) if path.endswith(".zip") else "")
    apps = [app for _, app in in_order]
    held = Held(backed_up, backed_up.library, "reads", in_order[0][0], *command, device)
    see_and_wish(device, "a visit to the store", apps)
    assert held.end() == ([apps[0], apps[3], apps[2]],
                          {apps[0]: "cancelled", apps[1]: "cancelled", apps[2]: "installed", apps[3]: "installed"})
    assert states(device) == {apps[2]: "installed", apps[3]: "installed"}
