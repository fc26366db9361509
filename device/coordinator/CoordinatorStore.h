// The coordinators in the database.
#pragma once

#include "device/coordinator/CoordinatorState.h"
#include "device/database/Database.h"

#include <map>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::device {

/// By their rows, and so in the order in which they were made.
using CoordinatorsByRow = std::map<std::int64_t, CoordinatorStatePtr>;

/// All changes are ordinary commits.
class CoordinatorStore {
  public:
    CoordinatorStore(Database& database, PropertyListSerialization& propertyLists)
        : _database(database), _propertyLists(propertyLists) {}

    [[nodiscard]] Result<void> registerSchema();
    /// All coordinators, and in `lastPromise` the highest number of a promise. Of those that only wait for their
    /// report, the newest `maxReports`.
    [[nodiscard]] Result<CoordinatorsByRow> load(std::uint64_t& lastPromise, std::size_t maxReports)
        REQUIRES(coordinatorStates);

    /// Adds a coordinator and sets its `id`.
    [[nodiscard]] Result<void> insert(CoordinatorState& coordinator);
    /// Writes options, flags, responsible client and outcome.
    [[nodiscard]] Result<void> update(const CoordinatorState& coordinator) REQUIRES(coordinatorStates);
    /// Writes the placeholder that has been attached, with its icon promise.
    [[nodiscard]] Result<void> updatePlaceholder(const CoordinatorState& coordinator) REQUIRES(coordinatorStates);
    [[nodiscard]] Result<void> updatePromise(const CoordinatorState& coordinator, const Promise& promise);
    [[nodiscard]] Result<void> removePromise(std::uint64_t promise);
    /// Keeps no more of a coordinator than its report needs.
    [[nodiscard]] Result<void> updateToReport(const CoordinatorState& coordinator);
    /// Removes a coordinator with all that belongs to it.
    [[nodiscard]] Result<void> remove(std::int64_t coordinator);

    /// The bytes of a dictionary, as they are kept and given to the registry.
    [[nodiscard]] Result<Data> serialize(const Dictionary& dictionary);

  private:
    void _loadPlaceholders(Database::Transaction& transaction, const CoordinatorsByRow& coordinators)
        REQUIRES(coordinatorStates);
    void _loadPromises(Database::Transaction& transaction, const CoordinatorsByRow& coordinators,
                       std::uint64_t& lastPromise) REQUIRES(coordinatorStates);
    [[nodiscard]] std::optional<Dictionary> _parse(const std::optional<Data>& bytes);
    [[nodiscard]] std::optional<Data> _bytesOf(const ErrorPtr& error);
    [[nodiscard]] ErrorPtr _errorFrom(const std::optional<Data>& bytes);

    Database& _database;
    PropertyListSerialization& _propertyLists;
};

} // namespace appsync::device
