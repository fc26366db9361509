#include "device/registry/RegistryTable.h"

#include "device/root/Paths.h"

#include <algorithm>

namespace appsync::device {

namespace {

constexpr std::string_view schema[] = {
    "CREATE TABLE applications (identifier TEXT NOT NULL, placeholder INTEGER NOT NULL, system INTEGER NOT NULL,"
    " install_type INTEGER NOT NULL, name TEXT NOT NULL, version TEXT, container TEXT NOT NULL UNIQUE,"
    " bundle TEXT NOT NULL, icon TEXT, bytes INTEGER NOT NULL, device_sinf INTEGER NOT NULL, arrival INTEGER NOT NULL,"
    " PRIMARY KEY (identifier, placeholder)) WITHOUT ROWID;"
    "CREATE TABLE application_removals (path TEXT PRIMARY KEY) WITHOUT ROWID;",
    "ALTER TABLE applications ADD COLUMN demotion INTEGER"};

constexpr std::string_view uninstalledSchema[] = {
    "CREATE TABLE uninstalled (identifier TEXT PRIMARY KEY, removed_at REAL NOT NULL) WITHOUT ROWID"};

} // namespace

std::string RegistryRecord::containerPath() const {
    return std::string(containersFolder) + "/" + container;
}

Result<void> RegistryTable::load(Database& database) {
    auto registered = database.registerSchema("registry", schema);
    if (registered) {
        registered = database.registerSchema("uninstalled list", uninstalledSchema);
    }
    if (!registered) {
        return registered;
    }
    Database::Transaction transaction(database);
    auto rows =
        transaction.query("SELECT identifier, placeholder, system, install_type, name, version, container, "
                          "bundle, icon, bytes, device_sinf, demotion, arrival FROM applications ORDER BY arrival");
    const Lock lock(_mutex);
    while (rows.next()) {
        auto record = std::make_shared<RegistryRecord>();
        std::int64_t arrival = 0;
        rows.read(record->identifier, record->isPlaceholder, record->isSystem, record->installType, record->name,
                  record->version, record->container, record->bundle, record->iconFile, record->bytes,
                  record->hasDeviceSinf, record->demotion, arrival);
        App& app = _apps[record->identifier];
        app.arrival = app.arrival != 0 ? app.arrival : arrival;
        (record->isPlaceholder ? app.placeholder : app.installed) = record;
        _nextArrival = std::max(_nextArrival, app.arrival + 1);
    }
    return transaction.error();
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

void RegistryTable::set(const std::string& identifier, App app) {
    const Lock lock(_mutex);
    if (app.isKnown()) {
        _apps.insert_or_assign(identifier, std::move(app));
    } else {
        _apps.erase(identifier);
    }
}

void RegistryTable::write(Database::Transaction& transaction, const App& before, const App& after) {
    for (const auto kind : {&App::installed, &App::placeholder}) {
        const RegistryRecordPtr& record = after.*kind;
        if (record == before.*kind) {
            continue;
        }
        if (!record) {
            transaction.run("DELETE FROM applications WHERE identifier = ? AND placeholder = ?",
                            (before.*kind)->identifier, (before.*kind)->isPlaceholder);
            continue;
        }
        transaction.run("INSERT OR REPLACE INTO applications (identifier, placeholder, system, install_type, name, "
                        "version, container, bundle, icon, bytes, device_sinf, demotion, arrival) "
                        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                        record->identifier, record->isPlaceholder, record->isSystem, record->installType, record->name,
                        record->version, record->container, record->bundle, record->iconFile, record->bytes,
                        record->hasDeviceSinf, record->demotion, after.arrival);
        // The app has come back: its data is its own again.
        transaction.run(endRemoval, dataContainerPath(record->identifier));
        if (!record->isPlaceholder) {
            transaction.run(removeUninstalled, record->identifier);
        }
    }
}

void RegistryTable::addRemoval(Database::Transaction& transaction, std::string_view path) {
    transaction.run("INSERT OR IGNORE INTO application_removals VALUES (?)", path);
}

} // namespace appsync::device
