// What happens when an asset has arrived or failed, and at the end of the transfer phase.
#include "client/AppsClient.h"

#include "client/Paths.h"
#include "concurrency/Semaphore.h"
#include "platform/Backup.h"
#include "platform/InstallationService.h"
#include "platform/Store.h"
#include "platform/SyncHost.h"
#include "platform/TransactionLog.h"

namespace appsync {

void AppsClient::assetTransfer_succeeded_withError(const QRAssetPtr& asset, bool succeeded,
                                                   const ErrorPtr& error) noexcept {
    const std::string& identifier = asset->identifier;
    bool existingApp = false;
    bool userCancelled = false;
    _accessQueue.sync([&] {
        existingApp = _updatingApps.erase(identifier) > 0;
        userCancelled = _userCancelledApps.erase(identifier) > 0;
    });
    _outstandingRFXTransfers.remove(identifier);
    _log.message("transfer for asset %{public}@ ended with success %c error %{public}@ existingApp:%d", asset,
                 succeeded ? 'y' : 'n', error, existingApp);
    const FNProgressPtr progress = _progressForAssetIdentifier(identifier);
    if (succeeded) {
        _transferSucceeded(asset, existingApp, progress);
    } else {
        _transferFailed(asset, error, userCancelled, progress);
    }
}

void AppsClient::_transferSucceeded(const QRAssetPtr& asset, bool existingApp, const FNProgressPtr& progress) {
    const std::string& identifier = asset->identifier;
    _log.message("asset transfer succeeded for %{public}@", identifier);
    if (progress != nullptr) {
        if (_useInstallCoordinator) {
            _log.message("not setting install phase finished for %{public}@ as coordination is enabled", identifier);
        } else {
            _workspace().installPhaseFinishedForProgress(progress);
        }
    }
    _settlePath(asset);
    if (!paths::isSafe(asset->path)) {
        _log.message("Ignoring invalid path: %{public}@", asset->path);
        return;
    }
    if (!asset->isDownload) {
        changeAssetID_toDo(identifier, "SENT");
        return;
    }
    _log.message("Received file at %{public}@", asset->path);
    changeAssetID_toDo(identifier, "DOWNLOADED");
    if (asset->isRestore) {
        _restoreAssetArrived(asset, progress);
        return;
    }
    _log.message("Installing synced asset %{public}@", asset);
    if (_useInstallCoordinator) {
        transferCompleteForApp_existingApp(asset, existingApp);
    } else {
        _enqueueAssetInstall(asset);
    }
}

/// Makes a relative path absolute, and takes a missing one from the restore state, which may not know it either.
void AppsClient::_settlePath(const QRAssetPtr& asset) {
    if (!asset->path) {
        const auto value = _restoreStatePropertyForKey_identifier_version("path", asset->identifier, asset->version());
        const auto path = value ? value->string() : std::nullopt;
        asset->path = path ? std::optional<std::string>(*path) : std::nullopt;
    } else if (!asset->path->starts_with("/")) {
        asset->path = paths::join(paths::publicStaging, *asset->path);
    }
}

void AppsClient::_restoreAssetArrived(const QRAssetPtr& asset, const FNProgressPtr& progress) {
    if (asset->completedAssetParts == kQRAssetPartApplicationData) {
        if (_useInstallCoordinator) {
            _log.message("Not processing kQRAssetPartApplicationData for restore asset %{public}@ as coordination is "
                         "enabled",
                         asset);
        } else {
            _enqueueAssetInstall(asset);
        }
        return;
    }
    if (_useInstallCoordinator) {
        _log.message("Not processing restore asset %{public}@ as coordination is enabled", asset);
        return;
    }
    if (!_backupManager->restoreDataExistsForApplicationWithBundleID_size(asset->identifier, nullptr)) {
        _log.message("No restore data exists for %{public}@", asset->shortDescription());
        _enqueueAssetInstall(asset);
        return;
    }
    _log.message("Restore data exists for %{public}@", asset->shortDescription());
    if (progress != nullptr) {
        progress->setInstallPhase(PDInstallPhaseRestoringData);
    }
    // Installed once its data has arrived.
    _setRestoreStatePropertyValue_forKey_identifier_version(*asset->path, "path", asset->identifier, asset->version());
}

void AppsClient::_transferFailed(const QRAssetPtr& asset, const ErrorPtr& error, bool userCancelled,
                                 const FNProgressPtr& progress) {
    const bool recoverable = _isRecoverableError(error);
    _log.message("failed to transfer asset %{public}@. err=%{public}@, recoverable=%d", asset, error, recoverable);
    if (recoverable) {
        if (progress != nullptr) {
            progress->setInstallState(PDInstallStateFailed);
        }
        return;
    }
    if (!_workspace().applicationIsInstalled(asset->identifier) || asset->isRestore) {
        return;
    }
    if (progress != nullptr && progress->installState() < PDInstallStateCanceled) {
        progress->cancel();
    }
    _uninstallPlaceholderOfFailedTransfer(asset, userCancelled);
}

void AppsClient::_uninstallPlaceholderOfFailedTransfer(const QRAssetPtr& asset, bool userCancelled) {
    const std::string& identifier = asset->identifier;
    _log.message("Uninstalling placeholder %{public}@", identifier);
    if (asset->isRestore) { // unreachable while restore assets are left out above; kept for when they are not
        if (_useInstallCoordinator) {
            _log.message(
                "Install coordination is enabled - not calling cancelApplicationRestoreWithBundleID for %{public}@",
                identifier);
        } else {
            _backupManager->cancelApplicationRestoreWithBundleID_error(identifier, nullptr);
        }
    }
    bool status = false;
    ErrorPtr error;
    if (!_useInstallCoordinator) {
        _log.message("Uninstalling app using PD %{public}@", identifier);
        const Dictionary options{{PDUninstallPlaceholdersOnlyKey, true}};
        status = _workspace().uninstallApplication_withOptions(identifier, &options);
    } else if (!userCancelled) {
        _log.message("Uninstalling app using install co-ordinator %{public}@", identifier);
        status = _platform.coordinators.uninstallAppWithBundleID_error(identifier, &error);
    }
    _log.message("Uninstalled %{public}@ %s install co-ordinator with error %{public}@ with status %d", identifier,
                 _useInstallCoordinator ? "with" : "without", error, status);
}

void AppsClient::assetTransferEndedWithSuccess(bool success) noexcept {
    _log.message("asset transfer ended withsuccess: %c", success ? 'y' : 'n');
    _installGroup.wait();
    _notifySkellan(false);
    if (_getAndResetNumAppInstallsAttempted() > 0) {
        _refreshReceipts();
    }
    const auto outstanding = _outstandingRFXTransfers.all();
    if (outstanding.empty()) {
        return;
    }
    _settleOutstandingTransfers(outstanding, success);
    if (success) {
        _log.error("Called with success == YES but with %lu outstanding RFX transfers!", outstanding.size());
    }
    _outstandingRFXTransfers.removeAll();
    _accessQueue.sync([this] {
        _updatingApps.clear();
        _userCancelledApps.clear();
    });
}

void AppsClient::_refreshReceipts() {
    const auto library = _platform.softwareLibraries.init();
    Semaphore refreshed;
    library->refreshReceiptsWithCompletionBlock([this, &refreshed](const ErrorPtr& error) {
        if (error != nullptr) {
            _log.message("refreshReceiptsWithCompletionBlock failed: %{public}@", error);
        } else {
            _log.message("refreshReceiptsWithCompletionBlock succeeded");
        }
        refreshed.signal();
    });
    refreshed.wait();
}

void AppsClient::_settleOutstandingTransfers(const std::vector<std::string>& outstanding, bool success) {
    if (_useInstallCoordinator) {
        assetSyncFinishedWithStatus_outstandingItems(success, outstanding);
        return;
    }
    for (const std::string& identifier : outstanding) {
        _log.message("Setting state for outstanding RFX loading phase of asset %{public}@ to %{public}@", identifier,
                     success ? "PDInstallStateFinished" : "PDInstallStateFailed");
        if (const FNProgressPtr progress = _progressForAssetIdentifier(identifier)) {
            progress->setInstallState(success ? PDInstallStateFinished : PDInstallStateFailed);
            _workspace().installPhaseFinishedForProgress(progress);
        }
    }
}

void AppsClient::assetInstallSucceeded(const QRAssetPtr& asset) noexcept {
    _log.message("%{public}@ install succeeded", asset->identifier);
    changeAssetID_toDo(asset->identifier, "INSTALLED");
    cleanRestoreStateForIdentifier(asset->identifier);
}

void AppsClient::assetInstallFailed_withError(const QRAssetPtr& asset, const ErrorPtr& error) noexcept {
    const std::string& identifier = asset->identifier;
    if (_isRecoverableError(error) || asset->isRestore) {
        _log.message("%{public}@ install failed but was recoverable: %{public}@", identifier, error);
        _logUlvaneRestore(false, identifier, "install failed recoverably");
    } else {
        _log.message("%{public}@ install failed unrecoverably: %{public}@", identifier, error);
        changeAssetID_toDo(identifier, "FAILED");
        _undoFailedInstall(asset);
    }
    cleanRestoreStateForIdentifier(identifier);
}

/// Restore assets never come here today, since their failures count as recoverable; they are told apart all the same.
void AppsClient::_undoFailedInstall(const QRAssetPtr& asset) {
    const std::string& identifier = asset->identifier;
    if (asset->isRestore) {
        if (_useInstallCoordinator) {
            _log.message("not asking backup manager to cancel app restore for %{public}@ as install coordination is "
                         "enabled",
                         identifier);
        } else {
            _backupManager->cancelApplicationRestoreWithBundleID_error(identifier, nullptr);
        }
    }
    if (_useInstallCoordinator) {
        if (asset->isRestore) {
            _log.message("not uninstalling restore asset %{public}@ as install coordination is enabled", identifier);
        } else {
            uninstallAppUsingCoordination(identifier);
        }
        return;
    }
    if (_workspace().uninstallApplication_withOptions(identifier, nullptr)) {
        _logUlvaneRestore(true, identifier, "placeholder removed");
    } else {
        _log.error("Uninstall of %{public}@ failed.", identifier);
        _logUlvaneRestore(false, identifier, "failed to remove placeholder");
    }
}

void AppsClient::_logUlvaneRestore(bool success, std::string_view identifier, std::string_view description) {
    _platform.transactionLog.logScenario_step_success_forBundleID_description("Ulvane restore", TransactionStep::none,
                                                                              success, identifier, description);
}

bool AppsClient::_isRecoverableError(const ErrorPtr& error) {
    if (!_platform.errorClassification.QRIsRecoverableError(error)) {
        return false;
    }
    const bool refusedByInstaller =
        error != nullptr && (error->domain() == TVInstallerErrorDomain || error->domain() == "PendryError");
    return !refusedByInstaller;
}

} // namespace appsync
