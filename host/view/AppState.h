// The word for how an app is on a device.
#pragma once

#include "device/registry/Registry.h"

namespace appsync::host {

[[nodiscard]] inline const char* stateOf(const device::Application& app, bool isRunning) {
    if (!app.isPlaceholder) {
        return isRunning ? "running" : "installed";
    }
    if (app.isDemoted() && !app.progress) {
        return "demoted";
    }
    return app.isInstalled ? "updating" : "waiting";
}

} // namespace appsync::host
