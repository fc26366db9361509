"""What must hold on a device, between a disturbed command and the next one and at the end of all."""
import collections
import json
import os
import plistlib
import re
import sqlite3

from scenarios import data_folder, listed_apps, run, tree

CONTAINERS = "var/containers/Bundle/Application"
UNIQUE_NAME = re.compile(r"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")
# A receipt goes with a sync that installs something, else when the next one begins.
RECEIPT = re.compile(r"/var/mobile/Library/StoreReceipts/")
# What the last sync has worked on stays until the next one, and says nothing about the others.
# The restore state may name a file that is gone, and no log may take the restore info.
WORK_AREA = re.compile(r"/var/mobile/Library/ApplicationSync($|/(Icons|TamblinStuff)/(?!.*\.device-tmp)|"
                       r"/RestoreState\.plist$)|/var/mobile/Library/Logs/MediaServices/RestoreApplications\.plist$")
# A placeholder comes without its icon when that cannot be copied, or once more after a kill: it has no file of it then.
PLACEHOLDER_ICON = re.compile(r"/var/containers/Bundle/Application/\*/org[.]example[.]\w+[.]app/Icon[.]png")
# The words in which a disk that fails or is full shows, or a file that could not be removed before.
SYSTEM_REASON = re.compile(r"input/output error|disk I/O error|no space left|disk is full|device is full|: File exists|"
                           r"does not take '/", re.I)
# What is only on its way stands there.
EMPTY_FOLDERS = ("/tmp", "/var/mobile/Library/RestoreData", "/var/mobile/Library/StoreDownloads",
                 "/var/mobile/Media/PublicStaging", "/var/mobile/Media/TamblinRestore")
DEMOTED_APPS = "/var/mobile/Library/Preferences/com.zuvex.Halvane.DemotedApps.plist"
DEMOTED_BY_PERSON = 8  # its install type
REPORTING = 2  # how far a coordinator's end has come when the plug-in alone is still to be told of it
EMPTY_TABLES = ("application_removals", "coordinator", "coordinatorPlaceholder", "coordinatorPromise", "restoreData")


def _query(device, sql):
    # Closed by its last process, the database stands in its one file.
    database = sqlite3.connect(f"file:{device}/var/db/device.sqlite?immutable=1", uri=True)
    try:
        return database.execute(sql).fetchall()
    finally:
        database.close()


def _files_below(folder):
    return {os.path.relpath(os.path.join(above, name), folder): os.path.join(above, name)
            for above, _, names in os.walk(folder) for name in names}


def _is_same(name, installed, packed):
    if installed == packed or not name.endswith("TamblinMetadata.plist"):
        return installed == packed
    try:  # the device writes it anew
        return plistlib.loads(installed) == plistlib.loads(packed)
    except (ValueError, plistlib.InvalidFileException):
        return False


def _wrong_files(container, app):
    """How an installed app's files differ from those of its archive."""
    found = _files_below(container)
    problems = [f"{name} is missing" for name in app.files if name not in found]
    problems += [f"{name} is none of its files" for name in found if name not in app.files]
    for name in found.keys() & app.files.keys():
        with open(found[name], "rb") as file:
            if not _is_same(name, file.read(), app.files[name]):
                problems.append(f"{name} has another content")
    return problems


def _check_installed(device, versions):
    """Each installed app is whole, in one of the versions it may have."""
    problems = []
    for identifier, version, container in _query(
            device, "SELECT identifier, version, container FROM applications WHERE placeholder = 0"):
        app = next((app for app in versions.get(identifier, []) if app.version == version), None)
        if app is None:
            problems.append(f"{identifier} {version} is installed")
        else:
            problems += [f"{identifier} {version}: {wrong}"
                         for wrong in _wrong_files(os.path.join(device, CONTAINERS, container), app)]
    return problems


def _check_data(scenario, device, needed):
    """An app has all of its data or none, and those that are needed have it."""
    problems = []
    for identifier, data in scenario.data.items():
        folder = data_folder(device, identifier)
        if os.path.exists(folder) and tree(folder) != data:
            problems.append(f"the data of {identifier} is not whole")
        elif identifier in needed and not os.path.exists(folder):
            problems.append(f"the data of {identifier} is gone")
    return problems


def check_between(scenario, device, answer, has_all_apps=True):
    """After a disturbed command: every app in its old version or its new one, and none that was said to be done is
    not. What is disturbed may be that the library has all apps."""
    # The next command that may change the device settles it, such as this one, which finds nothing to do.
    run([scenario.qrd, "uninstall", device, "org.example.nothing"])
    apps, problem = listed_apps(scenario.qrd, device)
    if apps is None:
        return [problem]
    problems = []
    versions = collections.defaultdict(list)
    for app in [*scenario.before.values(), *scenario.after.values()]:
        versions[app.identifier].append(app)
    for identifier in scenario.before.keys() & scenario.after.keys():
        if not apps.get(identifier, {}).get("installed"):
            problems.append(f"{identifier} is lost")
    for identifier, app in apps.items():
        if app["installed"] and app["version"] not in [known.version for known in versions[identifier]]:
            problems.append(f"{identifier} is there in version {app['version']}")
    problems += _check_installed(device, versions)
    problems += _check_data(scenario, device, scenario.kept)
    if answer.code == 0 and has_all_apps:
        problems += [f"all was said to be done, and {identifier} is not"
                     for identifier in scenario.before.keys() | scenario.after.keys() | scenario.demoted
                     if not scenario.is_done(apps, identifier)]
    return problems + _check_report(scenario, apps, answer) + scenario.check_failures(apps, answer)


def _check_report(scenario, apps, answer):
    try:
        report = json.loads(answer.output)
    except ValueError:
        return []
    return [f"{said['identifier']} was said to be {said['result']} and is not" for said in report["apps"]
            if said["result"] in scenario.done_results and not scenario.is_done(apps, said["identifier"])]


def check_failure(scenario, device, answer, names_system_reason, codes=(1, 4, 5)):
    """A command that failed says which app it did not do and why, or why nothing could be done. The device's log tells
    what the plug-in keeps to itself, unless it could not be written, which the report notes then. What cannot be read
    may be taken for missing or damaged, so that the system's reason does not show."""
    if answer.code == 0:
        return []
    if answer.code not in codes:
        return [f"it ended with {answer.code}: {answer.text()}"]
    try:
        report = json.loads(answer.output)
    except ValueError:
        return [] if answer.errors.startswith("qrd: ") else [f"it does not say why it failed: {answer.text()!r}"]
    reasons = scenario.reasons(report)
    if not reasons or "" in reasons:
        return [f"it does not say why it failed: {answer.text()}"]
    if not names_system_reason:
        return []
    log = run([scenario.qrd, "log", device]).output if any("`qrd log`" in reason for reason in reasons) else ""
    log += "\n".join(report["problems"])
    return [f"the reason says nothing: {reason}" for reason in reasons
            if reason not in scenario.silent_reasons
            and not SYSTEM_REASON.search(reason + (log if "`qrd log`" in reason else ""))]


def _names(device):
    """Every file and folder of a device, with a star for what is unique."""
    names = collections.Counter()
    for above, folders, files in os.walk(device):
        for name in folders + files:
            path = os.path.join(above, name)
            names[UNIQUE_NAME.sub("*", path[len(device):])] += 1
    return names


def final_names(device):
    """What to compare a device with at the end: its files after a command that nothing disturbed."""
    return _names(device)


def check_end(scenario, device, names, has_installed=True):
    """After all: exactly the apps of the scenario, whole, and no file and no record that an undisturbed device has
    not."""
    found = _names(device)
    problems = [f"{name} was left" for name in found - names
                if not WORK_AREA.match(name) and (has_installed or not RECEIPT.match(name))]
    problems += [f"{name} is missing" for name in names - found
                 if not WORK_AREA.match(name) and not PLACEHOLDER_ICON.fullmatch(name)]
    if os.path.getsize(device + "/var/db/device.sqlite-wal") > 0:
        return problems + ["the database was not closed"]
    problems += _check_installed(device, {identifier: [app] for identifier, app in scenario.after.items()})
    rows = _query(device, "SELECT identifier, placeholder FROM applications")
    problems += [f"{identifier} has a placeholder" for identifier, placeholder in rows
                 if placeholder and identifier not in scenario.demoted]
    problems += [f"{identifier} is missing" for identifier in scenario.after if (identifier, 0) not in rows]
    problems += [f"{path} was left" for folder in EMPTY_FOLDERS for path in _files_below(device + folder)]
    problems += _check_demoted(scenario, device) + _check_layout(scenario, device)
    for table in EMPTY_TABLES:
        kept = f"WHERE ending <> {REPORTING}" if table == "coordinator" and scenario.leaves_reports else ""
        left = _query(device, f"SELECT count(*) FROM {table} {kept}")[0][0]
        if left:
            problems.append(f"{left} rows are left in {table}")
    return problems + _check_data(scenario, device, scenario.data.keys())


def _check_demoted(scenario, device):
    """A demoted app has a placeholder of its kind alone, and stands in the list, with no other."""
    found = _query(device, f"SELECT identifier FROM applications WHERE install_type = {DEMOTED_BY_PERSON} "
                           "AND placeholder = 1")
    problems = [] if {identifier for identifier, in found} == scenario.demoted else [f"demoted are {found}"]
    lists = {}
    if os.path.exists(device + DEMOTED_APPS):
        with open(device + DEMOTED_APPS, "rb") as file:
            lists = plistlib.load(file)
    if set(lists.get("IntentionalDowngrades", [])) != scenario.demoted or lists.get("AutomaticDowngrades"):
        problems.append(f"the list of demoted apps has {lists}")
    return problems


def _check_layout(scenario, device):
    if scenario.layout is None:
        return []
    rows = _query(device, "SELECT value FROM homeScreen WHERE name = 'layout'")
    found = plistlib.loads(rows[0][0]) if rows else "nothing says"
    return [] if found == scenario.layout else [f"the icons stand as {found}"]


def check_not_sent(identifiers, changes):
    """No archive arrived during a command, according to the list of its changes, that had arrived before."""
    with open(changes) as lines:
        opened = {os.path.basename(line.split("\t")[-1].strip()) for line in lines}
    return [f"the package of {identifier} was sent again" for identifier in identifiers
            if identifier + ".archive.part" in opened]
