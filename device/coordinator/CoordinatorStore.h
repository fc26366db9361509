// The coordinators in the database.
#pragma once

#include "device/coordinator/CoordinatorState.h"
#include "device/database/Database.h"

#include <functional>
#include <vector>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::device {

/// The caller holds the lock that guards the states. All changes are ordinary commits.
class CoordinatorStore {
  public:
    CoordinatorStore(Database& database, PropertyListSerialization& propertyLists)
        : _database(database), _propertyLists(propertyLists) {}

    [[nodiscard]] Result<void> registerSchema();
    /// All coordinators in the order in which they were made, and in `lastPromise` the highest number of a promise. Of
    /// those that only wait for their report, the newest `maxReports`.
    [[nodiscard]] Result<std::vector<CoordinatorStatePtr>> load(std::uint64_t& lastPromise, std::size_t maxReports);

    /// Adds a coordinator and sets its `id`.
    [[nodiscard]] Result<void> insert(CoordinatorState& coordinator);
    /// Writes options, flags, responsible client and outcome.
    [[nodiscard]] Result<void> update(const CoordinatorState& coordinator);
    /// Writes the placeholder that has been attached, with its icon promise.
    [[nodiscard]] Result<void> updatePlaceholder(const CoordinatorState& coordinator);
    [[nodiscard]] Result<void> updatePromise(const CoordinatorState& coordinator, const Promise& promise);
    [[nodiscard]] Result<void> removePromise(std::uint64_t promise);
    /// Keeps no more of a coordinator than its report needs.
    [[nodiscard]] Result<void> updateToReport(const CoordinatorState& coordinator);
    /// Removes a coordinator with all that belongs to it. Needs no lock.
    [[nodiscard]] Result<void> remove(std::int64_t coordinator);

    /// The bytes of a dictionary, as they are kept and given to the registry.
    [[nodiscard]] Result<Data> serialize(const Dictionary& dictionary);

  private:
    using Finder = std::function<CoordinatorStatePtr(std::int64_t id)>;

    void _loadPlaceholders(Database::Transaction& transaction, const Finder& coordinatorWithID);
    void _loadPromises(Database::Transaction& transaction, const Finder& coordinatorWithID, std::uint64_t& lastPromise);
    [[nodiscard]] std::optional<Dictionary> _parse(const std::optional<Data>& bytes);
    [[nodiscard]] std::optional<Data> _bytesOf(const ErrorPtr& error);
    [[nodiscard]] ErrorPtr _errorFrom(const std::optional<Data>& bytes);

    Database& _database;
    PropertyListSerialization& _propertyLists;
};

} // namespace appsync::device
