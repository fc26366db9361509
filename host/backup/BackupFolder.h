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
#include "files/Descriptor.h"
#include "platform/host/Places.h"
#include "values/PropertyList.h"
#include "values/Result.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::host {

inline constexpr std::string_view restoreInfoName = paths::restoreInfo.substr(paths::restoreInfo.rfind('/') + 1);
inline constexpr std::string_view demotedAppsName = "DemotedApps.plist";
inline constexpr std::string_view iconStateName = "IconState.plist";
inline constexpr std::string_view backupDataName = "Data";
inline constexpr std::array backupNames{restoreInfoName, demotedAppsName, iconStateName, backupDataName};

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

/// A backup of which nothing is trusted. It is held by its descriptor, and no path in it is followed over a symbolic
/// link, so that nothing outside of it is read.
class BackupFolder {
  public:
    [[nodiscard]] static Result<BackupFolder> open(const std::string& path);

    /// Reads and checks its lists. An error when its restore info cannot be used.
    [[nodiscard]] Result<BackupContent> read(PropertyListSerialization& propertyLists) const;
    /// Opens the folder with an app's data; nullopt when there is none. The identifier must be a usable one.
    [[nodiscard]] Result<std::optional<Descriptor>> openData(const std::string& identifier) const;
    /// Where that stands, for messages.
    [[nodiscard]] std::string dataPath(const std::string& identifier) const;

  private:
    BackupFolder(std::string path, Descriptor folder) : _path(std::move(path)), _folder(std::move(folder)) {}

    std::string _path;
    Descriptor _folder;
};

[[nodiscard]] bool isPNG(std::string_view bytes);

} // namespace appsync::host
