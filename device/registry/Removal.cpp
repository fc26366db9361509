// Removing apps and placeholders, and clearing away what an interrupted run left.
#include "device/registry/RegistryImplementation.h"

#include "archive/InstallerError.h"
#include "device/registry/UninstalledList.h"
#include "text/Printable.h"

#include <cerrno>

namespace appsync::device {

Result<void> Registry::Implementation::uninstall(std::string_view identifier, RemovalReason reason,
                                                 RemovalScope scope) {
    if (reason == RemovalReason::person) {
        (void)_stopInstall(identifier);
    }
    const AppLocks::Held held(_locks, std::string(identifier));
    const auto app = _table.find(identifier).value_or(RegistryTable::App{});
    const bool removesPlaceholder =
        app.placeholder && !(scope == RemovalScope::placeholderOnly && app.placeholder->isDemoted());
    const bool removesApp = app.installed && (scope == RemovalScope::everything ||
                                              (scope == RemovalScope::placeholderElseApp && !app.placeholder));
    if (!removesPlaceholder && !removesApp) {
        return makeInstallerError(InstallerError::nothingToRemove,
                                  "cannot remove " + printable(identifier) + ": the device has no " +
                                      (app.installed ? "placeholder of it" : "such app"));
    }
    if (const auto installType = _typeToFallBackTo(app); installType && scope != RemovalScope::everything) {
        return _demoteAgain(app, *installType, reason);
    }
    const bool keepsData = !removesApp && reason == RemovalReason::sync && scope != RemovalScope::everything;
    return _remove(app, removesApp, removesPlaceholder, reason, keepsData);
}

/// Asks a running install to end; one that can no longer be stopped runs to its end.
std::shared_ptr<InstallProgress> Registry::Implementation::_stopInstall(std::string_view identifier) {
    auto progress = _table.findProgress(identifier);
    if (progress && progress->installState() < PDInstallStateCanceled) {
        progress->cancel();
    }
    return progress;
}

bool Registry::Implementation::cancelInstall(std::string_view identifier) {
    const auto progress = _stopInstall(identifier);
    const AppLocks::Held held(_locks, std::string(identifier));
    const auto app = _table.find(identifier).value_or(RegistryTable::App{});
    if (const auto installType = _typeToFallBackTo(app)) {
        return bool(_demoteAgain(app, *installType, RemovalReason::person));
    }
    if (app.placeholder) {
        return bool(_remove(app, false, true, RemovalReason::person));
    }
    if (!progress || progress->installState() != PDInstallStateCanceled) {
        return false;
    }
    _table.endProgress(*progress);
    if (app.installed) {
        _announceCancellation(app.installed);
    }
    return true;
}

/// What an app becomes again whose placeholder stands for its return; nothing for one that was not demoted.
std::optional<std::uint64_t> Registry::Implementation::_typeToFallBackTo(const RegistryTable::App& app) const {
    const bool isReturning = app.placeholder && !app.installed && !app.placeholder->isDemoted();
    return isReturning && _follower.demotion ? _follower.demotion(app.placeholder->identifier) : std::nullopt;
}

/// The placeholder stays, and with it the app's data; it stands for no install any more.
Result<void> Registry::Implementation::_demoteAgain(const RegistryTable::App& app, std::uint64_t installType,
                                                    RemovalReason reason) {
    RegistryRecord record = *app.placeholder;
    record.installType = installType;
    Database::Transaction transaction(_database, Durability::durable);
    RegistryStore::put(transaction, record, app.arrival);
    if (const auto committed = transaction.commit(); !committed) {
        return installerFailure("take back the install of " + record.identifier, committed.error());
    }
    _table.put(std::make_shared<const RegistryRecord>(record), app.arrival);
    _endPlaceholderOf(app, reason);
    _announcer.announceChange();
    return {};
}

/// The install that a placeholder stood for is over.
void Registry::Implementation::_endPlaceholderOf(const RegistryTable::App& app, RemovalReason reason) {
    if (const auto progress = _table.findProgress(app.placeholder->identifier)) {
        _table.endProgress(*progress);
    }
    if (reason == RemovalReason::person) {
        _announceCancellation(app.placeholder);
    }
}

/// What is there but cannot be looked at just now is not gone.
bool Registry::Implementation::_isGone(const std::string& path) {
    ErrorPtr error;
    return !_files.attributesOfItem(path, &error) && (error->code() == ENOENT || error->code() == ENOTDIR);
}

/// Durable before the first file goes: what is registered is always whole.
Result<void> Registry::Implementation::_remove(const RegistryTable::App& app, bool removesApp, bool removesPlaceholder,
                                               RemovalReason reason, bool keepsData) {
    const std::string identifier = (app.installed ? app.installed : app.placeholder)->identifier;
    const std::string dataPath = dataContainerPath(identifier);
    const bool removesAll = !keepsData && (removesApp || !app.installed) && (removesPlaceholder || !app.placeholder);
    const bool removesData = removesAll && !_isGone(dataPath);
    {
        Database::Transaction transaction(_database, Durability::durable);
        if (removesPlaceholder) {
            RegistryStore::remove(transaction, identifier, true);
        }
        if (removesApp) {
            RegistryStore::remove(transaction, identifier, false);
            if (reason == RemovalReason::person) {
                UninstalledList::add(transaction, identifier);
            }
        }
        if (removesData) {
            RegistryStore::addRemoval(transaction, dataPath);
        }
        if (const auto committed = transaction.commit(); !committed) {
            return installerFailure("remove " + identifier, committed.error());
        }
    }
    if (removesPlaceholder) {
        _table.remove(identifier, true);
        _endPlaceholderOf(app, reason);
        _files.removeItem(app.placeholder->containerPath(), nullptr);
    }
    if (removesApp) {
        _table.remove(identifier, false);
        _files.removeItem(app.installed->containerPath(), nullptr);
    }
    if (removesAll && _follower.isGone) {
        _follower.isGone(identifier);
    }
    _announcer.announceChange();
    return removesData ? _endRemoval(dataPath) : Result<void>();
}

/// Removes a data container that is registered for removal: as a whole, since an app that comes back finds what is
/// left. What cannot be removed now is tried again at the next start, unless the app has come back until then.
Result<void> Registry::Implementation::_endRemoval(const std::string& path) {
    ErrorPtr error;
    const std::string aside = std::string(stagingFolder) + "/" + makeUniqueName();
    const bool isAside = _files.moveItem(path, aside, &error);
    const bool isGone =
        isAside || error->code() == ENOENT || _files.removeItem(path, nullptr); // it need not be movable
    if (!isGone) {
        return {};
    }
    Database::Transaction transaction(_database);
    RegistryStore::endRemoval(transaction, path);
    const auto committed = transaction.commit();
    if (isAside) {
        _files.removeItem(aside, nullptr); // what stays is cleared away at the next start
    }
    return committed ? Result<void>() : installerFailure("remove " + path, committed.error(), path);
}

Result<Settlement> Registry::Implementation::settle() {
    Settlement settlement;
    for (const auto step :
         {&Implementation::_settleRemovals, &Implementation::_settleRecords, &Implementation::_settleContainers}) {
        if (const auto settled = (this->*step)(settlement); !settled) {
            return settled.error();
        }
    }
    if (settlement.droppedRecords > 0) {
        _announcer.announceChange();
    }
    return settlement;
}

Result<void> Registry::Implementation::_settleRemovals(Settlement& settlement) {
    std::vector<std::string> paths;
    {
        Database::Transaction transaction(_database);
        paths = RegistryStore::removals(transaction);
        if (transaction.error()) {
            return installerFailure("settle the application registry", transaction.error());
        }
    }
    for (const std::string& path : paths) {
        if (auto ended = _endRemoval(path); !ended) {
            return ended;
        }
        ++settlement.endedRemovals;
    }
    return {};
}

/// A record whose bundle is gone, because the power went before its files were durable, is no app any more.
Result<void> Registry::Implementation::_settleRecords(Settlement& settlement) {
    std::vector<RegistryRecordPtr> gone;
    for (const RegistryTable::App& app : _table.all()) {
        for (const RegistryRecordPtr& record : {app.installed, app.placeholder}) {
            if (record && _isGone(record->bundlePath() + "/" + std::string(infoFileName))) {
                gone.push_back(record);
            }
        }
    }
    if (gone.empty()) {
        return {};
    }
    Database::Transaction transaction(_database, Durability::durable);
    for (const RegistryRecordPtr& record : gone) {
        RegistryStore::remove(transaction, record->identifier, record->isPlaceholder);
    }
    if (const auto committed = transaction.commit(); !committed) {
        return installerFailure("settle the application registry", committed.error());
    }
    for (const RegistryRecordPtr& record : gone) {
        _table.remove(record->identifier, record->isPlaceholder);
    }
    settlement.droppedRecords = gone.size();
    return {};
}

/// Removes containers that belong to no app, finished or not.
Result<void> Registry::Implementation::_settleContainers(Settlement& settlement) {
    std::set<std::string> kept;
    for (const RegistryTable::App& app : _table.all()) {
        for (const RegistryRecordPtr& record : {app.installed, app.placeholder}) {
            if (record) {
                kept.insert(record->container);
            }
        }
    }
    for (const std::string_view folder : {stagingFolder, containersFolder}) {
        const auto names = _files.list(folder);
        if (!names) {
            return installerFailure("settle the application registry", names.error(), folder);
        }
        for (const std::string& name : *names) {
            if (folder == containersFolder && kept.contains(name)) {
                continue;
            }
            // One that cannot be removed takes space and does no harm otherwise.
            const bool isRemoved = _files.removeItem(std::string(folder) + "/" + name, nullptr);
            settlement.removedFolders += isRemoved ? 1 : 0;
        }
    }
    return {};
}

} // namespace appsync::device
