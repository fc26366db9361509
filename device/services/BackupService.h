// The backup service: which apps have data that waits to be restored.
#pragma once

#include "device/root/Result.h"
#include "platform/Backup.h"

#include <optional>
#include <string>
#include <vector>

namespace appsync::device {

class Database;

inline constexpr std::string_view BackupErrorDomain = "DeviceBackup";
enum class BackupError : std::int64_t { nothingToCancel = 1 };

struct RestoreData {
    std::string bundleID;
    std::uint64_t size = 0; // bytes
};

/// Any thread.
class BackupService final : public HVManagerClass {
  public:
    /// The database must outlive the service and its managers.
    [[nodiscard]] static Result<std::unique_ptr<BackupService>> open(Database& database);

    [[nodiscard]] std::shared_ptr<HVManager> init() noexcept override;

    /// Notes that data of an app waits to be restored; replaces an earlier note.
    [[nodiscard]] Result<void> addRestoreData(const RestoreData& data);
    /// Nothing when none waits, or the database cannot be read.
    [[nodiscard]] std::optional<std::uint64_t> restoreDataSize(std::string_view bundleID);
    /// In the order of the identifiers.
    [[nodiscard]] Result<std::vector<RestoreData>> restoreData();
    /// Gives up the restore of an app's data; fails with `nothingToCancel` when none waits.
    [[nodiscard]] Result<void> cancelRestore(std::string_view bundleID);

  private:
    class Manager;
    explicit BackupService(Database& database) : _database(database) {}
    Database& _database;
};

} // namespace appsync::device
