// The backup service: data of apps that waits to be restored.
//
// Waiting data stands in a folder of its own, /var/mobile/Library/RestoreData/<UUID>, and the database says whose it
// is. Restoring it is written down before the first folder moves; a restore that was cut short is ended when the
// service is opened. So an app has its old data or the restored data, and never a part of either.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/Backup.h"
#include "values/Result.h"

#include <optional>
#include <string>
#include <vector>

namespace appsync::device {

class Database;
class DeviceFileSystem;

inline constexpr std::string_view backupErrorDomain = "DeviceBackup";
enum class BackupError : std::int64_t {
    nothingToCancel = 1,
    nothingToRestore = 2,
    invalidIdentifier = 3, // it cannot be that of an app
};

struct RestoreData {
    std::string bundleID;
    std::uint64_t size = 0; // bytes
    std::string name;       // of its folder
    bool isMoving = false;  // a restore may have begun to move it
};

/// Any thread.
class BackupService final : public HVManagerClass, public HVManager {
  public:
    /// Ends restores that were cut short, and clears away what belongs to none. The database and the files must outlive
    /// the service and its managers.
    [[nodiscard]] static Result<std::unique_ptr<BackupService>> open(Database& database, DeviceFileSystem& files);

    [[nodiscard]] std::shared_ptr<HVManager> init() noexcept override { return {std::shared_ptr<void>(), this}; }
    bool restoreDataExistsForApplicationWithBundleID_size(std::string_view bundleID,
                                                          std::uint64_t* size) noexcept override;
    bool cancelApplicationRestoreWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept override;

    /// Takes a folder of the device with an app's data, to be restored later; in place of data that waits already.
    /// After a failure the folder is where it was.
    [[nodiscard]] Result<void> addRestoreData(std::string_view bundleID, const std::string& folder);
    /// Its size in bytes; nullopt when none waits, or the database cannot be read.
    [[nodiscard]] std::optional<std::uint64_t> restoreDataSize(std::string_view bundleID);
    /// The folder in which an app's data waits; nullopt when none waits.
    [[nodiscard]] Result<std::optional<std::string>> restoreDataFolder(std::string_view bundleID);
    /// Of one app, or of all in the order of their identifiers.
    [[nodiscard]] Result<std::vector<RestoreData>> restoreData(std::optional<std::string_view> bundleID = std::nullopt);
    /// Makes the waiting data the content of the app's data container, in place of what stands there, and forgets that
    /// it waited. Fails with `nothingToRestore` when none waits; after any other failure it waits still.
    [[nodiscard]] Result<void> restoreApplicationData(std::string_view bundleID);
    /// Gives up the restore of an app's data and removes it; fails with `nothingToCancel` when none waits.
    [[nodiscard]] Result<void> cancelRestore(std::string_view bundleID);

  private:
    BackupService(Database& database, DeviceFileSystem& files) : _database(database), _files(files) {}
    [[nodiscard]] Result<void> _settle();
    void _clearFolders();
    [[nodiscard]] Result<void> _noteMoving(const std::string& bundleID, bool isMoving);
    [[nodiscard]] Result<void> _putInPlace(const std::string& bundleID, const std::string& name);
    [[nodiscard]] Result<void> _putBack(std::string_view bundleID, const std::string& name) REQUIRES(_mutex);
    [[nodiscard]] Result<void> _endRestore(const std::string& bundleID, const std::string& name);
    [[nodiscard]] Result<std::optional<std::string>> _nameOf(std::string_view bundleID);

    Database& _database;
    DeviceFileSystem& _files;
    Mutex _mutex; // held by an operation that moves folders
};

} // namespace appsync::device
