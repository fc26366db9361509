// The platform as the host hands it to the plug-in.
#pragma once

#include "platform/Platform.h"

namespace appsync::host {

/// The same platform with another workspace.
[[nodiscard]] Platform withWorkspace(const Platform& platform, PDApplicationWorkspaceClass& workspaces);

} // namespace appsync::host
