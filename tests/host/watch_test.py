"""`qrd watch` as a browser meets it: what it tells of a device while that is synced, and how it ends."""
import fcntl
import http.client
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess

import pytest
from json_test import QRD, WAIT, World, run, states, until

SIGNALS = {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGHUP: 129}


def hear_signals():
    """One that is started in the background of a script would ignore what this has ignored."""
    for sent in SIGNALS:
        signal.signal(sent, signal.SIG_DFL)


class Watch:
    """A server, and the events that a page of it hears."""

    def __init__(self, device, *words):
        self.process = subprocess.Popen([QRD, "watch", device, *map(str, words)], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True, preexec_fn=hear_signals)
        self.address = self.process.stdout.readline().strip()
        found = re.fullmatch(r"http://127\.0\.0\.1:(\d+)/\?token=([0-9a-f]{32})", self.address)
        assert found, self.process.stderr.read()
        self.port, self.token = int(found[1]), found[2]
        self.heard, self._stream = [], None

    def ask(self, method, target, body=None, **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=WAIT)
        sent = {"Cookie": f"qrd-{self.port}={self.token}", **headers}
        if method == "POST":
            sent = {"Origin": f"http://127.0.0.1:{self.port}", "Content-Type": "application/json", **sent}
        connection.request(method, target, body, sent)
        return connection.getresponse()

    def act(self, command, app):
        answer = self.ask("POST", f"/{command}", json.dumps({"app": app}))
        return answer.status, json.load(answer)

    def next(self):
        """The next event: its name and its data."""
        self._stream = self._stream or self.ask("GET", "/events")
        name, signs = None, 0
        for line in iter(self._stream.readline, b""):
            signs += line == b":\n"
            assert signs < 12, "nothing is told for a minute"
            if line.startswith(b"event: "):
                name = line[7:-1].decode()
            elif line.startswith(b"data: "):
                self.heard.append((name, json.loads(line[6:])))
                return self.heard[-1]
        raise AssertionError("the stream has ended")

    def until(self, name, holds=lambda data: True):
        """Reads on to an event of this name for which this holds."""
        while True:
            heard, data = self.next()
            if heard == name and holds(data):
                return data

    def end(self, sent=signal.SIGTERM):
        self.process.send_signal(sent)
        err = self.process.communicate(timeout=WAIT)[1]
        return self.process.returncode, err


@pytest.fixture(params=[[], ["--no-coordination"]], ids=["coordinated", "own"])
def world(request, tmp_path):
    return World(tmp_path, *request.param)


@pytest.fixture
def watch(request):
    """Starts servers, and ends them with the test."""
    started = []

    def start(device, *words):
        started.append(Watch(device, *words))
        return started[-1]
    yield start
    for one in started:
        assert "Sanitizer" not in one.end()[1]


def placed(screen):
    """The apps of a screen in their places, folders as lists."""
    return [[place["apps"] if "apps" in place else place for place in page] for page in screen["pages"]]


def apps_of(events):
    """Each app as it was told last."""
    apps = {}
    for name, data in events:
        if name == "screen":
            apps = {app["identifier"]: app for page in placed(data) for app in page}
        elif name == "app":
            assert data["identifier"] in apps, "it has its place"
            apps[data["identifier"]] = data
    return apps


def test_a_device_on_which_nothing_runs(world, watch):
    world.add("One")
    world.sync()
    page = watch(world.device)
    name, screen = page.next()
    assert name == "screen" and screen["device"] == "device" and screen["isSyncing"] is False
    assert placed(screen) == [[{"identifier": "org.example.one", "name": "One", "version": "1.0", "state": "installed"}]]
    assert page.next() == ("sync", {"running": False, "fraction": 0.0, "finished": 0, "bytes": 0, "sentBytes": 0,
                                    "rate": None, "secondsLeft": None, "apps": []})
    entries = json.loads(run("log", world.device, "--json"))["entries"][-50:]
    assert [page.next() for _ in entries] == [("log", entry) for entry in entries]


def test_a_sync_from_its_begin_to_its_end(world, watch):
    world.add("One", 400_000)
    world.add("Two", 100_000)
    page = watch(world.device)
    page.until("sync")
    syncing = world.started_sync("--bandwidth", "40kB/s")
    page.until("screen", lambda screen: screen["isSyncing"] and len(placed(screen)[0]) == 2)
    page.until("app", lambda app: app["state"] == "waiting" and app["stage"] == "transferring" and 0 < app["progress"] < 1)
    assert page.until("sync", lambda sync: sync["rate"])["bytes"] > 500_000
    ended = page.until("sync", lambda sync: not sync["running"] and "inUseBy" not in sync)
    assert syncing.wait(timeout=WAIT) == 0
    assert {app["identifier"]: app["stage"] for app in ended["apps"]} == \
        {"org.example.one": "done", "org.example.two": "done"}
    syncing.communicate()
    last = json.loads(run("log", world.device, "--json"))["entries"][-1]
    while ("log", last) not in page.heard or \
            {name: app["state"] for name, app in apps_of(page.heard).items()} != states(world.device):
        page.next()


def test_it_looks_on_through_syncs_and_what_else_is_done(world, watch):
    page = watch(world.device)
    page.until("sync")
    for version in ("1.0", "2.0"):
        world.add("One", 0, version)
        world.sync()
        while ("installed", version) not in [(app["state"], app["version"]) for app in apps_of(page.heard).values()]:
            page.next()
    run("launch", world.device, "org.example.one")
    page.until("app", lambda app: app["state"] == "running")
    run("quit", world.device, "org.example.one")
    page.until("app", lambda app: app["state"] == "installed")
    run("demote", world.device, "org.example.one")
    page.until("app", lambda app: app["state"] == "demoted")
    run("uninstall", world.device, "org.example.one")
    page.until("screen", lambda screen: screen["pages"] in ([], [[]]))


def test_what_a_person_wants_is_done(world, watch):
    for name in ("One", "Two", "Three"):
        world.add(name, 300_000)
    page = watch(world.device)
    assert page.act("prioritize", "org.example.two") == (409, {"error": f"No sync is running on {world.device}."})
    syncing = world.started_sync("--bandwidth", "100kB/s")
    page.until("sync", lambda sync: sync["running"] and len(sync["apps"]) == 3)
    assert page.act("cancel", "org.example.none") == \
        (409, {"error": "'org.example.none' is not being installed; `qrd status` shows what is."})
    assert page.act("prioritize", "org.example.three") == (200, {"done": True})
    assert page.act("cancel", "org.example.two") == (200, {"done": True})
    page.until("sync", lambda sync: {"org.example.two": "failed"}.items() <=
               {app["identifier"]: app["stage"] for app in sync["apps"]}.items())
    syncing.terminate()
    syncing.communicate(timeout=WAIT)


def test_a_sync_that_is_killed_or_stops_is_no_longer_one(world, watch):
    world.add("One", 300_000)
    page = watch(world.device)
    syncing = world.started_sync("--bandwidth", "50kB/s")
    page.until("sync", lambda sync: sync["running"])
    syncing.send_signal(signal.SIGSTOP)
    os.waitid(os.P_PID, syncing.pid, os.WSTOPPED)  # each of its threads
    status, answer = page.act("cancel", "org.example.one")
    assert status == 409 and "does not answer" in answer["error"]
    syncing.kill()
    page.until("sync", lambda sync: not sync["running"] and "inUseBy" not in sync)
    syncing.communicate()


def test_a_device_in_use_by_one_that_is_no_sync(tmp_path, watch):
    device = World(tmp_path).device
    page = watch(device)
    page.until("sync", lambda sync: "inUseBy" not in sync)
    with open(device / "device-lock", "w") as lock:
        fcntl.fcntl(lock, fcntl.F_OFD_SETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, 0, 0, 0, 0))
        lock.write("process 1234 since 1795347727: a backup\n")
        lock.flush()
        held = page.until("sync", lambda sync: "inUseBy" in sync)
        assert held["inUseBy"] == {"purpose": "a backup", "process": 1234, "since": "2026-11-22T11:42:07.000000Z"}
        assert not held["running"]
        status, answer = page.act("cancel", "org.example.one")
        assert status == 409 and f"{device} is in use by a backup since " in answer["error"]
    page.until("sync", lambda sync: "inUseBy" not in sync)


def test_icons(tmp_path, watch):
    world = World(tmp_path)
    examples = os.path.join(os.path.dirname(__file__), "../../examples/apps")
    for name in sorted(os.listdir(examples))[:2]:
        run("pack", os.path.join(examples, name), "-o", world.library / f"{name}.zip")
    world.sync()
    page = watch(world.device)
    for app in placed(page.until("screen"))[0]:
        answer = page.ask("GET", app["icon"])
        assert (answer.status, answer.getheader("Content-Type")) == (200, "image/png")
        assert answer.read().startswith(b"\x89PNG")
        assert page.ask("GET", app["icon"] + "1").status == 404
        assert page.ask("GET", app["icon"].replace("app=", "app=x")).status == 404


@pytest.mark.parametrize("sent", SIGNALS, ids=lambda sent: sent.name)
def test_it_runs_until_it_is_asked_to_end(tmp_path, watch, sent):
    page = watch(World(tmp_path).device)
    page.until("sync")
    assert page.end(sent) == (SIGNALS[sent], "")


def test_a_port_of_ones_own(tmp_path, watch):
    device = World(tmp_path).device
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = taken.getsockname()[1]
        answer = subprocess.run([QRD, "watch", device, "--port", str(port)], capture_output=True, text=True, timeout=WAIT,
                                check=False)
        assert (answer.returncode, answer.stderr) == \
            (5, f"qrd: cannot listen at port {port} of 127.0.0.1: Address already in use; name another port, or none\n")
    first = watch(device, "--port", port)
    first.until("sync")
    assert first.end()[0] == 143
    second = watch(device, "--port", port)
    assert second.port == port and second.token != first.token
    assert first.ask("GET", "/").status == 403, "the token of an earlier run"


@pytest.mark.parametrize("end", [shutil.rmtree, lambda device: device.rename(device.with_name("elsewhere"))],
                         ids=["removed", "moved"])
def test_a_device_that_goes(tmp_path, watch, end):
    device = World(tmp_path).device
    page = watch(device)
    page.until("sync")
    end(device)
    err = page.process.communicate(timeout=WAIT)[1]
    assert (page.process.returncode, err) == (4, f"qrd: the device {device} is gone: its folder was moved or removed\n")


@pytest.mark.parametrize("limit, reason", [("instances", "Too many open files"), ("watches", "No space left on device")])
def test_a_system_that_reports_no_changes(tmp_path, limit, reason):
    """It would show what was there at first, for ever."""
    device = World(tmp_path).device
    bounded = ["unshare", "--user", "--map-root-user", "sh", "-c", f'echo 0 >/proc/sys/user/max_inotify_{limit} && exec "$@"', "sh"]
    if subprocess.run([*bounded, "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("a limit of one's own takes a user namespace, which this system does not give")
    answer = subprocess.run([*bounded, QRD, "watch", device], capture_output=True, text=True, timeout=WAIT, check=False)
    assert (answer.returncode, answer.stdout, answer.stderr) == \
        (4, "", f"qrd: the changes of the device {device} cannot be followed: {reason}; the limit of inotify instances or watches "
                "may be reached (`sysctl fs.inotify` shows it)\n")


def test_it_changes_nothing(tmp_path, watch):
    world = World(tmp_path)
    world.add("One")
    world.sync()

    def tree():
        return {path.relative_to(world.device): path.lstat().st_mtime_ns for path in world.device.rglob("*")}
    before = tree()
    page = watch(world.device)
    page.until("log")
    assert page.ask("GET", "/").status == 200
    assert page.act("cancel", "org.example.one")[0] == 409
    assert page.end()[0] == 143
    assert tree() == before


def test_the_browser_is_opened(tmp_path):
    """With an address that lets in once: others may see the words with which a browser is started. It has no part in the
    streams of the server."""
    device, told = World(tmp_path).device, tmp_path / "told"
    os.mkfifo(told)
    program = tmp_path / "xdg-open"
    program.write_text(f"#!/bin/sh\necho noise\necho noise >&2\nread -r word\necho \"$1\" >{told}\n")
    program.chmod(0o755)
    with subprocess.Popen([QRD, "watch", device, "--open"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, env={**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}) as process:
        printed, opened = process.stdout.readline().strip(), told.read_text().strip()
        process.terminate()
        assert process.communicate(timeout=WAIT) == ("", "")
    assert printed.split("=")[0] == opened.split("=")[0] and printed != opened
