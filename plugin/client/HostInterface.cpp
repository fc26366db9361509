// The host's simple questions, device policy and the install counter.
#include "plugin/client/AppsClient.h"

#include "platform/DevicePolicy.h"

#include <algorithm>
#include <array>

namespace appsync {

namespace {

constexpr const char* dataclass = "Application";

constexpr std::array implementedOperations = {
    QRClientOperation::supportedDataclasses,
    QRClientOperation::currentSyncAnchor,
    QRClientOperation::prepareForSyncWithHostAnchor_progressCallback_error,
    QRClientOperation::reconcileSync_withNewAnchor_progressCallback_error,
    QRClientOperation::syncEndedWithSuccess,
    QRClientOperation::reconcileRestoreOfType_withError,
    QRClientOperation::outstandingAssetTransfers,
    QRClientOperation::assetTransfer_succeeded_withError,
    QRClientOperation::assetTransfer_updatedProgress,
    QRClientOperation::assetInstallFailed_withError,
    QRClientOperation::assetInstallSucceeded,
    QRClientOperation::assetTransferEndedWithSuccess,
    QRClientOperation::prepareForBackup,
    QRClientOperation::zuvexIDsForAssets,
    QRClientOperation::clearSyncData,
    QRClientOperation::disabledAssetTypes,
    QRClientOperation::installedAssetMetrics,
    QRClientOperation::installedAssets,
};

bool isAllowed(OLProfileConnectionClass& connections, std::string_view setting) {
    return connections.sharedConnection()->effectiveBoolValueForSetting(setting) != OLBoolValue::explicitlyNo;
}

} // namespace

bool AppsClient::responds(QRClientOperation operation) const noexcept {
    return std::ranges::find(implementedOperations, operation) != implementedOperations.end();
}

std::vector<std::string> AppsClient::supportedDataclasses() noexcept {
    return {dataclass};
}

std::string AppsClient::currentSyncAnchor() noexcept {
    return "NO_APP_SYNC_ANCHOR";
}

bool AppsClient::prepareForSyncWithHostAnchor_progressCallback_error(std::string_view /*hostAnchor*/,
                                                                     const QRProgressCallback& /*progress*/,
                                                                     ErrorPtr* /*error*/) noexcept {
    _kplAppsToIgnore.removeAll();
    return true;
}

std::optional<std::set<std::string>> AppsClient::disabledAssetTypes() noexcept {
    if (_appInstallationAllowed() || _appRemovalAllowed()) {
        return std::nullopt;
    }
    return std::set<std::string>{dataclass};
}

bool AppsClient::_appInstallationAllowed() {
    return isAllowed(_platform.profileConnections, OLFeatureAppInstallationAllowed);
}

bool AppsClient::_appRemovalAllowed() {
    return isAllowed(_platform.profileConnections, OLFeatureAppRemovalAllowed);
}

std::uint32_t AppsClient::_getAndResetNumAppInstallsAttempted() {
    std::uint32_t attempted = _numAppInstallsAttempted.load();
    while (!_numAppInstallsAttempted.compare_exchange_weak(attempted, 0)) {
    }
    return attempted;
}

} // namespace appsync
