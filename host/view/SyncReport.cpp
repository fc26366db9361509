#include "host/view/SyncReport.h"

#include "host/view/Print.h"
#include "host/view/Table.h"
#include "text/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace appsync::host {

namespace {

bool isDone(const AppReport& app) {
    return app.result == AppResult::installed || app.result == AppResult::updated || app.result == AppResult::removed;
}

} // namespace

bool SyncReport::allDone() const {
    return failure == nullptr && !interrupted && std::ranges::all_of(apps, isDone);
}

const char* nameOf(AppResult result) {
    switch (result) {
    case AppResult::installed: return "installed";
    case AppResult::updated: return "updated";
    case AppResult::removed: return "removed";
    case AppResult::failed: return "failed";
    case AppResult::cancelled: return "cancelled";
    case AppResult::interrupted: return "not sent";
    case AppResult::refused: return "refused";
    }
    return "failed";
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
        Table table({"App", "Version", "Result", "Reason"});
        for (const AppReport& app : report.apps) {
            table.add({app.name, app.version.value_or("-"), nameOf(app.result), app.reason});
        }
        table.print(out);
    }
    for (const std::string& app : report.deleted) {
        printLine(out, "note: " + printable(app) + " was deleted on the device since the last sync");
    }
    for (const std::string& problem : report.problems) {
        printLine(out, "note: " + problem);
    }
}

void printJson(std::ostream& out, const SyncReport& report) {
    nlohmann::ordered_json apps = nlohmann::ordered_json::array();
    for (const AppReport& app : report.apps) {
        nlohmann::ordered_json entry{
            {"identifier", app.identifier}, {"name", app.name}, {"version", nullptr}, {"result", nameOf(app.result)}};
        if (app.version) {
            entry["version"] = *app.version;
        }
        if (!app.reason.empty()) {
            entry["reason"] = app.reason;
        }
        apps.push_back(std::move(entry));
    }
    nlohmann::ordered_json root{{"done", report.allDone()}, {"interrupted", report.interrupted}, {"apps", apps}};
    root["deleted"] = report.deleted;
    root["problems"] = report.problems;
    if (report.failure != nullptr) {
        root["failure"] = reasonOf(report.failure);
    }
    printJson(out, root, 2);
}

} // namespace appsync::host
