#include "device/services/DevicePolicy.h"

#include "device/database/Database.h"

namespace appsync::device {

namespace {

constexpr std::string_view policySchema[] = {
    "CREATE TABLE policy (setting TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"};

} // namespace

Result<std::unique_ptr<DevicePolicy>> DevicePolicy::open(Database& database) {
    if (const auto registered = database.registerSchema("policy", policySchema); !registered) {
        return registered.error();
    }
    Settings settings;
    const auto add = [&](const Database::Rows& row) {
        std::string setting;
        OLBoolValue value = OLBoolValue::unset;
        row.read(setting, value);
        if (value == OLBoolValue::explicitlyYes || value == OLBoolValue::explicitlyNo) {
            settings.emplace(std::move(setting), value);
        }
    };
    if (const auto read = database.read(add, "SELECT setting, value FROM policy"); !read) {
        return read.error();
    }
    return std::unique_ptr<DevicePolicy>(new DevicePolicy(database, std::move(settings)));
}

OLBoolValue DevicePolicy::value(std::string_view setting) {
    const Lock lock(_mutex);
    const auto found = _settings.find(setting);
    return found == _settings.end() ? OLBoolValue::unset : found->second;
}

Result<void> DevicePolicy::set(std::string_view setting, OLBoolValue value) {
    const Lock lock(_mutex);
    auto written =
        value == OLBoolValue::unset
            ? _database.run(Durability::durable, "DELETE FROM policy WHERE setting = ?1", setting)
            : _database.run(Durability::durable, "INSERT OR REPLACE INTO policy VALUES (?1, ?2)", setting, value);
    if (written) {
        _settings.insert_or_assign(std::string(setting), value);
    }
    return written;
}

} // namespace appsync::device
