// The progress of a transfer, shown on the app's placeholder.
#include "plugin/client/AppsClient.h"

#include <algorithm>
#include <cmath>

namespace appsync {

namespace {

constexpr std::int64_t progressUnits = 1000;

/// Not clamped, but for what no count can hold: that becomes the nearest real number, and what is no number 0.
std::int64_t completedUnits(double fraction) {
    constexpr double highest = 0x1.fffffffffffffp62;
    const double units = fraction * static_cast<double>(progressUnits);
    return std::isnan(units) ? 0 : static_cast<std::int64_t>(std::clamp(units, -0x1p63, highest));
}

} // namespace

void AppsClient::assetTransfer_updatedProgress(const QRAssetPtr& asset, double fraction) noexcept {
    const std::string& identifier = asset->identifier;
    _log.message("finished transferring %lf for %{public}@", fraction, identifier);
    if (_useInstallCoordinator) {
        const bool existingApp =
            _accessQueue.sync([&]() REQUIRES(_accessQueue) { return _updatingApps.contains(identifier); });
        updateTransferProgressForApp_existingApp(asset, existingApp);
    } else if (const FNProgressPtr progress = _progressForAssetIdentifier(identifier)) {
        progress->setInstallState(PDInstallStateActive);
        if (progress->totalUnitCount() != progressUnits) {
            progress->setTotalUnitCount(progressUnits);
        }
        progress->setCompletedUnitCount(completedUnits(fraction));
    }
    _outstandingRFXTransfers.add(identifier);
}

FNProgressPtr AppsClient::_progressForAssetIdentifier(std::string_view identifier) {
    if (_useInstallCoordinator) {
        _log.message("Not returning FNProgress * for %{public}@ as kestrow is enabled", identifier);
        return nullptr;
    }
    const auto proxy = _platform.applicationProxies.applicationProxyForIdentifier_placeholder(identifier, true);
    FNProgressPtr progress = proxy ? _platform.workspaces.defaultWorkspace().installProgressForApplication_withPhase(
                                         proxy, PDInstallPhaseLoading)
                                   : nullptr;
    _log.error("Returning %{public}@ progress for %{public}@", progress, identifier);
    return progress;
}

} // namespace appsync
