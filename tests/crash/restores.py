"""What is disturbed of a restore: a backup of three apps, and a device onto which they come back."""
import json
import os
import plistlib

from scenarios import KILLED, Scenario, data_folder, must_run, tree, write_data

RESTORE_STATE = "var/mobile/Library/ApplicationSync/RestoreState.plist"


class Restore(Scenario):
    """`qrd restore` onto an empty device. Anise has data in folders, Dune has none, Elder was demoted by a person.

    With coordination the store delivers the apps then, and Elder comes back demoted; without it a sync does, and Elder
    comes back installed."""

    done_results = ("restored", "demoted")
    # Where the list of demoted apps cannot be read, on the device or in the backup, there is none for the plug-in, and such
    # an app waits for the store. What is changed in a backup is what comes back from it.
    left_out = ("read-EIO", "source-EIO", "source-shrinks", "source-grows", "source-goes", "source-replaced")
    # Of a demoted app whose coordinator cannot be made the plug-in logs that alone.
    silent_reasons = ("The device could not prepare it; `qrd log` tells why.",)

    def source(self):
        return self._backup

    def command(self, device, source=None):
        return [self.qrd, "restore", device, "--from", source or self._backup, "--json"]

    def next_commands(self, device, answer):
        """A restore that was done need not be repeated, and all has to be there for the delivery."""
        return ([] if answer.code == 0 else [self.command(device)]) + [self._delivery(device)]

    def is_all_right(self, command, answer):
        """A restore leaves an app alone that has come already."""
        if answer.code != 1 or command[1] != "restore":
            return answer.code == 0
        return all(app["result"] in self.done_results or app["reason"] == "The device has it already; remove it first."
                   for app in json.loads(answer.output)["apps"])

    def is_done(self, apps, identifier):
        app = apps.get(identifier)
        return app is not None and app["placeholder"] and app["demoted"] == (identifier in self.demoted)

    def reasons(self, report):
        """A list of the backup that could not be put on the device is a problem of no app."""
        return super().reasons(report) or report["problems"]

    def _delivery(self, device, source=None):
        words = ["sync", device, "--library"] if self._is_own else ["store", device, "--catalogue"]
        return [self.qrd, *words, source or self.library, "--json"]

    def _prepare(self, device_options):
        self._is_own = "--no-coordination" in device_options
        self._backup = os.path.join(self.folder, "backup")
        apps = [self._pack("Anise", "1.0"), self._pack("Dune", "1.0"), self._pack("Elder", "1.0")]
        anise, dune, elder = (app.identifier for app in apps)
        self.demoted = frozenset() if self._is_own else frozenset([elder])
        self.before = {}
        self.after = {app.identifier: app for app in apps if app.identifier not in self.demoted}
        self.kept = set()
        self.leaves_reports = not self._is_own
        self._everything = {anise, dune, elder}
        # An order in which the apps do not come.
        self.layout = [[elder, anise, dune]]
        self._back_up(device_options, anise, elder)
        must_run([self.qrd, "device", "create", self.snapshot, *device_options])

    def _back_up(self, device_options, with_folders, demoted):
        device = os.path.join(self.folder, "backed-up")
        must_run([self.qrd, "device", "create", device, *device_options])
        must_run([self.qrd, "sync", device, "--library", self.library])
        write_data(device, with_folders, {"settings": b"all of them", "Documents/deep/er/letter": b"dear reader" * 1000,
                                          "Documents/note": b""})
        os.makedirs(os.path.join(data_folder(device, with_folders), "Caches"))
        write_data(device, demoted, {"Documents/note": b"kept while demoted"})
        self.data = {identifier: tree(data_folder(device, identifier)) for identifier in (with_folders, demoted)}
        must_run([self.qrd, "demote", device, demoted])
        must_run([self.qrd, "backup", device, "-o", self._backup])
        with open(os.path.join(self._backup, "IconState.plist"), "wb") as file:
            plistlib.dump(self.layout, file)


class Delivery(Restore):
    """What brings the apps after a whole restore: `qrd store`, or `qrd sync` without coordination."""

    done_results = Scenario.done_results
    left_out = ()
    # Where the restore state cannot be written the plug-in does not know the package any more.
    silent_reasons = ("The device did not say how the install ended; `qrd log` tells more.",)

    def source(self):
        return self.library

    def command(self, device, source=None):
        return self._delivery(device, source)

    def next_commands(self, device, answer):
        """An app whose install failed waits on, with its data."""
        return [self.command(device)]

    def check_failures(self, apps, answer):
        return [f"{identifier} waits no longer" for identifier in self._everything - apps.keys()]

    def is_done(self, apps, identifier):
        return Scenario.is_done(self, apps, identifier)

    def packages_at_hand(self, device):
        try:
            with open(os.path.join(device, RESTORE_STATE), "rb") as file:
                state = plistlib.load(file)
        except FileNotFoundError:
            return set()
        return {identifier for identifier, versions in state.items() for noted in versions.values()
                if os.path.exists(device + noted["path"])}

    def _prepare(self, device_options):
        super()._prepare(device_options)
        must_run(super().command(self.snapshot))
        self.kept = set(self.demoted)  # a demoted app has its data with its placeholder
