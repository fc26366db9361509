#include "client/IdentifierSet.h"

namespace appsync {

void IdentifierSet::add(std::string_view identifier) {
    const std::lock_guard lock(_mutex);
    _members.insert(identifier, {});
}

void IdentifierSet::remove(std::string_view identifier) {
    const std::lock_guard lock(_mutex);
    _members.erase(identifier);
}

void IdentifierSet::removeAll() {
    const std::lock_guard lock(_mutex);
    _members = {};
}

bool IdentifierSet::contains(std::string_view identifier) const {
    const std::lock_guard lock(_mutex);
    return _members.contains(identifier);
}

std::size_t IdentifierSet::count() const {
    const std::lock_guard lock(_mutex);
    return _members.size();
}

std::vector<std::string> IdentifierSet::all() const {
    const std::lock_guard lock(_mutex);
    std::vector<std::string> identifiers;
    for (const auto& [identifier, member] : _members) {
        identifiers.emplace_back(identifier.view());
    }
    return identifiers;
}

} // namespace appsync
