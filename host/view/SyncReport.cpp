#include "host/view/SyncReport.h"

#include "host/view/Print.h"
#include "host/view/Table.h"
#include "text/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <ctime>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

bool isDone(const AppReport& app) {
    return app.isPassedOver || isSent(app.result) || app.result == AppResult::removed ||
           app.result == AppResult::unchanged;
}

std::string versionText(const AppReport& app) {
    if (app.result == AppResult::unchanged) {
        return app.from.value_or("-");
    }
    if (app.from && app.version && app.from != app.version) {
        return *app.from + " -> " + *app.version;
    }
    return app.version.value_or(app.from.value_or("-"));
}

/// How much more a dry run's sync may need than there is.
std::uint64_t missingBytes(const SyncReport& report) {
    const std::uint64_t free = report.bytesFree.value_or(report.bytesNeeded);
    return report.bytesNeeded > free ? report.bytesNeeded - free : 0;
}

void printAmounts(std::ostream& out, const SyncReport& report) {
    std::string line = sizeText(report.bytes) + " to send, " + std::to_string(report.unchanged) + " unchanged";
    if (report.bytesFree) {
        line += "; the device needs about " + sizeText(report.bytesNeeded) + " and has " + sizeText(*report.bytesFree) +
                " free";
    }
    printLine(out, line);
}

/// RFC 3339, in UTC.
std::string timeText(ReportTime time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

Json orNull(const std::optional<std::string>& text) {
    return text ? Json(*text) : Json(nullptr);
}

Json toJson(const AppReport& app) {
    Json entry{{"identifier", app.identifier.empty() ? Json(nullptr) : Json(app.identifier)},
               {"name", app.name},
               {"result", nameOf(app.result)},
               {"from", orNull(app.from)},
               {"to", orNull(app.version)},
               {"size", app.size}};
    if (!app.reason.empty()) {
        entry["reason"] = app.reason;
    }
    return entry;
}

} // namespace

bool SyncReport::allDone() const {
    return failure == nullptr && !interrupted && std::ranges::all_of(apps, isDone);
}

const char* nameOf(AppResult result) {
    switch (result) {
    case AppResult::installed: return "installed";
    case AppResult::updated: return "updated";
    case AppResult::downgraded: return "downgraded";
    case AppResult::removed: return "removed";
    case AppResult::unchanged: return "unchanged";
    case AppResult::waiting: return "waiting";
    case AppResult::cancelled: return "cancelled";
    case AppResult::refused: return "refused";
    case AppResult::failed: return "failed";
    }
    return "failed";
}

bool isSent(AppResult result) {
    return result == AppResult::installed || result == AppResult::updated || result == AppResult::downgraded;
}

std::string reasonOf(const ErrorPtr& error) {
    if (error == nullptr) {
        return "";
    }
    if (const auto sentence = error->userInfo().string(errorDescriptionKey)) {
        return std::string(*sentence);
    }
    if (error->domain() == QRErrorDomain && error->code() == 1) {
        return "The device could not prepare the install; `qrd log` tells why.";
    }
    if (error->domain() == QRErrorDomain && error->code() == 30) {
        return "The sync ended before the app had arrived.";
    }
    return error->description();
}

void printTable(std::ostream& out, const SyncReport& report) {
    if (report.apps.empty()) {
        printLine(out, "Nothing to do: the device has every app of the library.");
    } else {
        Table table({"App", "Version", report.isDryRun ? "Would be" : "Result", "Reason"});
        table.setResults(2);
        for (const AppReport& app : report.apps) {
            table.add({app.name, versionText(app), nameOf(app.result), app.reason});
        }
        table.print(out);
    }
    if (report.isDryRun) {
        printAmounts(out, report);
    }
}

void printNotes(std::ostream& out, const SyncReport& report) {
    for (const std::string& app : report.deleted) {
        printLine(out, "note: " + printable(app) + " was deleted on the device since the last sync");
    }
    for (const std::string& problem : report.problems) {
        printLine(out, "note: " + problem);
    }
    if (const std::uint64_t missing = report.isDryRun ? missingBytes(report) : 0; missing > 0) {
        printLine(out, "note: the device may lack about " + sizeText(missing) + "; remove something from it first");
    }
}

void printJson(std::ostream& out, const SyncReport& report) {
    Json root{{"version", jsonVersion},
              {"done", report.allDone()},
              {"dryRun", report.isDryRun},
              {"interrupted", report.interrupted},
              {"began", report.began ? Json(timeText(*report.began)) : Json(nullptr)},
              {"ended", report.ended ? Json(timeText(*report.ended)) : Json(nullptr)}};
    Json apps = Json::array();
    for (const AppReport& app : report.apps) {
        apps.push_back(toJson(app));
    }
    root["apps"] = std::move(apps);
    root["unchanged"] = report.unchanged;
    root["bytes"] = report.bytes;
    if (report.isDryRun) {
        root["bytesNeeded"] = report.bytesNeeded;
        root["bytesFree"] = report.bytesFree ? Json(*report.bytesFree) : Json(nullptr);
        root["bytesMissing"] = missingBytes(report);
    }
    root["deleted"] = report.deleted;
    root["problems"] = report.problems;
    if (report.failure != nullptr) {
        root["failure"] = reasonOf(report.failure);
    }
    printJson(out, root, 2);
}

} // namespace appsync::host
