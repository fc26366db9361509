// What a sync, a restore or a visit to the store did to each app, and how it is shown.
#pragma once

#include "values/Error.h"

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace appsync::host {

/// What became of an app, or would.
enum class AppResult {
    installed,
    updated,
    downgraded, // to an older version
    removed,
    restored, // its placeholder stands; the store or a sync brings the app
    demoted,  // its placeholder and its data are there, and that is all there is to be
    unchanged,
    waiting,   // for a later sync or the store
    cancelled, // its install was taken back
    refused,   // by what the device or the command line allows
    failed,
};

struct AppReport {
    std::string identifier;             // of a file that is no app: empty
    std::string name;                   // never empty
    std::optional<std::string> version; // that a sync brings; nullopt when none is or none is known
    AppResult result = AppResult::failed;
    std::string reason = {};              // in words a person understands; may be empty for a success
    std::optional<std::string> from = {}; // the version that was there before
    std::uint64_t size = 0;               // of what is sent, in bytes
    bool isPassedOver = false;            // nobody asked for it, so that it is no failure
};

using ReportTime = std::chrono::system_clock::time_point;

struct SyncReport {
    std::vector<AppReport> apps;
    std::vector<std::string> problems; // what was passed over, a sentence each
    bool isIncomplete = false;         // something of what was asked for is among the problems, or an app's reason
    std::vector<std::string> deleted;  // apps that were deleted on the device since the last sync
    bool interrupted = false;
    ErrorPtr failure;                       // why the whole sync could not go on; null when it could
    bool isDryRun = false;                  // it says what would become of the apps
    std::size_t unchanged = 0;              // apps of the library, those among `apps` included
    std::uint64_t bytes = 0;                // to be sent
    std::uint64_t bytesNeeded = 0;          // on the device, about
    std::optional<std::uint64_t> bytesFree; // there, before; nullopt when that is not known
    std::optional<ReportTime> began;
    std::optional<ReportTime> ended;

    [[nodiscard]] bool allDone() const;
};

[[nodiscard]] const char* nameOf(AppResult result);
/// Whether a new version came, or comes.
[[nodiscard]] bool isSent(AppResult result);
/// The sentence for a person: an error's description, or what its domain and code are known to mean.
[[nodiscard]] std::string reasonOf(const ErrorPtr& error);

/// A table: app, version, result, reason.
void printTable(std::ostream& out, const SyncReport& report);
/// How much there is to send, in a line.
void printAmounts(std::ostream& out, const SyncReport& report);
/// What else a person should know, a line each.
void printNotes(std::ostream& out, const SyncReport& report);
/// One object, its version included.
[[nodiscard]] nlohmann::ordered_json toJson(const SyncReport& report);

} // namespace appsync::host
