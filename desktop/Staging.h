// Writes what the desktop leaves for the device's next sync.
//
//   /var/mobile/Media/PublicStaging/ApplicationSync/
//     ApplicationsSync.plist        the to-do list, binary
//     SkellanIconState.plist        the icon layout, binary: one array of identifiers for each page
//     <bundle identifier>/          for each app to install:
//       Info.plist, TamblinMetadata.plist, TamblinArtwork and the app's icon, as far as the app has them
#pragma once

#include "desktop/SyncList.h"

#include <string>
#include <vector>

namespace appsync {
class FileSystem;
class PropertyListSerialization;
} // namespace appsync

namespace appsync::desktop {

inline constexpr std::size_t IconsPerPage = 24;

/// Pages of at most `IconsPerPage` identifiers: those on the device in their order, then the new ones in the list's.
[[nodiscard]] Array iconLayout(const std::vector<std::string>& onDevice, const SyncList& list);

/// Replaces the staging area. False, with the reason in `error`, when it could not be written whole; then nothing is
/// staged.
bool writeStagingArea(FileSystem& device, PropertyListSerialization& propertyLists, const SyncList& list,
                      const Array& layout, ErrorPtr* error);

} // namespace appsync::desktop
