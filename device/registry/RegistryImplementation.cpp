#include "device/registry/RegistryImplementation.h"

#include "archive/AppInArchive.h"
#include "archive/EntryPath.h"
#include "archive/InstallerError.h"
#include "device/registry/ApplicationProxy.h"
#include "device/registry/UninstalledList.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"
#include "values/BundleIdentifier.h"

#include <algorithm>

namespace appsync::device {

AppLocks::Held::Held(AppLocks& locks, std::string identifier) : _locks(locks), _identifier(std::move(identifier)) {
    std::unique_lock lock(_locks._mutex);
    _locks._released.wait(lock, [this] { return !_locks._held.contains(_identifier); });
    _locks._held.insert(_identifier);
}

AppLocks::Held::~Held() {
    const std::lock_guard lock(_locks._mutex);
    _locks._held.erase(_identifier);
    _locks._released.notify_all();
}

ErrorPtr checkIdentifier(std::string_view identifier) {
    if (isBundleIdentifier(identifier)) {
        return nullptr;
    }
    return makeInstallerError(InstallerError::invalidIdentifier,
                              "\"" + printable(identifier) +
                                  "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
}

ErrorPtr installerFailure(std::string_view what, const ErrorPtr& reason, std::string_view path) {
    const bool isFull = isError(reason, PosixErrorDomain, ENOSPC) || isError(reason, PosixErrorDomain, EDQUOT) ||
                        isError(reason, DatabaseErrorDomain, DatabaseError::full);
    return makeInstallerError(isFull ? InstallerError::notEnoughSpace : InstallerError::failed,
                              "cannot " + std::string(what) + ": " + errorText(reason), path);
}

Registry::Implementation::Implementation(Root& root, Database& database, PropertyListSerialization& propertyLists,
                                         RegistryOptions options)
    : _files(root.files()), _database(database), _propertyLists(propertyLists), _options(options),
      _groupCommit(_files, database), _announcer([this] { return _lists(); }) {}

Result<void> Registry::Implementation::load() {
    if (auto started = _announcer.start(); !started) {
        return started;
    }
    for (const std::string_view folder : {containersFolder, stagingFolder}) {
        ErrorPtr error;
        if (!_files.createDirectory(folder, true, std::nullopt, &error)) {
            return installerFailure("open the application registry", error, folder);
        }
    }
    if (auto registered = RegistryStore::registerSchema(_database); !registered) {
        return registered;
    }
    if (auto registered = UninstalledList::registerSchema(_database); !registered) {
        return registered;
    }
    Database::Transaction transaction(_database);
    for (const RegistryStore::Row& row : RegistryStore::load(transaction)) {
        _table.put(row.record, row.arrival);
    }
    return transaction.error();
}

PDApplicationProxyPtr Registry::Implementation::proxy(RegistryRecordPtr record, std::string_view prefix) {
    return std::make_shared<ApplicationProxy>(std::move(record), _table, prefix);
}

/// The installs under way, placeholders rather than installed versions, and those that are paused.
Announcer::Lists Registry::Implementation::_lists() {
    Announcer::Lists lists;
    for (const RegistryTable::Install& install : _table.installs()) {
        const auto app = _table.find(install.progress->identifier());
        if (!app) {
            continue; // no placeholder, and nothing installed yet: there is nothing to show
        }
        const RegistryRecordPtr& record = app->placeholder ? app->placeholder : app->installed;
        if (install.progress->isUnderWay()) {
            lists.first.push_back(proxy(record));
        } else if (install.progress->installState() == PDInstallStatePaused) {
            lists.second.push_back(proxy(record));
        }
    }
    return lists;
}

std::shared_ptr<InstallProgress> Registry::Implementation::_makeProgress(std::string_view identifier,
                                                                         std::uint64_t phase) {
    return _table.progress(identifier, [&] {
        return std::make_shared<InstallProgress>(std::string(identifier), phase,
                                                 [this] { _announcer.announceChange(); });
    });
}

std::shared_ptr<InstallProgress> Registry::Implementation::progress(std::string_view identifier, std::uint64_t phase) {
    const auto app = _table.find(identifier);
    if (!app || !app->placeholder) {
        return _table.findProgress(identifier);
    }
    auto progress = _makeProgress(identifier, phase);
    _announcer.announceChange();
    return progress;
}

void Registry::Implementation::phaseFinished(InstallProgress& progress) {
    const std::uint64_t state = progress.installState();
    const bool isOver =
        state == PDInstallStateCanceled || state == PDInstallStateFailed || state == PDInstallStateFinished;
    if (!isOver && progress.installPhase() == PDInstallPhaseLoading) {
        progress.setInstallPhase(PDInstallPhaseInstalling);
        return;
    }
    _table.endProgress(progress);
    _announcer.announceChange();
}

void Registry::Implementation::_describe(RegistryRecord& record, const Dictionary& info) const {
    const auto text = [&](std::string_view key) -> std::optional<std::string> {
        const auto value = info.string(key);
        return value && !value->empty() ? std::optional<std::string>(*value) : std::nullopt;
    };
    record.name = text("BXBundleDisplayName").value_or(text("BXBundleExecutable").value_or(record.identifier));
    record.version = text("BXBundleVersion");
    record.iconFile = text("BXBundleIconFile");
    if (record.iconFile && findUnsafe(*record.iconFile, _options.limits)) {
        record.iconFile.reset();
    }
}

/// A protection record is a property list; one that is bound to a device names it under "MID".
bool Registry::Implementation::_isDeviceSinf(const std::optional<Data>& sinf) const {
    if (!sinf) {
        return false;
    }
    const auto list = _propertyLists.propertyListWithData(sinf->bytes(), nullptr);
    return list && list->dictionary() && list->dictionary()->contains("MID");
}

void Registry::Implementation::_announceCancellation(const RegistryRecordPtr& record) {
    _announcer.announceCancellation({proxy(record)});
}

} // namespace appsync::device
