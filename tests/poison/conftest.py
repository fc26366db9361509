"""Runs `qrd` on poisoned things, within limits of memory and time.

However a command is poisoned, it ends by itself within the limits, by no signal, and says in a sentence what is wrong; that
holds for every run here. What else must come of a poison stands in the tables of the tests.
"""
import dataclasses
import io
import json
import os
import pathlib
import plistlib
import resource
import signal
import subprocess
import threading
import zipfile

import pytest

QRD = os.environ["QRD"]
IS_SANITIZED = os.environ.get("SANITIZED") == "1"  # sanitizers take memory and time of their own
SECONDS = 120 if IS_SANITIZED else 30
MEGABYTES = 150  # of memory that a command may take, unless a test says otherwise

# A picture of one point.
ICON = bytes.fromhex(
    "89504e470d0a1a0a0000000d49484452000000010000000108060000001f15c4890000000d49444154789c63706838f0"
    "1f00050402803c9e03800000000049454e44ae426082")


@dataclasses.dataclass
class Answer:
    """How a command ended."""
    code: int
    out: str  # what is no UTF-8 in it is escaped
    err: str
    megabytes: float  # at most, of memory

    @property
    def text(self):
        return self.out + self.err

    def report(self):
        """What it printed as JSON."""
        return json.loads(self.out)

    def results(self):
        """What a sync's report calls the outcome of each app."""
        return {app["identifier"]: app["result"] for app in self.report()["apps"]}


def run(*words, megabytes=MEGABYTES, limit=None, environment=None, stdin=subprocess.DEVNULL, **options):
    """Runs `qrd` with these words. With `limit` the kernel gives it no more than so many megabytes of address space."""
    def confine():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        if limit and not IS_SANITIZED:
            resource.setrlimit(resource.RLIMIT_AS, (limit << 20, limit << 20))

    process = subprocess.Popen([QRD, *map(str, words)], stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               env={**os.environ, **(environment or {})}, preexec_fn=confine, **options)
    errors = io.BytesIO()
    reader = threading.Thread(target=lambda: errors.write(process.stderr.read()))
    reader.start()
    timer = threading.Timer(SECONDS, process.kill)
    timer.start()
    out = process.stdout.read()
    reader.join()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    hangs = not timer.is_alive()
    timer.cancel()
    process.stdout.close()
    process.stderr.close()
    answer = Answer(process.returncode, out.decode(errors="backslashreplace"),
                    errors.getvalue().decode(errors="backslashreplace"), usage.ru_maxrss / 1024)
    said = f"`qrd {' '.join(map(str, words))}`: {answer.code}\n{answer.text[-4000:]}"
    assert not hangs, f"it did not end within {SECONDS} s: {said}"
    assert answer.code >= 0, f"it was ended by {signal.Signals(-answer.code).name}: {said}"
    assert "Sanitizer" not in answer.err and "runtime error" not in answer.err, said
    assert answer.code == 0 or answer.text.strip(), f"it failed without a word: {said}"
    assert IS_SANITIZED or answer.megabytes <= megabytes, f"it took {answer.megabytes:.0f} MB: {said}"
    return answer


def app_files(name, version="1.0", info=None, files=None):
    """The content of an app's archive: bytes by path. `info` is added to its Info.plist, `files` to its folder."""
    facts = {"BXBundleIdentifier": "org.example." + name.lower(), "BXBundleVersion": version,
             "BXBundleExecutable": name, "BXBundleDisplayName": name, "BXBundleIconFile": "Icon.png", **(info or {})}
    return {f"{name}.app/Info.plist": plistlib.dumps(facts),
            f"{name}.app/{name}": f"#!/bin/sh\necho {name} {version}\n".encode(),
            f"{name}.app/Icon.png": ICON,
            **{f"{name}.app/{path}": content for path, content in (files or {}).items()},
            "TamblinMetadata.plist": plistlib.dumps({"title": name, "bundleVersion": version}),
            "TamblinArtwork": ICON}


def zip_of(files):
    """An archive with these files."""
    made = io.BytesIO()
    with zipfile.ZipFile(made, "w", zipfile.ZIP_DEFLATED) as archive:
        for path, content in files.items():
            archive.writestr(zipfile.ZipInfo(path), content, zipfile.ZIP_DEFLATED, 9)
    return made.getvalue()


class World:
    """A device and a library in a folder of their own."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.library = self.folder / "library"
        self.library.mkdir()
        self.device = self.folder / "device"

    def create(self, *options):
        assert run("device", "create", self.device, *options).code == 0

    def add(self, name, version="1.0", info=None, files=None, archive=None):
        """Puts an app's archive into the library; its path."""
        path = self.library / ((archive or name) + ".archive")
        path.write_bytes(zip_of(app_files(name, version, info, files)))
        return path

    def sync(self, *options, **limits):
        return run("sync", self.device, "--library", self.library, "--json", *options, **limits)

    def listed(self):
        """What `qrd apps` says of each app, by identifier."""
        return {app["identifier"]: app for app in run("apps", self.device, "--json").report()["apps"]}

    def apps(self):
        """The versions of the apps that are installed, by identifier."""
        return {identifier: app["version"] for identifier, app in self.listed().items() if app["installed"]}


@pytest.fixture(params=[[], ["--no-coordination"]], ids=["coordinated", "own"])
def world(request, tmp_path):
    """A device of either kind."""
    made = World(tmp_path)
    made.create(*request.param)
    return made


@pytest.fixture
def plain_world(tmp_path):
    """A device with coordination, where its kind makes no difference."""
    made = World(tmp_path)
    made.create()
    return made
