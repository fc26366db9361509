"""Names that steer a terminal: nothing of them is printed raw, wherever they come from, and the home screen is drawn."""
import json
import os
import plistlib
import pty
import re
import subprocess
import unicodedata
import zipfile

import pytest
from conftest import QRD, run, zip_of

# What a name is, as it stands in a list.
NAMES = {
    "escape": "A\x1b[2J\x1b]0;title\x07",
    "line-ends": "A\r\nqrd: all is well\n",
    "high-controls": "A\u009b2J\u0085B",
    "directions": "A\u202ejpg.exe\u2066\u2067\u2068\u2069\u200e\u200f\u061c",
    "separators": "A\u2028B\u2029C",
    "invisible": "A\u200bB\ufeff\u2060",
    "no-character": "A\uffff\ufdd0\ufffe",
    "only-no-character": "\uffff",
    "delete": "A\x7f\x08\x08",
    "wide": "日本語アプリ",
    "combining": "A" + "\u0301" * 300,
    "long": "A" * 100_000,
}
names = pytest.mark.parametrize("name", NAMES.values(), ids=NAMES)


def harmful(text):
    """The characters of a text that should not have been printed."""
    return {hex(ord(c)) for c in text
            if c != "\n" and (unicodedata.category(c) in ("Cc", "Zl", "Zp", "Cs") or 0xfdd0 <= ord(c) <= 0xfdef
                              or ord(c) & 0xfffe == 0xfffe or unicodedata.category(c) == "Cf" and c not in "\u200c\u200d")}


def expect_harmless(answer, lines=None):
    assert "\\x" not in answer.text, "it is no UTF-8: " + answer.text[:2000]
    assert not harmful(answer.text), answer.text[:2000]
    assert max(map(len, answer.text.split("\n"))) < 5000
    if lines is not None:
        assert answer.text.count("\n") == lines, answer.text[:2000]
    return answer


def expect_drawn(world):
    """What the machine's fonts do not have is told in a line."""
    answer = expect_harmless(run("screen", world.device, "-o", world.folder / "screen.png"))
    assert answer.code == 0 and answer.out.count("\n") == 1 and answer.err.count("\n") <= 1, answer.text


def on_terminal(*words):
    """What `qrd` shows on a terminal."""
    master, slave = pty.openpty()
    shown = b""
    environment = {**os.environ, "TERM": "xterm"}
    with subprocess.Popen([QRD, *words], stdout=slave, stderr=slave, env=environment) as process:
        os.close(slave)
        try:
            while True:
                shown += os.read(master, 65536)
        except OSError:
            pass  # the program has ended
    os.close(master)
    assert process.returncode == 0, shown
    return shown.decode().replace("\r\n", "\n")


def poison(path, changes):
    """Puts other files into an archive."""
    with zipfile.ZipFile(path) as archive:
        files = {entry: archive.read(entry) for entry in archive.namelist()}
    path.write_bytes(zip_of({**files, **changes}))


def info(name):
    """Facts with this name, as a list that can hold any text."""
    return plistlib.dumps({"BXBundleIdentifier": "org.example.kettle", "BXBundleVersion": name, "BXBundleExecutable": "Kettle",
                           "BXBundleDisplayName": name, "BXBundleIconFile": "Icon.png"}, fmt=plistlib.FMT_BINARY)


def metadata(name):
    return plistlib.dumps({"title": name, "bundleVersion": name, "bundleDisplayName": name, "itemName": name},
                          fmt=plistlib.FMT_BINARY)


@names
def test_the_display_name_of_an_app(world, name):
    path = world.add("Kettle")
    poison(path, {"Kettle.app/Info.plist": info(name), "TamblinMetadata.plist": metadata(name)})
    library = ["--library", world.library]
    expect_harmless(run("sync", world.device, *library, "--dry-run"), lines=3)
    expect_harmless(run("sync", world.device, *library))
    assert "org.example.kettle" in world.apps()
    expect_harmless(run("apps", world.device), lines=2)
    expect_drawn(world)
    listed = run("apps", world.device, "--json")
    assert listed.out.isascii() and not harmful(listed.out)
    assert json.loads(listed.out)["apps"][0]["name"] == name
    assert not harmful(run("log", world.device).text)
    assert run("log", world.device, "--json").out.isascii()
    expect_harmless(run("log", world.device, "--transactions"))


@names
def test_the_title_of_an_app_that_is_restored(world, name):
    path = world.add("Kettle")
    poison(path, {"TamblinMetadata.plist": metadata(name)})
    world.sync()
    backup = world.folder / "backup"
    expect_harmless(run("backup", world.device, "-o", backup), lines=1)
    expect_harmless(run("uninstall", world.device, "org.example.kettle"), lines=1)
    answer = expect_harmless(run("restore", world.device, "--from", backup))
    assert answer.code == 0 and "restored" in answer.out, answer.text
    expect_harmless(run("apps", world.device), lines=2)
    expect_drawn(world)


@names
def test_the_bars_of_a_sync(world, name):
    poison(world.add("Kettle"), {"Kettle.app/Info.plist": info(name), "TamblinMetadata.plist": metadata(name)})
    shown = on_terminal("sync", world.device, "--library", world.library)
    # What takes the bars away, and colours.
    bars = re.split(r"\r(?:\x1b\[[0-9]+A)?|\x1b\[J|\x1b\[(?:31|32|33|0)m", shown)
    assert len(bars) > 1 and not harmful("".join(bars)), shown[:2000]
    assert all(len(line) < 5000 for line in shown.split("\n"))


# What is given on the command line, or lies in a library: bytes that a file's name can hold.
FILE_NAMES = {
    "escape": b"A\x1b[2J\x1b]0;title\x07",
    "line-ends": b"A\r\nqrd: all is well\n",
    "high-controls": "A\u009b2J\u0085B".encode(),
    "directions": "A\u202ejpg.exe\u2066".encode(),
    "separators": "A\u2028B".encode(),
    "no-utf8": b"A\xff\x9b2J\xed\xa0\x80",
}
file_names = pytest.mark.parametrize("name", FILE_NAMES.values(), ids=FILE_NAMES)


@file_names
def test_the_name_of_a_file_in_a_library(world, name):
    (world.library / os.fsdecode(name + b".archive")).write_bytes(b"no archive")
    (world.library / os.fsdecode(name)).mkdir()
    for options in ("--dry-run",), ():
        expect_harmless(run("sync", world.device, "--library", world.library, *options), lines=None)
    answer = run("sync", world.device, "--library", world.library, "--json")
    assert answer.out.isascii() and not harmful(answer.out)


@file_names
def test_words_of_the_command_line(plain_world, name):
    device = plain_world.device
    absent = plain_world.folder / os.fsdecode(name)
    word = os.fsdecode(name)
    for command in (["launch", device, word], ["uninstall", device, word], ["demote", device, word],
                    ["cancel", device, word], ["prioritize", device, word], ["apps", absent], ["device", "create", absent],
                    ["status", absent], ["sync", device, "--library", absent], ["pack", absent, "-o", absent],
                    ["sync", device, "--library", plain_world.library, "--install", word, "--remove", word],
                    ["sync", device, "--library", plain_world.library, "--bandwidth", word],
                    ["sync", device, "--library", plain_world.library, "--plugin", absent],
                    ["restore", device, "--from", absent], ["backup", device, "-o", absent],
                    ["store", device, "--catalogue", absent], ["screen", device, "-o", absent],
                    ["plist", "check", absent], ["plist", "print", absent], ["plist", "convert", absent],
                    ["reset", absent, "--yes"]):
        expect_harmless(run(*command))
    for command in ([word], ["sync", device, "--" + word], ["apps", device, word], ["restore", device, "--type", word],
                    ["plist", word]):
        answer = expect_harmless(run(*command))
        assert answer.code == 2 and answer.err.count("\n") <= 2, answer.text


@names
def test_a_list_on_a_terminal_and_in_a_pipe(tmp_path, name):
    path = tmp_path / "list"
    path.write_bytes(plistlib.dumps({"name": name}, fmt=plistlib.FMT_BINARY))
    piped = run("plist", "print", path)
    expected = "".join("\ufffd" if c < " " and c not in "\t\r\n" or c in "\ufffe\uffff" else c for c in name)
    assert plistlib.loads(piped.out.encode()) == {"name": expected}
    shown = on_terminal("plist", "print", path)
    assert not harmful(shown.replace("\t", " "))
    assert plistlib.loads(shown.encode()) == {"name": expected}
