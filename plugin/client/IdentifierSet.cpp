#include "plugin/client/IdentifierSet.h"

namespace appsync {

void IdentifierSet::add(std::string_view identifier) {
    const Lock lock(_mutex);
    _members.insert(identifier, {});
}

void IdentifierSet::remove(std::string_view identifier) {
    const Lock lock(_mutex);
    _members.erase(identifier);
}

void IdentifierSet::removeAll() {
    const Lock lock(_mutex);
    _members = {};
}

bool IdentifierSet::contains(std::string_view identifier) const {
    const Lock lock(_mutex);
    return _members.contains(identifier);
}

std::size_t IdentifierSet::count() const {
    const Lock lock(_mutex);
    return _members.size();
}

std::vector<std::string> IdentifierSet::all() const {
    const Lock lock(_mutex);
    std::vector<std::string> identifiers;
    for (const auto& [identifier, member] : _members) {
        identifiers.emplace_back(identifier.view());
    }
    return identifiers;
}

} // namespace appsync
