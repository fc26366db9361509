"""What a sync shows on terminals of any width and kind, and what it leaves there."""
import os
import plistlib
import re
import signal

import pyte
import pytest
from conftest import CTRL_C, PROMPT, WrappingScreen, worlds

screens = pytest.mark.parametrize("screen", [pyte.Screen, WrappingScreen], ids=["cutting", "wrapping"])



@pytest.mark.parametrize("columns", [20, 30, 40, 60, 80, 120, 200])
def test_the_bars_fit_in_the_window(held_sync, columns):
    terminal = held_sync(columns=columns)
    terminal.until(lambda: re.search(r"[1-9]%", terminal.line_with(" apps") or ""))
    before, app, whole = terminal.lines()
    assert before == PROMPT
    assert app.startswith("Harbor") and len(app) < columns
    assert whole.startswith("0 of 2 apps") and len(whole) < columns
    assert ("[" in whole) == (columns >= 30)
    assert ("kB/s" in whole) == (columns >= 80)
    assert terminal.interrupt() == 130


@screens
@pytest.mark.parametrize("sizes", [(100, 40), (40, 100), (200, 20), (80, 30, 120, 25), (60, 59)])
def test_a_window_that_changes_its_size_shows_the_bars_once(held_sync, screen, sizes):
    terminal = held_sync(columns=sizes[0], screen=screen)
    for columns in sizes[1:]:
        terminal.resize(columns)
        drawn = len(terminal.bytes)
        terminal.until(lambda: b"\x1b[J" in terminal.bytes[drawn:] and terminal.bytes.endswith((b"A", b"\r")))
        shown = terminal.lines()
        assert shown[-2].startswith("Harbor") and shown[-1].startswith("0 of 2 apps"), shown
        assert shown[:-2] == [PROMPT], shown
        assert max(map(len, shown[-2:])) < columns
    assert terminal.interrupt() == 130
    assert "[#" not in "".join(terminal.lines()) and "%" not in "".join(terminal.lines())


@screens
def test_ctrl_c_leaves_nothing_but_the_report(held_sync, screen):
    terminal = held_sync(screen=screen)
    assert terminal.interrupt() == 130
    shown = terminal.lines()
    assert shown[0] == PROMPT
    assert "^C" not in "".join(shown) and "%" not in "".join(shown), shown
    assert shown[-1] == "qrd: interrupted; sync again to go on"
    assert terminal.screen.cursor.x == 0


def test_a_second_signal_ends_it_at_once_and_takes_the_bars_away(held_sync):
    terminal = held_sync()
    terminal.process.send_signal(signal.SIGSTOP)
    terminal.type(CTRL_C)
    terminal.process.send_signal(signal.SIGTERM)
    terminal.process.send_signal(signal.SIGCONT)  # both have come before anything else
    assert terminal.end() in (-signal.SIGINT, -signal.SIGTERM)
    assert terminal.lines() == [PROMPT]
    assert terminal.screen.cursor.x == 0


@pytest.mark.parametrize("rows", [1, 2, 3, 5])
def test_there_are_never_more_lines_than_the_window_has(held_sync, rows):
    terminal = held_sync(rows=rows)
    terminal.until(lambda: terminal.line_with("apps") and (rows < 2 or terminal.line_with("Harbor")))
    assert len(terminal.lines()) <= rows
    terminal.interrupt()


def test_the_end_is_a_line_and_a_table(world, start):
    terminal = start("sync", world.device, "--library", world.library)
    assert terminal.end() == 0
    shown = terminal.lines()
    assert shown[0] == PROMPT and sorted(shown[1:3]) == ["done    Harbor", "done    Kettle"]
    assert re.fullmatch(r"2 apps, 3\.0 MB in [0-9.]+ s", shown[3])
    assert shown[4].split() == ["App", "Version", "Result", "Reason"] and len(shown) == 7
    for row in (1, 2):
        assert terminal.screen.buffer[row][0].fg == "green"
    assert terminal.screen.buffer[6][shown[6].index("installed")].fg == "green"


def test_a_failure_is_red_and_its_reason_keeps_within_the_window(world, start):
    archive = world.library / "Harbor.archive"
    content = bytearray(archive.read_bytes())
    content[len(content) // 2] ^= 255
    archive.write_bytes(content)
    terminal = start("sync", world.device, "--library", world.library, columns=60)
    assert terminal.end() == 1
    shown = terminal.lines()
    row = next(number for number, line in enumerate(shown) if line.startswith("failed"))
    assert terminal.screen.buffer[row][0].fg == "red"
    table = shown[next(number for number, line in enumerate(shown) if line.startswith("App")):]
    assert table[1].startswith("Harbor") and "failed" in table[1]
    assert table[2].startswith(" " * table[0].index("Reason")), "the reason goes on beneath itself"
    assert all(line.split(" ")[0] in ("App", "Harbor", "Kettle", "") for line in table), table


# What makes a terminal one on which nothing is drawn.
PLAIN = {"dumb": {"TERM": "dumb"}, "unknown": {"TERM": None}, "no-colour": {"NO_COLOR": "1"}}


@pytest.mark.parametrize("environment", PLAIN.values(), ids=PLAIN)
def test_plain_terminals_get_plain_lines(world, start, environment):
    terminal = start("sync", world.device, "--library", world.library, environment=environment)
    assert terminal.end() == 0
    assert b"\x1b" not in terminal.bytes
    assert terminal.lines()[1] == "sending Harbor (3.0 MB)"


NAMES = {
    "wide": "日本語のアプリケーション",
    "combining": "e\u0301" * 12,
    "emoji": "\U0001f600\U0001f527 Kettle",
    "hostile": "A\x1b[2J\r\n\x1b]0;title\x07\u202eB",
}


@pytest.mark.parametrize("columns", [20, 50, 90])
@pytest.mark.parametrize("name", NAMES.values(), ids=NAMES)
def test_names_of_any_kind_keep_the_bars_in_their_places(world, start, name, columns):
    (world.library / "Kettle.archive").unlink()
    files = worlds.app_files("Harbor", files={"Maps": os.urandom(3_000_000)})
    info = {**plistlib.loads(files["Harbor.app/Info.plist"]), "BXBundleDisplayName": name}
    files["Harbor.app/Info.plist"] = plistlib.dumps(info, fmt=plistlib.FMT_BINARY)  # which can hold any text
    (world.library / "Harbor.archive").write_bytes(worlds.zip_of(files))
    terminal = start("sync", world.device, "--library", world.library, "--bandwidth", "20kB/s", columns=columns)
    terminal.until(lambda: len(terminal.lines()) == 3 and terminal.lines()[2].startswith("0 of 1 app"))
    shown = terminal.lines()
    assert shown[0] == PROMPT and "%" in shown[1], shown
    if columns > 36:
        cells = terminal.screen.buffer[1]
        assert cells[shown[2].index("[")].data == "[", shown
    assert terminal.interrupt() == 130
