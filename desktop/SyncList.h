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
    std::vector<std::string> install = {};
    std::vector<std::string> remove = {};
    std::set<std::string> restoring = {}; // apps that the device brings back itself, asking for their archives
};

struct FailedApp {
    const AppArchive* app;
    std::string reason; // a sentence
};

struct SyncList {
    std::vector<const AppArchive*> installs; // of the library, in its order
    std::vector<const AppArchive*> restores; // likewise: what the device may ask for without being told
    std::vector<std::string> removals;
    std::vector<std::string> problems; // wishes that cannot be met, a sentence each
    std::vector<FailedApp> failed;     // what could not be staged
};

/// `installed` is what the device has. What is to be removed is not installed.
[[nodiscard]] SyncList makeSyncList(const AppLibrary& library, const std::vector<InstalledApp>& installed,
                                    const SyncWishes& wishes);

/// The archive of an app that is to be installed or may be asked for; null when there is none.
[[nodiscard]] const AppArchive* findArchive(const SyncList& list, std::string_view identifier);

/// The list's to-do records: removals first, then installs.
[[nodiscard]] Array toDoRecords(const SyncList& list);

} // namespace appsync::desktop
