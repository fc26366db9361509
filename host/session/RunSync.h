// One sync from its list to its report.
#pragma once

#include "host/session/SyncPlan.h"
#include "host/view/SyncView.h"

#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

class Bandwidth;
class Interrupt;

struct SyncOptions {
    std::string plugInPath;
    Bandwidth* bandwidth = nullptr;       // of the transfers; null: as fast as it goes
    const Interrupt* interrupt = nullptr; // ends the sync early, and cleanly; may be null
};

/// Does what is planned: writes the staging area as the desktop would, loads the plug-in from its bundle, announces
/// that the host is ready, and lets a session drive the sync. What prevents all of it stands in the report's `failure`.
[[nodiscard]] SyncReport runSync(device::Device& device, SyncPlan plan, const SyncOptions& options, SyncView& view);

} // namespace appsync::host
