#include "host/session/SyncSession.h"

#include "concurrency/OperationQueue.h"
#include "concurrency/Semaphore.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"
#include "device/root/DeviceFileSystem.h"
#include "device/services/BackupService.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/session/DeletedApps.h"
#include "host/session/InstallOutcomes.h"
#include "host/session/Leftovers.h"
#include "host/transfer/Transfer.h"
#include "host/transfer/TransferQueue.h"
#include "platform/host/Client.h"
#include "timeline/Timeline.h"

#include <algorithm>
#include <utility>

namespace appsync::host {

namespace {

/// A change smaller than this is not worth telling the device.
constexpr double progressStep = 0.02;
/// Each is written down durably before the plug-in returns; those that are told of at the same time share one writing,
/// in any order. No more than these wait to be told: what has not been sent can still be asked for first, or taken
/// back.
constexpr unsigned maxArrivalsToldAtOnce = 16;

ErrorPtr interruptedError() {
    return transferError(TransferError::interrupted, "The sync was interrupted; sync again to go on.");
}

ErrorPtr notInThisSyncError() {
    return transferError(TransferError::interrupted, "This sync does not bring it; a later one may.");
}

const std::string& identifierOf(const desktop::FailedApp& failed) {
    return failed.app->identifier;
}

} // namespace

SyncReport SyncSession::run() {
    if (const auto opened = _open(); !opened) {
        SyncReport report;
        report.problems = _plan.report.problems;
        report.failure = opened.error();
        return report;
    }
    _transferAll(_assetsToSend());
    _close();
    return _report();
}

Result<void> SyncSession::_open() {
    const Span span(_parties.device.files().timeline(), "beginning");
    QRClient& client = _parties.client;
    const auto dataclasses = client.supportedDataclasses();
    if (std::ranges::find(dataclasses, "Application") == dataclasses.end()) {
        return hostError("The plug-in does not handle the data class \"Application\".");
    }
    if (const auto disabled = client.disabledAssetTypes(); disabled && disabled->contains("Application")) {
        return nothingAllowedError();
    }
    const std::string anchor = client.currentSyncAnchor();
    ErrorPtr error;
    if (!client.prepareForSyncWithHostAnchor_progressCallback_error(anchor, {}, &error) ||
        !client.reconcileSync_withNewAnchor_progressCallback_error(nullptr, anchor, {}, &error)) {
        return error ? error : hostError("The plug-in could not begin the sync; `qrd log` tells why.");
    }
    return {};
}

std::vector<QRAssetPtr> SyncSession::_assetsToSend() {
    if (_parties.client.responds(QRClientOperation::installedAssets)) {
        _deleted = deletedApps(_parties.client.installedAssets());
    }
    const Span span(_parties.device.files().timeline(), "planning");
    std::map<std::string_view, const desktop::AppArchive*> archives;
    for (const auto* apps : {&_list.installs, &_list.restores}) {
        for (const desktop::AppArchive* app : *apps) {
            archives.emplace(app->identifier, app);
        }
    }
    std::vector<QRAssetPtr> assets;
    std::vector<AppStatus> planned;
    for (const QRAssetPtr& asset : _parties.client.outstandingAssetTransfers()) {
        const auto app = archives.find(asset->identifier);
        if (app == archives.end()) { // it has a placeholder, for which the device asks whatever it is told
            _parties.client.assetTransfer_succeeded_withError(asset, false, notInThisSyncError());
            continue;
        }
        assets.push_back(asset);
        planned.push_back({asset->identifier, asset->prettyName.value_or(asset->identifier), app->second->size});
        _requested.emplace(asset->identifier, app->second);
    }
    _parties.view.began(std::move(planned));
    return assets;
}

void SyncSession::_transferAll(const std::vector<QRAssetPtr>& assets) {
    std::map<std::string, QRAssetPtr> byIdentifier;
    std::vector<std::string> order;
    for (const QRAssetPtr& asset : assets) {
        byIdentifier[asset->identifier] = asset;
        order.push_back(asset->identifier);
    }
    const auto queue = std::make_shared<TransferQueue>(std::move(order));
    _parties.deviceService.setQueue(queue);
    Semaphore places(maxArrivalsToldAtOnce);
    OperationQueue arrivals(maxArrivalsToldAtOnce);
    const auto next = [&] {
        places.wait(); // before an asset is chosen
        return queue->next();
    };
    while (const auto identifier = next()) {
        const QRAssetPtr& asset = byIdentifier.at(*identifier);
        const auto sent = asset->isRestore ? _transferRestore(asset, *queue) : _transferOne(asset, *queue);
        if (sent && !asset->isRestore) {
            _noteArrival(*asset, kQRAssetPartApplicationPackage);
            arrivals.addOperation([&, asset] {
                _tellArrival(asset);
                places.signal();
            });
            continue;
        }
        if (!sent) {
            _failed(asset, sent.error());
        }
        places.signal();
    }
    const Span span(_parties.device.files().timeline(), "end of transfers");
    for (unsigned place = 1; place < maxArrivalsToldAtOnce; ++place) { // one is held already
        places.wait();
    }
    _parties.deviceService.setQueue(nullptr);
    _parties.client.assetTransferEndedWithSuccess(_allTransferred);
}

void SyncSession::_noteArrival(QRAsset& asset, std::uint32_t part) {
    // Where a package is that came with an earlier sync, the plug-in knows by the version.
    const bool isHere = part == kQRAssetPartApplicationPackage || !asset.version();
    asset.path = isHere ? std::optional(receivedPath(asset.identifier)) : std::nullopt;
    asset.completedAssetParts = part;
    _parties.view.transferEnded(asset.identifier, nullptr);
    Timeline::beginWaiting(_parties.device.files().timeline(), "waiting", asset.identifier);
}

void SyncSession::_tellArrival(const QRAssetPtr& asset) {
    const Span span(_parties.device.files().timeline(), "arrival", asset->identifier);
    _parties.client.assetTransfer_succeeded_withError(asset, true, nullptr);
}

void SyncSession::_failed(const QRAssetPtr& asset, const ErrorPtr& error) {
    _transferErrors[asset->identifier] = error;
    _allTransferred = false;
    _parties.view.transferEnded(asset->identifier, error);
    _parties.client.assetTransfer_succeeded_withError(asset, false, error);
}

/// A restored app's package, then its data, as far as the device asks for them. The plug-in installs the app once both
/// are there; after an interruption between the two a later sync goes on with the data.
Result<void> SyncSession::_transferRestore(const QRAssetPtr& asset, const TransferQueue& queue) {
    const Value* value = asset->variantOptions ? asset->variantOptions->find("AssetParts") : nullptr;
    const std::uint64_t parts = value ? value->unsignedInteger().value_or(0) : 0;
    const auto waiting = _parties.device.backup().restoreDataFolder(asset->identifier);
    if (!waiting) {
        return transferError(TransferError::deviceFailed, errorText(waiting.error()));
    }
    const bool hasData = waiting->has_value();
    const bool needsPackage = (parts & kQRAssetPartApplicationPackage) != 0;
    if (needsPackage) {
        if (const auto sent = _transferOne(asset, queue); !sent) {
            return sent;
        }
        // The plug-in notes durably where the package is that waits for its data.
        if (const auto durable = hasData ? _parties.device.files().sync() : Result<void>(); !durable) {
            return transferError(TransferError::deviceFailed, errorText(durable.error()));
        }
        _noteArrival(*asset, kQRAssetPartApplicationPackage);
        _tellArrival(asset);
    }
    if ((parts & kQRAssetPartApplicationData) == 0 || (needsPackage && !hasData)) {
        return {};
    }
    if (const auto goesOn = _mayGoOn(*asset, queue); !goesOn) {
        return goesOn;
    }
    if (hasData) {
        if (const auto restored = _parties.device.backup().restoreApplicationData(asset->identifier); !restored) {
            return transferError(TransferError::deviceFailed, errorText(restored.error()));
        }
    }
    _noteArrival(*asset, kQRAssetPartApplicationData);
    _tellArrival(asset);
    return {};
}

Result<void> SyncSession::_mayGoOn(const QRAsset& asset, const TransferQueue& queue) const {
    if (queue.isCancelled(asset.identifier)) {
        return cancelledByUserError();
    }
    if (Interrupt::requested()) {
        return interruptedError();
    }
    return {};
}

Result<void> SyncSession::_transferOne(const QRAssetPtr& asset, const TransferQueue& queue) {
    const auto mayGoOn = [&] { return _mayGoOn(*asset, queue); };
    if (const auto goesOn = mayGoOn(); !goesOn) {
        return goesOn;
    }
    _parties.view.transferBegan(asset->identifier);
    double told = 0;
    const auto progress = [&](double fraction) {
        _parties.view.transferring(asset->identifier, fraction);
        if (fraction - told < progressStep && fraction < 1) {
            return;
        }
        told = fraction;
        asset->downloadProgress = fraction;
        _parties.client.assetTransfer_updatedProgress(asset, fraction);
    };
    return transfer(_parties.device.files(),
                    {*_requested.at(asset->identifier), progress, mayGoOn, _parties.bandwidth});
}

void SyncSession::_close() {
    const Span span(_parties.device.files().timeline(), "closing");
    _parties.device.coordinator().waitUntilIdle();
    clearReceivedFiles(_parties.device, _plan.goingOn);
    _parties.view.ended();
    _parties.client.syncEndedWithSuccess(_allTransferred);
    clearPlaceholderBundles(_parties.device); // of placeholders that could not be made
    if (!_allTransferred) {
        return;
    }
    if (const auto written = writeLastSyncApps(_parties.device); !written) {
        _parties.view.note("The list of the device's apps could not be kept for the next sync: " +
                           reasonOf(written.error()));
    }
}

SyncReport SyncSession::_report() const {
    SyncReport report = _plan.report;
    for (AppReport& app : report.apps) {
        app = _reportOf(std::move(app));
    }
    report.deleted = _deleted;
    report.interrupted = Interrupt::requested();
    return report;
}

AppReport SyncSession::_reportOf(AppReport report) const {
    if (isSent(report.result)) {
        return _reportOfInstall(std::move(report));
    }
    if (report.result == AppResult::removed) {
        return _reportOfRemoval(std::move(report));
    }
    if (report.result == AppResult::waiting && _parties.outcomes.isCancelled(report.identifier)) {
        report.result = AppResult::cancelled;
        report.reason = reasonOf(cancelledByUserError());
    } else if (report.result == AppResult::cancelled && _parties.device.registry().hasPlaceholder(report.identifier)) {
        report.result = AppResult::failed;
        report.isPassedOver = false;
        report.reason = "Its install could not be taken back; `qrd log` tells why.";
    }
    return report;
}

AppReport SyncSession::_reportOfInstall(AppReport report) const {
    const std::string& identifier = report.identifier;
    const auto planned = std::exchange(report.result, AppResult::failed);
    if (const auto unstaged = std::ranges::find(_list.failed, identifier, identifierOf);
        unstaged != _list.failed.end()) {
        report.reason = unstaged->reason;
        return report;
    }
    if (const auto error = _transferErrors.find(identifier); error != _transferErrors.end()) {
        report.reason = reasonOf(error->second);
        switch (static_cast<TransferError>(error->second->code())) {
        case TransferError::interrupted:
        case TransferError::noSpace: report.result = AppResult::waiting; break;
        case TransferError::cancelledByUser: report.result = AppResult::cancelled; break;
        default: break;
        }
        return report;
    }
    const auto outcome = _parties.outcomes.outcomeOf(identifier);
    if (outcome && !*outcome) {
        report.result = planned;
        if (const auto app = _parties.device.registry().application(identifier)) {
            report.version = app->version; // what the archive was, whatever the library has said
        }
    } else if (outcome) {
        const bool isCancelled = _parties.outcomes.isCancelled(identifier);
        report.result = isCancelled ? AppResult::cancelled : AppResult::failed;
        report.reason = reasonOf(isCancelled ? cancelledByUserError() : *outcome);
    } else if (_requested.contains(identifier) && Interrupt::requested()) {
        report.result = AppResult::waiting;
        report.reason = _isInUse(identifier) ? "It is in use and could not be replaced; close it and sync again."
                                             : reasonOf(interruptedError());
    } else if (_requested.contains(identifier)) {
        report.reason = "The device did not say how the install ended; `qrd log` tells more.";
    } else {
        report.result = AppResult::refused;
        report.reason = "The device did not ask for it; `qrd log` tells why.";
    }
    return report;
}

bool SyncSession::_isInUse(std::string_view identifier) const {
    const SyncStatus status = _parties.view.status();
    const auto app = std::ranges::find(status.apps, identifier, &AppStatus::identifier);
    return app != status.apps.end() && app->stage == AppStage::waiting;
}

AppReport SyncSession::_reportOfRemoval(AppReport report) const {
    if (_parties.device.registry().isInstalled(report.identifier)) {
        report.result = AppResult::failed;
        report.reason = "The device could not remove it; `qrd log` tells why.";
    }
    return report;
}

} // namespace appsync::host
