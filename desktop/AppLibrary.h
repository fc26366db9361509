// A folder of app archives.
#pragma once

#include "desktop/AppArchive.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::desktop {

/// An archive of a library that is none of an app, or cannot be read.
struct UnreadableFile {
    std::string path;
    std::string reason; // one sentence or more, with what to do
};

struct AppLibrary {
    /// The apps by file name. Of several archives of one app, the first.
    std::vector<AppArchive> apps;
    std::vector<UnreadableFile> unreadable; // by file name
    /// One sentence for each other file that was passed over, and why.
    std::vector<std::string> problems;

    /// The app's first archive; null when there is none.
    [[nodiscard]] const AppArchive* find(std::string_view identifier) const;
    /// The archive of this version if there is one, else the first of the app.
    [[nodiscard]] const AppArchive* find(std::string_view identifier, const std::optional<std::string>& version) const;
};

/// Reads every archive of the folder (not of folders in it) whose name does not begin with a dot. An archive is what is
/// named *.archive or *.zip, or begins as a zip archive does; any other file is passed over.
[[nodiscard]] Result<AppLibrary> readAppLibrary(const std::string& folder, PropertyListSerialization& propertyLists);

/// The same, but with all archives of every app: a store keeps several versions.
[[nodiscard]] Result<AppLibrary> readAppCatalogue(const std::string& folder, PropertyListSerialization& propertyLists);

} // namespace appsync::desktop
