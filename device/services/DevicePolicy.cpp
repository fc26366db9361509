#include "device/services/DevicePolicy.h"

#include "device/database/Database.h"

namespace appsync::device {

namespace {

constexpr std::string_view policySchema[] = {
    "CREATE TABLE policy (setting TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"};

} // namespace

class DevicePolicy::Connection final : public OLProfileConnection {
  public:
    explicit Connection(const DevicePolicy& policy) : _policy(policy) {}
    OLBoolValue effectiveBoolValueForSetting(std::string_view setting) noexcept override {
        return _policy.value(setting);
    }

  private:
    const DevicePolicy& _policy;
};

DevicePolicy::DevicePolicy(Database& database)
    : _database(database), _connection(std::make_shared<Connection>(*this)) {}

DevicePolicy::~DevicePolicy() = default;

Result<std::unique_ptr<DevicePolicy>> DevicePolicy::open(Database& database) {
    if (const auto registered = database.registerSchema("policy", policySchema); !registered) {
        return registered.error();
    }
    std::unique_ptr<DevicePolicy> policy(new DevicePolicy(database));
    if (const auto loaded = policy->_load(); !loaded) {
        return loaded.error();
    }
    return policy;
}

Result<void> DevicePolicy::_load() {
    const Lock lock(_mutex);
    Database::Transaction transaction(_database);
    auto rows = transaction.query("SELECT setting, value FROM policy");
    while (rows.next()) {
        const std::int64_t value = rows.integer(1);
        if (value == static_cast<int>(OLBoolValue::explicitlyYes) ||
            value == static_cast<int>(OLBoolValue::explicitlyNo)) {
            _settings.emplace(rows.text(0), static_cast<OLBoolValue>(value));
        }
    }
    return transaction.commit();
}

std::shared_ptr<OLProfileConnection> DevicePolicy::sharedConnection() noexcept {
    return _connection;
}

OLBoolValue DevicePolicy::value(std::string_view setting) const {
    const Lock lock(_mutex);
    const auto found = _settings.find(setting);
    return found == _settings.end() ? OLBoolValue::unset : found->second;
}

Result<void> DevicePolicy::set(std::string_view setting, OLBoolValue value) {
    const Lock lock(_mutex);
    Database::Transaction transaction(_database, Durability::durable);
    if (value == OLBoolValue::unset) {
        transaction.run("DELETE FROM policy WHERE setting = ?1", setting);
    } else {
        transaction.run("INSERT OR REPLACE INTO policy VALUES (?1, ?2)", setting, static_cast<int>(value));
    }
    auto written = transaction.commit();
    if (written) {
        _settings.insert_or_assign(std::string(setting), value);
    }
    return written;
}

} // namespace appsync::device
