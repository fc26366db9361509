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
#include "values/Error.h"
#include "values/PropertyList.h"

#include <array>
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
inline constexpr std::array BackupNames{RestoreInfoName, DemotedAppsName, IconStateName, BackupDataName};

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
    /// Closed when there is no such folder; then the reason is in `error`.
    explicit BackupFolder(const std::string& path, ErrorPtr* error);

    /// Reads and checks its lists. Nothing, and the reason in `error`, when its restore info cannot be used.
    [[nodiscard]] std::optional<BackupContent> read(PropertyListSerialization& propertyLists, ErrorPtr* error) const;
    /// Opens the folder with an app's data; zero or an errno number. The identifier must be a usable one.
    [[nodiscard]] int openData(const std::string& identifier, Descriptor& opened) const;
    /// Where that stands, for messages.
    [[nodiscard]] std::string dataPath(const std::string& identifier) const;
    [[nodiscard]] bool isOpen() const noexcept { return _folder.isOpen(); }

  private:
    std::string _path;
    Descriptor _folder;
};

[[nodiscard]] bool isPNG(std::string_view bytes);

} // namespace appsync::host
