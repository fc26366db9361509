// A placeholder's bundle folder: what its makers share.
#pragma once

#include "platform/FileSystem.h"
#include "values/PropertyList.h"

#include <string_view>

namespace appsync {

class PlugInLog;
struct Platform;

namespace placeholderBundle {

/// Owner and group of the folder and of its icon.
inline const FileAttributes attributes{"mobile", "mobile"};

/// Writes the bundle's Info.plist. Null entries, which no file can hold, are left out of it.
bool writeInfo(const Platform& platform, std::string_view bundlePath, const Dictionary& info);
/// Registers the bundle as a placeholder, and says how that went.
bool install(const Platform& platform, const PlugInLog& log, std::string_view bundlePath, const Dictionary& info,
             const Dictionary& options);
/// Records an outcome of the scenario "Tamblin App Restore".
void logAppRestore(const Platform& platform, bool success, std::string_view bundleIdentifier,
                   std::string_view description);

} // namespace placeholderBundle
} // namespace appsync
