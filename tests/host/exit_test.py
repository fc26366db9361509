"""How `qrd` ends: each exit code of the table in docs/commands.md, and an output that cannot be written."""
import os
import signal
import subprocess

import pytest
from json_test import QRD, WAIT, World, until

CODES = {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGHUP: 129}


def code_of(*words, **options):
    return subprocess.run([QRD, *map(str, words)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=WAIT,
                          check=False, **options).returncode


@pytest.fixture
def world(tmp_path):
    made = World(tmp_path)
    made.add("One")
    return made


def test_what_is_done_and_what_is_not(world):
    sync = ["sync", world.device, "--library", world.library]
    assert code_of(*sync) == 0
    assert code_of("launch", world.device, "org.example.none") == 1
    (world.folder / "One.app/One").chmod(0o644)
    assert code_of("pack", world.folder / "One.app", "-o", world.folder / "out") == 1
    assert code_of(*sync, "--nonsense") == 2
    assert code_of("apps", world.folder) == 4
    assert code_of("screen", world.device, "-o", world.folder / "no/such.png") == 5


def test_a_device_in_use(world):
    world.add("One", 500_000)
    syncing = world.started_sync("--bandwidth", "50kB/s")
    until(syncing.stdout, "sending ")
    assert code_of("uninstall", world.device, "org.example.one") == 3
    syncing.terminate()
    syncing.communicate(timeout=WAIT)


@pytest.mark.parametrize("sent", CODES, ids=lambda sent: sent.name)
def test_a_sync_that_is_ended_early(world, sent):
    world.add("One", 500_000)
    syncing = world.started_sync("--bandwidth", "50kB/s")
    until(syncing.stdout, "sending ")
    syncing.send_signal(sent)
    syncing.communicate(timeout=WAIT)
    assert syncing.returncode == CODES[sent]


# Commands that print, by their words behind the device's.
PRINTING = [["apps"], ["apps", "--json"], ["inventory"], ["inventory", "--json"], ["metrics"], ["metrics", "--json"],
            ["accounts"], ["accounts", "--json"], ["log"], ["log", "--json"], ["log", "--transactions"],
            ["log", "--transactions", "--json"], ["status"], ["status", "--json"]]
printing = pytest.mark.parametrize("words", PRINTING, ids=" ".join)


@printing
def test_an_output_that_is_full_is_an_error(world, words):
    world.sync()
    with open("/dev/full", "wb") as full:
        answer = subprocess.run([QRD, words[0], world.device, *words[1:]], stdout=full, stderr=subprocess.PIPE, text=True,
                                timeout=WAIT, check=False)
    assert answer.returncode == 5
    assert answer.stderr == "qrd: not all of the output could be written: No space left on device\n"


@printing
def test_an_output_that_nobody_reads_ends_a_command_quietly(world, words):
    world.sync()
    reading, writing = os.pipe()
    os.close(reading)
    answer = subprocess.run([QRD, words[0], world.device, *words[1:]], stdout=writing, stderr=subprocess.PIPE, text=True,
                            timeout=WAIT, check=False)
    os.close(writing)
    assert (answer.returncode, answer.stderr) == (141, "")


@pytest.mark.parametrize("make", [lambda world: ["sync", world.device, "--library", world.library, "--dry-run"],
                                  lambda world: ["pack", world.folder / "One.app", "-o", world.folder / "out"],
                                  lambda world: ["pack", "--init", "New", "-o", world.folder],
                                  lambda world: ["plist", "print", world.folder / "One.app/Info.plist"],
                                  lambda world: ["help"], lambda world: ["--version"]],
                         ids=["dry run", "pack", "pack --init", "plist print", "help", "version"])
def test_other_outputs_that_are_full_are_errors(world, make):
    with open("/dev/full", "wb") as full:
        answer = subprocess.run([QRD, *map(str, make(world))], stdout=full, stderr=subprocess.PIPE, text=True, timeout=WAIT,
                                check=False)
    assert answer.returncode == 5 and "could be written: No space left on device" in answer.stderr, answer
