// Tells the host which apps have gone from the device since the desktop last knew of them.
#include "plugin/client/AppsClient.h"

#include "platform/InstallationService.h"
#include "plugin/client/Paths.h"

#include <unordered_map>

namespace appsync {

namespace {

/// The first to-do record of each app, as the search from the start of the list would find it.
using RecordsByIdentifier = std::unordered_map<std::string_view, const Dictionary*>;

RecordsByIdentifier firstRecords(const std::optional<Array>& toDoList) {
    RecordsByIdentifier records;
    if (!toDoList) {
        return records;
    }
    records.reserve(toDoList->size());
    for (const Value& item : *toDoList) {
        const Dictionary* record = item.dictionary();
        if (const auto identifier = record ? record->string("identifier") : std::nullopt) {
            records.emplace(*identifier, record);
        }
    }
    return records;
}

/// The apps that the low-level installation service records as uninstalled; nullopt when it does not say.
std::optional<Array> lookUpUninstalledApps(const Platform& platform, const PlugInLog& log) {
    const auto uninstalled = platform.installationService.TevrinLookupUninstalled(nullptr);
    if (!uninstalled) {
        log.error("TevrinLookupUninstalled returned NULL");
        return std::nullopt;
    }
    Array identifiers;
    identifiers.reserve(uninstalled->size());
    for (const auto& [identifier, facts] : *uninstalled) {
        identifiers.emplace_back(identifier);
    }
    return identifiers;
}

/// The apps of the last sync that the registry no longer has.
void addMissingApps(PDApplicationWorkspace& workspace, const std::optional<Array>& lastSyncedApps,
                    Dictionary& candidates) {
    if (!lastSyncedApps) {
        return;
    }
    for (const Value& app : *lastSyncedApps) {
        const auto identifier = app.text();
        if (identifier && !workspace.applicationIsInstalled(*identifier)) {
            candidates.insert(*identifier, {});
        }
    }
}

} // namespace

Dictionary AppsClient::installedAssets() noexcept {
    _log.message("getting installed assets");
    const auto toDoList = _loadPlist_withError(paths::toDoList, nullptr);
    const auto lastSyncedApps = _loadPlist_withError(paths::lastSyncAppState, nullptr);

    Dictionary candidates; // each identifier once
    if (auto uninstalled = lookUpUninstalledApps(_platform, _log)) {
        for (const Value& identifier : *uninstalled) {
            candidates.insert(*identifier.text(), {});
        }
        _uninstalledApps.set(std::move(uninstalled)); // until the service has forgotten them
    }
    addMissingApps(_platform.workspaces.defaultWorkspace(), lastSyncedApps, candidates);

    Array deleted;
    const RecordsByIdentifier records = firstRecords(toDoList);
    for (const auto& [identifier, member] : candidates) {
        const auto record = records.find(identifier);
        const bool found = record != records.end();
        const auto operation = found ? record->second->string("operation") : std::nullopt;
        const bool failed = operation == "FAILED";
        const bool installed = !failed && operation == "INSTALLED";
        if (found && !failed && !installed) {
            _log.message("%{public}@ not installed, but is in our todo list. Not marking deleted", identifier);
            continue;
        }
        _log.message("%{public}@ not installed, and no todo (found=%d pi=%d failed=%d) Marking as deleted", identifier,
                     found, installed, failed);
        deleted.emplace_back(Dictionary{{PDBundleIdentifierKey, identifier}});
    }
    _log.oversize("finished getting installed assets toDoList:%{public}@, uninstalled apps %{public}@, last synced "
                  "apps%{public}@",
                  toDoList, _uninstalledApps.get(), lastSyncedApps);
    return {{"_Deleted", std::move(deleted)}};
}

} // namespace appsync
