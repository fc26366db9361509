// An app's folder to begin an app with.
#pragma once

#include "values/Result.h"

#include <string>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::host {

/// Whether an app can be named so: its program and its identifier get this name, too.
[[nodiscard]] bool isAppName(const std::string& name);

/// Makes `<name>.app` in a folder, with an Info.plist, a program and a resource: an app that can be packed. Returns its
/// path. Nothing is changed when something is there.
[[nodiscard]] Result<std::string> makeNewApp(const std::string& folder, const std::string& name,
                                             PropertyListSerialization& propertyLists);

} // namespace appsync::host
