// What the device's owner or administrator allows, kept in the database.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/DevicePolicy.h"
#include "values/Result.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace appsync::device {

class Database;

/// Any thread. Look-ups do not touch the disk.
class DevicePolicy final : public OLProfileConnectionClass {
  public:
    /// The database must outlive the policy and its connection.
    [[nodiscard]] static Result<std::unique_ptr<DevicePolicy>> open(Database& database);
    ~DevicePolicy() override;

    [[nodiscard]] std::shared_ptr<OLProfileConnection> sharedConnection() noexcept override;

    /// `unset` for a setting that nobody has set.
    [[nodiscard]] OLBoolValue value(std::string_view setting) const;
    /// Durable when it returns; `unset` removes the setting.
    [[nodiscard]] Result<void> set(std::string_view setting, OLBoolValue value);

  private:
    class Connection;
    explicit DevicePolicy(Database& database);
    [[nodiscard]] Result<void> _load();

    Database& _database;
    mutable Mutex _mutex;
    std::map<std::string, OLBoolValue, std::less<>> _settings GUARDED_BY(_mutex);
    std::shared_ptr<OLProfileConnection> _connection;
};

} // namespace appsync::device
