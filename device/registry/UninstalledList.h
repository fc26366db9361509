// The list of apps that a person removed from the device, kept until the desktop has heard of it.
#pragma once

#include "device/database/Database.h"
#include "platform/InstallationService.h"
#include "values/Result.h"

#include <string_view>

namespace appsync::device {

class UninstalledList final : public TevrinInstallationService {
  public:
    /// The database must outlive the list. To be made when the registry has been opened, which makes its table.
    explicit UninstalledList(Database& database) : _database(database) {}

    /// Values are the dates of removal.
    [[nodiscard]] std::optional<Dictionary> TevrinLookupUninstalled(const Dictionary* options) noexcept override;
    /// What is no string is passed over. A failure's number is that of the database (`DatabaseError`).
    [[nodiscard]] int TevrinClearUninstalled(const Array& bundleIdentifiers,
                                             const Dictionary* options) noexcept override;

    // The registry keeps the list within its own transactions.

    [[nodiscard]] static Result<void> registerSchema(Database& database);
    static void add(Database::Transaction& transaction, std::string_view identifier);
    static void remove(Database::Transaction& transaction, std::string_view identifier);

  private:
    Database& _database;
};

} // namespace appsync::device
