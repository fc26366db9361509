// What happens when an asset has arrived or failed, and at the end of the transfer phase.
#include "plugin/client/AppsClient.h"

#include "concurrency/Semaphore.h"
#include "platform/Backup.h"
#include "platform/InstallationService.h"
#include "platform/Store.h"
#include "platform/TransactionLog.h"
#include "platform/host/SyncHost.h"
#include "plugin/client/Paths.h"

namespace appsync {

namespace {

/// What one transfer that has ended leads to.
class EndedTransfer {
  public:
    EndedTransfer(AppsClient& client, const Platform& platform, const PlugInLog& log, HVManager& backupManager,
                  bool useInstallCoordinator, QRAssetPtr asset)
        : _client(client), _platform(platform), _log(log), _backupManager(backupManager),
          _useInstallCoordinator(useInstallCoordinator), _asset(std::move(asset)), _identifier(_asset->identifier),
          _progress(client._progressForAssetIdentifier(_identifier)) {}
    void succeeded(bool existingApp);
    void failed(const ErrorPtr& error, bool userCancelled);

  private:
    void _settlePath();
    void _restoreAssetArrived();
    void _uninstallPlaceholder(bool userCancelled);

    AppsClient& _client;
    const Platform& _platform;
    const PlugInLog& _log;
    HVManager& _backupManager;
    const bool _useInstallCoordinator;
    const QRAssetPtr _asset;
    const std::string& _identifier;
    const FNProgressPtr _progress;
};

void EndedTransfer::succeeded(bool existingApp) {
    _log.message("asset transfer succeeded for %{public}@", _identifier);
    if (_progress) {
        if (_useInstallCoordinator) {
            _log.message("not setting install phase finished for %{public}@ as coordination is enabled", _identifier);
        } else {
            _platform.workspaces.defaultWorkspace().installPhaseFinishedForProgress(_progress);
        }
    }
    _settlePath();
    if (!paths::isSafe(_asset->path)) {
        _log.message("Ignoring invalid path: %{public}@", _asset->path);
        return;
    }
    if (!_asset->isDownload) {
        _client.changeAssetID_toDo(_identifier, "SENT");
        return;
    }
    _log.message("Received file at %{public}@", _asset->path);
    _client.changeAssetID_toDo(_identifier, "DOWNLOADED");
    if (_asset->isRestore) {
        _restoreAssetArrived();
        return;
    }
    _log.message("Installing synced asset %{public}@", _asset);
    if (_useInstallCoordinator) {
        _client.transferCompleteForApp_existingApp(_asset, existingApp);
    } else {
        _client._enqueueAssetInstall(_asset);
    }
}

/// Makes a relative path absolute, and takes a missing one from the restore state, which may not know it either.
void EndedTransfer::_settlePath() {
    if (!_asset->path) {
        const auto value =
            _client._restoreStatePropertyForKey_identifier_version("path", _identifier, _asset->version());
        const auto path = value ? value->string() : std::nullopt;
        _asset->path = path ? std::optional<std::string>(*path) : std::nullopt;
    } else if (!_asset->path->starts_with("/")) {
        _asset->path = paths::join(paths::publicStaging, *_asset->path);
    }
}

void EndedTransfer::_restoreAssetArrived() {
    if (_asset->completedAssetParts == kQRAssetPartApplicationData) {
        if (_useInstallCoordinator) {
            _log.message("Not processing kQRAssetPartApplicationData for restore asset %{public}@ as coordination is "
                         "enabled",
                         _asset);
        } else {
            _client._enqueueAssetInstall(_asset);
        }
        return;
    }
    if (_useInstallCoordinator) {
        _log.message("Not processing restore asset %{public}@ as coordination is enabled", _asset);
        return;
    }
    if (!_backupManager.restoreDataExistsForApplicationWithBundleID_size(_identifier, nullptr)) {
        _log.message("No restore data exists for %{public}@", _asset->shortDescription());
        _client._enqueueAssetInstall(_asset);
        return;
    }
    _log.message("Restore data exists for %{public}@", _asset->shortDescription());
    if (_progress) {
        _progress->setInstallPhase(PDInstallPhaseRestoringData);
    }
    // Installed once its data has arrived.
    _client._setRestoreStatePropertyValue_forKey_identifier_version(*_asset->path, "path", _identifier,
                                                                    _asset->version());
}

void EndedTransfer::failed(const ErrorPtr& error, bool userCancelled) {
    const bool recoverable = _client._isRecoverableError(error);
    _log.message("failed to transfer asset %{public}@. err=%{public}@, recoverable=%d", _asset, error, recoverable);
    if (recoverable) {
        if (_progress) {
            _progress->setInstallState(PDInstallStateFailed);
        }
        return;
    }
    if (!_platform.workspaces.defaultWorkspace().applicationIsInstalled(_identifier) || _asset->isRestore) {
        return;
    }
    if (_progress && _progress->installState() < PDInstallStateCanceled) {
        _progress->cancel();
    }
    _uninstallPlaceholder(userCancelled);
}

void EndedTransfer::_uninstallPlaceholder(bool userCancelled) {
    _log.message("Uninstalling placeholder %{public}@", _identifier);
    if (_asset->isRestore) { // unreachable while restore assets are left out above; kept for when they are not
        if (_useInstallCoordinator) {
            _log.message(
                "Install coordination is enabled - not calling cancelApplicationRestoreWithBundleID for %{public}@",
                _identifier);
        } else {
            _backupManager.cancelApplicationRestoreWithBundleID_error(_identifier, nullptr);
        }
    }
    bool status = false;
    ErrorPtr error;
    if (!_useInstallCoordinator) {
        _log.message("Uninstalling app using PD %{public}@", _identifier);
        const Dictionary options{{PDUninstallPlaceholdersOnlyKey, true}};
        status = _platform.workspaces.defaultWorkspace().uninstallApplication_withOptions(_identifier, &options);
    } else if (!userCancelled) {
        _log.message("Uninstalling app using install co-ordinator %{public}@", _identifier);
        status = _platform.coordinators.uninstallAppWithBundleID_error(_identifier, &error);
    }
    _log.message("Uninstalled %{public}@ %s install co-ordinator with error %{public}@ with status %d", _identifier,
                 _useInstallCoordinator ? "with" : "without", error, status);
}

/// Returns when the store client has answered.
void refreshReceipts(const Platform& platform, const PlugInLog& log) {
    const auto library = platform.softwareLibraries.init();
    Semaphore refreshed;
    library->refreshReceiptsWithCompletionBlock([&log, &refreshed](const ErrorPtr& error) {
        if (error) {
            log.message("refreshReceiptsWithCompletionBlock failed: %{public}@", error);
        } else {
            log.message("refreshReceiptsWithCompletionBlock succeeded");
        }
        refreshed.signal();
    });
    refreshed.wait();
}

/// Ends the loading phase of transfers that never ended, without coordination.
void endLoading(AppsClient& client, const Platform& platform, const PlugInLog& log,
                const std::vector<std::string>& outstanding, bool success) {
    for (const std::string& identifier : outstanding) {
        log.message("Setting state for outstanding RFX loading phase of asset %{public}@ to %{public}@", identifier,
                    success ? "PDInstallStateFinished" : "PDInstallStateFailed");
        if (const FNProgressPtr progress = client._progressForAssetIdentifier(identifier)) {
            progress->setInstallState(success ? PDInstallStateFinished : PDInstallStateFailed);
            platform.workspaces.defaultWorkspace().installPhaseFinishedForProgress(progress);
        }
    }
}

void logUlvaneRestore(const Platform& platform, bool success, std::string_view identifier,
                      std::string_view description) {
    platform.transactionLog.logScenario_step_success_forBundleID_description("Ulvane restore", TransactionStep::none,
                                                                             success, identifier, description);
}

/// Restore assets never come here today, since their failures count as recoverable; they are told apart all the same.
void undoFailedInstall(AppsClient& client, const Platform& platform, const PlugInLog& log, HVManager& backupManager,
                       bool useInstallCoordinator, const QRAsset& asset) {
    const std::string& identifier = asset.identifier;
    if (asset.isRestore) {
        if (useInstallCoordinator) {
            log.message("not asking backup manager to cancel app restore for %{public}@ as install coordination is "
                        "enabled",
                        identifier);
        } else {
            backupManager.cancelApplicationRestoreWithBundleID_error(identifier, nullptr);
        }
    }
    if (useInstallCoordinator) {
        if (asset.isRestore) {
            log.message("not uninstalling restore asset %{public}@ as install coordination is enabled", identifier);
        } else {
            client.uninstallAppUsingCoordination(identifier);
        }
        return;
    }
    if (platform.workspaces.defaultWorkspace().uninstallApplication_withOptions(identifier, nullptr)) {
        logUlvaneRestore(platform, true, identifier, "placeholder removed");
    } else {
        log.error("Uninstall of %{public}@ failed.", identifier);
        logUlvaneRestore(platform, false, identifier, "failed to remove placeholder");
    }
}

} // namespace

void AppsClient::assetTransfer_succeeded_withError(const QRAssetPtr& asset, bool succeeded,
                                                   const ErrorPtr& error) noexcept {
    const std::string& identifier = asset->identifier;
    bool existingApp = false;
    bool userCancelled = false;
    _accessQueue.sync([&]() REQUIRES(_accessQueue) {
        existingApp = _updatingApps.erase(identifier) > 0;
        userCancelled = _userCancelledApps.erase(identifier) > 0;
    });
    _outstandingRFXTransfers.remove(identifier);
    _log.message("transfer for asset %{public}@ ended with success %c error %{public}@ existingApp:%d", asset,
                 succeeded ? 'y' : 'n', error, existingApp);
    EndedTransfer transfer(*this, _platform, _log, *_backupManager, _useInstallCoordinator, asset);
    if (succeeded) {
        transfer.succeeded(existingApp);
    } else {
        transfer.failed(error, userCancelled);
    }
}

void AppsClient::assetTransferEndedWithSuccess(bool success) noexcept {
    _log.message("asset transfer ended withsuccess: %c", success ? 'y' : 'n');
    _installGroup.wait();
    _notifySkellan(false);
    if (_getAndResetNumAppInstallsAttempted() > 0) {
        refreshReceipts(_platform, _log);
    }
    const auto outstanding = _outstandingRFXTransfers.all();
    if (outstanding.empty()) {
        return;
    }
    if (_useInstallCoordinator) {
        assetSyncFinishedWithStatus_outstandingItems(success, outstanding);
    } else {
        endLoading(*this, _platform, _log, outstanding, success);
    }
    if (success) {
        _log.error("Called with success == YES but with %lu outstanding RFX transfers!", outstanding.size());
    }
    _outstandingRFXTransfers.removeAll();
    _accessQueue.sync([this]() REQUIRES(_accessQueue) {
        _updatingApps.clear();
        _userCancelledApps.clear();
    });
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
        logUlvaneRestore(_platform, false, identifier, "install failed recoverably");
    } else {
        _log.message("%{public}@ install failed unrecoverably: %{public}@", identifier, error);
        changeAssetID_toDo(identifier, "FAILED");
        undoFailedInstall(*this, _platform, _log, *_backupManager, _useInstallCoordinator, *asset);
    }
    cleanRestoreStateForIdentifier(identifier);
}

bool AppsClient::_isRecoverableError(const ErrorPtr& error) {
    if (!_platform.errorClassification.QRIsRecoverableError(error)) {
        return false;
    }
    const bool refusedByInstaller =
        error && (error->domain() == TVInstallerErrorDomain || error->domain() == "PendryError");
    return !refusedByInstaller;
}

} // namespace appsync
