#!/usr/bin/python3
"""Changes one place of the plug-in at a time and reports the changes that no plug-in test notices.

The places are spread over all operations: each operation gives one place in turn, chosen by the seed. Reasons why a
change cannot be observed stand in unobservable.txt; such a change counts as unnoticed all the same.
"""
import argparse
import collections
import concurrent.futures
import pathlib
import queue
import random
import sys
import threading
import time

import places
import trial

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent


def arguments():
    parser = argparse.ArgumentParser(prog='scripts/mutate', description=__doc__)
    parser.add_argument('--seed', type=int, help='chooses the places (default: another one each time)')
    parser.add_argument('--count', type=int, default=400, help='how many changes that compile (default 400)')
    parser.add_argument('--only', default='', metavar='TEXT', help='places whose file, line, kind or operation has this text')
    parser.add_argument('--list', action='store_true', help='prints the places and stops')
    parser.add_argument('--jobs', type=int, default=2, help='how many at once (default 2)')
    parser.add_argument('--goal', type=float, default=97, help='percent to be noticed (default 97)')
    parser.add_argument('--verbose', action='store_true', help='also says which test noticed a change')
    return parser.parse_args()


def all_places(build, jobs):
    met = {source: [source] for source in build.sources()}
    for header in build.headers():
        met[min(build.dependencies[header])].append(header)
    with concurrent.futures.ProcessPoolExecutor(jobs) as pool:
        found = [pool.submit(places.find, ROOT, source, files, build.flags(source)) for source, files in met.items()]
        return [place for each in found for place in each.result()]


def chosen(found, seed):
    """All places, in an order that takes one of each operation in turn."""
    dice = random.Random(seed)
    by_operation = collections.defaultdict(list)
    for place in sorted(found, key=lambda p: (p.file, p.begin, p.end, p.new)):
        by_operation[place.file, place.function].append(place)
    piles = list(by_operation.values())
    dice.shuffle(piles)
    for pile in piles:
        dice.shuffle(pile)
    while piles:
        for pile in piles:
            yield pile.pop()
        piles = [pile for pile in piles if pile]


def reasons():
    known = {}
    for line in (HERE / 'unobservable.txt').read_text().splitlines():
        if line and not line.startswith('#'):
            key, reason = line.rsplit(' || ', 1)
            known[key] = reason
    return known


class Run:
    def __init__(self, options, builds, sequence):
        self.options, self.builds = options, builds
        self.sequence = sequence
        self.lock = threading.Lock()
        self.noticed, self.tried = collections.Counter(), collections.Counter()
        self.operations, self.survivors, self.failures = set(), [], queue.Queue()
        self.refused = 0
        self.promised = 0  # tried or being tried

    def next(self):
        with self.lock:
            if self.promised >= self.options.count:
                return None
            self.promised += 1
            return next(self.sequence, None)

    def work(self, number):
        try:
            trials = {name: trial.Trial(build, build.folder / 'mutate' / str(number))
                      for name, build in self.builds.items()}
            while (place := self.next()) is not None:
                self.one(trials['mutate-locks' if place.kind == 'lock' else 'mutate'], place)
        except Exception as problem:  # a worker that dies must not pass for one that found nothing
            self.failures.put(problem)

    def one(self, worker, place):
        try:
            noticed = worker.run(place)
        except trial.DoesNotCompile:
            with self.lock:
                self.refused += 1
                self.promised -= 1
            return
        with self.lock:
            self.tried[place.kind] += 1
            self.operations.add((place.file, place.function))
            done = sum(self.tried.values())
            if done % 50 == 0:
                print(f'{done} tried', flush=True)
            if noticed is None:
                self.survivors.append(place)
                print(f'UNNOTICED {place}', flush=True)
            else:
                self.noticed[place.kind] += 1
                if self.options.verbose:
                    print(f'noticed   {place} by {noticed}', flush=True)


def report(run, known, seed, seconds, operations):
    tried, noticed = sum(run.tried.values()), sum(run.noticed.values())
    print(f'\n{"kind":<10} {"noticed":>7} {"tried":>6}')
    for kind in sorted(run.tried):
        print(f'{kind:<10} {run.noticed[kind]:>7} {run.tried[kind]:>6}')
    unexplained = [place for place in run.survivors if place.key() not in known]
    for place in sorted(run.survivors, key=lambda p: (p.file, p.line)):
        print(f'unnoticed: {place}\n           {known.get(place.key(), "no reason is known")}')
    print(f'seed {seed}: {noticed} of {tried} changes noticed ({100 * noticed / max(tried, 1):.1f} %), in '
          f'{len(run.operations)} of {operations} operations; {len(run.survivors) - len(unexplained)} of the others '
          f'are explained; {run.refused} more did not compile; {seconds:.0f} s')
    return 0 if tried and 100 * noticed >= run.options.goal * tried and not unexplained else 1


def main():
    options = arguments()
    builds = {name: trial.Build(ROOT, ROOT / 'build' / name, patience) for name, patience in trial.PATIENCE.items()}
    everything = all_places(builds['mutate'], options.jobs)
    known = reasons()
    found = [place for place in everything if options.only in str(place)]
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    if options.list:
        for place in found:
            print(place.key())
        return 0
    stale = known.keys() - {place.key() for place in everything}
    if stale:
        raise SystemExit('mutate: unobservable.txt gives reasons for what is not there any more; take them out:\n' +
                         '\n'.join(sorted(stale)))
    print(f'seed {seed}: {options.count} of {len(found)} places', flush=True)
    begin = time.monotonic()
    for name, build in builds.items():
        if any((place.kind == 'lock') == (name == 'mutate-locks') for place in found):
            trial.Trial(build, build.folder / 'mutate' / 'unchanged').check_unchanged()
    run = Run(options, builds, chosen(found, seed))
    workers = [threading.Thread(target=run.work, args=(number,)) for number in range(options.jobs)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    if not run.failures.empty():
        raise run.failures.get()
    return report(run, known, seed, time.monotonic() - begin, len({(place.file, place.function) for place in found}))


if __name__ == '__main__':
    sys.exit(main())
