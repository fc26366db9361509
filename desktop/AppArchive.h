// An app in a library: a zip file with one `<Name>.app` folder that holds an "Info.plist", beside optional
// "TamblinMetadata.plist" and "TamblinArtwork".
#pragma once

#include "platform/Error.h"
#include "platform/PropertyList.h"

#include <cstdint>
#include <optional>
#include <string>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::desktop {

/// Domain of the errors of this folder; the description says what, where and what to do.
inline constexpr std::string_view DesktopErrorDomain = "Desktop";

/// What the desktop needs to know of an app before it sends it.
struct AppArchive {
    std::string path;       // on this machine
    std::uint64_t size = 0; // of the archive, in bytes
    std::string identifier;
    std::optional<std::string> version;
    std::optional<std::string> name;
    Data infoPlist;
    std::optional<Data> metadata;
    std::optional<Data> artwork;
    // The icon that the Info.plist names, if the app has it.
    std::optional<std::string> iconName;
    std::optional<Data> icon;
};

/// Reads an archive's facts. Nothing, and the reason in `error`, when it is no archive or holds no app. The content is
/// not checked; the device does that.
[[nodiscard]] std::optional<AppArchive> readAppArchive(const std::string& path,
                                                       PropertyListSerialization& propertyLists, ErrorPtr* error);

/// Whether a bundle identifier can name an app and its folders: letters, digits, ".", "-" and "_", not led by a dot.
[[nodiscard]] bool isUsableIdentifier(std::string_view identifier);

/// An error of `DesktopErrorDomain` with its sentence.
[[nodiscard]] ErrorPtr desktopError(std::string description, std::string_view path = {});

} // namespace appsync::desktop
