// A set of bundle identifiers that several threads may use; each operation on it is atomic. Keeps the order of
// insertion.
#pragma once

#include "concurrency/Mutex.h"
#include "values/PropertyList.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {

class IdentifierSet {
  public:
    void add(std::string_view identifier);
    void remove(std::string_view identifier);
    void removeAll();
    [[nodiscard]] bool contains(std::string_view identifier) const;
    [[nodiscard]] std::size_t count() const;
    [[nodiscard]] std::vector<std::string> all() const;

  private:
    mutable Mutex _mutex;
    Dictionary _members GUARDED_BY(_mutex);
};

} // namespace appsync
