// Readying a coordinator for an app that a desktop restore brings back: its user data is there already, its placeholder
// comes from the store metadata, and the store client fetches the app itself, unless the app had been offloaded.
#include "plugin/client/AppsClient.h"

#include "platform/PropertyListSerialization.h"
#include "plugin/coordination/Coordination.h"
#include "plugin/coordination/DemotionStatus.h"

namespace appsync {

using coordination::logStep;

namespace {

/// One coordinated restore: what it is prepared from, and what its preparation has obtained so far.
class RestorePreparation {
  public:
    RestorePreparation(AppsClient& client, const Platform& platform, const PlugInLog& log,
                       std::string_view bundleIdentifier, const std::optional<Data>& sinfData,
                       const std::optional<Data>& iconData, std::uint64_t demotionStatus)
        : _client(client), _platform(platform), _log(log), _bundleIdentifier(bundleIdentifier), _sinfData(sinfData),
          _iconData(iconData), _demotionStatus(demotionStatus) {}

    bool parseMetadata(const Data& tamblinMetadata);
    [[nodiscard]] std::shared_ptr<KXRestoringAppInstallCoordinator> lookUpCoordinator();
    bool prepareDemoted();
    bool prepareCoordinator(KXRestoringAppInstallCoordinator* coordinator);
    void cancel();
    [[nodiscard]] const ErrorPtr& error() const { return _error; }

  private:
    template <class Coordinator> bool _setUserDataPromise(Coordinator* coordinator);
    bool _setInstallOptions();
    bool _setPlaceholderPromise();
    bool _handAssetToStoreClient(KXRestoringAppInstallCoordinator& coordinator);

    AppsClient& _client;
    const Platform& _platform;
    const PlugInLog& _log;
    const std::string _bundleIdentifier;
    const std::optional<Data>& _sinfData;
    const std::optional<Data>& _iconData;
    const std::uint64_t _demotionStatus;

    Dictionary _metadata;
    KXAppInstallCoordinatorPtr _coordinator;
    KXPlaceholderPtr _unacceptedPlaceholder; // built here, and no coordinator's yet
    ErrorPtr _error;                         // the last one that a service reported
};

/// False: the bytes are no property list, or one that is not a dictionary.
bool RestorePreparation::parseMetadata(const Data& tamblinMetadata) {
    auto root = _platform.propertyLists.propertyListWithData(tamblinMetadata.bytes(), &_error);
    Dictionary* metadata = root ? root->mutableDictionary() : nullptr;
    if (!metadata) {
        _log.error("failed to parse tamblin metadata for '%{public}@'. err=%{public}@", _bundleIdentifier, _error);
        return false;
    }
    _metadata = std::move(*metadata);
    return true;
}

/// Attempts nothing further without a coordinator.
bool RestorePreparation::prepareDemoted() {
    const auto coordinator = _platform.restoringDemotedCoordinators
                                 .coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                                     _bundleIdentifier, KXClientSyncHost, true, nullptr, nullptr);
    _coordinator = coordinator;
    return coordinator && _setUserDataPromise(coordinator.get()) && _setPlaceholderPromise();
}

std::shared_ptr<KXRestoringAppInstallCoordinator> RestorePreparation::lookUpCoordinator() {
    auto coordinator =
        _platform.restoringCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            _bundleIdentifier, KXClientSyncHost, true, nullptr, &_error);
    if (!coordinator) {
        _log.error("Error '%{public}@' creating restore coordinator for %{public}@", _error, _bundleIdentifier);
    }
    _coordinator = coordinator;
    return coordinator;
}

/// Without a coordinator the user data and the install options are tried, and fail with a message of their own.
bool RestorePreparation::prepareCoordinator(KXRestoringAppInstallCoordinator* coordinator) {
    bool goesOn = _setUserDataPromise(coordinator);
    if (coordinator && coordinator->hasInstallOptions()) {
        _log.message("Coordinator for %{public}@ has a valid install options", _bundleIdentifier);
    } else {
        goesOn = _setInstallOptions(); // with fresh options the app is restored even without its user data
    }
    return goesOn && _setPlaceholderPromise() && _handAssetToStoreClient(*coordinator);
}

/// False: the promise was refused, or there is no coordinator to take it. One that could not even be made does not
/// count.
template <class Coordinator> bool RestorePreparation::_setUserDataPromise(Coordinator* coordinator) {
    if (coordinator && coordinator->hasUserDataPromise()) {
        _log.message("Coordinator for %{public}@ has a valid user data promise", _bundleIdentifier);
        return true;
    }
    const auto promise = _client._userDataPromiseForBundleIdentifier(_bundleIdentifier);
    if (!promise) {
        return true;
    }
    if (coordinator && coordinator->setUserDataPromise_error(promise, &_error)) {
        _log.message("Added out of band user data promise for for %{public}@", _bundleIdentifier);
        return true;
    }
    _log.error("Error %{public}@ adding out of band data promise for '%{public}@'", _error, _bundleIdentifier);
    promise->cancelForReason_client_error(coordination::cancellation(QRErrorCode::restoreFailed), KXClientSyncHost,
                                          nullptr);
    return false;
}

/// Always false without a coordinator.
bool RestorePreparation::_setInstallOptions() {
    TVInstallOptions options;
    options.setSinfData(_sinfData);
    options.setRegistryInstallType(PDInstallTypeRestore);
    options.setInstallTargetType(coordination::installTargetType);
    options.setTamblinMetadata(TVStoreMetadata{_metadata});
    if (!_coordinator || !_coordinator->setInstallOptions_error(options, &_error)) {
        _log.error("Error %{public}@ setting install options for '%{public}@'", _error, _bundleIdentifier);
        return false;
    }
    _log.message("added install options for %{public}@", _bundleIdentifier);
    return true;
}

bool RestorePreparation::_setPlaceholderPromise() {
    if (_coordinator->hasPlaceholderPromise()) {
        _log.message("Coordinator for %{public}@ has a valid placeholder promise", _bundleIdentifier);
        return true;
    }
    _unacceptedPlaceholder =
        _client._placeHolderForBundleIdentifier_withTamblinMetadata_sinfData_iconData_demotionStatus(
            _bundleIdentifier, _metadata, _sinfData, _iconData, _demotionStatus);
    if (!_unacceptedPlaceholder) {
        return false;
    }
    if (!_coordinator->setPlaceholderPromise_error(_unacceptedPlaceholder, &_error)) {
        _log.error("Error %{public}@ setting placeholder promise for '%{public}@'", _error, _bundleIdentifier);
        return false;
    }
    _unacceptedPlaceholder = nullptr;
    _log.message("added placeholder promise for %{public}@", _bundleIdentifier);
    return true;
}

bool RestorePreparation::_handAssetToStoreClient(KXRestoringAppInstallCoordinator& coordinator) {
    if (!coordinator.setAppAssetPromiseResponsibleClient_error(KXClientCorbin, &_error)) {
        _log.error("Error %{public}@ setting KXClientCorbin to satisfy app data promise for '%{public}@'", _error,
                   _bundleIdentifier);
        return false;
    }
    _log.message("set KXClientCorbin to satisfy app asset promise for %{public}@", _bundleIdentifier);
    return true;
}

/// Cancels the coordinator first, then a placeholder that it has not accepted.
void RestorePreparation::cancel() {
    const ErrorPtr reason = coordination::cancellation(QRErrorCode::restoreFailed);
    if (_coordinator) {
        _log.message("Cancelling coordinator for appBundleIdentifier:%{public}@", _bundleIdentifier);
        _coordinator->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
    if (_unacceptedPlaceholder) {
        _log.message("Cancelling placeholder for appBundleIdentifier:%{public}@", _bundleIdentifier);
        _unacceptedPlaceholder->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
}

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
    logStep(_platform.transactionLog, TransactionStep::restore, TransactionPhase::start, true, bundleIdentifier,
            "Restore demoted app");
    RestorePreparation app(*this, _platform, _log, bundleIdentifier, sinfData, iconData, demotionStatus);
    const bool prepared = app.parseMetadata(tamblinMetadata) && app.prepareDemoted();
    _log.message("processing app restore for demoted app %{public}@ finished with status %d error %{public}@",
                 bundleIdentifier, prepared, app.error());
    logStep(_platform.transactionLog, TransactionStep::restore, TransactionPhase::end, prepared, bundleIdentifier,
            "Restore demoted app");
    if (!prepared) {
        app.cancel();
    }
    return prepared;
}

bool AppsClient::_prepareNonDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData(
    std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData) {
    _log.message("processing app restore for non demoted bundle '%{public}@' with install coordination",
                 bundleIdentifier);
    logStep(_platform.transactionLog, TransactionStep::restore, TransactionPhase::start, true, bundleIdentifier,
            "Restore app");
    RestorePreparation app(*this, _platform, _log, bundleIdentifier, sinfData, iconData, notDemoted);

    bool prepared = false;
    if (app.parseMetadata(tamblinMetadata)) {
        const auto coordinator = app.lookUpCoordinator();
        if (coordinator && coordinator->appAssetPromiseResponsibleClientWithError(nullptr) == KXClientCorbin) {
            _log.message("App asset DRI for %{public}@ is set to %lu - nothing more for qrd to do", bundleIdentifier,
                         KXClientCorbin);
            logStep(_platform.transactionLog, TransactionStep::restore, TransactionPhase::end, true, bundleIdentifier,
                    "Restore app");
            return true;
        }
        prepared = app.prepareCoordinator(coordinator.get());
    }
    _log.message("processing app restore for %{public}@ finished with status %d error %{public}@", bundleIdentifier,
                 prepared, app.error());
    logStep(_platform.transactionLog, TransactionStep::restore, TransactionPhase::end, prepared, bundleIdentifier,
            "Restore app");
    if (!prepared) {
        app.cancel();
    }
    return prepared;
}

} // namespace appsync
