#!/usr/bin/env -S python3 -B
"""Takes the power from under a sync or restore, and looks at what the disk has kept.

The device stands in a file system of its own, in an image that is written late. The sync is killed at one of its changes, or
ends by itself; the image is copied as it was written until then, mounted again, and the device in it opened. Every app must be
there in its old version or its new one, whole; after a sync that said so, everything is there. A plain sync follows: it must
succeed, and leave the device as if nothing had happened. Needs root.
"""
import argparse
import contextlib
import os
import random
import shutil
import subprocess
import sys
import tempfile

import checks
import crash
from scenarios import KILLED, copy_device, must_run

# How an image is made and mounted, by file system: nothing is written before it is asked for, and a file that replaces
# another gets no favours.
FILE_SYSTEMS = {
    "ext4": (["mkfs.ext4", "-q"], "commit=600,noauto_da_alloc"),
    "xfs": (["mkfs.xfs", "-q"], "nouuid"),  # a copy is mounted beside the disk itself
}
IMAGE_SIZE = 320 << 20  # bytes, hardly any of them written; the least that xfs takes is 300 MiB
IN_NAMESPACE = "--in-a-mount-namespace"


class Disk:
    """An image with a file system."""

    def __init__(self, path, file_system):
        self.path = path
        self._file_system = file_system

    @classmethod
    def make(cls, path, file_system):
        with open(path, "wb") as image:
            image.truncate(IMAGE_SIZE)
        must_run([*FILE_SYSTEMS[file_system][0], path])
        return cls(path, file_system)

    def copy(self, path):
        must_run(["cp", "--sparse=always", self.path, path])
        return Disk(path, self._file_system)

    @contextlib.contextmanager
    def mounted(self):
        place = self.path + ".mounted"
        os.makedirs(place, exist_ok=True)
        must_run(["mount", "-o", "loop," + FILE_SYSTEMS[self._file_system][1], "-t", self._file_system, self.path, place])
        try:
            yield os.path.join(place, "device")
        finally:
            # Lazily: what another thread just starts may have this one's files open for a moment.
            must_run(["umount", "--lazy", place])


class PowerRunner(crash.Runner):
    def __init__(self, arguments, folder):
        super().__init__(arguments, folder)
        self._disks = {}

    def prepare(self, scenario, file_system):
        """Makes the disk that each point of a scenario begins with."""
        path = os.path.join(self._folder, f"{scenario.name}-{file_system}")
        disk = Disk.make(path, file_system)
        with disk.mounted() as device:
            copy_device(scenario.snapshot, device)
            must_run(["sync", "-f", device])
        self._disks[scenario.name, file_system] = disk

    def try_point(self, point):
        scenario = point.scenario
        folder = tempfile.mkdtemp(prefix="point-", dir=self._folder)
        disk = self._disks[scenario.name, point.kind].copy(os.path.join(folder, "disk"))
        after = os.path.join(folder, "after")
        with disk.mounted() as device:
            answer = self._supervised(device, ["--kill", str(point.number)], scenario.command(device))
            kept = disk.copy(after)
        problems = [] if answer.code in (0, KILLED) else [f"it ended with {answer.code}: {answer.text()}"]
        with kept.mounted() as device:
            problems += ["after that: " + problem for problem in checks.check_between(scenario, device, answer)]
            problems += self._put_in_order(scenario, device, os.path.join(folder, "changes"), answer)
        if not problems or not self._arguments.keep:
            shutil.rmtree(folder)
        return crash.Outcome(point, "" if answer.code == KILLED else None, problems)


def choose_points(runner, scenarios, arguments):
    points = []
    for scenario in scenarios:
        changes = runner.measure(scenario, "changes", False)
        for file_system in FILE_SYSTEMS:
            if arguments.kind in (None, file_system):
                runner.prepare(scenario, file_system)
                # One more than there are changes: the power goes when the sync has said that all is done.
                numbers = [arguments.point] if arguments.point else range(1, changes + 2)
                points += [crash.Point(scenario, file_system, number) for number in numbers]
    if not arguments.points or arguments.points >= len(points):
        return points
    return random.Random(arguments.seed).sample(points, arguments.points)


def can_mount():
    """Whether images of every file system can be made and mounted here."""
    with tempfile.TemporaryDirectory() as folder:
        for file_system in FILE_SYSTEMS:
            try:
                with Disk.make(os.path.join(folder, file_system), file_system).mounted():
                    pass
            except (SystemExit, OSError) as problem:
                print(f"power: SKIPPED, since no {file_system} can be mounted here: {problem}")
                return False
    return True


def main():
    parser = crash.argument_parser(__doc__, FILE_SYSTEMS)
    parser.add_argument(IN_NAMESPACE, action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if os.geteuid() != 0:
        print("power: SKIPPED, since only root may mount a disk; run it as root")
        return crash.SKIPPED
    if not arguments.in_a_mount_namespace:
        # Whatever happens, no mount outlasts this run.
        return subprocess.run(["unshare", "--mount", *sys.argv, IN_NAMESPACE], check=False).returncode
    folder = crash.make_folder("power-")
    try:
        runner = PowerRunner(arguments, folder)
        if not runner.can_supervise():
            print("power: SKIPPED, since this machine lets no process supervise the system calls of another")
            return crash.SKIPPED
        if not can_mount():
            return crash.SKIPPED
        points = choose_points(runner, crash.make_scenarios(arguments, folder), arguments)
        return crash.try_all(runner, points, arguments.jobs)
    finally:
        if not arguments.keep:
            shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
