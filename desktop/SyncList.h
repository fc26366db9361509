// What a sync tells the device: which apps of the library it gets, and which it loses.
#pragma once

#include "desktop/AppLibrary.h"

#include <string>
#include <vector>

namespace appsync::desktop {

struct FailedApp {
    const AppArchive* app;
    std::string reason; // a sentence
};

struct SyncList {
    std::vector<const AppArchive*> installs; // of the library, in its order
    std::vector<const AppArchive*> restores; // likewise: what the device may ask for without being told
    std::vector<std::string> removals;
    std::vector<FailedApp> failed; // what could not be staged
};

/// The list's to-do records: removals first, then installs.
[[nodiscard]] Array toDoRecords(const SyncList& list);

} // namespace appsync::desktop
