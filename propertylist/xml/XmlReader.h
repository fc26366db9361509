// Reads XML property lists.
#pragma once

#include "values/PropertyList.h"

#include <string_view>

namespace appsync::propertylist {

/// The root value; throws `Failure`.
[[nodiscard]] Value readXml(std::string_view bytes);

} // namespace appsync::propertylist
