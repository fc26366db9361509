// Makes an app archive of a folder.
#pragma once

#include "values/Result.h"

#include <string>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::desktop {

/// Packs an app's folder `<Name>.app`, or a folder that holds one beside "TamblinMetadata.plist" and "TamblinArtwork".
/// Entries are sorted and carry no times, so that the same folder gives the same bytes. The archive appears whole or
/// not at all. Fails when the folder is no app, or one that the device would refuse, or the archive cannot be written.
[[nodiscard]] Result<void> packApp(const std::string& folder, const std::string& archivePath,
                                   PropertyListSerialization& propertyLists);

} // namespace appsync::desktop
