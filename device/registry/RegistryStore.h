// The registry's tables. Each operation works within the caller's transaction, which reports failures.
#pragma once

#include "device/database/Database.h"
#include "device/registry/RegistryRecord.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

class RegistryStore {
  public:
    [[nodiscard]] static Result<void> registerSchema(Database& database);

    struct Row {
        RegistryRecordPtr record;
        std::int64_t arrival = 0; // orders the apps
    };
    /// In the order of arrival.
    [[nodiscard]] static std::vector<Row> load(Database::Transaction& transaction);
    /// Adds a record in place of the app's other one of the same kind.
    static void put(Database::Transaction& transaction, const RegistryRecord& record, std::int64_t arrival);
    static void remove(Database::Transaction& transaction, std::string_view identifier, bool placeholder);

    // Folders that are to go although no record names them any more.

    static void addRemoval(Database::Transaction& transaction, std::string_view path);
    static void endRemoval(Database::Transaction& transaction, std::string_view path);
    [[nodiscard]] static std::vector<std::string> removals(Database::Transaction& transaction);
};

} // namespace appsync::device
