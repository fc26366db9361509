#include "device/services/BackupService.h"

#include "device/database/Database.h"
#include "device/root/DeviceFileSystem.h"
#include "device/root/Paths.h"
#include "device/root/Tree.h"
#include "values/BundleIdentifier.h"

#include <fcntl.h>

#include <set>

namespace appsync::device {

namespace {

constexpr std::string_view backupSchema[] = {
    "CREATE TABLE restoreData (bundle TEXT PRIMARY KEY, size INTEGER NOT NULL) WITHOUT ROWID;",
    // Rows of the first version told of data that was nowhere.
    "DELETE FROM restoreData;"
    "ALTER TABLE restoreData ADD COLUMN folder TEXT NOT NULL DEFAULT '';"
    "ALTER TABLE restoreData ADD COLUMN isMoving INTEGER NOT NULL DEFAULT 0;"};

constexpr std::string_view forget = "DELETE FROM restoreData WHERE bundle = ?1";

constexpr std::string_view waitingFolder = "/var/mobile/Library/RestoreData";
/// Beside the waiting data: what it takes the place of, until it has.
constexpr std::string_view replacedExtension = ".replaced";

std::string waitingPath(const std::string& name) {
    return std::string(waitingFolder) + "/" + name;
}

std::string replacedPath(const std::string& name) {
    return waitingPath(name) + std::string(replacedExtension);
}

ErrorPtr backupError(BackupError code, const std::string& text) {
    return makeError(backupErrorDomain, static_cast<std::int64_t>(code), text);
}

} // namespace

bool BackupService::restoreDataExistsForApplicationWithBundleID_size(std::string_view bundleID,
                                                                     std::uint64_t* size) noexcept {
    const auto waiting = restoreDataSize(bundleID);
    if (waiting && size) {
        *size = *waiting;
    }
    return waiting.has_value();
}

bool BackupService::cancelApplicationRestoreWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept {
    return hasSucceeded(cancelRestore(bundleID), error);
}

Result<std::unique_ptr<BackupService>> BackupService::open(Database& database, DeviceFileSystem& files) {
    if (const auto registered = database.registerSchema("backup", backupSchema); !registered) {
        return registered.error();
    }
    std::unique_ptr<BackupService> service(new BackupService(database, files));
    if (database.isReadOnly()) {
        return service;
    }
    ErrorPtr error;
    if (!files.createDirectory(waitingFolder, true, std::nullopt, &error)) {
        return error;
    }
    if (const auto settled = service->_settle(); !settled) {
        return settled.error();
    }
    service->_clearFolders();
    return service;
}

Result<std::vector<RestoreData>> BackupService::restoreData(std::optional<std::string_view> bundleID) {
    std::vector<RestoreData> waiting;
    const auto add = [&](const Database::Rows& row) {
        RestoreData& data = waiting.emplace_back();
        row.read(data.bundleID, data.size, data.name, data.isMoving);
    };
    const auto read = _database.read(add,
                                     "SELECT bundle, size, folder, isMoving FROM restoreData"
                                     " WHERE ?1 IS NULL OR bundle = ?1 ORDER BY bundle",
                                     bundleID);
    return read ? Result(std::move(waiting)) : read.error();
}

/// Ends restores whose folders may have begun to move; one that cannot be ended now waits on.
Result<void> BackupService::_settle() {
    const auto waiting = restoreData();
    if (!waiting) {
        return waiting.error();
    }
    for (const RestoreData& data : *waiting) {
        if (data.isMoving && (_files.isGone(waitingPath(data.name)) || _putInPlace(data.bundleID, data.name))) {
            if (auto ended = _endRestore(data.bundleID, data.name); !ended) {
                return ended;
            }
        }
    }
    return {};
}

/// Removes folders that no row names, and rows whose folder is gone.
void BackupService::_clearFolders() {
    const auto waiting = restoreData();
    const auto names = _files.list(waitingFolder);
    if (!waiting || !names) {
        return; // the next time, then
    }
    std::set<std::string> kept;
    Database::Transaction transaction(_database);
    for (const RestoreData& data : *waiting) {
        if (_files.isGone(waitingPath(data.name))) {
            transaction.run(forget, data.bundleID);
        } else {
            kept.insert({data.name, data.name + std::string(replacedExtension)});
        }
    }
    if (!transaction.commit()) {
        return; // likewise
    }
    for (const std::string& name : *names) {
        if (!kept.contains(name)) {
            _files.removeItem(waitingPath(name), nullptr);
        }
    }
}

Result<void> BackupService::addRestoreData(std::string_view bundleID, const std::string& folder) {
    if (!isBundleIdentifier(bundleID)) {
        return backupError(BackupError::invalidIdentifier,
                           "\"" + std::string(bundleID) +
                               "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
    }
    const auto size = _files.treeSize(folder);
    if (!size) {
        return size.error();
    }
    const Lock lock(_mutex);
    const auto earlier = _nameOf(bundleID);
    if (!earlier) {
        return earlier.error();
    }
    if (const auto putBack = *earlier ? _putBack(bundleID, **earlier) : Result<void>(); !putBack) {
        return putBack;
    }
    const std::string name = makeUniqueName();
    ErrorPtr error;
    if (!_files.moveItem(folder, waitingPath(name), &error)) {
        return error;
    }
    auto written = _files.sync();
    if (written) {
        written = _database.run(Durability::durable, "INSERT OR REPLACE INTO restoreData VALUES (?1, ?2, ?3, 0)",
                                bundleID, *size, name);
    }
    if (!written) {
        _files.moveItem(waitingPath(name), folder, nullptr);
        return written;
    }
    if (*earlier) {
        _files.removeItem(waitingPath(**earlier), nullptr);
    }
    return {};
}

std::optional<std::uint64_t> BackupService::restoreDataSize(std::string_view bundleID) {
    const auto waiting = restoreData(bundleID);
    return waiting && !waiting->empty() ? std::optional(waiting->front().size) : std::nullopt;
}

Result<std::optional<std::string>> BackupService::_nameOf(std::string_view bundleID) {
    const auto waiting = restoreData(bundleID);
    if (!waiting) {
        return waiting.error();
    }
    return waiting->empty() ? std::nullopt : std::optional(waiting->front().name);
}

Result<std::optional<std::string>> BackupService::restoreDataFolder(std::string_view bundleID) {
    auto name = _nameOf(bundleID);
    if (name && *name) {
        *name = waitingPath(**name);
    }
    return name;
}

Result<void> BackupService::_noteMoving(const std::string& bundleID, bool isMoving) {
    return _database.run(Durability::durable, "UPDATE restoreData SET isMoving = ?2 WHERE bundle = ?1", bundleID,
                         isMoving);
}

/// Exchanges the data container for the waiting data; after a failure the container is what it was.
Result<void> BackupService::_putInPlace(const std::string& bundleID, const std::string& name) {
    const std::string container = dataContainerPath(bundleID);
    const std::string replaced = replacedPath(name);
    ErrorPtr error;
    if (!_files.createDirectory(dataContainersFolder, true, std::nullopt, &error)) {
        return error;
    }
    const bool wasCutShort = !_files.isGone(replaced);
    if (!wasCutShort && !_files.moveItem(container, replaced, &error) && error->code() != ENOENT) {
        return error;
    }
    if (_files.moveItem(waitingPath(name), container, &error)) {
        return {};
    }
    _files.moveItem(replaced, container, nullptr);
    return error;
}

/// Puts back the old data of a restore that could neither be ended nor undone, before that restore is forgotten.
Result<void> BackupService::_putBack(std::string_view bundleID, const std::string& name) {
    if (_files.isGone(replacedPath(name)) || _files.isGone(waitingPath(name))) {
        return {}; // none stands aside, or the new data has taken its place
    }
    ErrorPtr error;
    _files.moveItem(replacedPath(name), dataContainerPath(bundleID), &error);
    return error;
}

/// Durable before it is forgotten, so that no loss of power takes the data with it.
Result<void> BackupService::_endRestore(const std::string& bundleID, const std::string& name) {
    if (auto synced = _files.sync(); !synced) {
        return synced;
    }
    auto written = _database.run(Durability::ordinary, forget, bundleID);
    if (written) {
        _files.removeItem(replacedPath(name), nullptr);
    }
    return written;
}

Result<void> BackupService::restoreApplicationData(std::string_view bundleID) {
    const Lock lock(_mutex);
    const std::string identifier(bundleID);
    const auto name = _nameOf(identifier);
    if (!name) {
        return name.error();
    }
    if (!*name) {
        return backupError(BackupError::nothingToRestore, "no data of " + identifier + " waits to be restored");
    }
    if (auto noted = _noteMoving(identifier, true); !noted) {
        return noted;
    }
    if (auto placed = _putInPlace(identifier, **name); !placed) {
        if (_files.isGone(replacedPath(**name))) {
            (void)_noteMoving(identifier, false); // when this is lost too it is tried again at the next start
        } // else the old data could not be moved back, and the next start has to end what was begun
        return placed;
    }
    return _endRestore(identifier, **name);
}

Result<void> BackupService::cancelRestore(std::string_view bundleID) {
    const Lock lock(_mutex);
    const auto name = _nameOf(bundleID);
    if (!name) {
        return name.error();
    }
    if (!*name) {
        return backupError(BackupError::nothingToCancel,
                           "no data of " + std::string(bundleID) + " waits to be restored");
    }
    if (auto putBack = _putBack(bundleID, **name); !putBack) {
        return putBack;
    }
    // Durable before the first file goes: data of which a part is gone must not wait.
    auto written = _database.run(Durability::durable, forget, bundleID);
    if (written) {
        _files.removeItem(waitingPath(**name), nullptr); // what stays is cleared away at the next start
    }
    return written;
}

} // namespace appsync::device
