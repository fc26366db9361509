"""Transcripts: texts that hold commands behind "$ " and what they print, run again and written anew.

A transcript is a story in one folder and one shell. A command that ends with " &" runs on beside the next ones, from
when a line of it begins with "sending", or with the word of a comment `# until it says "WORD"`; what it prints stands
with the `wait $!` that ends it.
"""
import os
import pathlib
import re
import subprocess
import threading

QRD = pathlib.Path(os.environ["QRD"]).resolve()
SOURCES = pathlib.Path(__file__).resolve().parents[2]
WAIT = 300  # seconds, until a transcript is taken for stuck

# What changes from run to run, the word that stands for it, and why it changes. Everything else counts to the letter.
MASKS = [
    (r"\(process \d+\)", "(process PID)", "the system numbers processes"),
    (r"\bkill \d+", "kill PID", "the system numbers processes"),
    (r'"process": ?\d+', '"process": PID', "the system numbers processes"),
    (r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?(Z|[+-]\d\d:\d\d)", "TIME", "the clock, in JSON"),
    (r"(\d{4}-\d\d-\d\d )?\b\d\d:\d\d:\d\d\b", "HH:MM:SS", "the clock; with the date when midnight was between"),
    (r"(?<=since )(\S+ )?\d\d:\d\d", "HH:MM", "the clock"),
    (r"(?<= in )(\d+\.\d s|\d+ min \d+ s)$", "DURATION", "how fast the machine is"),
    (r"(\d+ of \d+ apps?, ).+(?= in DURATION$)", r"\1SIZE", "an end before the end comes at any byte"),
    (r"(?<= and has )[\d.]+ \w+(?= free)", "SIZE", "how full the disk is"),
    (r'("bytesFree": ?)\d+', r"\1BYTES", "how full the disk is"),
    (r"\b\d+%(  +)?", lambda found: "N%".ljust(len(found[0])) if found[1] else "N%", "how far a transfer is"),
    (r'("(?:fraction|progress)": ?)[\d.e-]+', r"\1FRACTION", "how far a transfer is"),
    (r'^(\{.*"event":"app".*\n)\1+', r"\1", "progress is told as often as there is time for it"),
    (r"127\.0\.0\.1:\d+/\?token=[0-9a-f]{32}$", "127.0.0.1:PORT/?token=TOKEN", "each run of it draws its own"),
    (r"\b[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\b", "CONTAINER", "the device draws the names of containers"),
]

EVENT = re.compile(r"(?:sending|done|failed|waiting|cancelled) +([^ :]+)")


def in_order(lines):
    """Installs run beside transfers, so the events of different apps come in any order; those of one app do not."""
    made, run = [], []

    def end_run():
        run.sort(key=lambda line: EVENT.match(line)[1])
        made.extend(run)
        run.clear()

    for line in lines:
        if EVENT.match(line):
            run.append(line)
        else:
            end_run()
            made.append(line)
    end_run()
    return made


def masked(text, folder=None):
    """A text without what changes from run to run."""
    text = text.replace(str(folder), "FOLDER") if folder else text
    for pattern, word, _ in MASKS:
        text = re.sub(pattern, word, text, flags=re.MULTILINE)
    return "\n".join(in_order(text.split("\n")))


PRELUDE = f"""
mkdir -p library
# app NAME [VERSION [BYTES]]: packs an app that `qrd pack --init` makes, larger by so many bytes
app() {{
    [ -d "$1.app" ] || qrd pack --init "$1"
    sed -i "/BXBundleVersion/{{n;s|>.*<|>${{2:-1.0}}<|}}" "$1.app/Info.plist"
    [ -z "$3" ] || head -c "$3" /dev/urandom >"$1.app/bytes"
    qrd pack "$1.app" -o "library/$1.zip"
}} >/dev/null 2>&1
# example NAME: packs an app of examples/apps, with an icon and an account
example() {{ qrd pack "{SOURCES}/examples/apps/$1" -o "library/$1.archive"; }} >/dev/null
# device NAME [OPTION...]: makes a device
device() {{ qrd device create "$@"; }} >/dev/null
quietly() {{ "$@"; }} >/dev/null 2>&1
# bring DEVICE APP...: syncs one after the other, since a device lists its apps in the order in which installs end
bring() {{ for app in "${{@:2}}"; do qrd sync "$1" --library library --install $app || return; done; }} >/dev/null
# data DEVICE APP: something that the app has kept
data() {{ (d=$1/var/mobile/Containers/Data/Application/org.example.$2; mkdir -p $d && echo "Hello from $2." >$d/note.txt); }}
"""


class Shell:
    """Bash in a folder, asked one command after the other."""

    def __init__(self, folder):
        self.folder, self.notes = folder / "story", folder / "notes"
        self.folder.mkdir()
        self.notes.mkdir()
        kept = {name: value for name, value in os.environ.items() if not name.startswith(("LC_", "LANG", "QRD"))}
        for name in ("TERM", "NO_COLOR", "COLUMNS", "LINES"):
            kept.pop(name, None)
        env = {**kept, "PATH": f"{QRD.parent}:{os.environ['PATH']}", "LC_ALL": "C.UTF-8", "TZ": "UTC",
               "HOME": str(self.folder)}
        reading, writing = os.pipe()
        self._bash = subprocess.Popen(["bash", "--noprofile", "--norc"], stdin=subprocess.PIPE, text=True,
                                      cwd=self.folder, env=env, pass_fds=[writing], start_new_session=True)
        os.close(writing)
        self._codes, self._code_to = os.fdopen(reading), writing
        self._beside = None  # what runs beside, and what it has printed
        self._watch = threading.Timer(WAIT, self._bash.kill)
        self._watch.start()
        os.mkfifo(self.notes / "beside")

    def tell(self, text):
        """Has it do something of which nothing is looked at."""
        self._bash.stdin.write(text + "\n")
        self._bash.stdin.flush()

    def run(self, command):
        """What it prints to either stream, and its exit code."""
        if beside := re.fullmatch(r'(.*) &(?: # until it says "(\w+)")?', command):
            return self._begin(beside[1], beside[2] or "sending")
        self.tell(f"{{ (exit $code_)\n{command}\n}} >{self.notes}/out 2>{self.notes}/err </dev/null; code_=$?\n"
                  f"echo $code_ >&{self._code_to}")
        line = self._codes.readline()
        assert line, f"the shell has ended, or was ended after {WAIT} s, in: {command}"
        out, err = (self.notes / "out").read_text(), (self.notes / "err").read_text()
        if command.startswith("wait ") and self._beside:
            stream, said = self._beside
            self._beside = None
            out, err = said + stream.read() + out, (self.notes / "beside.err").read_text() + err
            stream.close()
        return out, err, int(line)

    def _begin(self, command, word):
        assert not self._beside, f"one command beside the others is enough: {command}"
        self.tell(f"{command} >{self.notes}/beside 2>{self.notes}/beside.err </dev/null &")
        stream, said = open(self.notes / "beside"), ""
        for line in iter(stream.readline, ""):
            said += line
            if re.match(rf"{word}\b", line):
                break
        self._beside = stream, said
        return "", "", 0

    def end(self):
        """Ends the apps that run on devices, too: they are processes that outlive the shell."""
        for root in self.folder.glob("*/device-root"):
            for busy in root.parent.glob("var/run/apps/*.busy"):
                busy.unlink()
            for app in root.parent.glob("var/run/apps/*.run"):
                subprocess.run([QRD, "quit", root.parent, app.stem], capture_output=True, check=False)
        self._watch.cancel()
        self._bash.stdin.close()
        if self._beside:
            self._bash.kill()
            self._beside[0].close()
        self._bash.wait()
        self._codes.close()


def lines_of(text, mark=""):
    """Its lines, marked; a last one without an end says so."""
    if not text:
        return []
    lines = text.split("\n")
    tail = lines.pop()
    return [mark + line for line in lines] + ([mark + tail + "[no line end]"] if tail else [])


def golden_answer(answer, folder):
    """Standard output as it is, standard error behind "! ", and an exit code other than 0."""
    out, err, code = answer
    lines = lines_of(masked(out, folder)) + lines_of(masked(err, folder), "! ") + ([f"[exit {code}]"] if code else [])
    assert not any(line.startswith(("$ ", "# ")) for line in lines), lines
    return lines


def replay(text, shell):
    """The transcript as it comes out now: its commands and comments, with what is printed now."""
    made = []
    for line in text.split("\n"):
        if line.startswith("# "):
            made += [line]
        elif line.startswith("$ "):
            if made and made[-1].startswith("# "):
                made.append("")
            made += [line, *golden_answer(shell.run(line[2:]), shell.folder), ""]
    return "\n".join(made).rstrip("\n") + "\n"


# Where the examples of a document are, for its reader.
READERS_FOLDER = "/home/ada/apps"


def plain_answer(answer, folder):
    """What a terminal would show."""
    return [line.replace(str(folder), READERS_FOLDER) for line in lines_of(answer[0]) + lines_of(answer[1])]


def replay_examples(document, shell):
    """A document as it comes out now. Examples that differ in nothing that counts stay as they are."""
    def again(found):
        old = found[1]
        new = "\n".join(line for command in re.findall(r"^\$ (.*)\n", old, re.MULTILINE)
                        for line in ["$ " + command, *plain_answer(shell.run(command), shell.folder)]) + "\n"
        return f"```console\n{old if masked(old) == masked(new) else new}```\n"
    return re.sub(r"^```console\n(.*?)^```\n", again, document, flags=re.MULTILINE | re.DOTALL)
