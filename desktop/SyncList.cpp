#include "desktop/SyncList.h"

#include <algorithm>

namespace appsync::desktop {

namespace {

using Versions = std::map<std::string, std::optional<std::string>, std::less<>>;

bool isWanted(const AppArchive& app, const Versions& installed, const std::set<std::string>& asked) {
    if (!asked.empty()) {
        return asked.contains(app.identifier);
    }
    const auto present = installed.find(app.identifier);
    return present == installed.end() || present->second != app.version;
}

} // namespace

SyncList makeSyncList(const AppLibrary& library, const std::vector<InstalledApp>& installed, const SyncWishes& wishes) {
    Versions versions;
    for (const InstalledApp& app : installed) {
        versions.emplace(app.identifier, app.version);
    }
    SyncList list;
    std::set<std::string> removed;
    for (const std::string& identifier : wishes.remove) {
        if (!versions.contains(identifier)) {
            list.problems.push_back("'" + identifier + "' cannot be removed: the device does not have it.");
        } else if (removed.insert(identifier).second) {
            list.removals.push_back(identifier);
        }
    }
    const std::set<std::string> asked(wishes.install.begin(), wishes.install.end());
    for (const std::string& identifier : asked) {
        if (library.find(identifier) == nullptr) {
            list.problems.push_back("'" + identifier + "' cannot be installed: the library does not have it.");
        } else if (removed.contains(identifier)) {
            list.problems.push_back("'" + identifier + "' is to be installed and removed; it is removed.");
        }
    }
    for (const AppArchive& app : library.apps) {
        if (wishes.restoring.contains(app.identifier)) {
            list.restores.push_back(&app);
        } else if (!removed.contains(app.identifier) && isWanted(app, versions, asked)) {
            list.installs.push_back(&app);
        }
    }
    return list;
}

const AppArchive* findArchive(const SyncList& list, std::string_view identifier) {
    for (const auto* apps : {&list.installs, &list.restores}) {
        const auto found = std::ranges::find(*apps, identifier, &AppArchive::identifier);
        if (found != apps->end()) {
            return *found;
        }
    }
    return nullptr;
}

Array toDoRecords(const SyncList& list) {
    Array records;
    records.reserve(list.removals.size() + list.installs.size());
    for (const std::string& identifier : list.removals) {
        records.emplace_back(Dictionary{{"identifier", identifier}, {"operation", "remove"}});
    }
    for (const AppArchive* app : list.installs) {
        Dictionary record{{"identifier", app->identifier}, {"operation", "install"}};
        if (app->version) {
            record.set("version", *app->version);
        }
        if (app->name) {
            record.set("name", *app->name);
        }
        record.set("size", app->size);
        records.emplace_back(std::move(record));
    }
    return records;
}

} // namespace appsync::desktop
