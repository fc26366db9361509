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

inline constexpr std::size_t iconsPerPage = 24;

/// The pages of the device's home screen, with their folders, without the apps that go; the new ones follow in the
/// list's order on the last page, or on further ones of at most `iconsPerPage` icons.
[[nodiscard]] Array iconLayout(const Array& onDevice, const SyncList& list);

/// Replaces the staging area; `onDevice` is as for `iconLayout`. Apps whose archive cannot be read
/// any more, or has changed since the library was read, become failed ones of the list and are not staged. When the
/// area cannot be written whole, nothing is staged.
[[nodiscard]] Result<void> writeStagingArea(FileSystem& device, PropertyListSerialization& propertyLists,
                                            SyncList& list, const Array& onDevice);

} // namespace appsync::desktop
