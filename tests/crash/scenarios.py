"""What is disturbed: a library, a device as it is before, a command, and the apps that the device has after it."""
import json
import os
import plistlib
import shutil
import subprocess
import zipfile

KILLED = 128 + 9
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

    `before` and `after` hold the apps of the device by identifier; an app that is in neither has no business there.
    `data` holds each app's data, as `tree` shows it, and `kept` names those whose data is there at every moment."""

    done_results = ("installed", "updated", "removed")  # what a report calls an app that is done
    demoted = frozenset()  # the apps that have a placeholder at the end
    layout = None  # the icons in their order, in pages, where they have one to keep
    silent_reasons = ()  # reasons that stand for one of the system's which the plug-in does not log
    left_out = ()  # kinds of disturbance
    leaves_reports = False  # whether the plug-in may still have to be told of installs that have ended

    def __init__(self, name, tools, folder, device_options):
        self.name = name
        self.qrd = tools.qrd
        self.folder = os.path.join(folder, name)
        self.snapshot = os.path.join(self.folder, "snapshot")
        self.library = os.path.join(self.folder, "library")
        os.makedirs(self.library)
        self._prepare(device_options)

    def source(self):
        """The folder that the disturbed command reads the apps from."""
        return self.library

    def command(self, device, source=None):
        """What is disturbed, and what is run again after that. It answers with a report in JSON. `source` is a copy of
        the folder to read from instead. What the device does not have any more cannot be removed."""
        apps, _ = listed_apps(self.qrd, device)
        is_removed = apps is not None and "org.example.dune" not in apps
        return [self.qrd, "sync", device, "--library", source or self.library,
                *([] if is_removed else ["--remove", "org.example.dune"]), "--json"]

    def next_commands(self, device, answer):
        """What is run after the disturbed command, which ended so, until all is in order."""
        return [self.command(device)]

    def is_done(self, apps, identifier):
        """Whether the listed apps show what the command was to do with one of them."""
        app = apps.get(identifier, {"installed": False, "version": None})
        wanted = self.after.get(identifier)
        return app["installed"] and app["version"] == wanted.version if wanted else not app["installed"]

    def reasons(self, report):
        """Why a command failed, according to its report."""
        reasons = [app.get("reason", "") for app in report["apps"] if app["result"] in ("failed", "refused", "waiting")]
        return reasons + ([report["failure"]] if "failure" in report else [])

    def is_all_right(self, command, answer):
        """Whether a command that followed the disturbed one ended as it must."""
        return answer.code == 0

    def check_failures(self, apps, answer):
        """What else must hold after the disturbed command, according to the device's list of apps."""
        return []

    def packages_at_hand(self, device):
        """The apps whose archive has arrived, so that it is not sent again."""
        return set()

    def _prepare(self, device_options):
        before = [self._pack("Anise", "1.0"), self._pack("Dune", "1.0"), self._pack("Elder", "1.0")]
        must_run([self.qrd, "device", "create", self.snapshot, *device_options])
        must_run([self.qrd, "sync", self.snapshot, "--library", self.library])
        for app in before:
            write_data(self.snapshot, app.identifier, {"note.txt": app.identifier.encode()})
        os.remove(self._archive("Dune"))
        after = [self._pack("Anise", "2.0"), self._pack("Birch", "1.0"), self._pack("Cedar", "1.0"), before[2]]
        self.before = {app.identifier: app for app in before}
        self.after = {app.identifier: app for app in after}
        self.kept = self.before.keys() & self.after.keys()
        self.data = {identifier: tree(data_folder(self.snapshot, identifier)) for identifier in self.kept}

    def _archive(self, name):
        return os.path.join(self.library, name + ".archive")

    def _pack(self, name, version):
        identifier = "org.example." + name.lower()
        app = os.path.join(self.folder, "apps", name)
        bundle = os.path.join(app, name + ".app")
        os.makedirs(os.path.join(bundle, "Texts"), exist_ok=True)
        info = {"BXBundleIdentifier": identifier, "BXBundleVersion": version, "BXBundleExecutable": name,
                "BXBundleDisplayName": name, "BXBundleIconFile": "Icon.png"}
        lines = 15_000  # more than 128 KB: the device writes larger files past the system's cache
        files = {f"{name}.app/Info.plist": plistlib.dumps(info),
                 f"{name}.app/{name}": f"#!/bin/sh\necho {name} {version}\n".encode(),
                 f"{name}.app/Icon.png": ICON,
                 f"{name}.app/Texts/{version}.txt": f"{name} {version}\n".encode() * lines,
                 "TamblinMetadata.plist": plistlib.dumps({"title": name, "bundleVersion": version}),
                 "TamblinArtwork": ICON}
        for path, content in files.items():
            with open(os.path.join(app, path), "wb") as file:
                file.write(content)
        os.chmod(os.path.join(bundle, name), 0o755)
        must_run([self.qrd, "pack", app, "-o", self._archive(name)])
        shutil.rmtree(app)
        return App(identifier, version, self._archive(name))


def data_folder(device, identifier):
    return os.path.join(device, "var/mobile/Containers/Data/Application", identifier)


def write_data(device, identifier, files):
    """Gives an app data: contents by path."""
    for path, content in files.items():
        file = os.path.join(data_folder(device, identifier), path)
        os.makedirs(os.path.dirname(file), exist_ok=True)
        with open(file, "wb") as opened:
            opened.write(content)


def tree(folder):
    """What is below a folder: the contents of files, and None for folders, by path."""
    found = {}
    for above, folders, names in os.walk(folder):
        found.update({os.path.relpath(os.path.join(above, name), folder): None for name in folders})
        for name in names:
            with open(os.path.join(above, name), "rb") as file:
                found[os.path.relpath(os.path.join(above, name), folder)] = file.read()
    return found


def listed_apps(qrd, device):
    """The device's apps as `qrd apps` shows them, by identifier; None when it cannot, with the reason."""
    answer = run([qrd, "apps", device, "--json"])
    if answer.code != 0:
        return None, f"`qrd apps` ended with {answer.code}: {answer.text()}"
    return {app["identifier"]: app for app in json.loads(answer.output)["apps"]}, None


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
