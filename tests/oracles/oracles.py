#!/usr/bin/python3
"""Breaks what each oracle watches, and sees whether the oracle speaks.

An oracle is an expectation of a fuzz target, a rule of the simulation, or a check of the crash and power-loss runs. For
each there is a deliberate fault in the tables beside this file: a small change of the plug-in, the device or whatever the
oracle watches, what to run, and the words that the run must say. Each fault is built and run in a copy of the sources.
"""
import argparse
import os
import pathlib
import queue
import re
import shutil
import subprocess
import sys
import threading
import time

import crash_faults
import fuzz_faults
import names
import simulation_faults
from fault import Outcome

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
FAULTS = fuzz_faults.FAULTS + simulation_faults.FAULTS + crash_faults.FAULTS
PRESET = 'oracles'


def arguments():
    parser = argparse.ArgumentParser(prog='scripts/mutate --oracles', description=__doc__)
    parser.add_argument('--only', default='', metavar='TEXT', help='faults whose place, words or run have this text')
    parser.add_argument('--list', action='store_true', help='prints the faults and stops')
    parser.add_argument('--check', action='store_true',
                        help='only sees whether the tables fit the sources: each fault has its place, each oracle its fault')
    parser.add_argument('--jobs', type=int, default=2, help='how many at once (default 2)')
    parser.add_argument('--verbose', action='store_true', help='also prints what a silent run said')
    return parser.parse_args()


def misfits():
    """What is wrong with the tables."""
    problems = [f'{fault.file}: the text to be changed by the fault for "{fault.says}" is there {count} times and not once; '
                f'write the fault anew:\n{fault.old}'
                for fault in FAULTS if (count := (ROOT / fault.file).read_text().count(fault.old)) != 1]
    return problems + [f'{oracle}: no fault makes it speak; add one to the tables in tests/oracles'
                       for oracle in names.without_fault(ROOT, FAULTS)]


class Copy:
    """The sources once more, with a build, for one worker."""

    def __init__(self, folder):
        self.tree, self.build = folder, folder / 'build' / PRESET

    def prepare(self, targets):
        self._copy_sources()
        if not (self.build / 'build.ninja').exists():
            self._must_run(['cmake', '--preset', PRESET])
        self._must_run(['ninja', '-C', self.build, *targets])

    def _copy_sources(self):
        """What has not changed keeps its time, so that it is not built anew."""
        listed = subprocess.run(['git', 'ls-files', '-z', '--cached', '--others', '--exclude-standard'], cwd=ROOT, check=True,
                                capture_output=True, text=True).stdout.split('\0')
        wanted = {name for name in listed if name and (ROOT / name).is_file()}
        for name in wanted:
            copy = self.tree / name
            if not copy.is_file() or copy.read_bytes() != (ROOT / name).read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(ROOT / name, copy)
        for path in [path for path in self.tree.rglob('*') if path.is_file() and self.build not in path.parents]:
            if str(path.relative_to(self.tree)) not in wanted:
                path.unlink()

    def _must_run(self, words):
        ended = subprocess.run(words, cwd=self.tree, env=self._environment(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if ended.returncode != 0:
            raise SystemExit(f'oracles: {" ".join(map(str, words))} failed:\n{ended.stdout[-4000:]}')

    def _environment(self):
        """Lets the copies share what the compiler's cache has."""
        return {**os.environ, 'CCACHE_BASEDIR': str(self.tree), 'CCACHE_NOHASHDIR': '1'}

    def try_fault(self, fault):
        source = self.tree / fault.file
        text = source.read_text()
        source.write_text(text.replace(fault.old, fault.new))
        try:
            built = subprocess.run(['ninja', '-C', self.build, *fault.run.targets], env=self._environment(),
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            if built.returncode != 0:
                return Outcome(False, 'the fault does not compile; write it anew:\n' + built.stdout)
            return fault.run.look_for(fault.pattern(), self.tree, self.build / 'bin')
        finally:
            source.write_text(text)


class Run:
    def __init__(self, faults, options):
        self.options, self.waiting = options, queue.SimpleQueue()
        self.silent, self.failures, self.lock = [], [], threading.Lock()
        self.targets = sorted({target for fault in faults for target in fault.run.targets})
        for fault in faults:
            self.waiting.put(fault)

    def work(self, number):
        try:
            copy = Copy(ROOT / 'build' / PRESET / 'copies' / str(number))
            copy.prepare(self.targets)
            while True:
                self.one(copy, self.waiting.get_nowait())
        except queue.Empty:
            pass
        except BaseException as problem:  # a worker that dies must not pass for one that found nothing
            self.failures.append(problem)

    def one(self, copy, fault):
        begin = time.monotonic()
        outcome = copy.try_fault(fault)
        with self.lock:
            print(f'{"spoke " if outcome.spoke else "SILENT"} {time.monotonic() - begin:4.0f} s  {fault}', flush=True)
            if not outcome.spoke:
                self.silent.append(fault)
                if self.options.verbose:
                    print(''.join(f'    {line}\n' for line in outcome.said.splitlines()[-40:]), end='', flush=True)


def main():
    options = arguments()
    faults = [fault for fault in FAULTS if options.only in str(fault)]
    if options.list:
        print('\n'.join(map(str, faults)))
        return 0
    problems = misfits()
    if problems or options.check:
        print('\n'.join(problems) or f'{len(FAULTS)} faults fit the sources')
        return 1 if problems else 0
    begin = time.monotonic()
    run = Run(faults, options)
    workers = [threading.Thread(target=run.work, args=(number,)) for number in range(min(options.jobs, len(faults)))]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    if run.failures:
        raise run.failures[0]
    print(f'{len(faults) - len(run.silent)} of {len(faults)} oracles spoke, in {time.monotonic() - begin:.0f} s')
    for fault in run.silent:
        print(f'SILENT: {fault}')
    return 1 if run.silent or not faults else 0


if __name__ == '__main__':
    sys.exit(main())
