#!/usr/bin/python3
"""Runs the rules of the platform on a device that breaks them: each must say what is missing, and none may crash, hang
or pass over it.

Usage: tests/contract/broken_test.py BROKEN_CONTRACT
"""
import json
import pathlib
import re
import subprocess
import sys
import tempfile

# One rule of each way to be broken, and what it must say.
SAYS = {
    'CoordinatorContract.WhatIsSetIsThere': 'the device gave none where the rule needs it: a coordinator made for com.example.a',
    'CoordinatorContract.ThereIsOneAppAssetPromise': 'a coordinator made for com.example.a',
    'CoordinatorReportContract.SeveralAppsAreInstalledSideBySide': 'a coordinator made for com.example.a',
    'IconContract.TheIconOfAnAppBecomesAFile': 'the proxy of the installed app com.example.a',
    'RegistryContract.AnUpdateBringsTheNewVersion': 'apps.install(A, "1.0")',
    'RegistryObserverContract.EveryNewObserverIsToldTheListsOnAThreadOfTheRegistryAlsoWhenTheyAreEmpty':
        'in vain for the lists of installs: under way {}, paused {}',
    'StoreContract.SeveralRefreshesEachEnd': 'in vain for the completion of the refresh',
    'SchedulerContract.ATaskMayTryToTakeItselfBack': 'in vain for the task',
    'NotificationContract.RemovingIsByName': 'in vain for a post',
    'UninstalledListContract.IsKeptForTheNextProcess': 'the list of uninstalled apps',
}


def main():
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder) / 'report.json'
        run = subprocess.run([sys.argv[1], f'--gtest_output=json:{report}'], capture_output=True, text=True)
        if run.returncode != 1:
            sys.exit(f'the rules ended with {run.returncode} and not with failures:\n{run.stdout[-2000:]}{run.stderr}')
        suites = json.loads(report.read_text())['testsuites']
    told = {f"{suite['name'].split('/')[1]}.{test['name'].split('/')[0]}":
            '\n'.join(failure['failure'] for failure in test.get('failures', []))
            for suite in suites for test in suite['testsuite']}
    wrong = [f'{rule} does not say "{text}" but:\n{told.get(rule)}'
             for rule, text in SAYS.items() if text not in told.get(rule, '')]
    wrong += [f'{rule} does not say for what it has waited:\n{text}' for rule, text in told.items()
              if re.search(r'(wait\w*|isToldAnything)\(.*\)\n', text) and 'in vain for ' not in text]
    wrong += [f'{rule} says nothing of use:\n{text}' for rule, text in told.items() if 'bad optional access' in text]
    if wrong:
        sys.exit('\n\n'.join(wrong))
    print(f'{sum(map(bool, told.values()))} of {len(told)} rules have told what a broken device breaks')


main()
