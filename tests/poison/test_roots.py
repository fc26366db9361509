"""Device roots in which something else stands where a file or a folder of the device belongs, and processes whose streams
are not what they should be: a command ends with a sentence, and nothing outside of the root is touched."""
import os
import re
import signal
import socket
import stat
import subprocess

import pytest

from conftest import QRD, SECONDS, run

# Files of a device that a command opens.
FILES = ["device-lock", "device-root", "var/log/qrd.log", "var/db/device.sqlite", "var/db/device.sqlite-wal",
         "var/db/device.sqlite-shm"]
# Of them those that who looks at the apps has no need of.
FILES_OF_OWNERS = ["device-lock", "var/log/qrd.log"]


def put_pipe(path):
    os.mkfifo(path)


def put_folder(path):
    path.mkdir()


def put_socket(path):
    with socket.socket(socket.AF_UNIX) as made:
        folder = os.open(path.parent, os.O_PATH)
        made.bind(f"/proc/self/fd/{folder}/{path.name}")
        os.close(folder)


def put_device(path):
    try:
        os.mknod(path, stat.S_IFCHR | 0o600, os.makedev(1, 5))  # zeros without end
    except PermissionError:
        pytest.skip("only root makes devices")


KINDS = [put_pipe, put_folder, put_socket, put_device]


def content(folder):
    """Everything below a folder, by path: its kind, and the bytes of files."""
    found = {}
    for path in sorted(folder.rglob("*")):
        found[str(path.relative_to(folder))] = path.read_bytes() if path.is_file() else stat.S_IFMT(path.lstat().st_mode)
    return found


@pytest.mark.parametrize("put", KINDS, ids=lambda put: put.__name__)
@pytest.mark.parametrize("name", FILES)
def test_what_is_no_file_is_refused_in_a_sentence(plain_world, name, put):
    path = plain_world.device / name
    path.unlink(missing_ok=True)
    put(path)
    for words in (["uninstall", plain_world.device, "org.example.none"], ["apps", plain_world.device]):
        answer = run(*words)
        if words[0] == "apps" and name in FILES_OF_OWNERS:
            assert answer.code == 0, answer.text
            continue
        assert answer.code == 4, answer.text
        assert re.sub("-(wal|shm)", "", os.path.basename(name)) in answer.err or "layout file" in answer.err
    path.rmdir() if path.is_dir() else path.unlink()


@pytest.mark.parametrize("put", KINDS, ids=lambda put: put.__name__)
def test_an_older_log_that_is_no_file_is_refused_in_a_sentence(plain_world, put):
    path = plain_world.device / "var/log/qrd.log.1"
    put(path)
    answer = run("log", plain_world.device)
    assert answer.code == 5
    assert "qrd.log.1" in answer.err


# Folders of a device: each becomes a link to a folder outside.
FOLDERS = ["tmp", "var", "var/run", "var/run/control", "var/log", "var/db", "var/mobile", "var/mobile/Library",
           "var/mobile/Media", "var/containers", "var/run/apps"]


@pytest.mark.parametrize("words", [["sync", "--library", "LIBRARY"], ["status"], ["cancel", "org.example.kettle"],
                                   ["launch", "org.example.kettle"], ["quit", "org.example.kettle"], ["log"],
                                   ["backup", "-o", "BACKUP"], ["apps"]],
                         ids=lambda words: words[0])
@pytest.mark.parametrize("name", FOLDERS)
def test_a_folder_that_is_a_link_out_of_the_root_leads_nowhere(world, name, words):
    world.add("Kettle")
    world.sync()
    outside = world.folder / "outside"
    folder = world.device / name
    if folder.exists():
        folder.rename(outside)
    else:
        outside.mkdir()
    for made in ["control", "run/control"]:
        if name.endswith("run") or name == "var":
            (outside / made).mkdir(parents=True, exist_ok=True)
            (outside / made / "socket").write_text("a person's")
    if name.endswith("control"):
        (outside / "socket").write_text("a person's")
    folder.symlink_to(outside)
    before = content(outside)
    known = {"LIBRARY": world.library, "BACKUP": world.folder / "backup"}
    run(words[0], world.device, *[known.get(word, word) for word in words[1:]])
    assert content(outside) == before


@pytest.mark.parametrize("name", FOLDERS)
def test_a_pipe_in_place_of_a_folder_is_told_and_not_waited_for(world, name):
    world.add("Kettle")
    world.sync()
    folder = world.device / name
    if folder.exists():
        folder.rename(world.folder / "moved")
    else:
        folder.parent.mkdir(parents=True, exist_ok=True)
    put_pipe(folder)
    world.add("Kettle", "2.0")
    answer = run("sync", world.device, "--library", world.library)
    assert answer.code != 0 or "note: The control socket" in answer.err or name == "var/run/apps"


def test_a_root_that_is_swapped_under_way_is_left_alone(world):
    """The sync writes to the device that it has opened, wherever that stands, and not to what took its place."""
    for name in ("Kettle", "Pebble", "Quill"):
        world.add(name, files={"data": os.urandom(200_000)})
    process = subprocess.Popen([QRD, "sync", world.device, "--library", world.library, "--bandwidth", "300kB/s"],
                               stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline().startswith("sending")
    moved = world.folder / "moved"
    decoy = world.folder / "decoy"
    world.device.rename(moved)
    for folder in ("var/run/control", "var/db", "var/log", "tmp"):
        (decoy / folder).mkdir(parents=True)
    (decoy / "var/run/control/socket").write_text("a person's")
    world.device.symlink_to(decoy)
    before = content(decoy)
    process.communicate(timeout=SECONDS)
    assert process.returncode == 0
    assert content(decoy) == before
    world.device = moved
    assert len(world.apps()) == 3


@pytest.mark.parametrize("closed", [[0], [1], [2], [0, 1], [1, 2], [0, 1, 2]], ids=str)
def test_closed_streams_are_not_taken_by_the_devices_files(world, closed):
    world.add("Kettle")
    words = " ".join(f"{number}{'<' if number == 0 else '>'}&-" for number in closed)
    code = subprocess.run(["sh", "-c", f'"$0" sync "$1" --library "$2" {words}', QRD, world.device, world.library],
                          timeout=SECONDS, capture_output=True).returncode
    assert code == 0
    lock = (world.device / "device-lock").read_text()
    assert lock.startswith("process ") and lock.count("\n") == 1
    for path in world.device.rglob("*"):
        if path.is_file():
            assert b"sending" not in path.read_bytes(), path
    assert world.apps() == {"org.example.kettle": "1.0"}


def start_slow_sync(world, **streams):
    for name in ("Kettle", "Pebble"):
        world.add(name, files={"data": os.urandom(300_000)})
    return subprocess.Popen([QRD, "sync", world.device, "--library", world.library, "--bandwidth", "200kB/s"],
                            text=True, preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_DFL), **streams)


ENDINGS = {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGHUP: 129}


@pytest.mark.parametrize("name", ENDINGS, ids=lambda name: name.name)
def test_a_signal_ends_a_sync_cleanly(world, name):
    process = start_slow_sync(world, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert process.stdout.readline().startswith("sending")
    process.send_signal(name)
    if name == signal.SIGHUP:  # a terminal that goes away sends more than one
        process.send_signal(name)
    out, err = process.communicate(timeout=SECONDS)
    assert process.returncode == ENDINGS[name], out + err
    assert "interrupted; sync again to go on" in err
    assert world.sync().code == 0
    assert len(world.apps()) == 2


def test_a_reader_that_goes_away_ends_a_sync_cleanly(world):
    process = start_slow_sync(world, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert process.stdout.readline().startswith("sending")
    process.stdout.close()
    err = process.stderr.read()
    assert process.wait(SECONDS) == 141, err
    assert "interrupted; sync again to go on" in err
    assert world.sync().code == 0
    assert len(world.apps()) == 2


def test_a_hang_up_that_was_to_be_ignored_is_ignored(world):
    world.add("Kettle", files={"data": os.urandom(100_000)})
    process = subprocess.Popen([QRD, "sync", world.device, "--library", world.library, "--bandwidth", "200kB/s"],
                               text=True, stdout=subprocess.PIPE,
                               preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    assert process.stdout.readline().startswith("sending")
    process.send_signal(signal.SIGHUP)
    process.communicate(timeout=SECONDS)
    assert process.returncode == 0


@pytest.mark.parametrize("words", [["apps"], ["log"], ["device", "--help"]], ids=lambda words: words[0])
def test_output_that_nobody_takes_is_told(world, words):
    world.add("Kettle")
    world.sync()
    with open("/dev/full", "w") as full:
        answer = subprocess.run([QRD, words[0], *([world.device] if words[1:] == [] else words[1:])], stdout=full,
                                stderr=subprocess.PIPE, text=True, timeout=SECONDS)
    assert answer.returncode == 5
    assert "No space left on device" in answer.stderr


def test_no_bundle_of_a_placeholder_is_left(world):
    process = start_slow_sync(world, stdout=subprocess.PIPE)
    assert process.stdout.readline().startswith("sending")
    bundle = world.device / "tmp/com.zuvex.qrd.Apps/org.example.gone.app"  # as of a placeholder that could not be made
    bundle.mkdir(parents=True)
    (bundle / "Info.plist").write_bytes(b"half")
    process.communicate(timeout=SECONDS)
    assert process.returncode == 0
    assert [str(path) for path in world.device.glob("tmp/**/*.app")] == []
