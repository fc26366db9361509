#!/usr/bin/python3
"""Installs a finished build into an empty folder, and uses from there the program, the libraries and the rules."""
import os
import pathlib
import subprocess
import sys
import tempfile
import zipfile

HERE = pathlib.Path(__file__).resolve().parent


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


def another_project_builds(prefix, folder):
    """With the CMake package, rules included, and with the pkg-config file."""
    build = folder / 'consumer'
    run('cmake', '-G', 'Ninja', '-S', HERE / 'consumer', '-B', build, f'-DCMAKE_PREFIX_PATH={prefix}')
    run('cmake', '--build', build)
    assert run(build / 'consumer') == 'installed, platform 1\n'
    search = {**os.environ, 'PKG_CONFIG_PATH': str(next(prefix.glob('lib/**/pkgconfig')))}
    flags = run('pkg-config', '--define-variable', f'prefix={prefix}', '--cflags', '--libs', 'appsync', env=search).split()
    run('c++', '-std=c++20', HERE / 'consumer' / 'Consumer.cpp', '-o', folder / 'by-flags', *flags)
    assert run(folder / 'by-flags') == 'installed, platform 1\n'


def main():
    build = sys.argv[1]
    with tempfile.TemporaryDirectory() as scratch:
        folder = pathlib.Path(scratch)
        prefix = folder / 'prefix'
        run('cmake', '--install', build, '--prefix', prefix)
        the_program_syncs(prefix, folder)
        another_project_builds(prefix, folder)
        print('the installed program, libraries and rules can be used')


main()
