// An app in a library: an archive that holds one app (archive/AppInArchive.h).
#pragma once

#include "files/RegularFile.h"
#include "values/Error.h"
#include "values/PropertyList.h"
#include "values/Result.h"

#include <cstdint>
#include <optional>
#include <string>

namespace appsync {
class PropertyListSerialization;
class Refusal;
} // namespace appsync

namespace appsync::desktop {

/// Domain of the errors of this folder; the description says what, where and what to do.
inline constexpr std::string_view desktopErrorDomain = "Desktop";

/// What the desktop needs to know of an app to decide what a sync does. A library holds many: these are small.
struct AppArchive {
    std::string path;               // on this machine
    std::uint64_t size = 0;         // of the archive, in bytes
    std::uint64_t unpackedSize = 0; // of its files
    FileStamp stamp;                // its state when this was read
    std::string identifier;
    // Both cut after a thousand bytes; such an app then counts as one of another version than the device has.
    std::optional<std::string> version;
    std::optional<std::string> name;
};

/// What the device is told of an app before it asks for the archive.
struct AppDescription {
    Data infoPlist;
    std::optional<Data> metadata;
    std::optional<Data> artwork;
    // The icon that the Info.plist names, if the app has it.
    std::optional<std::string> iconName;
    std::optional<Data> icon;
};

/// Reads an archive's facts. An archive whose directory the device would refuse is refused here, too.
[[nodiscard]] Result<AppArchive> readAppArchive(const std::string& path, PropertyListSerialization& propertyLists);
/// The same of an open file; its path and state are left out. `refuse` names it.
[[nodiscard]] Result<AppArchive> readAppArchive(int file, PropertyListSerialization& propertyLists,
                                                const Refusal& refuse);

/// Opens the archive again, which must still be in the state in which its facts were read.
[[nodiscard]] Result<RegularFile> openAgain(const AppArchive& app);
/// Reads an app's description from its archive, which must not have changed. What the device would refuse is refused
/// here, too, but for the content of the other entries, which the device alone looks at.
[[nodiscard]] Result<AppDescription> readAppDescription(const AppArchive& app,
                                                        PropertyListSerialization& propertyLists);

/// An error of `desktopErrorDomain` with its sentence.
[[nodiscard]] ErrorPtr desktopError(std::string description, std::string_view path = {});

} // namespace appsync::desktop
