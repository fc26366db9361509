// The factories of coordinators, placeholders and promises.
#include "plugin/client/AppsClient.h"

#include "plugin/coordination/Coordination.h"

namespace appsync {

using coordination::cancellation;
using coordination::logStep;

KXAppInstallCoordinatorPtr
AppsClient::_initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
    std::string_view bundleIdentifier, bool existingApp, bool createIfNotExisting, ErrorPtr* error) {
    logStep(_platform.transactionLog, TransactionStep::coordinatorCreation, TransactionPhase::start, true,
            bundleIdentifier, "Create coordinator");
    ErrorPtr lookupError;
    const auto lookUp = [&](auto& coordinators) -> KXAppInstallCoordinatorPtr {
        return coordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            bundleIdentifier, KXClientSyncHost, createIfNotExisting, nullptr, &lookupError);
    };
    KXAppInstallCoordinatorPtr coordinator =
        existingApp ? lookUp(_platform.updatingCoordinators) : lookUp(_platform.initiatingCoordinators);
    if (coordinator) {
        const char* kind = existingApp ? "updating" : "initiating";
        const KXClientIdentifier creator = coordinator->creatorIdentifier();
        if (creator != KXClientSyncHost) {
            _log.message("IC returned %s coordinator %{public}@ (createIfNotExisting:%d, existingApp:%d, "
                         "creatorIdentifier=%lu) for %{public}@ with error %{public}@ - Will not perform "
                         "install/update for this bundle",
                         kind, coordinator, createIfNotExisting, existingApp, creator, bundleIdentifier, lookupError);
            coordinator = nullptr;
        } else {
            _log.message("Created %s coordinator %{public}@ (createIfNotExisting:%d, existingApp:%d) for %{public}@ "
                         "with error %{public}@",
                         kind, coordinator, createIfNotExisting, existingApp, bundleIdentifier, lookupError);
        }
    }
    if (error) {
        *error = lookupError;
    }
    logStep(_platform.transactionLog, TransactionStep::coordinatorCreation, TransactionPhase::end,
            coordinator != nullptr, bundleIdentifier, "Finished creating coordinator");
    return coordinator;
}

std::shared_ptr<KXRestoringAppInstallCoordinator>
AppsClient::_restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error(
    std::string_view bundleIdentifier, bool createIfNotExisting, ErrorPtr* error) {
    logStep(_platform.transactionLog, TransactionStep::coordinatorCreation, TransactionPhase::start, true,
            bundleIdentifier, "Create restore coordinator");
    ErrorPtr lookupError;
    auto coordinator =
        _platform.restoringCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            bundleIdentifier, KXClientSyncHost, createIfNotExisting, nullptr, &lookupError);
    _log.message("Created restore coordinator %{public}@ (createIfNotExisting:%d) for %{public}@ with error "
                 "%{public}@",
                 coordinator, createIfNotExisting, bundleIdentifier, lookupError);
    if (error) {
        *error = lookupError;
    }
    logStep(_platform.transactionLog, TransactionStep::coordinatorCreation, TransactionPhase::end,
            coordinator != nullptr, bundleIdentifier, "Finished creating restore coordinator");
    return coordinator;
}

KXPlaceholderPtr AppsClient::_placeHolderForBundleIdentifier_name_installType(std::string_view bundleIdentifier,
                                                                              std::string_view name,
                                                                              std::uint64_t installType) {
    logStep(_platform.transactionLog, TransactionStep::placeholderCreation, TransactionPhase::start, true,
            bundleIdentifier, "Create placeholder");
    auto placeholder = _platform.placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        name, bundleIdentifier, installType, KXClientSyncHost);
    _log.message("Created placeholder %{public}@ for '%{public}@' of type %lu", placeholder, bundleIdentifier,
                 installType);
    logStep(_platform.transactionLog, TransactionStep::placeholderCreation, TransactionPhase::end,
            placeholder != nullptr, bundleIdentifier, "Finished creating placeholder");
    return placeholder;
}

KXPromisedTransferToPathPtr AppsClient::_createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator(
    std::string_view bundleIdentifier, const std::optional<std::string>& path,
    const KXAppInstallCoordinatorPtr& coordinator) {
    if (!coordinator) {
        return nullptr;
    }
    const std::string name = std::string(bundleIdentifier) + "-Asset";
    const auto url = path ? FileURL::fileURLWithPath(*path, false) : std::nullopt;
    auto promise = url ? _platform.transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
                             name, KXClientSyncHost, *url, 0)
                       : _platform.transferPromises.initWithName_client_diskSpaceNeeded(name, KXClientSyncHost, 0);
    if (!promise) {
        _log.error("Error creating asset promise for '%{public}@'", bundleIdentifier);
        return nullptr;
    }
    ErrorPtr error;
    if (coordinator->setAppAssetPromise_error(promise, &error)) {
        _log.message("Added app asset promise to coordinator for '%{public}@'", bundleIdentifier);
        return promise;
    }
    _log.error("Error %{public}@ adding app asset promise at %{public}@ to '%{public}@'", error, path,
               bundleIdentifier);
    _log.error("Cancelling asset promise for '%{public}@'", bundleIdentifier);
    promise->cancelForReason_client_error(cancellation(QRErrorCode::promiseNotAttached), KXClientSyncHost, nullptr);
    return nullptr;
}

KXPromisedTransferToPathPtr
AppsClient::_createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
    std::string_view bundleIdentifier, std::string_view transferPath, std::uint64_t diskSpaceNeeded,
    const KXPlaceholderPtr& placeholder, bool forAppInstall) {
    if (!placeholder) {
        _log.error("Placeholder to add icon promise is nil for '%{public}@'", bundleIdentifier);
        return nullptr;
    }
    const auto url = FileURL::fileURLWithPath(transferPath, false);
    auto promise = url ? _platform.transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
                             std::string(bundleIdentifier) + "-Icon", KXClientSyncHost, *url, diskSpaceNeeded)
                       : nullptr;
    if (!promise) {
        return nullptr;
    }
    promise->setPercentComplete(1.0);
    promise->setComplete(true);
    ErrorPtr error;
    if (placeholder->setIconPromise_error(promise, &error)) {
        _log.message("Added icon promise to placeholder for '%{public}@'", bundleIdentifier);
        return promise;
    }
    _log.error("Error %{public}@ adding icon promise to placeholder for '%{public}@'", error, bundleIdentifier);
    const auto code = forAppInstall ? QRErrorCode::promiseNotAttached : QRErrorCode::restoreFailed;
    promise->cancelForReason_client_error(cancellation(code), KXClientSyncHost, nullptr);
    return nullptr;
}

KXPromisedOutOfBandTransferPtr AppsClient::_userDataPromiseForBundleIdentifier(std::string_view bundleIdentifier) {
    auto promise = _platform.outOfBandPromises.initWithName_client_diskSpaceNeeded(
        std::string(bundleIdentifier) + "-UserData", KXClientSyncHost, 0);
    if (promise) {
        promise->setPercentComplete(1.0);
        promise->setComplete(true);
    }
    return promise;
}

} // namespace appsync
