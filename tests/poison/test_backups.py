"""Backups of strangers, and devices that cannot be read whole: nothing outside of a backup is read, nothing outside of the
device is written, no program gets the rights of its owner, and one bad app is a row of the report."""
import os
import pathlib
import plistlib
import shutil
import signal
import socket
import stat
import subprocess
import threading

import pytest

from conftest import ICON, QRD, SECONDS, World, run

DATA = "var/mobile/Containers/Data/Application"
KETTLE = "org.example.kettle"
PEBBLE = "org.example.pebble"


@pytest.fixture(params=[[], ["--no-coordination"]], ids=["coordinated", "own"])
def saved(request, tmp_path):
    """A world with a backup of Kettle and Pebble, each with a letter, and a new device beside it."""
    made = World(tmp_path)
    made.options = request.param
    made.create(*request.param)
    for name in ("Kettle", "Pebble"):
        made.add(name)
    assert made.sync().code == 0
    for identifier in (KETTLE, PEBBLE):
        folder = made.device / DATA / identifier / "Documents"
        folder.mkdir(parents=True)
        (folder / "letter").write_text("dear " + identifier)
    made.backup = made.folder / "backup"
    assert run("backup", made.device, "-o", made.backup).code == 0
    made.old = made.device
    made.device = made.folder / "new"
    made.create(*request.param)
    made.outside = made.folder / "outside"
    made.outside.mkdir()
    (made.outside / "secret").write_text("the secret")
    return made


def restore(world, code=0):
    answer = run("restore", world.device, "--from", world.backup, "--json")
    assert answer.code == code, answer.text
    return answer


def reasons(answer):
    """Why an app does not come back; empty of one that does."""
    return {app["identifier"] or "": "" if app["result"] == "restored" else app["reason"] for app in answer.report()["apps"]}


def files_named(folder, name):
    return [path for path in folder.rglob(name) if path.is_file() and not path.is_symlink()]


def assert_no_secret(world):
    for path in world.device.rglob("*"):
        if path.is_file() and not path.is_symlink():
            assert b"the secret" not in path.read_bytes(), path
    assert sorted(path.name for path in world.outside.iterdir()) == ["secret"]


def deliver(world):
    """Brings the restored apps, and with them their data."""
    answer = (run("sync", world.device, "--library", world.library) if world.options else
              run("store", world.device, "--catalogue", world.library))
    assert answer.code == 0, answer.text


# How the data of an app is poisoned, given its folder, and what must come of it: its reason has these words (none: it is
# restored).

def link_for_data(world, folder):
    shutil.rmtree(folder)
    folder.symlink_to(world.outside)


def link_for_all_data(world, folder):
    folder.parent.rename(world.folder / "moved")
    folder.parent.symlink_to(world.folder / "moved")


def link_up_in_all_data(world, folder):
    folder.parent.rename(world.outside / "Data")
    (world.outside / "Data").rename(world.folder / "moved")
    folder.parent.symlink_to("../moved")


def file_for_data(world, folder):
    shutil.rmtree(folder)
    folder.write_text("no folder")


def pipe_for_data(world, folder):
    shutil.rmtree(folder)
    os.mkfifo(folder)


UNREADABLE = {link_for_data: "symbolic link", link_for_all_data: "symbolic link", link_up_in_all_data: "symbolic link",
              file_for_data: "Not a directory", pipe_for_data: "Not a directory"}


@pytest.mark.parametrize("poison", UNREADABLE, ids=lambda poison: poison.__name__)
def test_data_that_cannot_be_read_is_a_row_and_the_others_are_restored(saved, poison):
    poison(saved, saved.backup / "Data" / KETTLE)
    said = reasons(restore(saved, 1))
    assert UNREADABLE[poison] in said[KETTLE]
    assert poison in (link_for_all_data, link_up_in_all_data) or said[PEBBLE] == ""
    assert_no_secret(saved)


def link_in_data(world, folder):
    (folder / "link").symlink_to(world.outside)
    (folder / "to-secret").symlink_to(world.outside / "secret")


def pipes_in_data(world, folder):
    os.mkfifo(folder / "pipe")
    with socket.socket(socket.AF_UNIX) as made:
        opened = os.open(folder, os.O_PATH)
        made.bind(f"/proc/self/fd/{opened}/socket")
        os.close(opened)


def hole_in_data(world, folder):
    with open(folder / "hole", "wb") as file:
        file.truncate(1 << 40)
        file.seek(1 << 39)
        file.write(b"in the midst")


def many_files_in_data(world, folder):
    for number in range(3000):
        (folder / f"folder {number}").mkdir()


@pytest.mark.parametrize("poison", [link_in_data, pipes_in_data, hole_in_data, many_files_in_data],
                         ids=lambda poison: poison.__name__)
def test_data_is_restored_without_what_is_no_data(saved, poison):
    poison(saved, saved.backup / "Data" / KETTLE)
    restore(saved)
    assert_no_secret(saved) if poison != hole_in_data else None
    deliver(saved)
    folder = saved.device / DATA / KETTLE
    assert (folder / "Documents/letter").read_text() == "dear " + KETTLE
    assert not files_named(saved.device, "pipe")
    if poison == hole_in_data:
        assert (folder / "hole").stat().st_size == 1 << 40
        assert (folder / "hole").stat().st_blocks < 100
        with open(folder / "hole", "rb") as file:
            file.seek(1 << 39)
            assert file.read(12) == b"in the midst"


MODES = {0o4755: 0o755, 0o6777: 0o755, 0o1666: 0o644, 0o4711: 0o711, 0o600: 0o600, 0o444: 0o444}


@pytest.mark.parametrize("mode", MODES, ids=oct)
def test_no_restored_file_gives_a_program_its_owners_rights(saved, mode):
    """Neither on the way into a backup nor out of one; a mode is never widened."""
    for folder in (saved.backup / "Data" / KETTLE, saved.old / DATA / KETTLE):
        (folder / "program").write_text("run me")
        (folder / "program").chmod(mode)
        (folder / "folder").mkdir()
        (folder / "folder").chmod(mode | 0o2700)
    restore(saved)
    second = saved.folder / "second"
    assert run("backup", saved.old, "-o", second).code == 0
    deliver(saved)
    for found in (saved.device / DATA / KETTLE, second / "Data" / KETTLE):
        assert stat.S_IMODE((found / "program").stat().st_mode) == MODES[mode]
        assert stat.S_IMODE((found / "folder").stat().st_mode) & 0o7022 == 0


@pytest.mark.parametrize("depth", [250, 2000])
def test_data_of_any_depth_comes_back(saved, depth):
    os.chdir(saved.old / DATA / KETTLE)
    for _ in range(depth):
        os.mkdir("d")
        os.chdir("d")
    pathlib.Path("bottom").write_text("deep down")
    os.mkdir("beside")
    os.chdir("/")
    shutil.rmtree(saved.backup)
    assert run("backup", saved.old, "-o", saved.backup).code == 0
    restore(saved)
    deliver(saved)
    os.chdir(saved.device / DATA / KETTLE)
    for _ in range(depth):
        os.chdir("d")
    assert pathlib.Path("bottom").read_text() == "deep down"
    assert pathlib.Path("beside").is_dir()
    os.chdir("/")
    for folder in (saved.old, saved.device, saved.backup):  # deeper than Python's own removal goes
        subprocess.run(["rm", "-rf", folder], check=True)


# What stands for one of a backup's lists.

def pipe(world, path):
    os.mkfifo(path)


def folder(world, path):
    path.mkdir()


def link_out(world, path):
    path.symlink_to(world.outside / "secret")


def huge(world, path):
    with open(path, "wb") as file:
        file.truncate(1 << 40)


def device(world, path):
    path.symlink_to("/dev/zero")


def garbage(world, path):
    path.write_bytes(b"bplist00" + bytes(range(256)) * 4)


def deep(world, path):
    path.write_text("<plist><dict><key>a</key>" + "<array>" * 100_000)


LISTS = ["RestoreApplications.plist", "DemotedApps.plist", "IconState.plist"]


@pytest.mark.parametrize("poison", [pipe, folder, link_out, huge, device, garbage, deep], ids=lambda kind: kind.__name__)
@pytest.mark.parametrize("name", LISTS)
def test_a_list_that_cannot_be_read_is_told(saved, name, poison):
    path = saved.backup / name
    path.unlink()
    poison(saved, path)
    answer = run("restore", saved.device, "--from", saved.backup)
    assert answer.code == 1
    assert name in answer.text
    assert_no_secret(saved)


IDENTIFIERS = ["../../../outside/app", "..", ".", "", "/etc", "a/b", ".hidden", "a\nb", "x" * 300, "a\u202eb"]


@pytest.mark.parametrize("identifier", IDENTIFIERS, ids=ascii)
def test_an_identifier_that_names_a_path_is_a_row(saved, identifier):
    path = saved.backup / "RestoreApplications.plist"
    info = plistlib.loads(path.read_bytes())
    info[identifier] = info[KETTLE]
    path.write_bytes(plistlib.dumps(info, fmt=plistlib.FMT_BINARY))
    before = sorted(saved.folder.iterdir())
    said = reasons(restore(saved, 1))
    assert said[identifier] == "It is no bundle identifier."
    assert said[KETTLE] == said[PEBBLE] == ""
    assert sorted(saved.folder.iterdir()) == before
    assert_no_secret(saved)


def test_poisoned_entries_are_rows(saved):
    path = saved.backup / "RestoreApplications.plist"
    whole = plistlib.loads(path.read_bytes())[KETTLE]
    info = {PEBBLE: whole,
            "org.example.text": "no dictionary",
            "org.example.none": {},
            "org.example.damaged": {"TamblinMetadata": b"nothing"},
            "org.example.kind": {"TamblinMetadata": plistlib.dumps([1])},
            "org.example.icon": {**whole, "PlaceholderIcon": b"no picture", "ApplicationSINF": "no data"},
            "org.example.large": {**whole, "PlaceholderIcon": ICON + bytes(20 << 20)}}
    path.write_bytes(plistlib.dumps(info, fmt=plistlib.FMT_BINARY))
    answer = run("restore", saved.device, "--from", saved.backup, "--json", megabytes=400)
    assert answer.code == 1
    said = reasons(answer)
    assert set(said) == set(info)
    assert said[PEBBLE] == ""


def test_a_folder_that_is_swapped_under_way_leads_nowhere(saved):
    """What is restored is what stood in the backup, or the restore says why not."""
    data = saved.backup / "Data" / KETTLE
    for number in range(200):
        (data / f"{number}").mkdir()
        (data / f"{number}" / "secret").write_text("its own")
    aside = saved.folder / "aside"
    ended = threading.Event()

    def swap():
        while not ended.is_set():
            for number in range(200):
                (data / f"{number}").rename(aside)
                (data / f"{number}").symlink_to(saved.outside)
                (data / f"{number}").unlink()
                aside.rename(data / f"{number}")

    swapping = threading.Thread(target=swap)
    swapping.start()
    for _ in range(5):
        run("restore", saved.device, "--from", saved.backup)
        assert_no_secret(saved)
    ended.set()
    swapping.join()


def test_an_app_that_cannot_be_read_is_a_row_of_the_backup(saved):
    shutil.rmtree(saved.old / DATA / KETTLE)
    (saved.old / DATA / KETTLE).write_text("no folder")
    second = saved.folder / "second"
    answer = run("backup", saved.old, "-o", second)
    assert answer.code == 1
    assert "Kettle" in answer.out and "Not a directory" in answer.out
    assert "backed up 1 of 2 apps" in answer.out
    assert set(plistlib.loads((second / "RestoreApplications.plist").read_bytes())) == {PEBBLE}
    assert [path.name for path in (second / "Data").iterdir()] == [PEBBLE]


def test_a_backup_of_a_device_without_an_apps_metadata_says_so(saved):
    metadata = files_named(saved.old / "var/containers", "TamblinMetadata.plist")[0]
    metadata.unlink()
    metadata.mkdir()
    answer = run("backup", saved.old, "-o", saved.folder / "second")
    assert answer.code == 1
    assert "TamblinMetadata.plist" in answer.out
    assert "backed up 1 of 2 apps" in answer.out


def unfinished(world):
    return sorted(path for path in world.folder.iterdir() if ".unfinished-" in path.name)


def stop_in_the_midst(world, name):
    """Ends a backup by a signal while its unfinished folder stands there; its exit code."""
    busy = world.old / DATA / KETTLE / "many"
    busy.mkdir()
    for number in range(20_000):
        (busy / str(number)).touch()
    process = subprocess.Popen([QRD, "backup", world.old, "-o", world.folder / "second"], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    while not unfinished(world) and process.poll() is None:
        pass
    process.send_signal(name)
    return process.wait(SECONDS)


def test_the_next_backup_removes_what_a_killed_one_has_left(saved):
    assert stop_in_the_midst(saved, signal.SIGKILL) == -signal.SIGKILL
    assert len(unfinished(saved)) == 1
    # What only looks alike is somebody's own.
    own = [saved.folder / ".second.unfinished-abcdef", saved.folder / ".second.unfinished-notes",
           saved.folder / ".other.unfinished-abcdef"]
    for path in own:
        path.mkdir(mode=0o700)
        (path / "notes").write_text("a person's")
    (saved.folder / ".second.unfinished-012345").symlink_to(saved.outside)
    assert run("backup", saved.old, "-o", saved.folder / "second").code == 0
    assert unfinished(saved) == sorted([*own, saved.folder / ".second.unfinished-012345"])
    assert all((path / "notes").exists() for path in own)
    assert (saved.outside / "secret").exists()


@pytest.mark.parametrize("name, code", [(signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129)],
                         ids=lambda value: getattr(value, "name", None))
def test_a_backup_that_is_interrupted_leaves_nothing(saved, name, code):
    assert stop_in_the_midst(saved, name) == code
    assert unfinished(saved) == []
    assert not (saved.folder / "second").exists()
    assert run("backup", saved.old, "-o", saved.folder / "second").code == 0
