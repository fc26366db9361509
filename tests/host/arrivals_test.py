"""How far a sync goes on sending while the plug-in has not dealt with what has arrived."""
import os
from pathlib import Path

from json_test import World, run, states
from wishes_test import Held, calls_of

# The system's number of the call in which a thread waits for another one.
FUTEX = {"x86_64": "202", "aarch64": "98"}[os.uname().machine]
NAMES = [f"App{number}" for number in range(19)]


def is_waiting(process):
    """Whether the thread that sends waits for another one."""
    return Path(f"/proc/{process}/syscall").read_text().split()[0] == FUTEX


def arrived(device):
    return len(list((device / "var/mobile/Media/PublicStaging/Received").glob("*.archive")))


def test_sixteen_arrivals_wait_for_the_plug_in_and_no_more_is_sent(tmp_path):
    world = World(tmp_path)
    for name in NAMES:
        world.add(name)
    tried = world.device
    lists = "var/mobile/Library"
    command = ["sync", "--library", world.library, "--json=lines"]
    calls = calls_of(world, tried / lists, "changes", *command, tried)
    told = next(number for number, path in calls if path.endswith("/ApplicationsSync.plist"))
    world.device = tmp_path / "new"
    run("device", "create", world.device)
    held = Held(world, world.device / lists, "changes", told, *command, world.device)
    supervisor = held.process.pid
    sync = Path(f"/proc/{supervisor}/task/{supervisor}/children").read_text().split()[0]
    while arrived(world.device) < 16 or not is_waiting(sync):
        os.sched_yield()
    assert arrived(world.device) == 16
    assert set(held.end()[1].values()) == {"installed"}
    assert len(states(world.device)) == len(NAMES)
