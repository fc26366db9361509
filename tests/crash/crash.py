#!/usr/bin/env -S python3 -B
"""Kills a sync or restore at each of its changes to the device, or lets that change fail, and looks at what is left.

Each run starts from the same device. The sync is disturbed at one change; then every app must be there in its old
version or its new one, whole. A plain sync follows: it must succeed, and leave the device as if nothing had happened.
The library (or backup) fails the same way: each look at it, or its file is changed under the sync's hands.
Several threads work on a device, so that a number stands for slightly different changes from run to run.
"""
import argparse
import collections
import concurrent.futures
import dataclasses
import errno
import os
import random
import shutil
import sys
import tempfile
import time

import checks
from restores import Delivery, Restore
from scenarios import KILLED, Resumed, Scenario, copy_device, run



@dataclasses.dataclass
class Kind:
    calls: str  # that are disturbed
    how: str  # they are
    error: int | None = None  # with which they fail
    words: str | None = None  # what a shell does instead to the file "$DISTURBED"
    of_source: bool = False  # calls that read the library, not those on the device

    def options(self, number):
        options = [self.how, str(number)]
        options += ["--error", str(self.error)] if self.error else []
        return options + (["--do", self.words] if self.words else [])


def _changed(words):
    return Kind("reads", "--at", words=f'[ ! -f "$DISTURBED" ] || {words}', of_source=True)


# How a call is disturbed. On a full disk and on one that takes no changes any more all of them fail from the point on.
KINDS = {
    "kill": Kind("changes", "--kill"),
    "EIO": Kind("changes", "--fail", errno.EIO),
    "ENOSPC": Kind("changes", "--fail", errno.ENOSPC),
    "full": Kind("space", "--fail-from", errno.ENOSPC),
    "dead": Kind("changes", "--fail-from", errno.EIO),
    "read-EIO": Kind("reads", "--fail", errno.EIO),
    "source-EIO": Kind("reads", "--fail", errno.EIO, of_source=True),
    "source-shrinks": _changed('truncate -s 200 "$DISTURBED"'),
    "source-grows": _changed('truncate -s +200 "$DISTURBED"'),
    "source-goes": _changed('rm "$DISTURBED"'),
    "source-replaced": _changed('{ head -c 200 "$DISTURBED" >"$DISTURBED.new" && mv "$DISTURBED.new" "$DISTURBED"; }'),
}
# By name: how a scenario is made, and the options of its device.
SCENARIOS = {
    "coordinated": (Scenario, []),
    "own": (Scenario, ["--no-coordination"]),
    "coordinated-resumed": (Resumed, []),
    "own-resumed": (Resumed, ["--no-coordination"]),
    "restore-coordinated": (Restore, []),
    "store": (Delivery, []),
    "restore-own": (Delivery, ["--no-coordination"]),
}
CANNOT_SUPERVISE = 125
SKIPPED = 77


@dataclasses.dataclass
class Point:
    scenario: Scenario
    kind: str
    number: int

    def __str__(self):
        return f"--path {self.scenario.name} --kind {self.kind} --point {self.number}"


@dataclasses.dataclass
class Outcome:
    point: Point
    change: str | None  # what was disturbed; None when the sync ended before it came to that number
    problems: list[str]


class Runner:
    def __init__(self, arguments, folder):
        self._arguments = arguments
        self._folder = folder
        self._names = {}

    def can_supervise(self):
        return self._supervised(self._folder, [], ["true"]).code != CANNOT_SUPERVISE

    def measure(self, scenario, calls, of_source):
        """How many such calls an undisturbed run makes at most, in a few runs. Its device is what others are compared
        with."""
        return max(self._measure_once(scenario, calls, of_source) for _ in range(3))

    def _measure_once(self, scenario, calls, of_source):
        folder = tempfile.mkdtemp(prefix="undisturbed-", dir=self._folder)
        device = os.path.join(folder, "device")
        copy_device(scenario.snapshot, device)
        changes = os.path.join(folder, "changes")
        answer = self._supervised(scenario.source() if of_source else device, ["--calls", calls, "--list", changes],
                                  scenario.command(device))
        answers = [answer] if answer.code else [answer, *map(run, scenario.next_commands(device, answer))]
        self._names[scenario.name] = checks.final_names(device)
        problems = checks.check_end(scenario, device, self._names[scenario.name])
        if problems or any(answer.code for answer in answers):
            said = "".join(f"\n{answer.code} {answer.text()}" for answer in answers)
            raise SystemExit(f"crash: undisturbed, {scenario.name}: {problems}{said}")
        with open(changes) as lines:
            return sum(1 for _ in lines)

    def try_point(self, point):
        folder = tempfile.mkdtemp(prefix="point-", dir=self._folder)
        device = os.path.join(folder, "device")
        copy_device(point.scenario.snapshot, device)
        changes = os.path.join(folder, "changes")
        problems, is_reached = self._disturb(point, device, changes)
        with open(changes) as lines:
            change = next((line.split("\t", 1)[1].strip() for line in lines
                           if line.startswith(f"{point.number}\t")), None)
        if problems and self._arguments.keep:
            print(f"the device of {point} is in {device}")
        else:
            shutil.rmtree(folder)
        return Outcome(point, change if is_reached else None, problems)

    def _supervised(self, folder, options, command):
        return run([self._arguments.disturb, "--under", folder, *options, *command])

    def _disturb(self, point, device, changes):
        scenario = point.scenario
        kind = KINDS[point.kind]
        source = scenario.source()
        if kind.of_source:
            source = os.path.join(os.path.dirname(device), "source")
            copy_device(scenario.source(), source)
        answer = self._supervised(source if kind.of_source else device,
                                  ["--calls", kind.calls, "--list", changes, *kind.options(point.number)],
                                  scenario.command(device, source))
        problems = []
        if kind.how == "--kill":
            if answer.code not in (0, KILLED):
                problems.append(f"it ended with {answer.code}: {answer.text()}")
        else:
            # A library that cannot be read at all is none for the person who named it.
            codes = (1, 2, 4, 5) if kind.of_source else (1, 4, 5)
            problems += checks.check_failure(scenario, device, answer, kind.calls != "reads", codes)
        between = checks.check_between(scenario, device, answer, has_all_apps=not kind.of_source)
        problems += ["after that: " + problem for problem in between]
        problems += self._put_in_order(scenario, device, changes + "-next", answer)
        return problems, kind.how != "--kill" or answer.code == KILLED

    def _put_in_order(self, scenario, device, changes, disturbed):
        problems = []
        at_hand = scenario.packages_at_hand(device)
        has_installed = False
        for command in scenario.next_commands(device, disturbed):
            answer = self._supervised(device, ["--list", changes], command) if at_hand else run(command)
            if not scenario.is_all_right(command, answer):
                problems.append(f"after that `qrd {command[1]}` ended with {answer.code}: {answer.text()}")
            has_installed |= '"installed"' in answer.output or '"updated"' in answer.output
        if at_hand:
            problems += checks.check_not_sent(at_hand, changes)
        return problems + ["at the end: " + problem for problem in checks.check_end(
            scenario, device, self._names[scenario.name], has_installed)]


def choose_points(scenarios, runner, arguments):
    kinds = {name: kind for name, kind in KINDS.items() if arguments.kind in (None, name)}
    counts = {(scenario.name, calls, of_source): runner.measure(scenario, calls, of_source)
              for scenario in scenarios
              for calls, of_source in {(kind.calls, kind.of_source) for kind in kinds.values()}}
    everything = [Point(scenario, name, number) for scenario in scenarios for name, kind in kinds.items()
                  if name not in scenario.left_out
                  for number in ([arguments.point] if arguments.point else
                                 range(1, counts[scenario.name, kind.calls, kind.of_source] + 1))]
    if not arguments.points or arguments.points >= len(everything):
        return everything
    step = len(everything) / arguments.points
    start = random.Random(arguments.seed).random() * step
    return [everything[int(start + place * step)] for place in range(arguments.points)]


def report_outcomes(outcomes, seconds):
    tried = collections.Counter((outcome.point.scenario.name, outcome.point.kind) for outcome in outcomes)
    failed = collections.Counter((outcome.point.scenario.name, outcome.point.kind)
                                 for outcome in outcomes if outcome.problems)
    for path, kind in tried:
        print(f"{path:20} {kind:15} {tried[path, kind]:5} points, {failed[path, kind]} with problems")
    unreached = sum(outcome.change is None for outcome in outcomes)
    print(f"{len(outcomes)} points in {seconds:.0f} s; {unreached} came after the end of their sync")


def try_all(runner, points, jobs):
    """Tries all points and reports on them; the exit code of the run."""
    begin = time.monotonic()
    outcomes = []
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for outcome in pool.map(runner.try_point, points):
            outcomes.append(outcome)
            if outcome.problems:
                print(f"FAILED at {outcome.change}\n  repeat: {os.path.relpath(sys.argv[0])} {outcome.point}")
                print("".join(f"    {problem}\n" for problem in outcome.problems), end="", flush=True)
    report_outcomes(outcomes, time.monotonic() - begin)
    return 1 if any(outcome.problems for outcome in outcomes) else 0


def argument_parser(description, kinds):
    home = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../build/release/bin")
    parser = argparse.ArgumentParser(description=description.split("\n", maxsplit=1)[0])
    parser.add_argument("--qrd", default=os.path.join(home, "qrd"))
    parser.add_argument("--disturb", default=os.path.join(home, "disturb"))
    parser.add_argument("--points", type=int, help="only so many, evenly spread")
    parser.add_argument("--seed", type=int, default=0, help="which points to begin the spread with")
    parser.add_argument("--path", choices=SCENARIOS, help="only this scenario")
    parser.add_argument("--kind", choices=kinds, help="only this disturbance")
    parser.add_argument("--point", type=int, help="only this change, counted from 1")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--keep", action="store_true", help="keep the devices of failures")
    return parser


def make_folder(prefix):
    """A place to work in: in memory where that can be, since no machine is to lose its power meanwhile."""
    return tempfile.mkdtemp(prefix=prefix, dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None)


def make_scenarios(arguments, folder):
    return [kind(name, arguments, folder, device_options) for name, (kind, device_options) in SCENARIOS.items()
            if arguments.path in (None, name)]


def main():
    arguments = argument_parser(__doc__, KINDS).parse_args()
    folder = make_folder("crash-")
    try:
        runner = Runner(arguments, folder)
        if not runner.can_supervise():
            print("crash: SKIPPED, since this machine lets no process supervise the system calls of another")
            return SKIPPED
        points = choose_points(make_scenarios(arguments, folder), runner, arguments)
        return try_all(runner, points, arguments.jobs)
    finally:
        if not arguments.keep:
            shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
