// Property lists for tests.
#pragma once

#include "values/PropertyList.h"

namespace appsync::device {

/// An array of these items. (Compilers differ on whether braces around one array make an array of it or copy it.)
template <class... Items> Array list(Items... items) {
    Array array;
    (array.emplace_back(std::move(items)), ...);
    return array;
}

} // namespace appsync::device
