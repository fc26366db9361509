#include "device/services/BackupService.h"

#include "device/root/Database.h"

namespace appsync::device {

namespace {

constexpr std::string_view Schema[] = {
    "CREATE TABLE restoreData (bundle TEXT PRIMARY KEY, size INTEGER NOT NULL) WITHOUT ROWID;"};

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

Result<std::unique_ptr<BackupService>> BackupService::open(Database& database) {
    if (const auto registered = database.registerSchema("backup", Schema); !registered) {
        return registered.error();
    }
    return std::unique_ptr<BackupService>(new BackupService(database));
}

std::shared_ptr<HVManager> BackupService::init() noexcept {
    return std::make_shared<Manager>(*this);
}

Result<void> BackupService::addRestoreData(const RestoreData& data) {
    Database::Transaction transaction(_database, Durability::durable);
    transaction.run("INSERT OR REPLACE INTO restoreData VALUES (?1, ?2)", data.bundleID, data.size);
    return transaction.commit();
}

std::optional<std::uint64_t> BackupService::restoreDataSize(std::string_view bundleID) {
    Database::Transaction transaction(_database);
    auto rows = transaction.query("SELECT size FROM restoreData WHERE bundle = ?1", bundleID);
    return rows.next() ? std::optional(static_cast<std::uint64_t>(rows.integer(0))) : std::nullopt;
}

Result<std::vector<RestoreData>> BackupService::restoreData() {
    std::vector<RestoreData> waiting;
    Database::Transaction transaction(_database);
    auto rows = transaction.query("SELECT bundle, size FROM restoreData ORDER BY bundle");
    while (rows.next()) {
        waiting.push_back({std::string(rows.text(0)), static_cast<std::uint64_t>(rows.integer(1))});
    }
    if (const auto read = transaction.commit(); !read) {
        return read.error();
    }
    return waiting;
}

Result<void> BackupService::cancelRestore(std::string_view bundleID) {
    Database::Transaction transaction(_database);
    transaction.run("DELETE FROM restoreData WHERE bundle = ?1", bundleID);
    const bool wasWaiting = transaction.changes() > 0;
    auto written = transaction.commit();
    if (written && !wasWaiting) {
        return makeError(BackupErrorDomain, static_cast<std::int64_t>(BackupError::nothingToCancel),
                         "no data of " + std::string(bundleID) + " waits to be restored");
    }
    return written;
}

} // namespace appsync::device
