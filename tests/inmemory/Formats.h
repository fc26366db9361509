// What the plug-in's messages look like in its code. A journal has them filled in, where one conversion looks like
// another.
#pragma once

#include <set>
#include <string_view>

namespace appsync::inmemory {

/// The formats of all messages that have something to fill in, letter for letter, without the plug-in's identifier.
const std::set<std::string_view>& formatsWithConversions();

} // namespace appsync::inmemory
