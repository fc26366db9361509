// Property-list files that are read or written whole.
#pragma once

#include "platform/PropertyListSerialization.h"
#include "values/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>

namespace appsync {

struct Platform;

/// What the file holds; nullopt when it cannot be read or is no property list.
[[nodiscard]] std::optional<Value> readPropertyList(const Platform& platform, std::string_view path);
/// The same for a dictionary; nullopt also without a path and for another kind.
[[nodiscard]] std::optional<Dictionary> readDictionary(const Platform& platform,
                                                       const std::optional<std::string>& path);
/// Writes atomically. False: the value has no bytes in that format, or the file is what it was.
bool writePropertyList(const Platform& platform, const Value& root, PropertyListFormat format, std::string_view path);

} // namespace appsync
