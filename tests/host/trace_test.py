"""What `--trace` writes: whole JSON, each app's phases in their order, and numbers that are what happened."""
import json
import os
import pathlib
import subprocess

import pytest
from json_test import QRD, WAIT, World, run, until

PHASES = ["transfer", "checking", "unpacking", "making durable", "swap", "report"]
# Everything that a span of a sync is called.
ALL = {"sync", "beginning", "planning", "placeholder", "arrival", "install", "end of transfers", "closing", "flush",
       "commit", *PHASES}
OF_COORDINATION = {"coordinator", "callback"}
NAMES = ["Kite", "Loom", "Quill"]
IDENTIFIERS = [f"org.example.{name.lower()}" for name in NAMES]


def events_of(file):
    found = json.loads(file.read_text())
    assert found["displayTimeUnit"] == "ms"
    assert all(event.get("ts", 0) >= 0 and event.get("dur", 0) >= 0 for event in found["traceEvents"])
    return found["traceEvents"]


def spans(events, name=None, app=None):
    """Complete events in the order of their beginning."""
    return [event for event in events if event["ph"] == "X" and name in (None, event["name"])
            and (app is None or event.get("args", {}).get("app") == app)]


def end(span):
    return span["ts"] + span["dur"]


def waits(events, app, name="waiting"):
    """Beginning and end of each."""
    times = {kind: [event["ts"] for event in events if event["ph"] == kind and event["name"] == name
                    and event["id"] == app] for kind in "be"}
    assert len(times["b"]) == len(times["e"])
    return list(zip(times["b"], times["e"]))


def values(events, counter):
    return [value for event in events if event["ph"] == "C" and event["name"] == counter
            for value in event["args"].values()]


def check_whole(events):
    """What must hold of any timeline, be it of a sync that was ended early."""
    names = {event["tid"]: event["args"]["name"] for event in events if event["name"] == "thread_name"}
    for thread, name in names.items():
        around = []
        for span in (span for span in spans(events) if span["tid"] == thread):
            while around and span["ts"] >= end(around[-1]) and span["dur"] + around[-1]["dur"] > 0:
                around.pop()
            assert not around or end(span) <= end(around[-1]), (name, around[-1], span)
            around.append(span)
    assert {span["tid"] for span in spans(events)} <= set(names)
    assert len(set(names.values())) == len(names)
    for counter in ("bytes sent", "bytes unpacked", "syncs of the disk"):
        assert values(events, counter) == sorted(values(events, counter)), counter
        assert values(events, counter)[0] == 0


@pytest.fixture(params=[[], ["--no-coordination"]], ids=["coordinated", "own"])
def world(request, tmp_path):
    made = World(tmp_path, *request.param)
    made.trace = tmp_path / "trace.json"
    made.coordinated = not request.param
    for name in NAMES:
        made.add(name, 100_000)
    return made


def test_each_app_goes_through_each_phase(world):
    world.sync("--trace", world.trace)
    events = events_of(world.trace)
    check_whole(events)
    assert {span["name"] for span in spans(events)} == ALL | (OF_COORDINATION if world.coordinated else set())
    [planning] = spans(events, "planning")
    for app in IDENTIFIERS:
        own = {phase: spans(events, phase, app) for phase in PHASES}
        assert all(len(found) == 1 for found in own.values()), own
        line = [planning, *(own[phase][0] for phase in PHASES)]
        assert all(end(one) <= next_one["ts"] for one, next_one in zip(line, line[1:])), line
        [(began, ended)] = waits(events, app)
        assert end(own["transfer"][0]) <= began <= ended <= own["checking"][0]["ts"]
        assert len(spans(events, "placeholder", app)) == 1
        assert len({own[phase][0]["tid"] for phase in PHASES[1:-1]}) == 1, "an install is a thread's"
    assert {span["tid"] for span in spans(events, "transfer")} == {planning["tid"]}


def test_bytes_are_those_of_the_archives(world):
    world.sync("--trace", world.trace)
    events = events_of(world.trace)
    assert values(events, "bytes sent")[-1] == sum(file.stat().st_size for file in world.library.iterdir())
    files = [file for name in NAMES for file in (world.folder / f"{name}.app").rglob("*") if file.is_file()]
    assert values(events, "bytes unpacked")[-1] == sum(file.stat().st_size for file in files)


def test_a_large_archive_may_be_unpacked_by_several_threads(tmp_path):
    """How many depends on the cores that are free at that moment."""
    world = World(tmp_path)
    world.add("Kite")
    for part in range(24):
        (tmp_path / f"Kite.app/part{part}").write_bytes(bytes(2_000_000))
    world.add("Kite")
    world.sync("--trace", tmp_path / "trace.json")
    events = events_of(tmp_path / "trace.json")
    check_whole(events)
    [install] = spans(events, "install")
    for span in spans(events, "unpacking", IDENTIFIERS[0]):
        assert install["ts"] <= span["ts"] and end(span) <= end(install)
    files = [file for file in (tmp_path / "Kite.app").rglob("*") if file.is_file()]
    assert values(events, "bytes unpacked")[-1] == sum(file.stat().st_size for file in files)


def test_the_syncs_are_those_of_the_system(world):
    """But for those of the database, of which a durable commit is one."""
    if not os.environ.get("DISTURB"):
        pytest.skip("this build has no supervisor of system calls")
    calls = world.folder / "calls"
    words = ["--under", world.device, "--list", calls, QRD, "sync", world.device, "--library", world.library, "--trace",
             world.trace]
    code = subprocess.run([os.environ["DISTURB"], *words], stdout=subprocess.DEVNULL, timeout=WAIT, check=False).returncode
    if code == 125:
        pytest.skip("this system does not let a process supervise another one's calls")
    assert code == 0
    events = events_of(world.trace)
    made = [line.split("\t") for line in calls.read_text().splitlines()]
    synced = [path for _, call, path in made if call in ("fsync", "fdatasync", "syncfs")]
    of_files = [path for path in synced if "/db/" not in f"/{path}/"]
    assert len(of_files) > 10
    assert values(events, "syncs of the disk")[-1] == len(of_files) + len(spans(events, "commit"))
    assert len(spans(events, "flush")) == len(of_files)
    of_log = [path for path in synced if path.endswith("-wal")]
    assert 0 < len(spans(events, "commit")) <= len(of_log) + 1, "a commit that changes nothing is none for the disk"


def test_a_sync_that_is_ended_early(world):
    world.add("Kite", 1_000_000)
    syncing = world.started_sync("--bandwidth", "50kB/s", "--trace", world.trace)
    until(syncing.stdout, "sending ")
    assert not world.trace.exists()
    syncing.terminate()
    syncing.communicate(timeout=WAIT)
    assert syncing.returncode == 143
    events = events_of(world.trace)
    check_whole(events)
    assert spans(events, "planning") and spans(events, "closing")
    assert not spans(events, "unpacking")
    waited = len(spans(events, "flush")) + len(spans(events, "commit"))
    assert values(events, "syncs of the disk")[-1] == waited + 1, "what has arrived is made durable"


def test_a_sync_that_cannot_go_on(world):
    world.sync("--plugin", world.folder, "--trace", world.trace, code=5)
    events = events_of(world.trace)
    check_whole(events)
    assert spans(events, "sync") and not spans(events, "planning")


def test_an_app_that_is_refused_waits_no_more(world):
    archive = world.library / "Kite.zip"
    damaged = bytearray(archive.read_bytes())
    damaged[50_000] ^= 1
    archive.write_bytes(damaged)
    world.sync("--trace", world.trace, code=1)
    events = events_of(world.trace)
    check_whole(events)
    assert spans(events, "unpacking", IDENTIFIERS[0]) and not spans(events, "swap", IDENTIFIERS[0])
    [(began, ended)] = waits(events, IDENTIFIERS[0])
    assert began <= ended <= spans(events, "checking", IDENTIFIERS[0])[0]["ts"]
    assert len(spans(events, "report", IDENTIFIERS[0])) == 1


@pytest.mark.parametrize("is_cancelled", [False, True], ids=["ended", "cancelled"])
def test_a_busy_app_waits(tmp_path, is_cancelled):
    world = World(tmp_path, "--no-coordination")
    world.add("Kite")
    world.sync()
    run("launch", world.device, IDENTIFIERS[0], "--busy")
    world.add("Kite", version="1.1")
    syncing = world.started_sync("--trace", tmp_path / "trace.json")
    until(syncing.stdout, "waiting ")
    if is_cancelled:
        run("cancel", world.device, IDENTIFIERS[0])
    else:
        syncing.terminate()
    syncing.communicate(timeout=WAIT)
    (world.device / f"var/run/apps/{IDENTIFIERS[0]}.busy").unlink()
    run("quit", world.device, IDENTIFIERS[0])
    events = events_of(tmp_path / "trace.json")
    check_whole(events)
    [(began, ended)] = waits(events, IDENTIFIERS[0])
    [(denied, given_up)] = waits(events, IDENTIFIERS[0], "busy")
    assert began <= denied <= given_up <= ended
    assert not spans(events, "checking")
    assert not is_cancelled or ended <= end(spans(events, "report", IDENTIFIERS[0])[0])


def test_a_file_that_cannot_be_written_is_refused_before_anything_is_done(world):
    sync = [QRD, "sync", world.device, "--library", world.library, "--trace"]
    before = sorted(world.device.rglob("*"))
    for file in (world.folder / "no/such.json", world.folder, "/dev/stdout"):
        answer = subprocess.run([*sync, file], capture_output=True, text=True, timeout=WAIT, check=False)
        assert answer.returncode == 5, answer
        assert str(file) in answer.stderr and not answer.stdout
    assert sorted(world.device.rglob("*")) == before
    assert list(world.folder.glob(".qrd.*")) == []


def test_a_file_that_takes_nothing_in_the_end_is_told(world):
    world.sync("--trace", "/dev/full", "--json", code=1)
    answer = json.loads(run("sync", world.device, "--library", world.library, "--reinstall", "--install", "Kite",
                            "--trace", "/dev/full", "--json", code=1))
    assert answer["apps"][0]["result"] == "updated" or answer["apps"][0]["result"] == "installed"
    assert "/dev/full" in answer["problems"][0]


def test_an_older_timeline_stays_when_there_is_no_sync(world):
    world.trace.write_text("older")
    world.sync("--library", "", "--trace", world.trace, code=2)
    assert world.trace.read_text() == "older"


def test_a_restore_and_a_visit_to_the_store(world):
    world.sync()
    run("backup", world.device, "-o", world.folder / "backup")
    other = world.folder / "other"
    run("device", "create", other)
    run("restore", other, "--from", world.folder / "backup", "--trace", world.trace)
    events = events_of(world.trace)
    check_whole(events)
    assert len(spans(events, "placeholder")) == len(NAMES)
    run("store", other, "--catalogue", world.library, "--trace", world.trace)
    events = events_of(world.trace)
    check_whole(events)
    for app in IDENTIFIERS:
        line = [spans(events, phase, app)[0] for phase in PHASES[:-1]]
        assert all(end(one) <= next_one["ts"] for one, next_one in zip(line, line[1:])), line
        assert len(waits(events, app)) == 1
