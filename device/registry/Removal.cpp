// Removing apps and placeholders, and clearing away what an interrupted run left.
#include "archive/AppInArchive.h"
#include "archive/InstallerError.h"
#include "device/registry/Registry.h"
#include "device/root/DeviceFileSystem.h"
#include "device/root/Paths.h"
#include "device/root/Tree.h"
#include "text/Printable.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>
#include <vector>

namespace appsync::device {

Result<void> Registry::uninstall(std::string_view identifier, RemovalReason reason, RemovalScope scope) {
    if (reason == RemovalReason::person) {
        (void)_stopInstall(identifier);
    }
    const AppLocks::Held held(_locks, identifier);
    const auto before = _table.find(identifier);
    auto after = before;
    if (!before.placeholder || scope != RemovalScope::placeholderOnly || !before.placeholder->isDemoted()) {
        after.placeholder = nullptr;
    }
    if (scope == RemovalScope::everything || (scope == RemovalScope::placeholderElseApp && !before.placeholder)) {
        after.installed = nullptr;
    }
    if (after == before) {
        return makeInstallerError(InstallerError::nothingToRemove,
                                  "cannot remove " + printable(identifier) + ": the device has no " +
                                      (before.installed ? "placeholder of it" : "such app"));
    }
    if (const auto installType = _typeToFallBackTo(before); installType && scope != RemovalScope::everything) {
        return _demoteAgain(before, *installType, reason);
    }
    const bool keepsData =
        after.installed == before.installed && reason == RemovalReason::sync && scope != RemovalScope::everything;
    return _remove(before, after, reason, keepsData);
}

/// Asks a running install to end; one that can no longer be stopped runs to its end.
InstallProgressPtr Registry::_stopInstall(std::string_view identifier) {
    auto progress = _installs.find(identifier);
    if (progress && progress->installState() < PDInstallStateCanceled) {
        progress->cancel();
    }
    return progress;
}

bool Registry::cancelInstall(std::string_view identifier) {
    const auto progress = _stopInstall(identifier);
    const AppLocks::Held held(_locks, identifier);
    const auto app = _table.find(identifier);
    if (const auto installType = _typeToFallBackTo(app)) {
        return bool(_demoteAgain(app, *installType, RemovalReason::person));
    }
    if (app.placeholder) {
        return bool(_remove(app, {app.installed, nullptr, app.arrival}, RemovalReason::person));
    }
    if (!progress || progress->installState() != PDInstallStateCanceled) {
        return false;
    }
    _installs.end(*progress);
    if (app.installed) {
        _announcer.announceCancellation({proxy(app.installed)});
    }
    return true;
}

/// What an app becomes again whose placeholder stands for its return; nullopt for one that was not demoted.
std::optional<std::uint64_t> Registry::_typeToFallBackTo(const RegistryTable::App& app) const {
    const bool isReturning = app.placeholder && !app.installed && !app.placeholder->isDemoted();
    return isReturning ? _follower.demotion(app.placeholder->identifier) : std::nullopt;
}

/// The placeholder stays, and with it the app's data; it stands for no install any more.
Result<void> Registry::_demoteAgain(const RegistryTable::App& app, std::uint64_t installType, RemovalReason reason) {
    auto record = std::make_shared<RegistryRecord>(*app.placeholder);
    record->installType = installType;
    record->demotion.reset();
    const RegistryTable::App after{app.installed, record, app.arrival};
    Database::Transaction transaction(_database, Durability::durable);
    RegistryTable::write(transaction, app, after);
    if (const auto committed = transaction.commit(); !committed) {
        return _makeFailure("take back the install of " + record->identifier, committed.error());
    }
    _table.set(record->identifier, after);
    _endInstallOf(app.placeholder, reason);
    _announcer.announceChange();
    return {};
}

/// The install that a placeholder stood for is over.
void Registry::_endInstallOf(const RegistryRecordPtr& placeholder, RemovalReason reason) {
    if (const auto progress = _installs.find(placeholder->identifier)) {
        _installs.end(*progress);
    }
    if (reason == RemovalReason::person) {
        _announcer.announceCancellation({proxy(placeholder)});
    }
}

/// Durable before the first file goes: what is registered is always whole.
Result<void> Registry::_remove(const RegistryTable::App& before, const RegistryTable::App& after, RemovalReason reason,
                               bool keepsData) {
    const std::string identifier = before.main()->identifier;
    const std::string dataPath = dataContainerPath(identifier);
    const bool removesAll = !keepsData && !after.isKnown();
    const bool removesData = removesAll && !_files.isGone(dataPath);
    {
        Database::Transaction transaction(_database, Durability::durable);
        RegistryTable::write(transaction, before, after);
        if (before.installed && !after.installed && reason == RemovalReason::person) {
            transaction.run(RegistryTable::addUninstalled, identifier);
        }
        if (removesData) {
            RegistryTable::addRemoval(transaction, dataPath);
        }
        if (const auto committed = transaction.commit(); !committed) {
            return _makeFailure("remove " + identifier, committed.error());
        }
    }
    _replace(before, after);
    if (before.placeholder && !after.placeholder) {
        _endInstallOf(before.placeholder, reason);
    }
    if (removesAll) {
        _follower.isGone(identifier);
    }
    _announcer.announceChange();
    return removesData ? _endRemoval(dataPath) : Result<void>();
}

/// Removes a data container that is registered for removal: as a whole, since an app that comes back finds what is
/// left. What cannot be removed now is tried again at the next start, unless the app has come back until then.
Result<void> Registry::_endRemoval(const std::string& path) {
    ErrorPtr error;
    const std::string aside = std::string(stagingFolder) + "/" + makeUniqueName();
    const bool isAside = _files.moveItem(path, aside, &error);
    const bool isGone =
        isAside || error->code() == ENOENT || _files.removeItem(path, nullptr); // it need not be movable
    if (!isGone) {
        return {};
    }
    const auto committed = _database.run(Durability::ordinary, RegistryTable::endRemoval, path);
    if (isAside) {
        _files.removeItem(aside, nullptr); // what stays is cleared away at the next start
    }
    return committed ? Result<void>() : _makeFailure("remove " + path, committed.error(), path);
}

std::optional<Dictionary> Registry::TevrinLookupUninstalled(const Dictionary* /*options*/) noexcept {
    Dictionary apps;
    const auto add = [&](const Database::Rows& row) {
        std::string identifier;
        Date removed{};
        row.read(identifier, removed.secondsSinceReference);
        apps.insert(identifier, removed);
    };
    const auto read =
        _database.read(add, "SELECT identifier, removed_at FROM uninstalled ORDER BY removed_at, identifier");
    return read ? std::optional(std::move(apps)) : std::nullopt;
}

/// Durable, so that the desktop does not hear of a deletion twice.
int Registry::TevrinClearUninstalled(const Array& bundleIdentifiers, const Dictionary* /*options*/) noexcept {
    Database::Transaction transaction(_database, Durability::durable);
    for (const Value& identifier : bundleIdentifiers) {
        if (const auto text = identifier.string()) {
            transaction.run(RegistryTable::removeUninstalled, *text);
        }
    }
    const auto committed = transaction.commit();
    return committed ? 0 : static_cast<int>(committed.error()->code());
}

Result<void> Registry::settle() {
    for (const auto step : {&Registry::_settleRemovals, &Registry::_settleRecords, &Registry::_settleContainers}) {
        if (auto settled = (this->*step)(); !settled) {
            return settled;
        }
    }
    return {};
}

Result<void> Registry::_settleRemovals() {
    std::vector<std::string> paths;
    const auto add = [&](const Database::Rows& row) { paths.push_back(row.first<std::string>()); };
    if (const auto read = _database.read(add, "SELECT path FROM application_removals"); !read) {
        return _makeFailure("settle the application registry", read.error());
    }
    for (const std::string& path : paths) {
        if (auto ended = _endRemoval(path); !ended) {
            return ended;
        }
    }
    return {};
}

/// A record whose bundle is gone, because the power went before its files were durable, is no app any more. All apps
/// are never gone so, since an app's files are durable before its record.
Result<void> Registry::_settleRecords() {
    const auto isGone = [this](const RegistryRecordPtr& record) {
        return record && _files.isGone(record->bundlePath() + "/" + std::string(infoFileName));
    };
    std::vector<std::pair<RegistryTable::App, RegistryTable::App>> changes; // before and after
    for (const RegistryTable::App& app : _table.all()) {
        const RegistryTable::App left{isGone(app.installed) ? nullptr : app.installed,
                                      isGone(app.placeholder) ? nullptr : app.placeholder, app.arrival};
        if (left != app) {
            changes.emplace_back(app, left);
        }
    }
    if (changes.empty()) {
        return {};
    }
    const auto containers = _files.list(containersFolder);
    if (!containers) {
        return _makeFailure("settle the application registry", containers.error(), containersFolder);
    }
    if (containers->empty() &&
        std::ranges::any_of(changes, [](const auto& change) { return bool(change.first.installed); })) {
        const std::string folder(containersFolder);
        return makeInstallerError(InstallerError::failed,
                                  "the folder " + folder +
                                      " of the device is empty, although it has apps: put back what was in it (is a "
                                      "disk not mounted?), or create another device",
                                  folder);
    }
    Database::Transaction transaction(_database, Durability::durable);
    for (const auto& [before, after] : changes) {
        RegistryTable::write(transaction, before, after);
    }
    if (const auto committed = transaction.commit(); !committed) {
        return _makeFailure("settle the application registry", committed.error());
    }
    for (const auto& [before, after] : changes) {
        _table.set(before.main()->identifier, after);
    }
    _announcer.announceChange();
    return {};
}

/// Removes containers that belong to no app, finished or not.
Result<void> Registry::_settleContainers() {
    std::set<std::string> kept;
    for (const RegistryRecordPtr& record : _table.records()) {
        kept.insert(record->container);
    }
    for (const std::string_view folder : {stagingFolder, containersFolder}) {
        const auto names = _files.list(folder);
        if (!names) {
            return _makeFailure("settle the application registry", names.error(), folder);
        }
        for (const std::string& name : *names) {
            if (folder == stagingFolder || !kept.contains(name)) {
                // One that cannot be removed takes space and does no harm otherwise.
                _files.removeItem(std::string(folder) + "/" + name, nullptr);
            }
        }
    }
    return {};
}

} // namespace appsync::device
