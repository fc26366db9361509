// What a desktop keeps of a device:
//
//   RestoreApplications.plist   a dictionary: bundle identifier -> {"TamblinMetadata": data,
//                               "ApplicationSINF": data if there is any, "PlaceholderIcon": PNG bytes if there are any}
//   DemotedApps.plist           the device's demoted apps
//   IconState.plist             the icon layout
//   Data/<bundle identifier>/   the apps' data
#pragma once

#include "device/screen/IconLayout.h"
#include "device/services/DemotedApps.h"
#include "platform/Error.h"
#include "platform/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::host {

inline constexpr std::string_view RestoreInfoName = "RestoreApplications.plist";
inline constexpr std::string_view DemotedAppsName = "DemotedApps.plist";
inline constexpr std::string_view IconStateName = "IconState.plist";
inline constexpr std::string_view BackupDataName = "Data";

/// One app of a backup.
struct BackupApp {
    std::string identifier; // untrusted
    std::string name;       // never empty
    std::optional<std::string> version = {};
    Value entry = {};         // what the restore info says of it, without what cannot be used
    std::string problem = {}; // why it cannot be restored at all; empty when it can
    std::string remark = {};  // what of it cannot be restored; a sentence
};

struct BackupContent {
    std::vector<BackupApp> apps; // in the order of the restore info
    std::optional<device::DemotionLists> demoted;
    std::optional<Value> iconState;    // a layout
    std::vector<std::string> problems; // files that cannot be used, a sentence each
};

/// Reads and checks a backup's lists. Nothing, and the reason in `error`, when its restore info cannot be used.
[[nodiscard]] std::optional<BackupContent> readBackup(const std::string& folder,
                                                      PropertyListSerialization& propertyLists, ErrorPtr* error);

[[nodiscard]] bool isPNG(std::string_view bytes);

} // namespace appsync::host
