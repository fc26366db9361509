#include "host/view/SyncStatus.h"

#include "device/log/LogFile.h"
#include "host/control/RunningSync.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <ctime>
#include <functional>
#include <numeric>

namespace appsync::host {

using Json = nlohmann::ordered_json;

std::uint64_t AppStatus::sentBytes() const {
    return static_cast<std::uint64_t>(static_cast<double>(bytes) * std::clamp(fraction, 0.0, 1.0));
}

std::uint64_t SyncStatus::bytes() const {
    return std::transform_reduce(apps.begin(), apps.end(), std::uint64_t{0}, std::plus(),
                                 [](const AppStatus& app) { return app.bytes; });
}

std::uint64_t SyncStatus::sentBytes() const {
    return std::transform_reduce(apps.begin(), apps.end(), std::uint64_t{0}, std::plus(),
                                 [](const AppStatus& app) { return app.sentBytes(); });
}

std::uint64_t SyncStatus::bytesLeft() const {
    std::uint64_t left = 0;
    for (const AppStatus& app : apps) {
        const bool isToBeSent = app.stage == AppStage::queued || app.stage == AppStage::transferring;
        left += isToBeSent ? app.bytes - app.sentBytes() : 0;
    }
    return left;
}

double SyncStatus::fraction() const {
    const std::uint64_t all = bytes();
    return all == 0 ? 0 : static_cast<double>(sentBytes()) / static_cast<double>(all);
}

std::size_t SyncStatus::finished() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        apps, [](const AppStatus& app) { return app.stage == AppStage::done || app.stage == AppStage::failed; }));
}

const char* nameOf(AppStage stage) {
    switch (stage) {
    case AppStage::queued: return "queued";
    case AppStage::transferring: return "transferring";
    case AppStage::installing: return "installing";
    case AppStage::waiting: return "waiting";
    case AppStage::done: return "done";
    case AppStage::failed: return "failed";
    }
    return "queued";
}

Json toJsonObject(const AppStatus& app) {
    Json entry{{"identifier", app.identifier},
               {"name", app.name},
               {"stage", nameOf(app.stage)},
               {"bytes", app.bytes},
               {"fraction", app.fraction}};
    if (!app.reason.empty()) {
        entry["reason"] = app.reason;
    }
    if (app.stage == AppStage::waiting) {
        entry["nextTry"] = device::formatLogTime(app.nextTry);
    }
    return entry;
}

std::string toJson(const SyncStatus& status) {
    Json apps = Json::array();
    for (const AppStatus& app : status.apps) {
        apps.push_back(toJsonObject(app));
    }
    const Json root{
        {"running", true}, {"fraction", status.fraction()}, {"finished", status.finished()}, {"apps", std::move(apps)}};
    return root.dump(-1, ' ', false, Json::error_handler_t::replace);
}

SyncStatus parseSyncStatus(const Json& status) {
    constexpr std::uint64_t maxBytes = std::uint64_t{1} << 50; // of an app; their sum has room
    SyncStatus parsed;
    for (const Json& entry : listIn(status, "apps")) {
        if (!entry.is_object()) {
            continue;
        }
        AppStatus app{textIn(entry, "identifier"), textIn(entry, "name")};
        if (const auto bytes = entry.find("bytes"); bytes != entry.end() && bytes->is_number_unsigned()) {
            app.bytes = std::min(bytes->get<std::uint64_t>(), maxBytes);
        }
        const std::string stage = textIn(entry, "stage");
        for (const AppStage known :
             {AppStage::transferring, AppStage::installing, AppStage::waiting, AppStage::done, AppStage::failed}) {
            app.stage = stage == nameOf(known) ? known : app.stage;
        }
        app.fraction = std::min(numberIn(entry, "fraction"), 1.0);
        app.reason = textIn(entry, "reason");
        app.nextTry = device::parseLogTime(textIn(entry, "nextTry"));
        parsed.apps.push_back(std::move(app));
    }
    return parsed;
}

std::string clockText(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    std::array<char, 16> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%H:%M:%S", &parts)};
}

} // namespace appsync::host
