"""What bash completes of a command of `qrd`: typed at a bash on a terminal, and looked at when it is carried out."""
import os
import pathlib
import pty
import subprocess

import pytest

QRD = pathlib.Path(os.environ["QRD"])
SCRIPT = pathlib.Path(__file__).parents[2] / "packaging/qrd.bash"


def completed(folder, typed):
    """The command that stands there after a tab. An "echo" before it has bash print it."""
    terminal, bash_side = pty.openpty()
    bash = subprocess.Popen(["bash", "--norc", "--noprofile", "-i"], stdin=bash_side, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, cwd=folder, start_new_session=True,
                            env={"PATH": f"{QRD.parent}:{os.environ['PATH']}", "TERM": "dumb", "HISTFILE": ""})
    os.close(bash_side)
    to_start = "\x01"
    os.write(terminal, f"source {SCRIPT}\n{typed}\t{to_start}echo \nexit\n".encode())
    printed, _ = bash.communicate(timeout=120)
    os.close(terminal)
    return printed.decode().strip()


@pytest.mark.parametrize("typed, expected", {
    "qrd sy": "qrd sync",
    "qrd plist con": "qrd plist convert",
    "qrd help prio": "qrd help prioritize",
    "qrd sync phone --dry": "qrd sync phone --dry-run",
    "qrd sync phone --library lib": "qrd sync phone --library library/",
    "qrd pack Not": "qrd pack Notes.app/",
    "qrd screen phone --out": "qrd screen phone --output",
    "qrd device create --no": "qrd device create --no-coordination",
    "qrd plist check Notes.app/Info": "qrd plist check Notes.app/Info.plist",
    "qrd launch phone org": "qrd launch phone org.example.notes",
    "qrd sync screen --rem": "qrd sync screen --remove",
    "qrd nonsense": "qrd nonsense",
}.items())
def test_a_word_is_completed(tmp_path, typed, expected):
    subprocess.run("qrd pack --init Notes && mkdir library && qrd pack Notes.app -o library/Notes.zip && "
                   "qrd device create phone && qrd sync phone --library library", shell=True, check=True, cwd=tmp_path,
                   capture_output=True, env={"PATH": f"{QRD.parent}:{os.environ['PATH']}"})
    assert completed(tmp_path, typed) == expected
