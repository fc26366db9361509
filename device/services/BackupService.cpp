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

class BackupService::Manager final : public HVManager {
  public:
    explicit Manager(BackupService& service) : _service(service) {}

    bool restoreDataExistsForApplicationWithBundleID_size(std::string_view bundleID,
                                                          std::uint64_t* size) noexcept override {
        const auto waiting = _service.restoreDataSize(bundleID);
        if (waiting && size) {
            *size = *waiting;
        }
        return waiting.has_value();
    }
    bool cancelApplicationRestoreWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept override {
        const auto cancelled = _service.cancelRestore(bundleID);
        if (!cancelled && error) {
            *error = cancelled.error();
        }
        return static_cast<bool>(cancelled);
    }

  private:
    BackupService& _service;
};

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

std::shared_ptr<HVManager> BackupService::init() noexcept {
    return std::make_shared<Manager>(*this);
}

/// What is there but cannot be looked at just now is not gone.
bool BackupService::_isGone(const std::string& path) {
    ErrorPtr error;
    return !_files.attributesOfItem(path, &error) && (error->code() == ENOENT || error->code() == ENOTDIR);
}

/// What waits for one app, or for all in the order of their identifiers.
Result<std::vector<BackupService::Waiting>> BackupService::_waiting(std::optional<std::string_view> bundleID) {
    std::vector<Waiting> waiting;
    Database::Transaction transaction(_database);
    {
        auto rows = transaction.query("SELECT bundle, size, folder, isMoving FROM restoreData"
                                      " WHERE ?1 IS NULL OR bundle = ?1 ORDER BY bundle",
                                      bundleID);
        while (rows.next()) {
            waiting.push_back({{std::string(rows.text(0)), static_cast<std::uint64_t>(rows.integer(1))},
                               std::string(rows.text(2)),
                               rows.integer(3) != 0});
        }
    }
    if (const auto read = transaction.commit(); !read) {
        return read.error();
    }
    return waiting;
}

/// Ends restores whose folders may have begun to move; one that cannot be ended now waits on.
Result<void> BackupService::_settle() {
    const auto waiting = _waiting();
    if (!waiting) {
        return waiting.error();
    }
    for (const Waiting& data : *waiting) {
        if (data.isMoving && (_isGone(waitingPath(data.name)) || _putInPlace(data.bundleID, data.name))) {
            if (auto ended = _endRestore(data.bundleID, data.name); !ended) {
                return ended;
            }
        }
    }
    return {};
}

/// Removes folders that no row names, and rows whose folder is gone.
void BackupService::_clearFolders() {
    const auto waiting = _waiting();
    const auto names = _files.list(waitingFolder);
    if (!waiting || !names) {
        return; // the next time, then
    }
    std::set<std::string> kept;
    Database::Transaction transaction(_database);
    for (const Waiting& data : *waiting) {
        if (_isGone(waitingPath(data.name))) {
            transaction.run("DELETE FROM restoreData WHERE bundle = ?1", data.bundleID);
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
    const std::string name = makeUniqueName();
    ErrorPtr error;
    if (!_files.moveItem(folder, waitingPath(name), &error)) {
        return error;
    }
    auto written = _files.sync();
    if (written) {
        Database::Transaction transaction(_database, Durability::durable);
        transaction.run("INSERT OR REPLACE INTO restoreData VALUES (?1, ?2, ?3, 0)", bundleID, *size, name);
        written = transaction.commit();
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
    const auto waiting = _waiting(bundleID);
    return waiting && !waiting->empty() ? std::optional(waiting->front().size) : std::nullopt;
}

Result<std::optional<std::string>> BackupService::_nameOf(std::string_view bundleID) {
    const auto waiting = _waiting(bundleID);
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

Result<std::vector<RestoreData>> BackupService::restoreData() {
    const auto waiting = _waiting();
    if (!waiting) {
        return waiting.error();
    }
    return std::vector<RestoreData>(waiting->begin(), waiting->end());
}

Result<void> BackupService::_noteMoving(const std::string& bundleID, bool isMoving) {
    Database::Transaction transaction(_database, Durability::durable);
    transaction.run("UPDATE restoreData SET isMoving = ?2 WHERE bundle = ?1", bundleID, isMoving);
    return transaction.commit();
}

/// Exchanges the data container for the waiting data; after a failure the container is what it was.
Result<void> BackupService::_putInPlace(const std::string& bundleID, const std::string& name) {
    const std::string container = dataContainerPath(bundleID);
    const std::string replaced = replacedPath(name);
    ErrorPtr error;
    if (!_files.createDirectory(dataContainersFolder, true, std::nullopt, &error)) {
        return error;
    }
    const bool wasCutShort = !_isGone(replaced);
    if (!wasCutShort && !_files.moveItem(container, replaced, &error) && error->code() != ENOENT) {
        return error;
    }
    if (_files.moveItem(waitingPath(name), container, &error)) {
        return {};
    }
    _files.moveItem(replaced, container, nullptr);
    return error;
}

/// Durable before it is forgotten, so that no loss of power takes the data with it.
Result<void> BackupService::_endRestore(const std::string& bundleID, const std::string& name) {
    if (auto synced = _files.sync(); !synced) {
        return synced;
    }
    Database::Transaction transaction(_database);
    transaction.run("DELETE FROM restoreData WHERE bundle = ?1", bundleID);
    auto written = transaction.commit();
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
        if (_isGone(replacedPath(**name))) {
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
    // Durable before the first file goes: data of which a part is gone must not wait.
    Database::Transaction transaction(_database, Durability::durable);
    transaction.run("DELETE FROM restoreData WHERE bundle = ?1", bundleID);
    auto written = transaction.commit();
    if (written) {
        _files.removeItem(waitingPath(**name), nullptr); // what stays is cleared away at the next start
    }
    return written;
}

} // namespace appsync::device
