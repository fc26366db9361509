"""The other commands that draw: `status --follow`, `restore` and `store`."""
import os
import re
import shutil
import signal
import subprocess

import pyte
import pytest
from conftest import PROMPT, QRD, WrappingScreen, worlds

TABLE = ["App", "Stage", "Sent", "Reason"]


@pytest.fixture
def sync_beside(world):
    """A sync that would take minutes, as somebody else has started it."""
    process = subprocess.Popen([QRD, "sync", world.device, "--library", world.library, "--bandwidth", "20kB/s"],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert process.stdout.readline().startswith("sending Harbor")
    yield process
    process.send_signal(signal.SIGINT)
    process.communicate(timeout=worlds.SECONDS)


def sent(terminal):
    """What the last line says of it; None when it is not there yet."""
    found = re.fullmatch(r"0 of 2 apps are done, ([0-9]+)% is sent", terminal.lines()[-1])
    return int(found[1]) if found else None


@pytest.mark.parametrize("screen", [pyte.Screen, WrappingScreen], ids=["cutting", "wrapping"])
def test_who_follows_a_sync_sees_it_in_one_place(world, sync_beside, start, screen):
    terminal = start("status", world.device, "--follow", screen=screen)
    terminal.until(lambda: sent(terminal) is not None)
    first = sent(terminal)
    terminal.until(lambda: (sent(terminal) or 0) > first)
    terminal.resize(36)
    drawn = len(terminal.bytes)
    terminal.until(lambda: b"\x1b[J" in terminal.bytes[drawn:] and terminal.bytes.endswith((b"A", b"\r")))
    shown = terminal.lines()
    assert shown[0] == PROMPT and shown[1].split() == TABLE and len(shown) == 5, shown
    assert shown[2].startswith("Harbor  transferring") and shown[3].startswith("Kettle  queued")
    assert terminal.interrupt() == 130
    shown = terminal.lines()
    assert shown[0] == PROMPT and shown[1].split() == TABLE and len(shown) == 5, "the last state stays"
    assert "^C" not in "".join(shown)
    assert (terminal.screen.cursor.y, terminal.screen.cursor.x) == (5, 0)


def test_a_low_window_shows_what_it_has_room_for(world, sync_beside, start):
    terminal = start("status", world.device, "--follow", rows=3)
    terminal.until(lambda: sent(terminal) is not None)
    shown = terminal.lines()
    assert shown[0].split() == TABLE and shown[1] == "and 2 more" and len(shown) == 3, shown
    assert terminal.interrupt() == 130


def test_the_end_of_a_sync_ends_following_it(world, sync_beside, start):
    terminal = start("status", world.device, "--follow")
    terminal.until(lambda: sent(terminal) is not None)
    sync_beside.send_signal(signal.SIGINT)
    assert terminal.end() == 0
    assert terminal.lines()[1].split() == TABLE and len(terminal.lines()) == 5


@pytest.fixture
def backup(world):
    """A backup of both apps, and a device that has nothing."""
    assert world.sync().code == 0
    data = world.device / "var/mobile/Containers/Data/Application/org.example.harbor"
    data.mkdir(parents=True, exist_ok=True)
    (data / "letters").write_bytes(b"x" * 500_000)
    assert worlds.run("backup", world.device, "-o", world.folder / "backup").code == 0
    world.device = world.folder / "another"
    world.create()
    return world.folder / "backup"


def test_a_restore_and_the_store_show_their_work_as_a_sync_does(world, backup, start):
    for words, result in ((["restore", world.device, "--from", backup], "`qrd store` brings it."),
                          (["store", world.device, "--catalogue", world.library], "installed")):
        terminal = start(*words)
        assert terminal.end() == 0
        assert re.search(rb"0 of 2 apps \[\.+\] +0%  0\.0 of [0-9.]+ .B\r", terminal.bytes), "the first bars"
        shown = terminal.lines()
        assert shown[0] == PROMPT and sorted(shown[1:3]) == ["done    Harbor", "done    Kettle"], shown
        assert re.fullmatch(r"2 apps, [0-9.]+ .?B in [0-9.]+ s", shown[3]), shown
        assert shown[4].split() == ["App", "Version", "Result", "Reason"]
        assert [line.split("  ")[0] for line in shown[5:]] == ["Harbor", "Kettle"]
        assert all(line.endswith(result) for line in shown[5:]), shown


def test_a_restore_that_is_interrupted_says_so_and_can_be_repeated(world, backup, start):
    letters = backup / "Data/org.example.harbor/letters"
    assert letters.exists()
    copies = letters.parent / "copies"
    copies.mkdir()
    letters.write_bytes(b"x" * 20_000_000)
    for number in range(1000):
        os.link(letters, copies / str(number))  # 20 GB to copy, and hardly any to make
    terminal = start("restore", world.device, "--from", backup)
    terminal.until(lambda: re.search(r"0 of 2 apps \[", terminal.lines()[-1]))
    assert terminal.interrupt() == 130
    shown = terminal.lines()
    assert shown[0] == PROMPT and shown[1].startswith("0 of 2 apps, "), shown
    assert shown[2].split() == ["App", "Version", "Result", "Reason"], shown
    assert [line.split()[0::2][:2] for line in shown[3:5]] == [["Harbor", "waiting"], ["Kettle", "waiting"]], shown
    assert shown[5:] == ["qrd: interrupted; restore again to go on"], shown
    shutil.rmtree(copies)
    again = worlds.run("restore", world.device, "--from", backup)
    assert again.code == 0, again.text
