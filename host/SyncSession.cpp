#include "host/SyncSession.h"

#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"
#include "device/services/DevicePolicy.h"
#include "host/DeletedApps.h"
#include "host/InstallOutcomes.h"
#include "host/Interrupt.h"
#include "host/Leftovers.h"
#include "host/PlugIn.h"
#include "host/Transfer.h"
#include "host/TransferQueue.h"
#include "platform/Client.h"
#include "platform/DevicePolicy.h"

#include <algorithm>

namespace appsync::host {

namespace {

/// A change smaller than this is not worth telling the device.
constexpr double progressStep = 0.02;

ErrorPtr interruptedError() {
    return transferError(TransferError::interrupted, "The sync was interrupted; sync again to go on.");
}

} // namespace

SyncSession::SyncSession(const SyncParties& parties, const desktop::SyncList& list) : _parties(parties), _list(list) {
    for (const device::Application& app : parties.device.registry().applications()) {
        _namesBefore[app.identifier] = app.name;
        if (app.isInstalled) {
            _installedBefore.insert(app.identifier);
        }
    }
}

SyncReport SyncSession::run() {
    if (ErrorPtr failure = _open()) {
        SyncReport report;
        report.failure = std::move(failure);
        return report;
    }
    _transferAll(_plan());
    _close();
    return _report();
}

ErrorPtr SyncSession::_open() {
    QRClient& client = _parties.client;
    const auto dataclasses = client.supportedDataclasses();
    if (std::ranges::find(dataclasses, "Application") == dataclasses.end()) {
        return hostError("The plug-in does not handle the data class \"Application\".");
    }
    if (const auto disabled = client.disabledAssetTypes(); disabled && disabled->contains("Application")) {
        return hostError("This device allows neither installing nor removing apps.");
    }
    const std::string anchor = client.currentSyncAnchor();
    ErrorPtr error;
    if (!client.prepareForSyncWithHostAnchor_progressCallback_error(anchor, {}, &error) ||
        !client.reconcileSync_withNewAnchor_progressCallback_error(nullptr, anchor, {}, &error)) {
        return error != nullptr ? error : hostError("The plug-in could not begin the sync; `qrd log` tells why.");
    }
    return nullptr;
}

std::vector<QRAssetPtr> SyncSession::_plan() {
    if (_parties.client.responds(QRClientOperation::installedAssets)) {
        _deleted = deletedApps(_parties.client.installedAssets());
    }
    auto assets = _parties.client.outstandingAssetTransfers();
    std::map<std::string_view, std::uint64_t> sizes;
    for (const desktop::AppArchive* app : _list.installs) {
        sizes[app->identifier] = app->size;
    }
    std::vector<AppStatus> planned;
    for (const QRAssetPtr& asset : assets) {
        _requested.insert(asset->identifier);
        planned.push_back({asset->identifier, asset->prettyName.value_or(asset->identifier), sizes[asset->identifier]});
    }
    _parties.view.began(std::move(planned));
    return assets;
}

void SyncSession::_transferAll(const std::vector<QRAssetPtr>& assets) {
    const auto queue = std::make_shared<TransferQueue>(assets);
    _parties.deviceService.setQueue(queue);
    while (const QRAssetPtr asset = queue->next()) {
        const ErrorPtr error = _transferOne(asset, *queue);
        if (error != nullptr) {
            _transferErrors[asset->identifier] = error;
            _allTransferred = false;
        } else {
            asset->path = receivedPath(asset->identifier);
            asset->completedAssetParts = kQRAssetPartApplicationPackage;
        }
        _parties.view.transferEnded(asset->identifier, error);
        _parties.client.assetTransfer_succeeded_withError(asset, error == nullptr, error);
    }
    _parties.deviceService.setQueue(nullptr);
    _parties.client.assetTransferEndedWithSuccess(_allTransferred);
}

ErrorPtr SyncSession::_transferOne(const QRAssetPtr& asset, const TransferQueue& queue) {
    const auto found = std::ranges::find(_list.installs, asset->identifier, &desktop::AppArchive::identifier);
    if (found == _list.installs.end()) {
        return transferError(TransferError::sourceFailed, "The library has no '" + asset->identifier + "'.");
    }
    const desktop::AppArchive& app = **found;
    const auto stopReason = [&]() -> ErrorPtr {
        if (queue.isCancelled(asset->identifier)) {
            return cancelledByUserError();
        }
        return Interrupt::requested() ? interruptedError() : nullptr;
    };
    if (ErrorPtr reason = stopReason()) {
        return reason;
    }
    _parties.view.transferBegan(asset->identifier);
    double told = 0;
    const auto progress = [&](double fraction) {
        if (fraction - told < progressStep && fraction < 1) {
            return;
        }
        told = fraction;
        asset->downloadProgress = fraction;
        _parties.view.transferring(asset->identifier, fraction);
        _parties.client.assetTransfer_updatedProgress(asset, fraction);
    };
    return transfer(_parties.device.files(), {app.path, asset->identifier, progress, stopReason, _parties.bandwidth});
}

void SyncSession::_close() {
    _parties.device.coordinator().waitUntilIdle();
    clearReceivedFiles(_parties.device);
    _parties.view.ended();
    _parties.client.syncEndedWithSuccess(_allTransferred);
    if (!_allTransferred) {
        return;
    }
    if (const ErrorPtr error = writeLastSyncApps(_parties.device)) {
        _parties.view.note("The list of the device's apps could not be kept for the next sync: " + reasonOf(error));
    }
}

SyncReport SyncSession::_report() const {
    SyncReport report;
    for (const std::string& identifier : _list.removals) {
        report.apps.push_back(_reportOfRemoval(identifier));
    }
    for (const desktop::AppArchive* app : _list.installs) {
        report.apps.push_back(_reportOfInstall(*app));
    }
    report.problems = _list.problems;
    report.deleted = _deleted;
    report.interrupted = Interrupt::requested();
    return report;
}

AppReport SyncSession::_reportOfInstall(const desktop::AppArchive& app) const {
    AppReport report{app.identifier, app.name.value_or(app.identifier), app.version, AppResult::failed, ""};
    if (const auto error = _transferErrors.find(app.identifier); error != _transferErrors.end()) {
        report.reason = reasonOf(error->second);
        switch (static_cast<TransferError>(error->second->code())) {
        case TransferError::interrupted: report.result = AppResult::interrupted; break;
        case TransferError::cancelledByUser: report.result = AppResult::cancelled; break;
        default: break;
        }
        return report;
    }
    const auto outcome = _parties.outcomes.outcomeOf(app.identifier);
    if (outcome && *outcome == nullptr) {
        report.result = _installedBefore.contains(app.identifier) ? AppResult::updated : AppResult::installed;
    } else if (outcome) {
        const bool isCancelled = _parties.outcomes.isCancelled(app.identifier);
        report.result = isCancelled ? AppResult::cancelled : AppResult::failed;
        report.reason = reasonOf(isCancelled ? cancelledByUserError() : *outcome);
    } else if (_requested.contains(app.identifier) && Interrupt::requested()) {
        report.result = AppResult::interrupted;
        report.reason = _isWaiting(app.identifier) ? "It is in use and could not be replaced; close it and sync again."
                                                   : reasonOf(interruptedError());
    } else if (_requested.contains(app.identifier)) {
        report.reason = "The device did not say how the install ended; `qrd log` tells more.";
    } else if (_parties.device.policy().value(OLFeatureAppInstallationAllowed) == OLBoolValue::explicitlyNo) {
        report.result = AppResult::refused;
        report.reason = "This device does not allow installing apps.";
    } else {
        report.result = AppResult::refused;
        report.reason = "The device did not ask for it; `qrd log` tells why.";
    }
    return report;
}

bool SyncSession::_isWaiting(std::string_view identifier) const {
    const SyncStatus status = _parties.view.status();
    const auto app = std::ranges::find(status.apps, identifier, &AppStatus::identifier);
    return app != status.apps.end() && app->stage == AppStage::waiting;
}

AppReport SyncSession::_reportOfRemoval(const std::string& identifier) const {
    const auto name = _namesBefore.find(identifier);
    AppReport report{identifier, name != _namesBefore.end() ? name->second : identifier, std::nullopt,
                     AppResult::removed, ""};
    if (!_parties.device.registry().isInstalled(identifier)) {
        return report;
    }
    if (_parties.device.policy().value(OLFeatureAppRemovalAllowed) == OLBoolValue::explicitlyNo) {
        report.result = AppResult::refused;
        report.reason = "This device does not allow removing apps.";
    } else {
        report.result = AppResult::failed;
        report.reason = "The device could not remove it; `qrd log` tells why.";
    }
    return report;
}

} // namespace appsync::host
