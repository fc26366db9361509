// The plug-in's own places on the device; those that it shares stand in platform/host/Places.h.
#pragma once

#include "platform/host/Places.h"

#include <optional>
#include <string>
#include <string_view>

namespace appsync::paths {

inline constexpr std::string_view applicationSync = "/var/mobile/Library/ApplicationSync";
inline constexpr std::string_view workArea = "/var/mobile/Library/ApplicationSync/TamblinStuff";
inline constexpr std::string_view toDoList = "/var/mobile/Library/ApplicationSync/TamblinStuff/ApplicationsSync.plist";
inline constexpr std::string_view toDoListDebugCopy =
    "/var/mobile/Library/ApplicationSync/TamblinStuff/ApplicationsSync.plist-debug.plist";
inline constexpr std::string_view iconState = "/var/mobile/Library/ApplicationSync/TamblinStuff/SkellanIconState.plist";
inline constexpr std::string_view assetSortOrder = "/var/mobile/Library/ApplicationSync/AssetSortOrder.plist";
inline constexpr std::string_view icons = "/var/mobile/Library/ApplicationSync/Icons";
inline constexpr std::string_view processedRestoreInfo =
    "/var/mobile/Library/Logs/MediaServices/RestoreApplications.plist";

/// `directory` + "/" + `name`.
inline std::string join(std::string_view directory, std::string_view name) {
    return std::string(directory).append("/").append(name);
}

/// The path-safety check: whether a string is there and has no "/..". Everything that comes from a file and becomes
/// part of a path, or names an app to act on, passes it first. What begins with "../" passes, and climbs one folder.
inline bool isSafe(const std::optional<std::string_view>& identifierOrPath) {
    return identifierOrPath && identifierOrPath->find("/..") == std::string_view::npos;
}

/// Whether a path to something leads back up on its way, so that it may leave the folder that it begins with.
inline bool climbs(std::string_view path) {
    return path.find("/../") != std::string_view::npos;
}

/// Whether an identifier can be a file's name, so that what is named after it stays in its folder.
inline bool isFileName(std::string_view identifier) {
    constexpr std::string_view notInNames("/\0", 2);
    return !identifier.empty() && identifier != "." && identifier != ".." &&
           identifier.find_first_of(notInNames) == std::string_view::npos;
}

} // namespace appsync::paths
