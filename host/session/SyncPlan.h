// Decides what a sync does to each app. The plan's rows are what a dry run shows; a sync begins with the same rows and
// changes those that come out otherwise.
#pragma once

#include "desktop/AppLibrary.h"
#include "desktop/SyncList.h"
#include "host/session/Leftovers.h"
#include "host/view/SyncReport.h"

#include <optional>
#include <string>
#include <vector>

namespace appsync::device {
class Device;
}

namespace appsync::host {

/// What a person asked for. Apps are named by their bundle identifier, or by their name where no other app has it.
struct SyncWishes {
    std::vector<std::string> install = {}; // none means all of the library
    std::vector<std::string> remove = {};
    bool reinstall = false; // those named by `install` also when they are there in the library's version
    bool downgrade = false; // also to an older version
};

/// What counts of a device before a sync.
struct DeviceState {
    enum class Pending {
        nothing,
        begun,     // an earlier sync has begun to bring it
        restoring, // a restore has, and the app has its place and its data
        demoted,
    };
    struct App {
        std::string identifier;
        std::string name; // never empty
        bool isInstalled = false;
        std::optional<std::string> version; // of what is installed
        Pending pending = Pending::nothing;
    };

    std::vector<App> apps;
    bool mayInstall = true; // its policy
    bool mayRemove = true;
    bool hasStore = true;                   // which brings what is being restored; otherwise a sync does
    std::optional<std::uint64_t> freeBytes; // where that can be learned
};

/// No install may run.
[[nodiscard]] DeviceState stateOf(device::Device& device);

struct SyncPlan {
    SyncReport report;      // what comes of the sync if all goes well
    desktop::SyncList list; // what the device is told; points into the library
    // Of what an earlier sync has begun:
    GoingOn goingOn; // its apps that wait are those that this sync does not bring and a later one can
    Apps takenBack;
};

/// Why there is no sync with a device of such a policy.
[[nodiscard]] ErrorPtr nothingAllowedError();

/// The library must outlive the plan.
[[nodiscard]] SyncPlan planSync(const desktop::AppLibrary& library, const DeviceState& device,
                                const SyncWishes& wishes);

} // namespace appsync::host
