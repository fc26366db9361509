// What an app's folder lacks for the device to launch and show the app, beyond what it would refuse to install.
#pragma once

#include <string>
#include <vector>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::host {

/// The problems of `<Name>.app`, a sentence each, with the Info.plist and its key. None when the Info.plist cannot be
/// read: who packs the folder says so.
[[nodiscard]] std::vector<std::string> findAppProblems(const std::string& app,
                                                       PropertyListSerialization& propertyLists);

} // namespace appsync::host
