"""The oracles that stand in the sources, so that none is without a fault that makes it speak."""
import ast
import collections
import dataclasses
import re

from fault import Disturbed, Lives, Replay

FUZZ = ['fuzz/*.cpp', 'fuzz/*.h']
SIMULATION = ['tests/simulation/*.cpp']
CRASH = ['tests/crash/checks.py', 'tests/crash/crash.py', 'tests/crash/power.py', 'tests/crash/restores.py']
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')


@dataclasses.dataclass
class Oracle:
    run: type  # of which it speaks
    place: str  # "file:line"
    rule: str  # its words, with a star for what differs from run to run
    wheres: tuple | None = None  # what a rule of the simulation says about where it was broken, of which one is said

    def __str__(self):
        return f'{self.place}: "{self.rule}"' + (f' ({" | ".join(self.wheres)})' if self.wheres else '')

    def is_met_by(self, fault):
        pieces = [piece for piece in self.rule.split('*') if piece]
        found = isinstance(fault.run, self.run) and re.search('.*'.join(map(re.escape, pieces)), fault.says)
        if not found or self.wheres is None:
            return bool(found)
        where = fault.says[found.end():]
        return any(each in where for each in self.wheres) if self.wheres else bool(re.match(r': (\*|com\.example\.)', where))


def _calls(text, name):
    """The position and the arguments of each call of a function in C++."""
    for found in re.finditer(r'\b' + name + r'\(', text):
        depth, at = 1, found.end()
        while depth:
            if text[at] == '"':
                at = LITERAL.match(text, at).end()
                continue
            depth += {'(': 1, ')': -1}.get(text[at], 0)
            at += 1
        yield found.start(), text[found.end():at - 1]


def _in_cpp(root, patterns, functions):
    for pattern in patterns:
        for file in sorted(root.glob(pattern)):
            text = re.sub(r'//.*', '', file.read_text())
            for function in functions:
                for at, arguments in _calls(text, function):
                    words = [word.replace('\\"', '"') for word in LITERAL.findall(arguments)]
                    rule = next((place for place, word in enumerate(words) if ' ' in word), None)
                    if rule is not None:
                        yield f'{file.relative_to(root)}:{text.count(chr(10), 0, at) + 1}', words[rule:]


def _in_fuzzers(root):
    for place, words in _in_cpp(root, FUZZ, ['expect']):
        yield Oracle(Replay, place, words[0])


def _in_simulation(root):
    for place, words in _in_cpp(root, SIMULATION, ['demand', 'violated', '_check']):
        yield Oracle(Lives, place, words[0], tuple(word for word in map(str.strip, words[1:]) if re.search("[a-z]", word)))


def _in_crash_runs(root):
    for name in CRASH:
        for node in ast.walk(ast.parse((root / name).read_text())):
            said = node.elts if isinstance(node, ast.List) else [node.elt] if isinstance(node, ast.ListComp) else \
                node.args if isinstance(node, ast.Call) and getattr(node.func, 'attr', '') == 'append' else []
            for each in said:
                if isinstance(each, ast.JoinedStr):
                    rule = ''.join(part.value if isinstance(part, ast.Constant) else '*' for part in each.values)
                    yield Oracle(Disturbed, f'{name}:{each.lineno}', rule)


def without_fault(root, faults):
    """The oracles for which there is no fault. Those that say the same need as many faults as there are of them."""
    alike = collections.defaultdict(list)
    for oracle in [*_in_fuzzers(root), *_in_simulation(root), *_in_crash_runs(root)]:
        alike[oracle.rule, oracle.wheres].append(oracle)
    for oracles in alike.values():
        met = {fault for fault in faults if oracles[0].is_met_by(fault)}
        yield from oracles[len(met):]
