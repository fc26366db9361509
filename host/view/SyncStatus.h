// What a running sync does at a moment.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

enum class AppStage {
    queued,       // its transfer has not begun
    transferring, //
    installing,   // it has arrived
    waiting,      // to be installed, until it is not in use any more
    done,
    failed,
};

struct AppStatus {
    std::string identifier;
    std::string name;        // never empty
    std::uint64_t bytes = 0; // of the transfer
    AppStage stage = AppStage::queued;
    double fraction = 0;                                // of the transfer, 0 to 1
    std::string reason = {};                            // of `failed` and `waiting`, in words a person understands
    std::chrono::system_clock::time_point nextTry = {}; // of `waiting`

    [[nodiscard]] std::uint64_t sentBytes() const;
};

struct SyncStatus {
    std::vector<AppStatus> apps; // in the order in which they were planned

    /// To transfer, in all.
    [[nodiscard]] std::uint64_t bytes() const;
    [[nodiscard]] std::uint64_t sentBytes() const;
    /// To be sent yet, which those of an app that has failed are not.
    [[nodiscard]] std::uint64_t bytesLeft() const;
    /// Of the bytes to transfer, 0 to 1; 0 when there are none.
    [[nodiscard]] double fraction() const;
    /// Apps that are done or have failed.
    [[nodiscard]] std::size_t finished() const;
};

[[nodiscard]] const char* nameOf(AppStage stage);
[[nodiscard]] nlohmann::ordered_json toJsonObject(const AppStatus& app);
/// One JSON object on one line, without its line end.
[[nodiscard]] std::string toJson(const SyncStatus& status);
/// What such an object says, which is untrusted: an element of another kind counts as absent.
[[nodiscard]] SyncStatus parseSyncStatus(const nlohmann::ordered_json& status);
/// The local time of day, "14:03:27".
[[nodiscard]] std::string clockText(std::chrono::system_clock::time_point time);

} // namespace appsync::host
