#include "device/coordinator/CoordinatorStore.h"

#include "device/database/Database.h"
#include "platform/PropertyListSerialization.h"

namespace appsync::device {

namespace {

constexpr std::string_view schema[] = {
    "CREATE TABLE coordinator (id INTEGER PRIMARY KEY, bundle TEXT NOT NULL, kind INTEGER NOT NULL,"
    " creator INTEGER NOT NULL, hasOptions INTEGER NOT NULL DEFAULT 0, installType INTEGER, targetType INTEGER,"
    " metadata BLOB, sinf BLOB, hasODR INTEGER NOT NULL DEFAULT 0, responsible INTEGER NOT NULL DEFAULT 0,"
    " placeholderInstalled INTEGER NOT NULL DEFAULT 0, ending INTEGER NOT NULL DEFAULT 0, error BLOB,"
    " cancelledBy INTEGER);"
    "CREATE TABLE coordinatorPlaceholder (coordinator INTEGER PRIMARY KEY, name TEXT NOT NULL,"
    " installType INTEGER NOT NULL, info BLOB, launchProhibited INTEGER NOT NULL, version TEXT, metadata BLOB,"
    " sinf BLOB, configured INTEGER NOT NULL);"
    "CREATE TABLE coordinatorPromise (id INTEGER PRIMARY KEY, coordinator INTEGER NOT NULL, role INTEGER NOT NULL,"
    " name TEXT NOT NULL, client INTEGER NOT NULL, space INTEGER NOT NULL, path TEXT, complete INTEGER NOT NULL);"
    "CREATE INDEX coordinatorPromiseOwner ON coordinatorPromise (coordinator);"};

void writePromise(Database::Transaction& transaction, const CoordinatorState& coordinator, const Promise& promise) {
    const PromiseRecord record = promise.record();
    transaction.run("INSERT INTO coordinatorPromise (id, coordinator, role, name, client, space, path, complete)"
                    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"
                    " ON CONFLICT (id) DO UPDATE SET path = ?7, complete = ?8",
                    record.id, coordinator.id, record.role, record.name, record.client, record.diskSpaceNeeded,
                    record.path, record.isComplete);
}

void removeBelongings(Database::Transaction& transaction, std::int64_t coordinator) {
    transaction.run("DELETE FROM coordinatorPromise WHERE coordinator = ?1", coordinator);
    transaction.run("DELETE FROM coordinatorPlaceholder WHERE coordinator = ?1", coordinator);
}

} // namespace

Result<void> CoordinatorStore::registerSchema() {
    return _database.registerSchema("coordinator", schema);
}

Result<CoordinatorsByRow> CoordinatorStore::load(std::uint64_t& lastPromise, std::size_t maxReports) {
    CoordinatorsByRow coordinators;
    Database::Transaction transaction(_database);
    transaction.run("DELETE FROM coordinator WHERE ending = ?1 AND id NOT IN"
                    " (SELECT id FROM coordinator WHERE ending = ?1 ORDER BY id DESC LIMIT ?2)",
                    CoordinatorEnd::reporting, maxReports);
    auto rows = transaction.query("SELECT id, bundle, kind, creator, hasOptions, installType, targetType, metadata,"
                                  " sinf, hasODR, responsible, placeholderInstalled, ending, error,"
                                  " cancelledBy FROM coordinator ORDER BY id");
    while (rows.next()) {
        auto state = std::make_shared<CoordinatorState>();
        CoordinatorFacts& facts = state->facts;
        InstallOptionsRecord options;
        bool hasOptions = false;
        std::optional<Data> error;
        rows.read(state->id, state->bundleID, state->kind, state->creator, hasOptions, options.registryInstallType,
                  options.installTargetType, options.metadata, options.sinf, facts.hasODRPromises,
                  facts.responsibleClient, facts.isPlaceholderInstalled, facts.end, error, facts.cancelledBy);
        if (hasOptions) {
            facts.options = std::move(options);
        }
        facts.error = _errorFrom(error);
        if (nameOf(state->kind) != "unknown") {
            coordinators.emplace(state->id, state);
        }
    }
    _loadPlaceholders(transaction, coordinators);
    _loadPromises(transaction, coordinators, lastPromise);
    if (const auto ended = transaction.commit(); !ended) {
        return ended.error();
    }
    return coordinators;
}

void CoordinatorStore::_loadPlaceholders(Database::Transaction& transaction, const CoordinatorsByRow& coordinators) {
    auto rows = transaction.query("SELECT coordinator, name, installType, info, launchProhibited, version, metadata,"
                                  " sinf, configured FROM coordinatorPlaceholder");
    while (rows.next()) {
        std::int64_t coordinator = 0;
        std::optional<Data> info;
        auto placeholder = std::make_shared<PlaceholderState>();
        PlaceholderFacts& facts = placeholder->facts;
        rows.read(coordinator, placeholder->bundleName, placeholder->installType, info, facts.launchProhibited,
                  facts.bundleVersion, facts.metadata, facts.sinf, facts.isConfigured);
        if (const auto owner = coordinators.find(coordinator); owner != coordinators.end()) {
            facts.infoPlist = _parse(info);
            placeholder->bundleID = owner->second->bundleID;
            placeholder->isAttached = true;
            placeholder->owner = owner->second;
            owner->second->placeholder = std::move(placeholder);
        }
    }
}

void CoordinatorStore::_loadPromises(Database::Transaction& transaction, const CoordinatorsByRow& coordinators,
                                     std::uint64_t& lastPromise) {
    auto rows = transaction.query(
        "SELECT id, coordinator, role, name, client, space, path, complete FROM coordinatorPromise ORDER BY id");
    while (rows.next()) {
        std::int64_t coordinator = 0;
        PromiseRecord record;
        rows.read(record.id, coordinator, record.role, record.name, record.client, record.diskSpaceNeeded, record.path,
                  record.isComplete);
        lastPromise = record.id;
        const PromiseRole role = record.role;
        const auto found = coordinators.find(coordinator);
        if (found == coordinators.end()) {
            continue;
        }
        const CoordinatorStatePtr& owner = found->second;
        auto promise = std::make_shared<Promise>(std::move(record));
        promise->setOwner(owner);
        if (role == PromiseRole::appAsset) {
            owner->asset = std::move(promise);
        } else if (role == PromiseRole::userData) {
            owner->userData = std::move(promise);
        } else if (role == PromiseRole::icon && owner->placeholder) {
            owner->placeholder->facts.icon = std::move(promise);
        }
    }
}

Result<void> CoordinatorStore::insert(CoordinatorState& coordinator) {
    Database::Transaction transaction(_database);
    transaction.run("INSERT INTO coordinator (bundle, kind, creator) VALUES (?1, ?2, ?3)", coordinator.bundleID,
                    coordinator.kind, coordinator.creator);
    coordinator.id = transaction.lastRowIdentifier();
    return transaction.commit();
}

Result<void> CoordinatorStore::update(const CoordinatorState& coordinator) {
    const InstallOptionsRecord options = coordinator.facts.options.value_or(InstallOptionsRecord{});
    return _database.run(
        Durability::ordinary,
        "UPDATE coordinator SET hasOptions = ?2, installType = ?3, targetType = ?4, metadata = ?5,"
        " sinf = ?6, hasODR = ?7, responsible = ?8, placeholderInstalled = ?9, ending = ?10, error = ?11,"
        " cancelledBy = ?12 WHERE id = ?1",
        coordinator.id, coordinator.facts.options.has_value(), options.registryInstallType, options.installTargetType,
        options.metadata, options.sinf, coordinator.facts.hasODRPromises, coordinator.facts.responsibleClient,
        coordinator.facts.isPlaceholderInstalled, coordinator.facts.end, _bytesOf(coordinator.facts.error),
        coordinator.facts.cancelledBy);
}

Result<void> CoordinatorStore::updatePlaceholder(const CoordinatorState& coordinator) {
    const PlaceholderState& placeholder = *coordinator.placeholder;
    std::optional<Data> info;
    if (placeholder.facts.infoPlist) {
        const auto bytes = serialize(*placeholder.facts.infoPlist);
        if (!bytes) {
            return bytes.error();
        }
        info = *bytes;
    }
    Database::Transaction transaction(_database);
    transaction.run("INSERT OR REPLACE INTO coordinatorPlaceholder (coordinator, name, installType, info,"
                    " launchProhibited, version, metadata, sinf, configured)"
                    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)",
                    coordinator.id, placeholder.bundleName, placeholder.installType, info,
                    placeholder.facts.launchProhibited, placeholder.facts.bundleVersion, placeholder.facts.metadata,
                    placeholder.facts.sinf, placeholder.facts.isConfigured);
    if (placeholder.facts.icon) {
        writePromise(transaction, coordinator, *placeholder.facts.icon);
    }
    return transaction.commit();
}

Result<void> CoordinatorStore::updatePromise(const CoordinatorState& coordinator, const Promise& promise) {
    Database::Transaction transaction(_database);
    writePromise(transaction, coordinator, promise);
    return transaction.commit();
}

Result<void> CoordinatorStore::removePromise(std::uint64_t promise) {
    return _database.run(Durability::ordinary, "DELETE FROM coordinatorPromise WHERE id = ?1", promise);
}

Result<void> CoordinatorStore::updateToReport(const CoordinatorState& coordinator) {
    Database::Transaction transaction(_database);
    removeBelongings(transaction, coordinator.id);
    transaction.run("UPDATE coordinator SET ending = ?2, metadata = NULL, sinf = NULL WHERE id = ?1", coordinator.id,
                    CoordinatorEnd::reporting);
    return transaction.commit();
}

Result<void> CoordinatorStore::remove(std::int64_t coordinator) {
    Database::Transaction transaction(_database);
    removeBelongings(transaction, coordinator);
    transaction.run("DELETE FROM coordinator WHERE id = ?1", coordinator);
    return transaction.commit();
}

Result<Data> CoordinatorStore::serialize(const Dictionary& dictionary) {
    ErrorPtr error;
    auto bytes = _propertyLists.dataWithPropertyList(dictionary, PropertyListFormat::binary, &error);
    if (!bytes) {
        return error;
    }
    return std::move(*bytes);
}

std::optional<Dictionary> CoordinatorStore::_parse(const std::optional<Data>& bytes) {
    const auto value = bytes ? _propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
    return value && value->dictionary() ? std::optional(*value->dictionary()) : std::nullopt;
}

std::optional<Data> CoordinatorStore::_bytesOf(const ErrorPtr& error) {
    if (!error) {
        return std::nullopt;
    }
    Dictionary entries{{"domain", error->domain()}, {"code", error->code()}, {"userInfo", error->userInfo()}};
    auto bytes = serialize(entries);
    if (!bytes) { // facts that no file can hold
        entries.erase("userInfo");
        bytes = serialize(entries);
    }
    return bytes ? std::optional(*bytes) : std::nullopt;
}

ErrorPtr CoordinatorStore::_errorFrom(const std::optional<Data>& bytes) {
    const auto entries = _parse(bytes);
    if (!entries) {
        return nullptr;
    }
    const Dictionary* facts = entries->dictionary("userInfo");
    const Value* code = entries->find("code");
    return Error::make(entries->string("domain").value_or(""), code ? code->integer().value_or(0) : 0,
                       facts ? *facts : Dictionary{});
}

} // namespace appsync::device
