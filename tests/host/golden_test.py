"""What `qrd` prints, to the letter: the transcripts of golden/ come out as they stand there."""
import difflib
import os
import pathlib
import re
import subprocess

import pytest
from golden_transcript import PRELUDE, QRD, SOURCES, Shell, replay, replay_examples

GOLDEN = pathlib.Path(__file__).with_name("golden")
WRITE = os.environ.get("GOLDEN") == "write"


def hold(path, old, new):
    """A file's text against what comes out now; GOLDEN=write makes that the file's text."""
    if WRITE:
        path.write_text(new)
        return
    differences = "\n".join(difflib.unified_diff(old.split("\n"), new.split("\n"),
                                                 f"{path.relative_to(SOURCES)}, as it stands", "as it comes out now",
                                                 lineterm=""))
    if differences:
        pytest.fail(f"{differences}\n\nIf this is as it should be, have all such files written anew with\n"
                    f"    GOLDEN=write ./test Programs.golden\nand look at `git diff` before you commit.", pytrace=False)


@pytest.fixture
def shell(tmp_path):
    made = Shell(tmp_path)
    yield made
    made.end()


@pytest.mark.parametrize("path", sorted(GOLDEN.glob("*.txt")), ids=lambda path: path.stem)
def test_a_transcript_comes_out_as_it_stands(path, shell):
    old = path.read_text()
    shell.tell(PRELUDE)
    hold(path, old, replay(old, shell))


@pytest.mark.parametrize("name", ["commands.md", "files.md"])
def test_the_examples_of_a_document_are_real(name, shell):
    path = SOURCES / "docs" / name
    old = path.read_text()
    hold(path, old, replay_examples(old, shell))


def help_of(*words):
    return subprocess.run([QRD, *words, "--help"], capture_output=True, text=True, check=True).stdout


def commands(*words):
    """What the help lists, with what the help of each of those lists."""
    found = re.findall(r"^  ([a-z]+) ", help_of(*words), re.MULTILINE)
    return [command for name in found for command in commands(*words, name) or [(*words, name)]]


@pytest.mark.parametrize("words", commands(), ids=" ".join)
def test_every_command_has_its_transcript(words):
    """Its help, a success, a refusal, and its JSON if it has any."""
    calls = re.findall(rf"^\$ (?:.*&& )?qrd {' '.join(words)}\b(.*)\n((?:(?!\$ ).*\n)*)",
                       "\n".join(path.read_text() for path in sorted(GOLDEN.glob("*.txt"))), re.MULTILINE)
    assert any("--help" in options for options, _ in calls), "its --help"
    assert any("--help" not in options and "[exit " not in said for options, said in calls), "that it is done"
    assert any("[exit " in said for _, said in calls), "that it is refused"
    if "--json" in help_of(*words):
        assert any("--json" in options and said.startswith("{") for options, said in calls), "its --json"


@pytest.mark.parametrize("words", commands(), ids=" ".join)
def test_the_reference_names_every_command_and_option(words):
    text = (SOURCES / "docs/commands.md").read_text()
    assert f"qrd {' '.join(words)}" in text
    for option in re.findall(r"^  (-[\w,-]+)", help_of(*words), re.MULTILINE):
        assert option == "-h,--help" or re.search(rf"(?<![\w-])({option.replace(',', '|')})(?![\w-])", text), option


DOCUMENTS = [SOURCES / "README.md", *sorted((SOURCES / "docs").glob("*.md"))]


def anchor_of(heading):
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.stem)
def test_a_link_of_a_document_leads_somewhere(path):
    for target, anchor in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", path.read_text()):
        there = path.parent / target if target else path
        assert there.exists(), target
        if anchor:
            assert anchor in map(anchor_of, re.findall("^#+ (.*)$", there.read_text(), re.MULTILINE)), anchor


def named_paths():
    """The paths of the tables in docs/files.md: what a file of a device may be called."""
    rows = re.findall(r"^\| ((?:`/[^`]*` ?)+)\|", (SOURCES / "docs/files.md").read_text(), re.MULTILINE)
    return [re.sub("<[^>]*>", "[^/]+", re.escape(path)).replace("…", ".*")
            for row in rows for path in re.findall("`([^`]*)`", row)]


LIFE = """
app Kite && example Quill && example Loom && device device KIND
qrd sync device --library library
qrd launch device org.example.kite --busy; app Kite 2.0
look; rm device/var/run/apps/*.busy; qrd quit device org.example.kite
app Kite 2.0 900000
qrd sync device --library library --bandwidth 20kB/s &
look
kill $!
wait $!
look
qrd sync device --library library && data device kite
look
qrd demote device org.example.quill && qrd backup device -o backup
look
device new KIND && qrd restore new --from backup
look
qrd store new --catalogue library; qrd sync new --library library
look
"""


@pytest.mark.parametrize("kind", ["", "--no-coordination"], ids=["coordinated", "own"])
def test_every_file_of_a_device_has_its_row(kind, shell):
    shell.tell(PRELUDE)
    shell.tell("look() { find device new -not -type d -printf '/%P\\n' 2>/dev/null; }")
    found = set()
    for command in LIFE.replace("KIND", kind).strip().split("\n"):
        found |= {line for line in shell.run(command)[0].split("\n") if line.startswith("/")}
    named = named_paths()
    assert len(found) > 30 and len(named) > 30
    assert not [path for path in sorted(found) if not any(re.fullmatch(pattern, path) for pattern in named)]
