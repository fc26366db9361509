#include "device/registry/RegistryTable.h"

#include "device/root/Paths.h"

#include <algorithm>
#include <array>

namespace appsync::device {

namespace {

constexpr std::array<std::string_view, 1> schema{R"(
CREATE TABLE applications (
    identifier TEXT NOT NULL,
    placeholder INTEGER NOT NULL,
    system INTEGER NOT NULL,
    install_type INTEGER NOT NULL,
    name TEXT NOT NULL,
    version TEXT,
    container TEXT NOT NULL UNIQUE,
    bundle TEXT NOT NULL,
    icon TEXT,
    bytes INTEGER NOT NULL,
    device_sinf INTEGER NOT NULL,
    arrival INTEGER NOT NULL,
    PRIMARY KEY (identifier, placeholder)
) WITHOUT ROWID;
CREATE TABLE application_removals (path TEXT PRIMARY KEY) WITHOUT ROWID;
)"};

constexpr std::array<std::string_view, 1> uninstalledSchema{
    "CREATE TABLE uninstalled (identifier TEXT PRIMARY KEY, removed_at REAL NOT NULL) WITHOUT ROWID"};

} // namespace

std::string RegistryRecord::containerPath() const {
    return std::string(containersFolder) + "/" + container;
}

Result<void> RegistryTable::load(Database& database) {
    for (const auto& [service, steps] :
         {std::pair("registry", schema), std::pair("uninstalled list", uninstalledSchema)}) {
        if (auto registered = database.registerSchema(service, steps); !registered) {
            return registered;
        }
    }
    const auto add = [this](const Database::Rows& row) {
        auto record = std::make_shared<RegistryRecord>();
        std::int64_t arrival = 0;
        row.read(record->identifier, record->isPlaceholder, record->isSystem, record->installType, record->name,
                 record->version, record->container, record->bundle, record->iconFile, record->bytes,
                 record->hasDeviceSinf, arrival);
        put(record, arrival);
    };
    return database.read(add, "SELECT identifier, placeholder, system, install_type, name, version, container, bundle, "
                              "icon, bytes, device_sinf, arrival FROM applications ORDER BY arrival");
}

RegistryTable::App RegistryTable::find(std::string_view identifier) const {
    const Lock lock(_mutex);
    const auto known = _apps.find(identifier);
    return known == _apps.end() ? App{} : known->second;
}

std::vector<RegistryTable::App> RegistryTable::all() const {
    std::vector<App> apps;
    {
        const Lock lock(_mutex);
        for (const auto& [identifier, app] : _apps) {
            apps.push_back(app);
        }
    }
    std::ranges::sort(apps, {}, &App::arrival);
    return apps;
}

std::vector<RegistryRecordPtr> RegistryTable::records() const {
    std::vector<RegistryRecordPtr> records;
    for (const App& app : all()) {
        for (const RegistryRecordPtr& record : {app.installed, app.placeholder}) {
            if (record) {
                records.push_back(record);
            }
        }
    }
    return records;
}

std::int64_t RegistryTable::arrivalOf(const App& app) {
    const Lock lock(_mutex);
    return app.arrival != 0 ? app.arrival : _nextArrival++;
}

void RegistryTable::put(const RegistryRecordPtr& record, std::int64_t arrival) {
    const Lock lock(_mutex);
    _put(record, arrival);
}

void RegistryTable::install(const RegistryRecordPtr& record, std::int64_t arrival) {
    const Lock lock(_mutex);
    _put(record, arrival).placeholder = nullptr;
}

RegistryTable::App& RegistryTable::_put(const RegistryRecordPtr& record, std::int64_t arrival) {
    App& app = _apps[record->identifier];
    app.arrival = app.arrival != 0 ? app.arrival : arrival;
    (record->isPlaceholder ? app.placeholder : app.installed) = record;
    _nextArrival = std::max(_nextArrival, app.arrival + 1);
    return app;
}

void RegistryTable::remove(const RegistryRecord& record) {
    const Lock lock(_mutex);
    const auto known = _apps.find(record.identifier);
    if (known == _apps.end()) {
        return;
    }
    (record.isPlaceholder ? known->second.placeholder : known->second.installed) = nullptr;
    if (!known->second.isKnown()) {
        _apps.erase(known);
    }
}

void RegistryTable::write(Database::Transaction& transaction, const RegistryRecord& record, std::int64_t arrival) {
    transaction.run(
        "INSERT OR REPLACE INTO applications (identifier, placeholder, system, install_type, name, version, "
        "container, bundle, icon, bytes, device_sinf, arrival) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        record.identifier, record.isPlaceholder, record.isSystem, record.installType, record.name, record.version,
        record.container, record.bundle, record.iconFile, record.bytes, record.hasDeviceSinf, arrival);
    transaction.run(endRemoval,
                    dataContainerPath(record.identifier)); // the app has come back: its data is its own again
}

void RegistryTable::erase(Database::Transaction& transaction, std::string_view identifier, bool isPlaceholder) {
    transaction.run("DELETE FROM applications WHERE identifier = ? AND placeholder = ?", identifier, isPlaceholder);
}

void RegistryTable::addRemoval(Database::Transaction& transaction, std::string_view path) {
    transaction.run("INSERT OR IGNORE INTO application_removals VALUES (?)", path);
}

} // namespace appsync::device
