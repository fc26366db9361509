"""Small lists that expand beyond measure: no message, list or picture of them takes more than its share of the machine."""
import os
import struct

import pytest
from conftest import app_files, run, zip_of

MEBIBYTE = 1 << 20


def scalar(kind, content):
    """A text (0x50) or datum (0x40) as an object of a binary list."""
    return bytes([kind | 15, 0x12]) + struct.pack(">I", len(content)) + content


def repeating_list(facts, kind, size, count):
    """A binary list: a dictionary with these facts and "poison", an array of `count` references to one object."""
    keys = [*facts, "poison"]
    scalars = [scalar(0x50, text.encode()) for text in [*keys, *facts.values()]] + [scalar(kind, b"x" * size)]
    array = bytes([0xAF, 0x12]) + struct.pack(">I", count) + struct.pack(">H", len(scalars)) * count
    values = [*range(1 + len(keys), len(scalars)), 1 + len(scalars)]
    root = bytes([0xD0 | len(keys)]) + b"".join(struct.pack(">H", number) for number in [*range(1, 1 + len(keys)), *values])
    objects = [root, *scalars, array]
    made, offsets = b"bplist00", []
    for content in objects:
        offsets.append(len(made))
        made += content
    table = b"".join(struct.pack(">I", offset) for offset in offsets)
    return made + table + bytes([0] * 6 + [4, 2]) + struct.pack(">QQQ", len(objects), 0, len(made))


def log_size(world):
    return sum(entry.stat().st_size for entry in os.scandir(world.device / "var/log"))


# kind, size and number of references, and what comes of an app with such an Info.plist
REPETITIONS = {
    "700-texts-of-1-MB": (0x50, MEBIBYTE, 700, "refused"),
    "3000-texts-of-1-MB": (0x50, MEBIBYTE, 3000, "refused"),
    "3000-data-of-1-MB": (0x40, MEBIBYTE, 3000, "refused"),
    "30000-texts-of-100-kB": (0x50, 100_000, 30_000, "refused"),
    "40-texts-of-1-MB": (0x50, MEBIBYTE, 40, "installed"),  # within what a list may repeat
    "100000-short-texts": (0x50, 20, 100_000, "installed"),
    "950000-letters": (0x50, 1, 950_000, "installed"),  # as dense as a list may be, and nearly as long
}


@pytest.mark.parametrize("kind,size,count,expected", REPETITIONS.values(), ids=REPETITIONS)
def test_an_info_that_repeats_itself(world, kind, size, count, expected):
    world.add("Kettle")
    facts = {"BXBundleIdentifier": "org.example.marrow", "BXBundleVersion": "1.0", "BXBundleExecutable": "Marrow",
             "BXBundleDisplayName": "Marrow"}
    files = {**app_files("Marrow"), "Marrow.app/Info.plist": repeating_list(facts, kind, size, count)}
    (world.library / "Marrow.archive").write_bytes(zip_of(files))
    world.sync()
    assert world.apps().get("org.example.kettle") == "1.0"
    assert ("org.example.marrow" in world.apps()) == (expected == "installed")
    assert log_size(world) < 8 * MEBIBYTE


@pytest.mark.parametrize("size,count", [(MEBIBYTE, 3000), (4 * MEBIBYTE, 20), (20, 1_000_000)])
def test_a_list_that_is_printed_takes_its_own_memory_and_not_that_of_its_text(tmp_path, size, count):
    path = tmp_path / "list"
    path.write_bytes(repeating_list({}, 0x50, size, count))
    answer = run("plist", "print", path)
    if answer.code == 0:
        assert answer.out.count("<string>") == count
    else:
        assert size * count > 1 << 30 and "expand beyond measure" in answer.err


def test_a_long_name_takes_no_more_than_a_line(world):
    world.add("Kettle", info={"BXBundleDisplayName": "x" * (3 * MEBIBYTE)})
    world.add("Marrow", info={"BXBundleDisplayName": "y" * (3 * MEBIBYTE)}, files={"../outside": b"no"})
    for options in ["--dry-run"], []:
        answer = run("sync", world.device, "--library", world.library, *options)
        assert max(map(len, answer.text.splitlines())) < 5000
    assert len(run("apps", world.device).out) < 5000
    assert log_size(world) < 40 * MEBIBYTE
    assert run("screen", world.device, "-o", world.folder / "screen.png").code == 0
