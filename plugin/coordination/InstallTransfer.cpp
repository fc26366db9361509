// Feeding the app asset promise while a file arrives, settling what never arrived, and uninstalling.
#include "plugin/client/AppsClient.h"

#include "plugin/coordination/Coordination.h"

namespace appsync {

namespace {

/// The app's coordinator if there is one that has not failed.
KXAppInstallCoordinatorPtr workingCoordinator(AppsClient& client, std::string_view bundleIdentifier, bool existingApp) {
    auto coordinator =
        client._initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
            bundleIdentifier, existingApp, false, nullptr);
    return coordinator && !coordinator->error() ? coordinator : nullptr;
}

} // namespace

bool AppsClient::updateTransferProgressForApp_existingApp(const QRAssetPtr& asset, bool existingApp) {
    const auto coordinator = workingCoordinator(*this, asset->identifier, existingApp);
    if (!coordinator) {
        return false;
    }
    KXPromisedTransferToPathPtr promise = coordinator->appAssetPromiseWithError(nullptr);
    if (promise && promise->isComplete()) {
        _log.message("Asset promise is already satisfied for %{public}@", asset->identifier);
        return false;
    }
    if (!promise) {
        promise = _createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator(asset->identifier,
                                                                                           asset->path, coordinator);
    }
    _log.message("Updating download progress: %f install progress:%f for %{public}@", asset->downloadProgress,
                 asset->installProgress, asset->identifier);
    if (promise) {
        promise->setPercentComplete(asset->downloadProgress);
    }
    return true;
}

bool AppsClient::transferCompleteForApp_existingApp(const QRAssetPtr& asset, bool existingApp) {
    const auto coordinator = workingCoordinator(*this, asset->identifier, existingApp);
    if (!coordinator) {
        return false;
    }
    KXPromisedTransferToPathPtr promise = coordinator->appAssetPromiseWithError(nullptr);
    if (promise && promise->isComplete()) {
        _log.message("Asset promise is already satisfied for %{public}@", asset->identifier);
        return false;
    }
    if (promise) {
        promise->setTransferPath(asset->path ? FileURL::fileURLWithPath(*asset->path, false) : std::nullopt);
    } else {
        promise = _createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator(asset->identifier,
                                                                                           asset->path, coordinator);
    }
    _log.message("Satisfying asset promise for %{public}@", asset->identifier);
    if (promise) {
        promise->setPercentComplete(1.0);
        promise->setComplete(true);
    }
    return true;
}

void AppsClient::assetSyncFinishedWithStatus_outstandingItems(bool success,
                                                              const std::vector<std::string>& outstandingItems) {
    for (const std::string& bundleIdentifier : outstandingItems) {
        const auto coordinator =
            _platform.coordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                bundleIdentifier, KXClientSyncHost, false, nullptr, nullptr);
        if (!coordinator || success) {
            continue;
        }
        const ErrorPtr reason = coordination::cancellation(QRErrorCode::leftOutstanding);
        _log.message("Cancelling coordinator with error %{public}@ for %{public}@", reason, bundleIdentifier);
        coordinator->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
}

void AppsClient::uninstallAppUsingCoordination(std::string_view bundleIdentifier) {
    coordination::logStep(_platform.transactionLog, TransactionStep::uninstall, TransactionPhase::start, true,
                          bundleIdentifier, "Uninstall app");
    // The completion may come after this client has gone, so it holds what it needs.
    _platform.coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(
        bundleIdentifier, false,
        [log = _log, &transactionLog = _platform.transactionLog,
         identifier = std::string(bundleIdentifier)](const ErrorPtr& error) {
            log.message("Uninstall of %{public}@ with install coordinator succeeded wiht error %{public}@.", identifier,
                        error);
            coordination::logStep(transactionLog, TransactionStep::uninstall, TransactionPhase::end, !error, identifier,
                                  "Uninstall app");
        });
}

} // namespace appsync
