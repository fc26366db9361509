"""Runs `qrd` on a pseudo-terminal, and shows its screen as a person would see it: what stands there, not the bytes.

Nothing here sleeps: a test reads until the screen shows what it waits for. A sync is held by a bandwidth at which it would
take hours.
"""
import fcntl
import importlib.util
import os
import pathlib
import pty
import signal
import struct
import subprocess
import termios
import threading

import pyte
import pytest

finding = importlib.util.spec_from_file_location("worlds", pathlib.Path(__file__).parent.parent / "poison/conftest.py")
worlds = importlib.util.module_from_spec(finding)
finding.loader.exec_module(worlds)

QRD = os.environ["QRD"]
SECONDS = 120  # after which something hangs
PROMPT = "$ before"
CTRL_C = b"\x03"


class WrappingScreen(pyte.Screen):
    """A terminal that wraps its lines anew when its window becomes narrower; the other kind cuts them."""

    def resize(self, lines=None, columns=None):
        if columns == self.columns:
            return
        rows, cursor = [], (0, 0)
        for number, row in enumerate(self.display):
            text = row.rstrip()
            if number == self.cursor.y:
                text = text.ljust(self.cursor.x)
                cursor = len(rows) + self.cursor.x // columns, self.cursor.x % columns
            rows += [text[start:start + columns] for start in range(0, len(text), columns)] or [""]
        while len(rows) > self.lines and not rows[-1]:
            rows.pop()
        scrolled = max(0, len(rows) - self.lines)
        super().resize(columns=columns)
        self.buffer.clear()
        for number, text in enumerate(rows[scrolled:]):
            for place, character in enumerate(text):
                self.buffer[number][place] = self.default_char._replace(data=character)
        self.cursor.y, self.cursor.x = cursor[0] - scrolled, cursor[1]


class Terminal:
    """A terminal on which one command runs."""

    def __init__(self, *words, columns=80, rows=24, screen=pyte.Screen, environment=None):
        self.screen = screen(columns, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.stream.feed(PROMPT.encode() + b"\r\n")
        self.bytes = b""
        self.hasEnded = False
        self.master, slave = pty.openpty()
        self._set_size(columns, rows)
        variables = {key: value for key, value in os.environ.items() if key not in ("NO_COLOR", "COLUMNS", "LINES")}
        variables = {**variables, "TERM": "xterm-256color", **(environment or {})}

        def take_terminal():
            os.setsid()
            fcntl.ioctl(slave, termios.TIOCSCTTY, 0)

        self.process = subprocess.Popen([QRD, *map(str, words)], stdin=slave, stdout=slave, stderr=slave,
                                        env={key: value for key, value in variables.items() if value is not None},
                                        preexec_fn=take_terminal)
        os.close(slave)
        self.timer = threading.Timer(SECONDS, self.process.kill)
        self.timer.start()

    def _set_size(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def resize(self, columns):
        """As somebody who draws at the window's edge: the terminal first, then the program learns it."""
        self.screen.resize(columns=columns)
        self._set_size(columns, self.screen.lines)

    def type(self, keys):
        os.write(self.master, keys)

    def lines(self):
        """What stands on the screen, without what is empty below."""
        return "\n".join(line.rstrip() for line in self.screen.display).rstrip("\n").split("\n")

    def line_with(self, text):
        """The only line with this text; None if there is none."""
        found = [line for line in self.lines() if text in line]
        assert len(found) <= 1, f"it stands there {len(found)} times:\n" + "\n".join(self.lines())
        return found[0] if found else None

    def read(self):
        """Shows what comes next; False when nothing does any more."""
        try:
            piece = os.read(self.master, 65536)
        except OSError:
            piece = b""
        self.hasEnded = self.hasEnded or not piece
        self.bytes += piece
        self.stream.feed(piece)
        return bool(piece)

    def until(self, shows):
        """Reads until that holds of the screen."""
        while not shows():
            assert self.read(), f"it ended with {self.process.wait()} and shows\n" + "\n".join(self.lines())

    def end(self):
        """Reads to the end; how the command ended."""
        while self.read():
            pass
        self.process.wait()
        hangs = not self.timer.is_alive()
        self.timer.cancel()
        os.close(self.master)
        assert not hangs, "it did not end, and shows\n" + "\n".join(self.lines())
        return self.process.returncode

    def interrupt(self):
        """As Ctrl-C; how the command ended."""
        self.type(CTRL_C)
        return self.end()


@pytest.fixture
def world(tmp_path):
    """A device, and a library of two apps, of which the first is large."""
    made = worlds.World(tmp_path)
    made.create()
    made.add("Harbor", files={"Maps": os.urandom(3_000_000)})
    made.add("Kettle")
    return made


@pytest.fixture
def start():
    """Starts a command on a terminal, which does not outlive the test."""
    started = []

    def begin(*words, **options):
        started.append(Terminal(*words, **options))
        return started[-1]

    yield begin
    for terminal in started:
        terminal.timer.cancel()
        if terminal.process.poll() is None:
            terminal.process.send_signal(signal.SIGKILL)
            terminal.process.wait()


@pytest.fixture
def held_sync(world, start):
    """Starts a sync that would take minutes, and waits until it is under way."""
    def begin(*options, **terminal):
        made = start("sync", world.device, "--library", world.library, "--bandwidth", "20kB/s", *options, **terminal)
        made.until(lambda: "%" in (made.line_with(" apps") or ""))
        return made

    return begin
