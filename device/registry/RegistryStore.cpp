#include "device/registry/RegistryStore.h"

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

Result<void> RegistryStore::registerSchema(Database& database) {
    return database.registerSchema("registry", schema);
}

std::vector<RegistryStore::Row> RegistryStore::load(Database::Transaction& transaction) {
    std::vector<Row> rows;
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
        rows.push_back({std::make_shared<const RegistryRecord>(std::move(record)), found.integer(11)});
    }
    return rows;
}

void RegistryStore::put(Database::Transaction& transaction, const RegistryRecord& record, std::int64_t arrival) {
    transaction.run(
        "INSERT OR REPLACE INTO applications (identifier, placeholder, system, install_type, name, version, "
        "container, bundle, icon, bytes, device_sinf, arrival) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        record.identifier, record.isPlaceholder, record.isSystem, record.installType, record.name, record.version,
        record.container, record.bundle, record.iconFile, record.bytes, record.hasDeviceSinf, arrival);
    endRemoval(transaction, dataContainerPath(record.identifier)); // the app has come back: its data is its own again
}

void RegistryStore::remove(Database::Transaction& transaction, std::string_view identifier, bool placeholder) {
    transaction.run("DELETE FROM applications WHERE identifier = ? AND placeholder = ?", identifier, placeholder);
}

void RegistryStore::addRemoval(Database::Transaction& transaction, std::string_view path) {
    transaction.run("INSERT OR IGNORE INTO application_removals VALUES (?)", path);
}

void RegistryStore::endRemoval(Database::Transaction& transaction, std::string_view path) {
    transaction.run("DELETE FROM application_removals WHERE path = ?", path);
}

std::vector<std::string> RegistryStore::removals(Database::Transaction& transaction) {
    std::vector<std::string> paths;
    auto found = transaction.query("SELECT path FROM application_removals");
    while (found.next()) {
        paths.emplace_back(found.text(0));
    }
    return paths;
}

} // namespace appsync::device
