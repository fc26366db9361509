"""The man page: it says all that the help says, in a form that man takes, and its examples work."""
import os
import pathlib
import re
import subprocess

QRD = pathlib.Path(os.environ["QRD"])
PAGE = pathlib.Path(os.environ["MANUAL"])


def run(*words):
    return subprocess.run([str(word) for word in words], check=True, capture_output=True, text=True,
                          env={**os.environ, "MANWIDTH": "10000", "LC_ALL": "C.UTF-8"})


def shown():
    """The page as man shows it, without its warnings, of which there may be none."""
    answer = run("man", "--warnings=w", "-l", PAGE)
    assert answer.stderr == ""
    return re.sub(r".\x08", "", answer.stdout)


def names_in(text):
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", text))


def test_it_has_every_section_and_names_the_program():
    text = shown()
    titles = ["NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "EXIT STATUS", "FILES", "ENVIRONMENT", "EXAMPLES"]
    assert re.findall(r"^[A-Z][A-Z ]+$", text, re.MULTILINE) == titles
    assert re.search(r"qrd - \w+", text)
    assert run(QRD, "--version").stdout.strip() in text


def test_it_has_every_command_with_its_options_and_what_they_do():
    text = shown()
    at = {}  # by the words of a command, what the page says below it
    for entry in re.split(r"^ +(?=qrd )", text.split("\nCOMMANDS\n")[1].split("\nEXIT STATUS\n")[0], flags=re.MULTILINE)[1:]:
        at[" ".join(re.match(r"qrd((?: [a-z]+)+)", entry)[1].split())] = entry
    ways = [[name] for name in re.findall(r"^  ([a-z]+) ", run(QRD, "--help").stdout, re.MULTILINE)]
    ends = 0
    while ways:
        words = ways.pop()
        own = run(QRD, *words, "--help").stdout
        below = re.findall(r"^  ([a-z]+) ", own, re.MULTILINE)
        ways += [[*words, name] for name in below]
        if not below:
            ends += 1
            entry = at[" ".join(words)]
            assert names_in(own) - {"-h", "--help"} <= names_in(entry), words
            for sentence in re.findall(r"(?:^ {3,}|^  \S.*  )(\S.*)", own, re.MULTILINE):
                assert sentence.split(". ")[0] in text, words
    assert ends == len(at) > 20


def test_every_exit_code_stands_there():
    codes = run(QRD, "--help").stdout.split("Exit codes: ")[1]
    for code, meaning in re.findall(r"(\d+) ([^,.]+)", codes):
        assert re.search(rf"^ +{code} +{re.escape(meaning)}$", shown(), re.MULTILINE), code


def test_the_examples_work_one_after_the_other(tmp_path):
    examples = re.findall(r"^ +((?:qrd|mkdir) .*)$", shown().split("\nEXAMPLES\n")[1], re.MULTILINE)
    assert len(examples) > 5
    script = "\n".join(["set -e", f"PATH={QRD.parent}:$PATH", *examples])
    answer = subprocess.run(["bash", "-c", script], cwd=tmp_path, capture_output=True, text=True, check=False)
    assert answer.returncode == 0, answer
