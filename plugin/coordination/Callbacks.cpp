// What the install coordinator and the registry report, and what a person does on the device.
#include "plugin/client/AppsClient.h"

#include "platform/host/SyncHost.h"
#include "plugin/coordination/Coordination.h"

namespace appsync {

namespace {

QRAssetPtr namelessAsset(AppsClient& client, std::string_view identifier) {
    return QRAsset::downloadAssetWithIdentifier_dataclass_prettyName(identifier, client.supportedDataclasses().front(),
                                                                     std::nullopt);
}

} // namespace

void AppsClient::promiseDidBeginFulfillmentWithIdentifier(std::uint64_t promise) noexcept {
    _log.message("promiseDidBeginFulfillmentWithIdentifier %lu", promise);
}

void AppsClient::coordinatorDidInstallPlaceholder(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    _log.message("coordinatorDidInstallPlaceholder for %{public}@ with error %{public}@", coordinator->bundleID(),
                 coordinator->error());
}

void AppsClient::coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    const auto identifier = coordinator->bundleID();
    const ErrorPtr error = coordinator->error();
    _log.message("coordinatorDidCompleteSuccessfully for %{public}@ with error %{public}@", identifier, error);
    if (!identifier) {
        return;
    }
    changeAssetID_toDo(*identifier, error ? "FAILED" : "INSTALLED");
    cleanRestoreStateForIdentifier(*identifier);
}

void AppsClient::coordinatorShouldPrioritize(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    const auto identifier = coordinator->bundleID();
    if (!identifier) {
        return;
    }
    _log.message("Prioritize %{public}@", *identifier);
    const auto service = _platform.deviceService.sharedInstance();
    if (!service || !service->respondsToPrioritizeAsset()) {
        _log.error("Cannot prioritize %{public}@ as it's not supported", *identifier);
        return;
    }
    // The completion may come after this client has gone, so it holds what it needs.
    service->prioritizeAsset_withCompletion(
        namelessAsset(*this, *identifier), [log = _log, identifier = *identifier](const ErrorPtr& error) {
            log.message("Prioritize %{public}@ finished with error %{public}@", identifier, error);
        });
}

void AppsClient::coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator,
                                                       const ErrorPtr& /*reason*/,
                                                       KXClientIdentifier /*client*/) noexcept {
    const auto identifier = coordinator->bundleID();
    if (!identifier) {
        return;
    }
    const bool alreadyCancelled =
        _accessQueue.sync([&]() REQUIRES(_accessQueue) { return !_userCancelledApps.insert(*identifier).second; });
    const auto service = alreadyCancelled ? nullptr : _platform.deviceService.sharedInstance();
    if (service && service->respondsToCancelAssetTransferForFailedAsset()) {
        _log.message("Cancelling asset sync for %{public}@", *identifier);
        service->cancelAssetTransferForFailedAsset(namelessAsset(*this, *identifier));
    } else {
        _log.error("Cannot cancel %{public}@ as it's already cancelled %d OR the call is not supported", *identifier,
                   alreadyCancelled);
    }
}

void AppsClient::applicationInstallsDidCancel(const PDApplicationProxies& applications) noexcept {
    if (_useInstallCoordinator) {
        _log.message("not handling applicationInstallsDidCancel because install coordination is enabled.");
        return;
    }
    for (const PDApplicationProxyPtr& application : applications) {
        if (application->installType() == PDInstallTypeRestore) {
            assetTransfer_succeeded_withError(namelessAsset(*this, application->applicationIdentifier()), false,
                                              coordination::cancellation(QRErrorCode::cancelledByUser));
        }
    }
}

} // namespace appsync
