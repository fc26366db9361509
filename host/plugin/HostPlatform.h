// The platform as the host hands it to the plug-in.
#pragma once

#include "platform/Platform.h"

namespace appsync::host {

/// Services that the host stands in front of.
struct HostServices {
    PDApplicationWorkspaceClass& workspaces;
    HomeScreen& homeScreen;
    Scheduler& scheduler;
};

/// The device's platform with the host's services in place of the device's.
[[nodiscard]] Platform withHostServices(const Platform& platform, const HostServices& services);

} // namespace appsync::host
