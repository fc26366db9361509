// What a sync did to each app, and how it is shown.
#pragma once

#include "values/Error.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace appsync::host {

enum class AppResult { installed, updated, removed, failed, cancelled, interrupted, refused };

struct AppReport {
    std::string identifier;
    std::string name; // never empty
    std::optional<std::string> version;
    AppResult result = AppResult::failed;
    std::string reason = {}; // in words a person understands; empty for a success
};

struct SyncReport {
    std::vector<AppReport> apps;
    std::vector<std::string> problems; // what was passed over, a sentence each
    std::vector<std::string> deleted;  // apps that were deleted on the device since the last sync
    bool interrupted = false;
    ErrorPtr failure; // why the whole sync could not go on; null when it could

    [[nodiscard]] bool allDone() const;
};

[[nodiscard]] const char* nameOf(AppResult result);
/// The sentence for a person: an error's description, or what its domain and code are known to mean.
[[nodiscard]] std::string reasonOf(const ErrorPtr& error);

/// A table: app, version, result, reason; then the problems.
void printTable(std::ostream& out, const SyncReport& report);
/// One JSON object on several lines.
void printJson(std::ostream& out, const SyncReport& report);

} // namespace appsync::host
