// Decides what a sync does: which apps of the library the device gets, and which it loses.
#pragma once

#include "desktop/AppLibrary.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace appsync::desktop {

struct InstalledApp {
    std::string identifier;
    std::optional<std::string> version;
};

/// What a person asked for. Without any `install`, everything that the device lacks or has in another version.
struct SyncWishes {
    std::vector<std::string> install;
    std::vector<std::string> remove;
};

struct SyncList {
    std::vector<const AppArchive*> installs; // of the library, in its order
    std::vector<std::string> removals;
    std::vector<std::string> problems; // wishes that cannot be met, a sentence each
};

/// `installed` is what the device has. What is to be removed is not installed.
[[nodiscard]] SyncList makeSyncList(const AppLibrary& library, const std::vector<InstalledApp>& installed,
                                    const SyncWishes& wishes);

/// The list's to-do records: removals first, then installs.
[[nodiscard]] Array toDoRecords(const SyncList& list);

} // namespace appsync::desktop
