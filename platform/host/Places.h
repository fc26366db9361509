// Places on the device that the client shares with the host, the desktop or another service. What stands at each says
// platform/host/Client.h.
#pragma once

#include <string_view>

namespace appsync::paths {

inline constexpr std::string_view stagingArea = "/var/mobile/Media/PublicStaging/ApplicationSync";
inline constexpr std::string_view publicStaging = stagingArea.substr(0, stagingArea.rfind('/'));
inline constexpr std::string_view lastSyncAppState = "/var/mobile/Library/ApplicationSync/LastSyncAppState.plist";
inline constexpr std::string_view restoreState = "/var/mobile/Library/ApplicationSync/RestoreState.plist";
inline constexpr std::string_view demotedApps = "/var/mobile/Library/Preferences/com.zuvex.Halvane.DemotedApps.plist";
inline constexpr std::string_view restoreInfo = "/var/mobile/Media/TamblinRestore/RestoreApplications.plist";
/// In the temporary directory: placeholders that are being made.
inline constexpr std::string_view placeholdersFolderName = "com.zuvex.qrd.Apps";

} // namespace appsync::paths
