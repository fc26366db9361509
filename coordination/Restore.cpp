// Readying a coordinator for an app that a desktop restore brings back: its user data is there already, its placeholder
// comes from the store metadata, and the store client fetches the app itself, unless the app had been offloaded.
#include "client/AppsClient.h"

#include "coordination/Coordination.h"
#include "coordination/RestorePreparation.h"
#include "platform/PropertyListSerialization.h"
#include "platform/TransactionLog.h"

namespace appsync {

namespace {

constexpr std::uint32_t installTargetType = 1;

} // namespace

bool AppsClient::prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
    std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData, std::uint64_t demotionStatus) {
    if (demotionStatus != notDemoted) {
        return _prepareDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData_demotionStatus(
            bundleIdentifier, tamblinMetadata, sinfData, iconData, demotionStatus);
    }
    return _prepareNonDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData(
        bundleIdentifier, tamblinMetadata, sinfData, iconData);
}

bool AppsClient::_prepareDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData_demotionStatus(
    std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData, std::uint64_t demotionStatus) {
    _log.message("processing app restore for demoted bundle '%{public}@' with install coordination", bundleIdentifier);
    _logStep(TransactionStep::restore, TransactionPhase::start, true, bundleIdentifier, "Restore demoted app");
    RestorePreparation app{std::string(bundleIdentifier), sinfData, iconData, demotionStatus};

    bool prepared = false;
    if (_parseRestoreMetadata(app, tamblinMetadata)) {
        const auto coordinator = _platform.restoringDemotedCoordinators
                                     .coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                                         bundleIdentifier, KXClientSyncHost, true, nullptr, nullptr);
        app.coordinator = coordinator;
        prepared =
            coordinator != nullptr && _setUserDataPromise(app, coordinator.get()) && _setRestorePlaceholderPromise(app);
    }
    _log.message("processing app restore for demoted app %{public}@ finished with status %d error %{public}@",
                 bundleIdentifier, prepared, app.error);
    _logStep(TransactionStep::restore, TransactionPhase::end, prepared, bundleIdentifier, "Restore demoted app");
    if (!prepared) {
        _cancelRestore(app);
    }
    return prepared;
}

bool AppsClient::_prepareNonDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData(
    std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData) {
    _log.message("processing app restore for non demoted bundle '%{public}@' with install coordination",
                 bundleIdentifier);
    _logStep(TransactionStep::restore, TransactionPhase::start, true, bundleIdentifier, "Restore app");
    RestorePreparation app{std::string(bundleIdentifier), sinfData, iconData, notDemoted};

    bool prepared = false;
    if (_parseRestoreMetadata(app, tamblinMetadata)) {
        const auto coordinator = _restoringCoordinator(app);
        if (coordinator != nullptr &&
            coordinator->appAssetPromiseResponsibleClientWithError(nullptr) == KXClientCorbin) {
            _log.message("App asset DRI for %{public}@ is set to %lu - nothing more for qrd to do", bundleIdentifier,
                         KXClientCorbin);
            _logStep(TransactionStep::restore, TransactionPhase::end, true, bundleIdentifier, "Restore app");
            return true;
        }
        prepared = _prepareRestoringCoordinator(app, coordinator.get());
    }
    _log.message("processing app restore for %{public}@ finished with status %d error %{public}@", bundleIdentifier,
                 prepared, app.error);
    _logStep(TransactionStep::restore, TransactionPhase::end, prepared, bundleIdentifier, "Restore app");
    if (!prepared) {
        _cancelRestore(app);
    }
    return prepared;
}

/// False: the bytes are no property list, or one that is not a dictionary.
bool AppsClient::_parseRestoreMetadata(RestorePreparation& app, const Data& tamblinMetadata) {
    auto root = _platform.propertyLists.propertyListWithData(tamblinMetadata.bytes(), &app.error);
    Dictionary* metadata = root ? root->mutableDictionary() : nullptr;
    if (metadata == nullptr) {
        _log.error("failed to parse tamblin metadata for '%{public}@'. err=%{public}@", app.bundleIdentifier,
                   app.error);
        return false;
    }
    app.metadata = std::move(*metadata);
    return true;
}

std::shared_ptr<KXRestoringAppInstallCoordinator> AppsClient::_restoringCoordinator(RestorePreparation& app) {
    auto coordinator =
        _platform.restoringCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            app.bundleIdentifier, KXClientSyncHost, true, nullptr, &app.error);
    if (coordinator == nullptr) {
        _log.error("Error '%{public}@' creating restore coordinator for %{public}@", app.error, app.bundleIdentifier);
    }
    app.coordinator = coordinator;
    return coordinator;
}

/// Without a coordinator the user data and the install options are tried, and fail with a message of their own.
bool AppsClient::_prepareRestoringCoordinator(RestorePreparation& app, KXRestoringAppInstallCoordinator* coordinator) {
    bool goesOn = _setUserDataPromise(app, coordinator);
    if (coordinator != nullptr && coordinator->hasInstallOptions()) {
        _log.message("Coordinator for %{public}@ has a valid install options", app.bundleIdentifier);
    } else {
        goesOn = _setRestoreOptions(app); // with fresh options the app is restored even without its user data
    }
    return goesOn && _setRestorePlaceholderPromise(app) && _handAssetToStoreClient(app, *coordinator);
}

/// False: the promise was refused, or there is no coordinator to take it. One that could not even be made does not
/// count.
template <class Coordinator> bool AppsClient::_setUserDataPromise(RestorePreparation& app, Coordinator* coordinator) {
    if (coordinator != nullptr && coordinator->hasUserDataPromise()) {
        _log.message("Coordinator for %{public}@ has a valid user data promise", app.bundleIdentifier);
        return true;
    }
    const auto promise = _userDataPromiseForBundleIdentifier(app.bundleIdentifier);
    if (promise == nullptr) {
        return true;
    }
    if (coordinator != nullptr && coordinator->setUserDataPromise_error(promise, &app.error)) {
        _log.message("Added out of band user data promise for for %{public}@", app.bundleIdentifier);
        return true;
    }
    _log.error("Error %{public}@ adding out of band data promise for '%{public}@'", app.error, app.bundleIdentifier);
    promise->cancelForReason_client_error(coordination::cancellation(QRErrorCode::restoreFailed), KXClientSyncHost,
                                          nullptr);
    return false;
}

/// Always false without a coordinator.
bool AppsClient::_setRestoreOptions(RestorePreparation& app) {
    TVInstallOptions options;
    options.setSinfData(app.sinfData);
    options.setRegistryInstallType(PDInstallTypeRestore);
    options.setInstallTargetType(installTargetType);
    options.setTamblinMetadata(TVStoreMetadata{app.metadata});
    if (app.coordinator == nullptr || !app.coordinator->setInstallOptions_error(options, &app.error)) {
        _log.error("Error %{public}@ setting install options for '%{public}@'", app.error, app.bundleIdentifier);
        return false;
    }
    _log.message("added install options for %{public}@", app.bundleIdentifier);
    return true;
}

bool AppsClient::_setRestorePlaceholderPromise(RestorePreparation& app) {
    if (app.coordinator->hasPlaceholderPromise()) {
        _log.message("Coordinator for %{public}@ has a valid placeholder promise", app.bundleIdentifier);
        return true;
    }
    app.unacceptedPlaceholder = _placeHolderForBundleIdentifier_withTamblinMetadata_sinfData_iconData_demotionStatus(
        app.bundleIdentifier, app.metadata, app.sinfData, app.iconData, app.demotionStatus);
    if (app.unacceptedPlaceholder == nullptr) {
        return false;
    }
    if (!app.coordinator->setPlaceholderPromise_error(app.unacceptedPlaceholder, &app.error)) {
        _log.error("Error %{public}@ setting placeholder promise for '%{public}@'", app.error, app.bundleIdentifier);
        return false;
    }
    app.unacceptedPlaceholder = nullptr;
    _log.message("added placeholder promise for %{public}@", app.bundleIdentifier);
    return true;
}

bool AppsClient::_handAssetToStoreClient(RestorePreparation& app, KXRestoringAppInstallCoordinator& coordinator) {
    if (!coordinator.setAppAssetPromiseResponsibleClient_error(KXClientCorbin, &app.error)) {
        _log.error("Error %{public}@ setting KXClientCorbin to satisfy app data promise for '%{public}@'", app.error,
                   app.bundleIdentifier);
        return false;
    }
    _log.message("set KXClientCorbin to satisfy app asset promise for %{public}@", app.bundleIdentifier);
    return true;
}

/// Cancels the coordinator first, then a placeholder that it has not accepted.
void AppsClient::_cancelRestore(const RestorePreparation& app) {
    const ErrorPtr reason = coordination::cancellation(QRErrorCode::restoreFailed);
    if (app.coordinator != nullptr) {
        _log.message("Cancelling coordinator for appBundleIdentifier:%{public}@", app.bundleIdentifier);
        app.coordinator->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
    if (app.unacceptedPlaceholder != nullptr) {
        _log.message("Cancelling placeholder for appBundleIdentifier:%{public}@", app.bundleIdentifier);
        app.unacceptedPlaceholder->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
}

} // namespace appsync
