"""What is disturbed: a library, a device as it is before, a command, and the apps that the device has after it."""
import json
import os
import plistlib
import shutil
import subprocess
import zipfile

TIME_LIMIT = 60  # seconds; a command that takes longer hangs


# A picture of one point.
ICON = bytes.fromhex(
    "89504e470d0a1a0a0000000d49484452000000010000000108060000001f15c4890000000d49444154789c63706838f0"
    "1f00050402803c9e03800000000049454e44ae426082")


class App:
    """One version of an app, packed."""

    def __init__(self, identifier, version, archive):
        self.identifier = identifier
        self.version = version
        with zipfile.ZipFile(archive) as packed:
            self.files = {name: packed.read(name) for name in packed.namelist() if not name.endswith("/")}


class Answer:
    """How a command ended."""

    def __init__(self, code, output, errors):
        self.code = code
        self.output = output
        self.errors = errors

    def text(self):
        return (self.output + self.errors).strip()


def run(words):
    """Runs a command; one that hangs is ended and has the code None."""
    try:
        ended = subprocess.run(words, capture_output=True, text=True, errors="replace", timeout=TIME_LIMIT)
    except subprocess.TimeoutExpired:
        return Answer(None, "", f"it did not end within {TIME_LIMIT} s")
    return Answer(ended.returncode, ended.stdout, ended.stderr)


def must_run(words):
    answer = run(words)
    if answer.code != 0:
        raise SystemExit(f"crash: {' '.join(words)} failed: {answer.text()}")
    return answer


def copy_device(device, copy):
    must_run(["cp", "-a", device, copy])  # with the socket that a killed sync leaves


class Scenario:
    """A device that has three apps, and a library by which one of them is updated and two are added; one is removed.

    `before` and `after` hold the apps of the device by identifier; an app that is in neither has no business there."""

    def __init__(self, name, tools, folder, device_options):
        self.name = name
        self.qrd = tools.qrd
        self.folder = os.path.join(folder, name)
        self.snapshot = os.path.join(self.folder, "snapshot")
        self.library = os.path.join(self.folder, "library")
        os.makedirs(self.library)
        self._prepare(device_options)

    def command(self, device):
        """What is disturbed, and what is run again after that. It answers with a report in JSON."""
        return [self.qrd, "sync", device, "--library", self.library, "--remove", "org.example.dune", "--json"]

    def _prepare(self, device_options):
        before = [self._pack("Anise", "1.0"), self._pack("Dune", "1.0"), self._pack("Elder", "1.0")]
        must_run([self.qrd, "device", "create", self.snapshot, *device_options])
        must_run([self.qrd, "sync", self.snapshot, "--library", self.library])
        for app in before:
            os.makedirs(data_folder(self.snapshot, app.identifier))
            with open(os.path.join(data_folder(self.snapshot, app.identifier), "note.txt"), "w") as note:
                note.write(app.identifier)
        os.remove(self._archive("Dune"))
        after = [self._pack("Anise", "2.0"), self._pack("Birch", "1.0"), self._pack("Cedar", "1.0"), before[2]]
        self.before = {app.identifier: app for app in before}
        self.after = {app.identifier: app for app in after}

    def _archive(self, name):
        return os.path.join(self.library, name + ".archive")

    def _pack(self, name, version):
        identifier = "org.example." + name.lower()
        app = os.path.join(self.folder, "apps", name)
        bundle = os.path.join(app, name + ".app")
        os.makedirs(os.path.join(bundle, "Texts"), exist_ok=True)
        info = {"BXBundleIdentifier": identifier, "BXBundleVersion": version, "BXBundleExecutable": name,
                "BXBundleDisplayName": name, "BXBundleIconFile": "Icon.png"}
        files = {f"{name}.app/Info.plist": plistlib.dumps(info),
                 f"{name}.app/{name}": f"#!/bin/sh\necho {name} {version}\n".encode(),
                 f"{name}.app/Icon.png": ICON,
                 f"{name}.app/Texts/{version}.txt": f"{name} {version}\n".encode() * 200,
                 "TamblinMetadata.plist": plistlib.dumps({"title": name, "bundleVersion": version}),
                 "TamblinArtwork": ICON}
        for path, content in files.items():
            with open(os.path.join(app, path), "wb") as file:
                file.write(content)
        must_run([self.qrd, "pack", app, "-o", self._archive(name)])
        shutil.rmtree(app)
        return App(identifier, version, self._archive(name))


def data_folder(device, identifier):
    return os.path.join(device, "var/mobile/Containers/Data/Application", identifier)


def listed_apps(qrd, device):
    """The device's apps as `qrd apps` shows them, by identifier; None when it cannot, with the reason."""
    answer = run([qrd, "apps", device, "--json"])
    if answer.code != 0:
        return None, f"`qrd apps` ended with {answer.code}: {answer.text()}"
    return {app["identifier"]: app for app in json.loads(answer.output)}, None


class Resumed(Scenario):
    """The same device, whose sync was killed while it fetched the last app, so that the next one finds half-done work:
    placeholders, received files, installs that wait or run."""

    def __init__(self, name, tools, folder, device_options):
        super().__init__(name, tools, folder, device_options)
        changes = os.path.join(self.folder, "changes")
        rehearsal = os.path.join(self.folder, "rehearsal")
        copy_device(self.snapshot, rehearsal)
        run([tools.disturb, "--under", rehearsal, "--list", changes, *self.command(rehearsal)])
        with open(changes) as lines:
            fetches = [line.split("\t")[0] for line in lines if line.endswith(".archive.part\n")]
        shutil.rmtree(rehearsal)
        run([tools.disturb, "--under", self.snapshot, "--kill", fetches[-1], *self.command(self.snapshot)])


# By name: how a scenario is made, and the options of its device.
SCENARIOS = {
    "coordinated": (Scenario, []),
    "own": (Scenario, ["--no-coordination"]),
    "coordinated-resumed": (Resumed, []),
    "own-resumed": (Resumed, ["--no-coordination"]),
}


def make_scenario(name, tools, folder):
    kind, device_options = SCENARIOS[name]
    return kind(name, tools, folder, device_options)
