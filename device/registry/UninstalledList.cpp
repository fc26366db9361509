#include "device/registry/UninstalledList.h"

#include <array>

namespace appsync::device {

namespace {

constexpr std::array<std::string_view, 1> schema{
    "CREATE TABLE uninstalled (identifier TEXT PRIMARY KEY, removed_at REAL NOT NULL) WITHOUT ROWID"};

} // namespace

Result<void> UninstalledList::registerSchema(Database& database) {
    return database.registerSchema("uninstalled list", schema);
}

std::optional<Dictionary> UninstalledList::TevrinLookupUninstalled(const Dictionary* /*options*/) noexcept {
    Dictionary apps;
    const auto read = _database.read([&](const Database::Rows& row) { apps.insert(row.text(0), Date{row.real(1)}); },
                                     "SELECT identifier, removed_at FROM uninstalled ORDER BY removed_at, identifier");
    return read ? std::optional(std::move(apps)) : std::nullopt;
}

int UninstalledList::TevrinClearUninstalled(const Array& bundleIdentifiers, const Dictionary* /*options*/) noexcept {
    // Durable, so that the desktop does not hear of a deletion twice.
    Database::Transaction transaction(_database, Durability::durable);
    for (const Value& identifier : bundleIdentifiers) {
        if (const auto text = identifier.string()) {
            remove(transaction, *text);
        }
    }
    const auto committed = transaction.commit();
    return committed ? 0 : static_cast<int>(committed.error()->code());
}

void UninstalledList::add(Database::Transaction& transaction, std::string_view identifier) {
    // Julian day 2451910.5 is 2001-01-01, where dates of property lists begin.
    transaction.run("INSERT OR REPLACE INTO uninstalled VALUES (?, (julianday('now') - 2451910.5) * 86400.0)",
                    identifier);
}

void UninstalledList::remove(Database::Transaction& transaction, std::string_view identifier) {
    transaction.run("DELETE FROM uninstalled WHERE identifier = ?", identifier);
}

} // namespace appsync::device
