// Opening a sync with what the desktop staged, closing it, and wiping what the plug-in keeps.
#include "client/AppsClient.h"

#include "client/Paths.h"
#include "platform/HomeScreen.h"
#include "platform/InstallationService.h"
#include "platform/PropertyListSerialization.h"
#include "platform/TransactionLog.h"

namespace appsync {

bool AppsClient::reconcileSync_withNewAnchor_progressCallback_error(QRSyncRequest* /*request*/,
                                                                    std::string_view newAnchor,
                                                                    const QRProgressCallback& /*progress*/,
                                                                    ErrorPtr* error) noexcept {
    _log.message("starting to reconcile sync with new anchor %{public}@", newAnchor);
    const bool mayGoOn = _reconcileStagedSync(error);
    _log.message("finished reconcile sync");
    return mayGoOn;
}

bool AppsClient::_reconcileStagedSync(ErrorPtr* error) {
    FileSystem& files = _platform.files;
    files.removeItem(paths::workArea, nullptr);
    if (!files.createDirectory(paths::applicationSync, true, std::nullopt, error)) {
        _log.message("can't create work area");
        return false;
    }
    if (!files.fileExists(paths::stagingArea)) {
        _log.message("Nothing to do");
        return true;
    }
    if (!files.moveItem(paths::stagingArea, paths::workArea, error)) {
        _log.message("Can't move staging area");
        return false;
    }
    const bool removalAllowed = _appRemovalAllowed();
    const auto toDoList = _loadPlist_withError(paths::toDoList, error);
    if (!toDoList) {
        _log.message("Nothing to do from Tamblin");
    } else if (!removalAllowed) {
        _log.message("Not processing deletes because app removal is restricted");
    } else {
        _performRemovals(*toDoList);
    }
    _notifySkellan(true);
    _sendIconLayout();
    if (toDoList) {
        _writeToDoListDebugCopy(*toDoList);
    }
    return true;
}

void AppsClient::_performRemovals(const Array& toDoList) {
    std::vector<std::string> identifiers;
    identifiers.reserve(8);
    for (const Value& item : toDoList) {
        const Dictionary* record = item.dictionary();
        const auto identifier = record != nullptr ? record->string("identifier") : std::nullopt;
        if (paths::isSafe(identifier) && record->string("operation") == "remove") {
            _log.message("%{public}@ targeted for termination", *identifier);
            identifiers.emplace_back(*identifier);
        }
    }
    if (identifiers.empty()) {
        return;
    }
    _log.message("performing %llu deletions", identifiers.size());
    for (const std::string& identifier : identifiers) {
        if (_useInstallCoordinator) {
            uninstallAppUsingCoordination(identifier);
            continue;
        }
        const bool uninstalled = _workspace().uninstallApplication_withOptions(identifier, nullptr);
        if (!uninstalled) {
            _log.error("Uninstall of %{public}@ failed.", identifier);
        }
        _platform.transactionLog.logScenario_step_success_forBundleID_description(
            "Tamblin Sync", TransactionStep::none, uninstalled, identifier,
            uninstalled ? "Uninstall succeeded" : "Uninstall failed");
    }
}

void AppsClient::_sendIconLayout() {
    const auto iconState = _platform.files.readFile(paths::iconState, nullptr);
    if (!iconState || iconState->empty()) {
        return;
    }
    _log.message("Sending iconlayout to SK");
    _platform.homeScreen.SKSetIconState(_platform.homeScreen.SKSSkellanBlockableServerPort(), iconState->bytes());
}

void AppsClient::_writeToDoListDebugCopy(const Array& toDoList) {
    const auto bytes = _platform.propertyLists.dataWithPropertyList(toDoList, PropertyListFormat::binary, nullptr);
    if (bytes) {
        _platform.files.writeFileAtomically(paths::toDoListDebugCopy, bytes->bytes(), nullptr);
    }
}

void AppsClient::syncEndedWithSuccess(bool success) noexcept {
    _log.message("sync ended with success: %c", success ? 'y' : 'n');
    if (!success) {
        return;
    }
    if (const int failure = _platform.files.utimes(paths::applicationSync); failure != 0) {
        _log.error("Failed to update utimes of \"%s\": %s", paths::applicationSync, _platform.files.errorText(failure));
    }
    _clearUninstalledApps();
    _platform.files.removeItem(paths::lastSyncAppState, nullptr);
}

void AppsClient::_clearUninstalledApps() {
    const auto uninstalled = _rememberedUninstalledApps();
    if (!uninstalled) {
        return;
    }
    _log.message("clearing uninstalled apps: %{public}@", *uninstalled);
    if (_platform.installationService.TevrinClearUninstalled(*uninstalled, nullptr) != 0) {
        _log.error("Failed to clear uninstalled apps from Tevrin.");
        return; // kept for the next time
    }
    const std::lock_guard lock(_uninstalledAppsMutex);
    _uninstalledApps = std::nullopt;
}

void AppsClient::clearSyncData() noexcept {
    _log.message("blasting work area");
    _platform.files.removeItem(paths::applicationSync, nullptr);

    _log.message("Uninstalling all placeholder apps");
    _enumeratePlaceholdersWithBlock([this](const PDApplicationProxyPtr& placeholder, bool& /*stop*/) {
        const std::string identifier = placeholder->bundleIdentifier();
        const bool uninstalled = _workspace().uninstallApplication_withOptions(identifier, nullptr);
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
