#!/usr/bin/python3
"""Installs a finished build into an empty folder, and uses from there the program, the libraries and the rules."""
import os
import pathlib
import subprocess
import sys
import tempfile
import zipfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
PORT = ROOT / 'examples' / 'port'


def run(*words, **options):
    result = subprocess.run([str(word) for word in words], capture_output=True, text=True, **options)
    if result.returncode != 0:
        sys.exit(f'{" ".join(map(str, words))} ended with {result.returncode}:\n{result.stdout}{result.stderr}')
    return result.stdout


def the_program_syncs(prefix, folder):
    """Away from its build, the program finds its plug-in."""
    library = folder / 'library'
    library.mkdir()
    with zipfile.ZipFile(library / 'a.zip', 'w') as archive:
        archive.writestr('A.app/Info.plist', '<plist version="1.0"><dict><key>BXBundleIdentifier</key><string>com.example.a'
                         '</string><key>BXBundleVersion</key><string>1.0</string></dict></plist>')
    qrd = prefix / 'bin' / 'qrd'
    assert run(qrd, '--version').startswith('qrd '), 'it has no version'
    run(qrd, 'device', 'create', folder / 'device')
    run(qrd, 'sync', folder / 'device', '--library', library)
    assert 'com.example.a' in run(qrd, 'apps', folder / 'device'), 'the app did not arrive'


def every_header_is_there(prefix, folder, flags):
    """All that a port may include, and understood by a project that has no others."""
    installed = prefix / 'include/appsync'
    names = sorted(str(path.relative_to(installed)) for path in installed.rglob('*.h'))
    wanted = [str(path.relative_to(ROOT)) for name in ('values', 'platform') for path in (ROOT / name).rglob('*.h')]
    missing = [name for name in wanted if name not in names]
    assert not missing, f'not installed: {missing}'
    (folder / 'all.cpp').write_text(''.join(f'#include "{name}"\n' for name in names))
    run('c++', '-std=c++20', '-fsyntax-only', folder / 'all.cpp', *flags)


def a_port_builds(prefix, folder):
    """With the CMake package: the example brings an app to its device, and passes the rules that apply to it."""
    build = folder / 'port'
    run('cmake', '-G', 'Ninja', '-S', PORT, '-B', build, f'-DCMAKE_PREFIX_PATH={prefix}',
        '-DCMAKE_UNITY_BUILD=ON', '-DCMAKE_UNITY_BUILD_BATCH_SIZE=0')
    run('cmake', '--build', build)
    assert '0 tests failed out of 2' in run('ctest', '--test-dir', build)
    rules = run(build / 'port_contract', '--gtest_brief=1')
    assert 'the device lacks: hasCoordinators' in rules, 'the rules of coordination were not skipped:\n' + rules
    without = subprocess.run([build / 'port_sync', folder], capture_output=True, text=True)
    assert without.returncode == 1 and 'is no plug-in bundle' in without.stderr, without.stderr


def a_port_builds_by_flags(prefix, folder):
    """With the pkg-config file."""
    search = {**os.environ, 'PKG_CONFIG_PATH': str(next(prefix.glob('lib/**/pkgconfig')))}
    pkg_config = ['pkg-config', '--define-variable', f'prefix={prefix}']
    flags = run(*pkg_config, '--cflags', '--libs', 'appsync', env=search).split()
    program = folder / 'by-flags'
    run('c++', '-std=c++20', *(PORT / name for name in ('Sync.cpp', 'Files.cpp', 'Registry.cpp')), '-o', program, *flags)
    said = run(program, run(*pkg_config, '--variable=bundle', 'appsync', env=search).strip())
    assert 'the to-do list says INSTALLED' in said, said
    every_header_is_there(prefix, folder, flags)


def main():
    build = sys.argv[1]
    with tempfile.TemporaryDirectory() as scratch:
        folder = pathlib.Path(scratch)
        prefix = folder / 'prefix'
        run('cmake', '--install', build, '--prefix', prefix)
        the_program_syncs(prefix, folder)
        a_port_builds(prefix, folder)
        a_port_builds_by_flags(prefix, folder)
        print('the installed program, libraries and rules can be used')


main()
