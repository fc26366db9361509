// Opening a sync with what the desktop staged, closing it, and wiping what the plug-in keeps.
#include "plugin/client/AppsClient.h"

#include "platform/HomeScreen.h"
#include "platform/InstallationService.h"
#include "platform/TransactionLog.h"
#include "plugin/client/Paths.h"
#include "plugin/client/PropertyListFile.h"

namespace appsync {

namespace {

enum class StagingArea { taken, absent, failed };

/// Makes what the desktop staged the work area; the reason of a failure goes into `error`.
StagingArea takeStagingArea(FileSystem& files, const PlugInLog& log, ErrorPtr* error) {
    files.removeItem(paths::workArea, nullptr);
    if (!files.createDirectory(paths::applicationSync, true, std::nullopt, error)) {
        log.message("can't create work area");
        return StagingArea::failed;
    }
    if (!files.fileExists(paths::stagingArea)) {
        log.message("Nothing to do");
        return StagingArea::absent;
    }
    if (!files.moveItem(paths::stagingArea, paths::workArea, error)) {
        log.message("Can't move staging area");
        return StagingArea::failed;
    }
    return StagingArea::taken;
}

/// The apps that the to-do list wants removed.
std::vector<std::string> appsToRemove(const Array& toDoList, const PlugInLog& log) {
    std::vector<std::string> identifiers;
    identifiers.reserve(8);
    for (const Value& item : toDoList) {
        const Dictionary* record = item.dictionary();
        const auto identifier = record ? record->string("identifier") : std::nullopt;
        if (paths::isSafe(identifier) && record->string("operation") == "remove") {
            log.message("%{public}@ targeted for termination", *identifier);
            identifiers.emplace_back(*identifier);
        }
    }
    if (!identifiers.empty()) {
        log.message("performing %llu deletions", identifiers.size());
    }
    return identifiers;
}

void removeThroughRegistry(const Platform& platform, const PlugInLog& log, const std::string& identifier) {
    const bool uninstalled =
        platform.workspaces.defaultWorkspace().uninstallApplication_withOptions(identifier, nullptr);
    if (!uninstalled) {
        log.error("Uninstall of %{public}@ failed.", identifier);
    }
    platform.transactionLog.logScenario_step_success_forBundleID_description(
        "Tamblin Sync", TransactionStep::none, uninstalled, identifier,
        uninstalled ? "Uninstall succeeded" : "Uninstall failed");
}

void sendIconLayout(const Platform& platform, const PlugInLog& log) {
    const auto iconState = platform.files.readFile(paths::iconState, nullptr);
    if (!iconState || iconState->empty()) {
        return;
    }
    log.message("Sending iconlayout to SK");
    platform.homeScreen.SKSetIconState(platform.homeScreen.SKSSkellanBlockableServerPort(), iconState->bytes());
}

} // namespace

bool AppsClient::reconcileSync_withNewAnchor_progressCallback_error(QRSyncRequest* /*request*/,
                                                                    std::string_view newAnchor,
                                                                    const QRProgressCallback& /*progress*/,
                                                                    ErrorPtr* error) noexcept {
    _log.message("starting to reconcile sync with new anchor %{public}@", newAnchor);
    const StagingArea stagingArea = takeStagingArea(_platform.files, _log, error);
    if (stagingArea == StagingArea::taken) {
        const bool removalAllowed = _appRemovalAllowed();
        const auto toDoList = _loadPlist_withError(paths::toDoList, error);
        if (!toDoList) {
            _log.message("Nothing to do from Tamblin");
        } else if (!removalAllowed) {
            _log.message("Not processing deletes because app removal is restricted");
        } else {
            for (const std::string& identifier : appsToRemove(*toDoList, _log)) {
                _useInstallCoordinator ? uninstallAppUsingCoordination(identifier)
                                       : removeThroughRegistry(_platform, _log, identifier);
            }
        }
        _notifySkellan(true);
        sendIconLayout(_platform, _log);
        if (toDoList) {
            writePropertyList(_platform, *toDoList, PropertyListFormat::binary, paths::toDoListDebugCopy);
        }
    }
    _log.message("finished reconcile sync");
    return stagingArea != StagingArea::failed;
}

void AppsClient::syncEndedWithSuccess(bool success) noexcept {
    _log.message("sync ended with success: %c", success ? 'y' : 'n');
    if (!success) {
        return;
    }
    if (const int failure = _platform.files.utimes(paths::applicationSync); failure != 0) {
        _log.error("Failed to update utimes of \"%s\": %s", paths::applicationSync, _platform.files.errorText(failure));
    }
    const auto uninstalled = _uninstalledApps.get();
    if (uninstalled) {
        _log.message("clearing uninstalled apps: %{public}@", *uninstalled);
        if (_platform.installationService.TevrinClearUninstalled(*uninstalled, nullptr) == 0) {
            _uninstalledApps.set(std::nullopt);
        } else {
            _log.error("Failed to clear uninstalled apps from Tevrin."); // kept for the next time
        }
    }
    _platform.files.removeItem(paths::lastSyncAppState, nullptr);
}

void AppsClient::clearSyncData() noexcept {
    _log.message("blasting work area");
    _platform.files.removeItem(paths::applicationSync, nullptr);

    _log.message("Uninstalling all placeholder apps");
    _enumeratePlaceholdersWithBlock([this](const PDApplicationProxyPtr& placeholder, bool& /*stop*/) {
        const std::string identifier = placeholder->bundleIdentifier();
        const bool uninstalled =
            _platform.workspaces.defaultWorkspace().uninstallApplication_withOptions(identifier, nullptr);
        _log.message("Uninstall %{public}@ = %c", identifier, uninstalled ? 'y' : 'n');
    });

    const auto uninstalled = _platform.installationService.TevrinLookupUninstalled(nullptr);
    if (!uninstalled) {
        _log.error("Failed to fetch uninstalled apps list to clear it");
        return;
    }
    Array identifiers;
    for (const auto& [identifier, facts] : *uninstalled) {
        identifiers.emplace_back(identifier);
    }
    if (_platform.installationService.TevrinClearUninstalled(identifiers, nullptr) != 0) {
        _log.error("Failed to clear uninstalled apps list");
    }
}

} // namespace appsync
