"""The control socket among clients that do not behave, and `status` before sockets that are no sync's: a sync ends when its
work is done, whoever listens, and everybody else is answered."""
import json
import os
import signal
import socket
import subprocess
import threading

import pytest

from conftest import QRD, SECONDS, run

REQUESTS = {
    "nothing": b"",
    "half a line": b'{"command": "sta',
    "a megabyte without an end": b"x" * (1 << 20),
    "a megabyte in one line": b"x" * (1 << 20) + b"\n",
    "empty lines": b"\n" * 100_000,
    "questions without end": b'{"command": "status"}\n' * 50_000,
    "a deep one": b"[" * 4000 + b"\n",
    "no text": bytes(range(256)) + b"\n",
    "a follower": b'{"command": "follow"}\n',
}


def connect(device):
    made = socket.socket(socket.AF_UNIX)
    folder = os.open(device / "var/run/control", os.O_PATH)
    made.connect(f"/proc/self/fd/{folder}/socket")
    os.close(folder)
    made.setblocking(False)
    return made


def send(client, request):
    """As much as it takes without waiting."""
    try:
        while request:
            request = request[client.send(request):]
    except (BlockingIOError, BrokenPipeError, ConnectionResetError, OSError):
        pass


class SlowSync:
    """A sync of two apps that takes a while."""

    def __init__(self, world):
        self.world = world
        for name in ("Kettle", "Pebble"):
            world.add(name, files={"data": os.urandom(200_000)})
        self.process = subprocess.Popen([QRD, "sync", world.device, "--library", world.library, "--bandwidth",
                                         "400kB/s"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert self.process.stdout.readline().startswith("sending")

    def end(self, code=0):
        out, _ = self.process.communicate(timeout=SECONDS)
        assert self.process.returncode == code, out
        if code == 0:
            assert len(self.world.apps()) == 2


@pytest.mark.parametrize("request_", REQUESTS.values(), ids=REQUESTS)
def test_clients_that_never_read_delay_nobody(plain_world, request_):
    running = SlowSync(plain_world)
    clients = [connect(plain_world.device) for _ in range(15)]
    for client in clients:
        send(client, request_)
    answer = run("status", plain_world.device, "--json")
    assert answer.code == 0 and answer.report()["running"] is True
    running.end()
    for client in clients:
        client.close()


def test_silent_clients_shut_nobody_out(plain_world):
    running = SlowSync(plain_world)
    clients = [connect(plain_world.device) for _ in range(40)]
    for _ in range(3):
        assert run("status", plain_world.device, "--json").report()["running"] is True
    assert run("prioritize", plain_world.device, "org.example.pebble").code == 0
    running.end()
    for client in clients:
        client.close()


def test_a_sync_that_has_too_many_followers_says_that_it_is_busy(plain_world):
    running = SlowSync(plain_world)
    clients = [connect(plain_world.device) for _ in range(16)]
    for client in clients:
        send(client, REQUESTS["a follower"])
        client.setblocking(True)
        assert client.recv(1)
    answer = run("status", plain_world.device)
    assert answer.code == 5
    assert "is busy and does not answer" in answer.err
    running.end()
    for client in clients:
        client.close()


def test_thousands_of_connections_that_are_closed_abruptly(plain_world):
    running = SlowSync(plain_world)
    for _ in range(3000):
        client = connect(plain_world.device)
        send(client, REQUESTS["half a line"])
        client.close()
    assert run("status", plain_world.device, "--json").report()["running"] is True
    running.end()


def test_a_client_that_is_stopped_delays_nobody(plain_world):
    running = SlowSync(plain_world)
    follower = subprocess.Popen([QRD, "status", plain_world.device, "--follow", "--json"], stdout=subprocess.PIPE,
                                text=True)
    assert json.loads(follower.stdout.readline())["running"] is True
    follower.send_signal(signal.SIGSTOP)
    running.end()
    follower.send_signal(signal.SIGCONT)
    lines = follower.communicate(timeout=SECONDS)[0].splitlines()
    assert follower.returncode == 0
    assert json.loads(lines[-1])["running"] is True


def test_a_sync_with_clients_that_never_read_ends_when_it_is_asked_to(plain_world):
    running = SlowSync(plain_world)
    clients = [connect(plain_world.device) for _ in range(16)]
    for client in clients:
        send(client, REQUESTS["questions without end"])
    running.process.send_signal(signal.SIGTERM)
    running.end(143)
    for client in clients:
        client.close()


# What a socket that is no sync's answers, and what `status` says of it.
ANSWERS = {
    "no JSON": (b"no JSON\n", "before it could answer"),
    "no object": (b"[1]\n", "before it could answer"),
    "nothing": (b"", "before it could answer"),
    "another kind": (b'{"running": 1, "apps": {"a": 1}, "finished": "x", "fraction": 1e300}\n', ""),
    "apps that are none": (b'{"apps": [1, "a", null, {"name": 5, "stage": [], "fraction": "x"}]}\n', ""),
    "depth": (b'{"apps": ' + b"[" * 1_000_000 + b"]" * 1_000_000 + b"}\n", ""),
    "a line without an end": (b"x" * (64 << 20), "before it could answer"),
    "an error that is none": (b'{"error": {}}\n', "qrd"),
}


@pytest.mark.parametrize("words", [["status"], ["status", "--json"], ["status", "--follow"],
                                   ["cancel", "org.example.kettle"]], ids=" ".join)
@pytest.mark.parametrize("answer, expected", ANSWERS.values(), ids=ANSWERS)
def test_an_answer_that_is_none_is_told(plain_world, answer, expected, words):
    folder = plain_world.device / "var/run/control"
    folder.mkdir(parents=True, exist_ok=True)
    with socket.socket(socket.AF_UNIX) as server:
        opened = os.open(folder, os.O_PATH)
        server.bind(f"/proc/self/fd/{opened}/socket")
        os.close(opened)
        server.listen()

        def serve():
            client, _ = server.accept()
            with client:
                client.recv(4096)
                try:
                    client.sendall(answer)
                except OSError:
                    pass

        serving = threading.Thread(target=serve)
        serving.start()
        said = run(words[0], plain_world.device, *words[1:])
        serving.join()
    assert expected in said.err
    assert "json.exception" not in said.err


def test_a_socket_that_leads_out_of_the_device_is_none(plain_world):
    folder = plain_world.device / "var/run/control"
    folder.mkdir(parents=True)
    outside = plain_world.folder / "outside"
    with socket.socket(socket.AF_UNIX) as server:
        opened = os.open(plain_world.folder, os.O_PATH)
        server.bind(f"/proc/self/fd/{opened}/outside")
        os.close(opened)
        server.listen()
        server.setblocking(False)
        (folder / "socket").symlink_to(outside)
        assert "No sync is running" in run("status", plain_world.device).out
        with pytest.raises(BlockingIOError):
            server.accept()


@pytest.mark.parametrize("kind", ["pipe", "file", "folder"])
def test_what_is_no_socket_is_none_and_is_replaced(plain_world, kind):
    path = plain_world.device / "var/run/control/socket"
    path.parent.mkdir(parents=True)
    {"pipe": os.mkfifo, "file": lambda at: at.touch(), "folder": os.mkdir}[kind](path)
    assert "No sync is running" in run("status", plain_world.device).out
    plain_world.add("Kettle")
    answer = run("sync", plain_world.device, "--library", plain_world.library)
    assert answer.code == 0
    assert ("note: The control socket" in answer.err) == (kind == "folder")
