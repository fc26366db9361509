"""Builds the plug-in with one change in it and asks its tests whether they notice."""
import json
import os
import pathlib
import re
import shlex
import subprocess
from dataclasses import dataclass

TESTS = ['client', 'log', 'planning', 'pipeline', 'coordination', 'placeholders', 'homescreen']
# The builds, and how many seconds each test program gets: a changed plug-in may wait for ever.
PATIENCE = {'mutate': 30, 'mutate-locks': 120}


class DoesNotCompile(Exception):
    pass


@dataclass(frozen=True)
class Unit:
    """Tests that are compiled together."""
    test: str
    source: str
    command: list

    def names(self, header):
        """Whether one of the tests includes the header itself."""
        files = re.findall(r'^#include "(/[^"]+)"', pathlib.Path(self.source).read_text(), re.MULTILINE)
        return any(f'#include "{header}"' in pathlib.Path(file).read_text() for file in files)


class Build:
    """A finished build of the plug-in's tests, whose commands are taken over."""

    def __init__(self, root, folder, patience):
        self.root, self.folder, self.patience = root, folder, patience
        entries = json.loads((folder / 'compile_commands.json').read_text())
        self.commands, self.units = {}, {}
        for entry in entries:
            command = [word for word in shlex.split(entry['command']) if word != '-Werror']
            if 'appsync_plugin.dir' in entry['command']:
                self.commands[os.path.relpath(entry['file'], root)] = command
            elif (found := re.search(r' -o (tests/plugin/(\w+)/CMakeFiles/\2_test\.dir/\S+)', entry['command'])) and \
                    found.group(2) in TESTS:
                self.units[found.group(1)] = Unit(found.group(2), entry['file'], command)
        self.dependencies = self._dependencies()
        self.links = {test: self._link(test) for test in TESTS}

    def sources(self):
        return sorted(self.commands)

    def _ninja(self, *arguments):
        return subprocess.run(['ninja', '-C', str(self.folder), *arguments], check=True, text=True,
                              capture_output=True).stdout

    def _dependencies(self):
        """Which sources include which file of the project."""
        users, source = {}, None
        for line in self._ninja('-t', 'deps').splitlines():
            if not line.startswith(' '):
                found = re.search(r'appsync_plugin\.dir/(.*)\.o:', line)
                source = found and 'plugin/' + found.group(1)
            elif source is not None and source in self.commands and line.strip():
                file = os.path.relpath(self.folder / line.strip(), self.root)
                users.setdefault(file, set()).add(source)
        return users

    def _link(self, test):
        command = self._ninja('-t', 'commands', f'bin/{test}_test').splitlines()[-1]
        command = next(part for part in command.split('&&') if f' -o bin/{test}_test' in part)
        return shlex.split(command)

    def headers(self):
        return sorted(file for file in self.dependencies if file.endswith('.h') and file.startswith('plugin/'))

    def flags(self, source):
        """What a parser must know to read this source."""
        return [word for word in self.commands[source] if word.startswith(('-I', '-std', '-D'))]


class Trial:
    """One worker with a folder of its own."""

    def __init__(self, build, folder):
        self.build, self.folder = build, folder
        (folder / 'include').mkdir(parents=True, exist_ok=True)

    def check_unchanged(self):
        """Stops when a test fails without any change: then everything would count as noticed."""
        for test in TESTS:
            noticed = self._ask(test, [], {})
            if noticed is not None:
                raise SystemExit(f'mutate: {noticed} fails in {self.build.folder} although nothing is changed')
        for built, unit in self.build.units.items():
            if any(unit.names(header) for header in self.build.headers()):
                try:
                    noticed = self._ask(unit.test, [], {built: self._compile(unit.command, unit.source, built, [])})
                except DoesNotCompile:
                    noticed = unit.source
                if noticed is not None:
                    raise SystemExit(f'mutate: {noticed} fails when it is compiled anew, although nothing is changed')

    def run(self, place):
        """The name of the test that noticed the change, or null."""
        text = (self.build.root / place.file).read_bytes()
        changed = text[:place.begin] + place.new.encode() + text[place.end:]
        own = place.file.split('/')[1]
        tests = sorted(TESTS, key=lambda name: name != own)
        if place.file in self.build.commands:
            copy = self.folder / pathlib.Path(place.file).name
            copy.write_bytes(changed)
            command = self.build.commands[place.file]
            return self._first_to_notice(tests, [self._compile(command, copy, place.file, [])])
        copy = self.folder / 'include' / place.file
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_bytes(changed)
        try:
            return self._with_header(place, tests)
        finally:
            copy.unlink()

    def _with_header(self, place, tests):
        """A changed header is compiled into more and more sources, since the first often suffice; at last into tests."""
        overlay = ['-I' + str(self.folder / 'include')]
        objects, waiting = [], self._users(place)
        while waiting:
            size = max(1, 3 * len(objects))
            objects += [self._compile(self.build.commands[source], self.build.root / source, source, overlay)
                        for source in waiting[:size]]
            waiting = waiting[size:]
            noticed = self._first_to_notice(tests, objects)
            if noticed is not None:
                return noticed
        for built, unit in self.build.units.items():
            if unit.names(place.file):
                try:
                    new = self._compile(unit.command, unit.source, built, overlay)
                except DoesNotCompile:
                    return f'{unit.test}_test, which does not compile'
                noticed = self._ask(unit.test, objects, {built: new})
                if noticed is not None:
                    return noticed
        return None

    def _first_to_notice(self, tests, objects):
        return next((noticed for test in tests if (noticed := self._ask(test, objects, {})) is not None), None)

    def _users(self, place):
        """The sources that include a header, first those that mention what stands at the place."""
        names = re.findall(r'\w{4,}', f'{place.function} {place.context}')
        texts = {source: (self.build.root / source).read_text() for source in self.build.dependencies[place.file]}
        return sorted(texts, key=lambda source: (-sum(name in texts[source] for name in names), source))

    def _compile(self, command, text, name, include):
        """The object of a text that is compiled as the command says; it is called after the name."""
        words = list(command)
        while not words[0].endswith(('++', 'c++')):
            words.pop(0)  # a compiler cache
        target = self.folder / (name.replace('/', '_') + '.o')
        words[words.index('-o') + 1] = str(target)
        words[words.index('-c') + 1] = str(text)
        result = subprocess.run([words[0], '-w', *include, *words[1:]], cwd=self.build.folder, capture_output=True)
        if result.returncode != 0:
            raise DoesNotCompile
        return str(target)

    def _ask(self, test, objects, instead):
        """The name of the test that fails with these objects of the plug-in, and some of the tests' own exchanged."""
        program = self.folder / f'{test}_test'
        assert instead.keys() <= set(self.build.links[test])
        words = [instead.get(word, word) for word in self.build.links[test]]
        words[words.index('-o') + 1] = str(program)
        # In front of everything else, so that changed inline functions win too.
        words[1:1] = objects
        result = subprocess.run(words, cwd=self.build.folder, capture_output=True, text=True)
        if result.returncode != 0:
            raise DoesNotCompile
        try:
            run = subprocess.run([str(program), '--gtest_brief=1', '--gtest_fail_fast'], cwd=self.folder,
                                 capture_output=True, text=True, errors='replace', timeout=self.build.patience,
                                 env={**os.environ, 'TSAN_OPTIONS': 'halt_on_error=1'})
        except subprocess.TimeoutExpired:
            return f'{test}_test, which never ended'
        if run.returncode == 0:
            return None
        failed = re.search(r'\[  FAILED  \] ([\w/.]+)', run.stdout)
        return failed.group(1) if failed else f'{test}_test, which ended with {run.returncode}'
