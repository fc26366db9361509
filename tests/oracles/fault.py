"""A deliberate fault, and what is run to hear an oracle speak about it."""
import dataclasses
import re
import subprocess
import sys

TIME_LIMIT = 600  # seconds; a fault may make its program wait for ever


@dataclasses.dataclass
class Outcome:
    spoke: bool
    said: str


def _run(words, limit=TIME_LIMIT):
    try:
        ended = subprocess.run(list(map(str, words)), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               errors='replace', timeout=limit)
    except subprocess.TimeoutExpired as problem:
        return 0, f'{problem.stdout or b""!r}\nit did not end within {limit} s'
    return ended.returncode, ended.stdout


@dataclasses.dataclass(frozen=True)
class Replay:
    """Kept inputs of a fuzz target."""
    name: str
    inputs: tuple

    @property
    def targets(self):
        return [self.name + '_replay']

    def look_for(self, pattern, tree, programs):
        code, said = _run([programs / (self.name + '_replay'),
                           *(tree / 'fuzz/corpus' / self.name / each for each in self.inputs or ('',))])
        return Outcome(code != 0 and bool(pattern.search(said)), said)


def replay(name, *inputs):
    """Runs a fuzz target over these of its inputs, over all when none is named."""
    return Replay(name, inputs)


@dataclasses.dataclass(frozen=True)
class Lives:
    """Lives from the first seed on, until one breaks the rule in question: others may be broken before it."""
    program: str
    count: int
    options: tuple
    others: int = 60  # lives that may break another rule

    @property
    def targets(self):
        return [self.program]

    def look_for(self, pattern, tree, programs):
        seed, everything = 1, []
        for _ in range(self.others):
            code, said = _run([programs / self.program, '--from', seed, '--lives', self.count - seed + 1, *self.options])
            everything.append(said)
            if code == 0 or pattern.search(said):
                return Outcome(code != 0 and bool(pattern.search(said)), '\n'.join(everything))
            broken = re.search(r'^life (\d+): ', said, re.MULTILINE)
            if not broken or int(broken.group(1)) >= self.count:
                break
            seed = int(broken.group(1)) + 1
        return Outcome(False, '\n'.join(everything))


def lives(count=2000, *options):
    return Lives('simulate', count, options)


def rush(count=300, *options):
    return Lives('simulate_rush', count, options)


@dataclasses.dataclass(frozen=True)
class Disturbed:
    """Points of a crash or power-loss run."""
    script: str
    options: tuple

    targets = ('qrd', 'ApplicationSync', 'disturb')

    def look_for(self, pattern, tree, programs):
        code, said = _run([sys.executable, '-B', tree / 'tests/crash' / self.script, '--qrd', programs / 'qrd', '--disturb',
                           programs / 'disturb', '--jobs', 1, *self.options])
        return Outcome(code not in (0, 77) and bool(pattern.search(said)), said)


def crash(path, kind, points=8, point=None):
    """Some points of a scenario that are disturbed in one way, or the one point."""
    return Disturbed('crash.py', ('--path', path, '--kind', kind, *(('--point', point) if point else ('--points', points))))


def power(path, kind, points=8):
    return Disturbed('power.py', ('--path', path, '--kind', kind, '--points', points))


@dataclasses.dataclass(frozen=True)
class Fault:
    says: str  # by the oracle, with a star for what differs from run to run
    file: str
    old: str  # stands in the file once
    new: str
    run: object

    def pattern(self):
        return re.compile('.*'.join(map(re.escape, self.says.split('*'))))

    def __str__(self):
        options = ' '.join(map(str, getattr(self.run, 'options', ())))
        name = getattr(self.run, 'name', None) or getattr(self.run, 'program', None) or self.run.script
        return f'{name}{" " + options if options else ""}: "{self.says}" ({self.file})'
