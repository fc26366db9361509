"""Faults that the checks of the crash and power-loss runs must notice. Some show without any disturbance, in the run that
the others are compared with."""
from fault import Fault, crash, power

ONCE = {'points': 1}
DATA = '"/var/mobile/Containers/Data/Application/" + _request.identifier'
REPLACED = '        _registry._replace(_before, _after);\n'
ENTERED = '_registry._enter(container, _before, _after, Durability::durable)'
ENDED_REASON = 'reasonOf(isCancelled ? cancelledByUserError() : *outcome)'


def when_replaced(words):
    return REPLACED + f'        {words}\n'


FAULTS = [
    # Between a disturbed command and the next.
    Fault('`qrd apps` ended with 5: *', 'host/commands/DeviceCommands.cpp',
          '    Table table({"App", "Version", "State", "Identifier"});\n',
          '    Table table({"App", "Version", "State", "Identifier"});\n'
          '    if (std::ranges::any_of(device->registry().applications(), &device::Application::isPlaceholder)) {\n'
          '        return ExitCode::failed;\n    }\n', crash('coordinated', 'kill', points=5)),
    Fault('after that: org.example.* is lost', 'device/registry/ArchiveInstall.cpp',
          '        _after = {_makeRecord(',
          '        (void)_registry._database.run(Durability::durable, "DELETE FROM applications WHERE identifier = ?",\n'
          '                                      _request.identifier);\n        _after = {_makeRecord(',
          crash('own', 'kill', points=60)),
    Fault('org.example.* is there in version 2.0-0', 'host/commands/DeviceCommands.cpp',
          'list.push_back(toJson(app, isRunning));',
          'device::Application other = app;\n        other.version = "2.0-0";\n'
          '        list.push_back(toJson(other, isRunning));', crash('coordinated', 'kill', **ONCE)),
    Fault('all was said to be done, and org.example.* is not', 'host/view/SyncReport.cpp',
          'return !failure && !interrupted && !isIncomplete && std::ranges::all_of(apps, isDone);', 'return true;',
          crash('own', 'EIO', points=30)),
    Fault('org.example.* was said to be updated and is not', 'host/view/SyncReport.cpp',
          'case AppResult::failed: return "failed";', 'case AppResult::failed: return "updated";',
          crash('own', 'EIO', points=30)),
    Fault('org.example.* waits no longer', 'plugin/pipeline/TransferCompletion.cpp',
          'applicationIsInstalled(_identifier) || _asset->isRestore', 'applicationIsInstalled(_identifier)', crash('restore-own', 'EIO', points=40)),
    # What a command says that failed.
    Fault('it ended with 7: *', 'host/commands/BringApps.cpp',
          'report.allDone() ? ExitCode::done : ExitCode::someAppFailed;',
          'report.allDone() ? ExitCode::done : static_cast<ExitCode>(7);', crash('own', 'EIO', points=30)),
    Fault("it does not say why it failed: '*", 'host/OpenDevice.cpp',
          '"qrd: " + sentence', '"oh: " + sentence', crash('own', 'EIO', point=1)),
    Fault('it does not say why it failed: {*', 'host/session/SyncSession.cpp',
          f'report.reason = {ENDED_REASON};', 'report.reason = "";', crash('own', 'EIO', points=30)),
    Fault('the reason says nothing: Something went wrong.', 'host/session/SyncSession.cpp',
          f'report.reason = {ENDED_REASON};', 'report.reason = "Something went wrong.";', crash('own', 'EIO', points=30)),
    Fault('it ended with 139: *', 'tests/crash/Disturb.cpp',
          '128 + WTERMSIG(status)', '130 + WTERMSIG(status)', crash('own', 'kill', points=4)),
    Fault('it ended with 139: *', 'tests/crash/Disturb.cpp',
          '128 + WTERMSIG(status)', '130 + WTERMSIG(status)', power('own', 'ext4', points=2)),
    # Installed apps and their data.
    Fault('org.example.* 1.0-0 is installed', 'device/registry/Registry.cpp',
          'record.version = text("BXBundleVersion");', 'record.version = "1.0-0";', crash('coordinated', 'kill', **ONCE)),
    Fault('org.example.*: *.txt is missing', 'device/archive/Extraction.cpp',
          '        if (entry.kind == ZipDirectory::Kind::folder) {',
          '        if (entry.path.ends_with(".txt")) {\n            return {};\n        }\n'
          '        if (entry.kind == ZipDirectory::Kind::folder) {', crash('coordinated', 'kill', **ONCE)),
    Fault('org.example.*: other is none of its files', 'device/registry/ArchiveInstall.cpp',
          '        _sinf = std::move(*sinf);\n',
          '        (void)container.writeFile("other", Data("x"));\n        _sinf = std::move(*sinf);\n',
          crash('coordinated', 'kill', **ONCE)),
    Fault('org.example.*: *.txt has another content', 'device/archive/BundleWriter.cpp',
          'writeDirectly(file.get(), bytes)', 'writeDirectly(file.get(), bytes.substr(path.ends_with(".txt") ? 1 : 0))',
          crash('coordinated', 'kill', **ONCE)),
    Fault('the data of org.example.* is not whole', 'device/registry/ArchiveInstall.cpp', REPLACED,
          when_replaced(f'_registry._files.writeFileAtomically({DATA} + "/other", "x", nullptr);'),
          crash('coordinated', 'kill', **ONCE)),
    Fault('the data of org.example.* is gone', 'device/registry/ArchiveInstall.cpp', REPLACED,
          when_replaced(f'_registry._files.removeItem({DATA}, nullptr);'), crash('coordinated', 'kill', **ONCE)),
    # At the end.
    Fault('after that `qrd sync` ended with 5: *', 'desktop/Staging.cpp',
          '    device.removeItem(unfinished, nullptr);\n    if (const auto done = putAll(',
          '    if (device.fileExists(unfinished)) {\n        return desktopError("it is there", unfinished);\n    }\n'
          '    if (const auto done = putAll(', crash('coordinated', 'kill', points=40)),
    Fault('at the end: /var/containers/Bundle/.staging/* was left', 'device/registry/Removal.cpp',
          'for (const std::string_view folder : {stagingFolder, containersFolder}) {',
          'for (const std::string_view folder : {containersFolder}) {', crash('coordinated', 'kill', points=40)),
    Fault("'other was left'", 'host/session/SyncSession.cpp',
          '    clearReceivedFiles(_parties.device, _plan.goingOn);\n',
          '    _parties.device.files().writeFileAtomically("/tmp/other", "x", nullptr);\n', crash('coordinated', 'kill', **ONCE)),
    Fault('at the end: /var/mobile/Containers/Data/* is missing', 'host/session/Leftovers.cpp',
          '            device.files().removeItem(path, nullptr);',
          '            device.files().removeItem(path, nullptr);\n            device.files().removeItem('
          '"/var/mobile/Containers/Data/Application/org.example.elder/note.txt", nullptr);',
          crash('own', 'kill', points=40)),
    Fault("'org.example.* is missing'", 'device/registry/ArchiveInstall.cpp',
          ENTERED, ENTERED.replace('_after', '_before'), crash('coordinated', 'kill', **ONCE)),
    Fault('org.example.* has a placeholder', 'device/registry/ArchiveInstall.cpp',
          ENTERED, ENTERED.replace('_after', '{_after.installed, _before.placeholder, _after.arrival}'),
          crash('coordinated', 'kill', points=5)),
    Fault('demoted are *', 'plugin/coordination/RestorePlaceholder.cpp',
          'case intentionallyDemoted: return PDInstallTypeIntentionalDowngrade;',
          'case intentionallyDemoted: return PDInstallTypeDowngrade;', crash('restore-coordinated', 'kill', **ONCE)),
    Fault('the list of demoted apps has *', 'device/services/DemotedApps.cpp',
          'root.set(intentionalKey, arrayOf(intentional));', 'root.set(intentionalKey, arrayOf(automatic));',
          crash('restore-coordinated', 'kill', **ONCE)),
    Fault('the icons stand as *', 'device/screen/DeviceHomeScreen.cpp',
          'dataWithPropertyList(layout.propertyList(),', 'dataWithPropertyList(IconLayout{}.propertyList(),',
          crash('restore-coordinated', 'kill', **ONCE)),
    Fault('* rows are left in coordinator', 'device/coordinator/InstallCoordinator.cpp',
          '[this, state] { _passOver(*state, _store.remove(state->id)); }', '[] {}', crash('coordinated', 'kill', **ONCE)),
    Fault('the package of org.example.* was sent again', 'plugin/planning/OutstandingAssetTransfers.cpp',
          '!asset->isRestore ? packageOnly\n                                     : packageIsHere   ? dataOnly',
          '!asset->isRestore ? packageOnly\n                                     : false   ? dataOnly',
          crash('restore-own', 'kill', points=60)),
    # What the disk has kept.
    Fault('after that: org.example.*', 'device/database/GroupCommit.h',
          'if (auto synced = _files.sync(); !synced) {', 'if (auto synced = Result<void>(); !synced) {',
          power('own', 'ext4', points=25)),
]
