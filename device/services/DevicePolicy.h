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
class DevicePolicy final : public OLProfileConnectionClass, public OLProfileConnection {
  public:
    /// The database must outlive the policy, and the policy its connections.
    [[nodiscard]] static Result<std::unique_ptr<DevicePolicy>> open(Database& database);

    [[nodiscard]] std::shared_ptr<OLProfileConnection> sharedConnection() noexcept override {
        return {std::shared_ptr<void>(), this};
    }
    /// `unset` for a setting that nobody has set.
    [[nodiscard]] OLBoolValue value(std::string_view setting);
    [[nodiscard]] OLBoolValue effectiveBoolValueForSetting(std::string_view setting) noexcept override {
        return value(setting);
    }
    /// Durable when it returns; `unset` removes the setting.
    [[nodiscard]] Result<void> set(std::string_view setting, OLBoolValue value);

  private:
    using Settings = std::map<std::string, OLBoolValue, std::less<>>;
    DevicePolicy(Database& database, Settings settings) : _database(database), _settings(std::move(settings)) {}

    Database& _database;
    Mutex _mutex;
    Settings _settings GUARDED_BY(_mutex);
};

} // namespace appsync::device
