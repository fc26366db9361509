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

} // namespace

std::string RegistryRecord::containerPath() const {
    return std::string(containersFolder) + "/" + container;
}

Result<void> RegistryTable::load(Database& database) {
    if (auto registered = database.registerSchema("registry", schema); !registered) {
        return registered;
    }
    Database::Transaction transaction(database);
    auto found = transaction.query("SELECT identifier, placeholder, system, install_type, name, version, container, "
                                   "bundle, icon, bytes, device_sinf, arrival FROM applications ORDER BY arrival");
    while (found.next()) {
        RegistryRecord record;
        record.identifier = found.text(0);
        record.isPlaceholder = found.integer(1) != 0;
        record.isSystem = found.integer(2) != 0;
        record.installType = static_cast<std::uint64_t>(found.integer(3));
        record.name = found.text(4);
        record.version = found.optionalText(5);
        record.container = found.text(6);
        record.bundle = found.text(7);
        record.iconFile = found.optionalText(8);
        record.bytes = static_cast<std::uint64_t>(found.integer(9));
        record.hasDeviceSinf = found.integer(10) != 0;
        put(std::make_shared<const RegistryRecord>(std::move(record)), found.integer(11));
    }
    return transaction.error();
}

RegistryTable::App RegistryTable::find(std::string_view identifier) const {
    const Lock lock(_mutex);
    const auto known = _arrivals.find(identifier);
    return known == _arrivals.end() ? App{} : _apps.at(known->second);
}

std::vector<RegistryTable::App> RegistryTable::all() const {
    const Lock lock(_mutex);
    std::vector<App> apps;
    apps.reserve(_apps.size());
    for (const auto& [arrival, app] : _apps) {
        apps.push_back(app);
    }
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
    const auto place = _arrivals.try_emplace(record->identifier, arrival).first;
    App& app = _apps[place->second];
    app.arrival = place->second;
    (record->isPlaceholder ? app.placeholder : app.installed) = record;
    _nextArrival = std::max(_nextArrival, place->second + 1);
    return app;
}

void RegistryTable::remove(const RegistryRecord& record) {
    const Lock lock(_mutex);
    const auto known = _arrivals.find(record.identifier);
    if (known == _arrivals.end()) {
        return;
    }
    App& app = _apps.at(known->second);
    (record.isPlaceholder ? app.placeholder : app.installed) = nullptr;
    if (!app.isKnown()) {
        _apps.erase(known->second);
        _arrivals.erase(known);
    }
}

void RegistryTable::write(Database::Transaction& transaction, const RegistryRecord& record, std::int64_t arrival) {
    transaction.run(
        "INSERT OR REPLACE INTO applications (identifier, placeholder, system, install_type, name, version, "
        "container, bundle, icon, bytes, device_sinf, arrival) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        record.identifier, record.isPlaceholder, record.isSystem, record.installType, record.name, record.version,
        record.container, record.bundle, record.iconFile, record.bytes, record.hasDeviceSinf, arrival);
    endRemoval(transaction, dataContainerPath(record.identifier)); // the app has come back: its data is its own again
}

void RegistryTable::erase(Database::Transaction& transaction, std::string_view identifier, bool isPlaceholder) {
    transaction.run("DELETE FROM applications WHERE identifier = ? AND placeholder = ?", identifier, isPlaceholder);
}

void RegistryTable::addRemoval(Database::Transaction& transaction, std::string_view path) {
    transaction.run("INSERT OR IGNORE INTO application_removals VALUES (?)", path);
}

void RegistryTable::endRemoval(Database::Transaction& transaction, std::string_view path) {
    transaction.run("DELETE FROM application_removals WHERE path = ?", path);
}

std::vector<std::string> RegistryTable::removals(Database::Transaction& transaction) {
    std::vector<std::string> paths;
    auto found = transaction.query("SELECT path FROM application_removals");
    while (found.next()) {
        paths.emplace_back(found.text(0));
    }
    return paths;
}

} // namespace appsync::device
