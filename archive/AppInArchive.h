// The app in an archive: one folder "<Name>.app" at the top, with an Info.plist, beside optional companions.
#pragma once

#include "archive/ArchiveLimits.h"
#include "archive/InstallerError.h"
#include "archive/ZipDirectory.h"
#include "values/Result.h"

#include <string>
#include <string_view>

namespace appsync {

class PropertyListSerialization;

/// Names in an archive and in a container, beside the app's folder.
inline constexpr std::string_view metadataFileName = "TamblinMetadata.plist";
inline constexpr std::string_view artworkFileName = "TamblinArtwork";
inline constexpr std::string_view sinfFileName = "ApplicationSINF"; // never in an archive
inline constexpr std::string_view infoFileName = "Info.plist";      // in the app's folder
inline constexpr std::string_view bundleExtension = ".app";

struct AppInArchive {
    std::string bundleName; // "<Name>.app"
    std::string infoPath;   // of its Info.plist, in the archive
};

/// Finds the app. Refused is an archive that does not hold exactly one, or whose Info.plist or companions are no files
/// or beyond the limits.
[[nodiscard]] Result<AppInArchive> findApplication(const ZipDirectory& directory, const ArchiveLimits& limits,
                                                   const Refusal& refuse);

/// The content of the app's Info.plist: a dictionary with a "BXBundleIdentifier", any text.
[[nodiscard]] Result<Dictionary> readInfo(std::string_view bytes, const AppInArchive& app,
                                          PropertyListSerialization& propertyLists, const Refusal& refuse);

/// Refuses a symbolic link whose target may not be in an archive.
[[nodiscard]] Result<void> checkLinkTarget(std::string_view path, std::string_view target, const Refusal& refuse);
/// Refuses a symbolic link that leads to nothing in the app; the kernel follows it there, over other links if need be.
/// `bundle` is the app's folder, `path` leads to the link from beside that folder.
[[nodiscard]] Result<void> checkLink(int bundle, std::string_view path, std::string_view target, const Refusal& refuse);

} // namespace appsync
