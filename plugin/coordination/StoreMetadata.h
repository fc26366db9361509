// What a restore reads from an app's store metadata. It comes from a file: an entry of another kind counts as absent.
#pragma once

#include "values/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>

namespace appsync::storeMetadata {

inline std::optional<std::string> stringAt(const Dictionary& metadata, std::string_view key) {
    const auto text = metadata.string(key);
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

/// The app's display name, if it has one.
inline std::optional<std::string> name(const Dictionary& metadata) {
    const auto title = stringAt(metadata, "title");
    return title ? title : stringAt(metadata, "itemName");
}

inline std::optional<std::string> bundleVersion(const Dictionary& metadata) {
    return stringAt(metadata, "bundleVersion");
}

/// Whether the app may not be launched. The second key counts only without the first.
inline bool launchProhibited(const Dictionary& metadata) {
    const Value* flag = metadata.find("PDApplicationLaunchProhibited");
    const auto prohibited = flag ? flag->truth() : std::nullopt;
    return prohibited ? *prohibited : metadata.truth("launchProhibited");
}

} // namespace appsync::storeMetadata
