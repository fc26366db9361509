// Writes binary property lists.
#pragma once

#include "values/PropertyList.h"

#include <cstddef>

namespace appsync::propertylist {

/// The file's bytes, at most `limit`; throws `Failure`.
[[nodiscard]] Data writeBinary(const Value& root, std::size_t limit);

} // namespace appsync::propertylist
