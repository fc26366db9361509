"""What `qrd` prints with --json is what docs/json.schema.json says, field by field."""
import copy
import json
import os
import pathlib
import signal
import subprocess

import jsonschema
import pytest

QRD = os.environ["QRD"]
SCHEMA = json.loads((pathlib.Path(__file__).parents[2] / "docs/json.schema.json").read_text())
WAIT = 120  # seconds, until a command is taken for stuck


def closed(schema):
    """The schema with nothing allowed that it does not name: what it says may be added must be added to it first."""
    if isinstance(schema, list):
        return [closed(part) for part in schema]
    if not isinstance(schema, dict):
        return schema
    made = {key: closed(part) for key, part in schema.items()}
    if made.get("type") == "object":
        made["additionalProperties"] = False
    return made


def check(kind, text):
    """The object in a text, held to what the schema has under this name."""
    found = json.loads(text)
    schema = {**closed(copy.deepcopy(SCHEMA)), "$ref": f"#/$defs/{kind}"}
    del schema["oneOf"]
    jsonschema.Draft202012Validator(schema).validate(found)
    jsonschema.Draft202012Validator(SCHEMA["$defs"]["version"]).validate(found["version"])
    return found


def run(*words, code=0):
    answer = subprocess.run([QRD, *map(str, words)], capture_output=True, text=True, timeout=WAIT, check=False)
    assert answer.returncode == code, (words, answer)
    return answer.stdout


def ask(kind, *words):
    return check(kind, run(*words, "--json"))


class World:
    """A device and a library in a folder of their own."""

    def __init__(self, folder, *options):
        self.folder, self.library, self.device = folder, folder / "library", folder / "device"
        self.library.mkdir()
        run("device", "create", self.device, *options)

    def add(self, name, size=0, version="1.0"):
        """Packs an app "org.example.NAME" whose archive has some more bytes than `size`."""
        app = self.folder / f"{name}.app"
        if not app.exists():
            run("pack", "--init", name, "-o", self.folder)
        info = app / "Info.plist"
        info.write_text(info.read_text().replace(">1.0<", f">{version}<"))
        (app / "bytes").write_bytes(os.urandom(size))
        run("pack", app, "-o", self.library / f"{name}.zip")

    def sync(self, *words, code=0):
        run("sync", self.device, "--library", self.library, *words, code=code)

    def started_sync(self, *words):
        return subprocess.Popen([QRD, "sync", self.device, "--library", self.library, *words], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)


@pytest.fixture(params=[[], ["--no-coordination"]], ids=["coordinated", "own"])
def world(request, tmp_path):
    return World(tmp_path, *request.param)


def until(stream, text):
    """Reads lines up to one that has this in it."""
    for line in stream:
        if text in line:
            return
    raise AssertionError(f"it has ended without '{text}'")


def ask_everything(device):
    """What each command says of a device, by kind."""
    answers = {kind: ask(kind, kind, device) for kind in ("apps", "inventory", "metrics", "accounts", "log", "status")}
    return {**answers, "transactions": ask("transactions", "log", device, "--transactions")}


def states(device):
    return {app["identifier"]: app["state"] for app in ask("apps", "apps", device)["apps"]}


def test_the_schema_is_one():
    jsonschema.Draft202012Validator.check_schema(SCHEMA)
    with pytest.raises(jsonschema.ValidationError):  # an oracle that is never red would be none
        check("inventory", '{"version": 1, "deleted": [], "more": 1}')
    with pytest.raises(jsonschema.ValidationError):
        check("event", '{"version": 1, "event": "ended"}')
    with pytest.raises(jsonschema.ValidationError):
        check("inventory", '{"version": 2, "deleted": []}')


def test_an_empty_device(world):
    said = ask_everything(world.device)
    assert said["apps"]["apps"] == [] and said["inventory"]["deleted"] == [] and said["accounts"]["accounts"] == []
    assert said["metrics"]["count"] == 0
    assert said["status"] == {"version": 1, "running": False, "apps": []}
    assert said["transactions"]["entries"] == []


def test_an_idle_device(world):
    for name in ("One", "Two"):
        world.add(name)
    world.sync()
    run("uninstall", world.device, "org.example.two")
    said = ask_everything(world.device)
    assert [(app["identifier"], app["version"], app["state"]) for app in said["apps"]["apps"]] == \
        [("org.example.one", "1.0", "installed")]
    assert said["inventory"]["deleted"] == ["org.example.two"]
    assert said["metrics"]["count"] == 1 and said["metrics"]["physicalSize"] > 0
    assert {entry["level"] for entry in said["log"]["entries"]} <= {"default", "error"} and said["log"]["entries"]
    assert "org.example.one" in {entry["app"] for entry in said["transactions"]["entries"]}


def test_a_device_with_apps_in_every_state(world):
    for name in ("One", "Two", "Three"):
        world.add(name)
    world.sync()
    run("demote", world.device, "org.example.two")
    run("launch", world.device, "org.example.three")
    world.add("One", 500_000, "2.0")
    world.add("Four", 500_000)
    syncing = world.started_sync("--install", "org.example.one", "--install", "org.example.four", "--bandwidth", "50kB/s")
    try:
        until(syncing.stdout, "sending ")
        awaited = {"org.example.one": "updating", "org.example.two": "demoted", "org.example.three": "running",
                   "org.example.four": "waiting"}
        while states(world.device) != awaited and syncing.poll() is None:
            pass  # the device makes the apps' places on its own time
        said = ask_everything(world.device)
        assert states(world.device) == awaited
        assert said["status"]["running"] and len(said["status"]["apps"]) == 2
        assert "transferring" in {app["stage"] for app in said["status"]["apps"]}
    finally:
        syncing.terminate()
        syncing.communicate(timeout=WAIT)
        run("quit", world.device, "org.example.three")


def test_an_app_that_waits_says_until_when(tmp_path):
    world = World(tmp_path, "--no-coordination")
    world.add("One")
    world.sync()
    run("launch", world.device, "org.example.one", "--busy")
    world.add("One", version="2.0")
    syncing = world.started_sync()
    try:
        until(syncing.stdout, "waiting ")
        waiting, = ask("status", "status", world.device)["apps"]
        assert waiting["stage"] == "waiting" and waiting["reason"] and waiting["nextTry"]
    finally:
        syncing.terminate()
        syncing.communicate(timeout=WAIT)
        (world.device / "var/run/apps/org.example.one.busy").unlink()
        run("quit", world.device, "org.example.one")


def test_a_sync_and_what_it_would_do(world):
    for name in ("One", "Two"):
        world.add(name)
    words = ("--library", world.library, "--json")
    would = check("sync", run("sync", world.device, *words, "--dry-run"))
    assert would["dryRun"] and would["bytesNeeded"] > 0 and would["bytes"] > 0 and would["began"] is None
    done = check("sync", run("sync", world.device, *words))
    assert done["done"] and done["apps"] == would["apps"]
    (world.library / "Broken.zip").write_bytes(b"no archive")
    world.add("One", version="0.9")
    words = (*words, "--install", "One", "--install", "Thre", "--remove", "Two")
    found = check("sync", run("sync", world.device, *words, code=1))
    assert {app["name"]: app["result"] for app in found["apps"]} == \
        {"One": "refused", "Two": "removed", "Thre": "failed", "Broken.zip": "failed"}


def test_a_restore_and_a_visit_to_the_store(tmp_path):
    world = World(tmp_path)
    for name in ("One", "Two"):
        world.add(name)
    world.sync()
    run("demote", world.device, "org.example.two")
    run("backup", world.device, "-o", tmp_path / "backup")
    run("device", "create", tmp_path / "new")
    restored = check("sync", run("restore", tmp_path / "new", "--from", tmp_path / "backup", "--json"))
    assert restored["done"] and not restored["interrupted"]
    assert [(app["name"], app["result"]) for app in restored["apps"]] == [("One", "restored"), ("Two", "demoted")]
    brought = check("sync", run("store", tmp_path / "new", "--catalogue", world.library, "--json"))
    assert [(app["name"], app["result"]) for app in brought["apps"]] == [("One", "installed")]
    again = check("sync", run("restore", tmp_path / "new", "--from", tmp_path / "backup", "--json", code=1))
    assert not again["done"] and again["apps"][0]["result"] == "failed" and again["apps"][0]["reason"]


def events(*words, code=0):
    """The lines of a command, the last of which is its report."""
    said = [check("event", line) for line in run(*words, "--json=lines", code=code).splitlines()]
    assert [event["event"] for event in said[1:-1]] == ["app"] * (len(said) - 2)
    assert said[-1]["event"] == "ended"
    return said


def test_each_event_of_what_brings_apps_is_a_line(world):
    world.add("One", 300_000)
    (world.library / "Two.zip").write_bytes(b"no archive")
    said = events("sync", world.device, "--library", world.library, code=1)
    assert said[0]["event"] == "began" and [app["stage"] for app in said[0]["apps"]] == ["queued"]
    stages = [event["app"]["stage"] for event in said[1:-1]]
    assert stages[0] == "transferring" and stages[-2:] == ["installing", "done"]
    assert {app["name"]: app["result"] for app in said[-1]["report"]["apps"]} == {"One": "installed", "Two.zip": "failed"}
    assert not said[-1]["report"]["done"]

    would = check("event", run("sync", world.device, "--library", world.library, "--dry-run", "--json=lines", code=1))
    assert would["event"] == "ended" and would["report"]["dryRun"]

    run("backup", world.device, "-o", world.folder / "backup")
    world.device = world.folder / "new"
    run("device", "create", world.device)
    restored = events("restore", world.device, "--from", world.folder / "backup")
    assert [app["result"] for app in restored[-1]["report"]["apps"]] == ["restored"]
    brought = events("store", world.device, "--catalogue", world.library)
    assert [event["app"]["stage"] for event in brought[1:-1]][-1] == "done"
    assert [app["result"] for app in brought[-1]["report"]["apps"]] == ["installed"]


@pytest.mark.parametrize("kind, words", [("log", []), ("transactions", ["--transactions"])], ids=["log", "transactions"])
def test_a_log_that_is_followed_is_an_object_a_line(world, kind, words):
    world.add("One")
    world.sync()
    with subprocess.Popen([QRD, "log", world.device, "--follow", "--tail", "1", "--json", *words], stdout=subprocess.PIPE,
                          text=True) as log:
        assert len(check(kind, log.stdout.readline())["entries"]) == 1
        world.add("Two")
        world.sync()
        assert len(check(kind, log.stdout.readline())["entries"]) == 1
        log.send_signal(signal.SIGINT)
        log.communicate(timeout=WAIT)
        assert log.returncode == 130


def test_a_status_that_is_followed_is_an_object_a_line(tmp_path):
    world = World(tmp_path)
    world.add("One", 300_000)
    syncing = world.started_sync("--bandwidth", "300kB/s")
    until(syncing.stdout, "sending ")
    with subprocess.Popen([QRD, "status", world.device, "--follow", "--json"], stdout=subprocess.PIPE, text=True) as status:
        lines = status.communicate(timeout=WAIT)[0].splitlines()
    syncing.communicate(timeout=WAIT)
    assert len(lines) > 1 and all(check("status", line)["running"] for line in lines)
