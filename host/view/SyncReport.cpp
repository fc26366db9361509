#include "host/view/SyncReport.h"

#include "device/log/LogFile.h"
#include "host/view/Print.h"
#include "host/view/Table.h"
#include "text/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

bool isDone(const AppReport& app) {
    switch (app.result) {
    case AppResult::installed:
    case AppResult::updated:
    case AppResult::downgraded:
    case AppResult::removed:
    case AppResult::restored:
    case AppResult::demoted:
    case AppResult::unchanged: return true;
    case AppResult::waiting:
    case AppResult::cancelled:
    case AppResult::refused:
    case AppResult::failed: return app.isPassedOver;
    }
    return false;
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

Json orNull(std::optional<ReportTime> time) {
    return time ? Json(device::formatLogTime(*time)) : Json(nullptr);
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
    return !failure && !interrupted && !isIncomplete && std::ranges::all_of(apps, isDone);
}

const char* nameOf(AppResult result) {
    switch (result) {
    case AppResult::installed: return "installed";
    case AppResult::updated: return "updated";
    case AppResult::downgraded: return "downgraded";
    case AppResult::removed: return "removed";
    case AppResult::restored: return "restored";
    case AppResult::demoted: return "demoted";
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
    if (!error) {
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
    Table table({"App", "Version", report.isDryRun ? "Would be" : "Result", "Reason"});
    table.setResults(2);
    for (const AppReport& app : report.apps) {
        table.add({app.name, versionText(app), nameOf(app.result), app.reason});
    }
    table.print(out);
}

void printAmounts(std::ostream& out, const SyncReport& report) {
    std::string line = sizeText(report.bytes) + " to send, " + std::to_string(report.unchanged) + " unchanged";
    if (report.bytesFree) {
        line += "; the device needs about " + sizeText(report.bytesNeeded) + " and has " + sizeText(*report.bytesFree) +
                " free";
    }
    printLine(out, line);
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

Json toJson(const SyncReport& report) {
    Json root{{"version", jsonVersion},        {"done", report.allDone()},
              {"dryRun", report.isDryRun},     {"interrupted", report.interrupted},
              {"began", orNull(report.began)}, {"ended", orNull(report.ended)}};
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
    if (report.failure) {
        root["failure"] = reasonOf(report.failure);
    }
    return root;
}

} // namespace appsync::host
