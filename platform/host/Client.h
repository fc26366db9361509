// The sync host's plug-in protocol: what the host may ask of a client that handles a data class.
#pragma once

#include "platform/host/Asset.h"
#include "values/Error.h"
#include "values/PropertyList.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {

class QRMessageLink;     // the host's own; clients pass it on
class QRSyncRequest;     // the host's own; clients need not read it
class QRDownloadManager; // the host's own

using QRProgressCallback = std::function<void(double fraction)>;

/// The operations of the protocol, in its order.
enum class QRClientOperation {
    supportedDataclasses,
    registerMessageHandlersWithLink,
    currentSyncAnchor,
    prepareForSyncWithHostAnchor_progressCallback_error,
    prepareForSyncWithHostAnchor_progressCallback_vetchID_hostVersion_error,
    reconcileSync_withNewAnchor_progressCallback_error,
    syncEndedWithSuccess,
    cancelSyncOperations,
    reconcileRestoreWithError,
    reconcileRestoreOfType_withError,
    restoreEndedWithError,
    outstandingAssetTransfers,
    outstandingAssetTransfersWithDownloadManager,
    assetTransfer_succeeded_withError,
    assetTransfer_updatedProgress,
    metadataUpdate_forAsset_withNewAnchor,
    assetInstallFailed_withError,
    assetInstallSucceeded,
    assetTransferEndedWithSuccess,
    prioritizeAsset,
    initiateAssetDownloadsWithCompletion,
    prepareForBackup,
    backupEnded,
    pathsToBackup_pathsNotToBackup,
    zuvexIDsForAssets,
    shouldRestoreFile_backupManager,
    shouldBackgroundRestorePath_backupManager,
    shouldBackgroundRestoreFile_backupManager,
    clearSyncData,
    disabledAssetTypes,
    installedAssetMetrics,
    installedAssets,
};

/// The host calls on threads of its own. Only `supportedDataclasses` is required; the host asks `responds` before it
/// calls any other operation, and what a client does not respond to does nothing here.
class QRClient {
  public:
    virtual ~QRClient() = default;

    [[nodiscard]] virtual bool responds(QRClientOperation operation) const noexcept = 0;

    [[nodiscard]] virtual std::vector<std::string> supportedDataclasses() noexcept = 0;
    virtual void registerMessageHandlersWithLink(QRMessageLink* /*link*/) noexcept {}
    [[nodiscard]] virtual std::string currentSyncAnchor() noexcept { return {}; }
    virtual bool prepareForSyncWithHostAnchor_progressCallback_error(std::string_view /*hostAnchor*/,
                                                                     const QRProgressCallback& /*progress*/,
                                                                     ErrorPtr* /*error*/) noexcept {
        return true;
    }
    virtual bool prepareForSyncWithHostAnchor_progressCallback_vetchID_hostVersion_error(
        std::string_view /*hostAnchor*/, const QRProgressCallback& /*progress*/, std::string_view /*vetchID*/,
        std::string_view /*hostVersion*/, ErrorPtr* /*error*/) noexcept {
        return true;
    }
    /// Opens a sync. False, with the reason in `error`, when it cannot go on; after true, `error` means nothing.
    virtual bool reconcileSync_withNewAnchor_progressCallback_error(QRSyncRequest* /*request*/,
                                                                    std::string_view /*newAnchor*/,
                                                                    const QRProgressCallback& /*progress*/,
                                                                    ErrorPtr* /*error*/) noexcept {
        return true;
    }
    /// Closes a sync.
    virtual void syncEndedWithSuccess(bool /*success*/) noexcept {}
    virtual void cancelSyncOperations() noexcept {}
    virtual bool reconcileRestoreWithError(ErrorPtr* /*error*/) noexcept { return true; }
    /// Type 2 is a restore from a desktop's backup.
    virtual bool reconcileRestoreOfType_withError(int /*type*/, ErrorPtr* /*error*/) noexcept { return true; }
    virtual void restoreEndedWithError(const ErrorPtr& /*error*/) noexcept {}
    /// What the host is to fetch, in the order in which it should.
    [[nodiscard]] virtual std::vector<QRAssetPtr> outstandingAssetTransfers() noexcept { return {}; }
    [[nodiscard]] virtual std::vector<QRAssetPtr>
    outstandingAssetTransfersWithDownloadManager(QRDownloadManager* /*manager*/) noexcept {
        return {};
    }
    /// One asset's transfer has ended. `error` is null on success.
    virtual void assetTransfer_succeeded_withError(const QRAssetPtr& /*asset*/, bool /*succeeded*/,
                                                   const ErrorPtr& /*error*/) noexcept {}
    /// One asset's transfer goes on; `fraction` is 0 to 1.
    virtual void assetTransfer_updatedProgress(const QRAssetPtr& /*asset*/, double /*fraction*/) noexcept {}
    virtual void metadataUpdate_forAsset_withNewAnchor(const Dictionary& /*metadata*/, const QRAssetPtr& /*asset*/,
                                                       std::string_view /*newAnchor*/) noexcept {}
    virtual void assetInstallFailed_withError(const QRAssetPtr& /*asset*/, const ErrorPtr& /*error*/) noexcept {}
    virtual void assetInstallSucceeded(const QRAssetPtr& /*asset*/) noexcept {}
    /// The transfer phase is over; returns when every install that it began has ended.
    virtual void assetTransferEndedWithSuccess(bool /*success*/) noexcept {}
    virtual void prioritizeAsset(const QRAssetPtr& /*asset*/) noexcept {}
    virtual void initiateAssetDownloadsWithCompletion(std::function<void(const ErrorPtr&)> /*completion*/) noexcept {}
    virtual void prepareForBackup() noexcept {}
    virtual void backupEnded() noexcept {}
    virtual void pathsToBackup_pathsNotToBackup(std::vector<std::string>* /*paths*/,
                                                std::vector<std::string>* /*excluded*/) noexcept {}
    /// The account identifiers under which the apps of the device were bought.
    [[nodiscard]] virtual std::set<std::string> zuvexIDsForAssets() noexcept { return {}; }
    [[nodiscard]] virtual bool shouldRestoreFile_backupManager(std::string_view /*file*/, void* /*manager*/) noexcept {
        return true;
    }
    [[nodiscard]] virtual bool shouldBackgroundRestorePath_backupManager(std::string_view /*path*/,
                                                                         void* /*manager*/) noexcept {
        return true;
    }
    [[nodiscard]] virtual bool shouldBackgroundRestoreFile_backupManager(std::string_view /*file*/,
                                                                         void* /*manager*/) noexcept {
        return true;
    }
    /// Forgets everything that the client keeps, its placeholders included.
    virtual void clearSyncData() noexcept {}
    /// The data classes that policy forbids; nullopt when there are none.
    [[nodiscard]] virtual std::optional<std::set<std::string>> disabledAssetTypes() noexcept { return std::nullopt; }
    /// "_Count", "_PhysicalSize" and "_PurgeableSize", unsigned numbers; sizes in bytes.
    [[nodiscard]] virtual Dictionary installedAssetMetrics() noexcept { return {}; }
    /// "_Deleted": what was deleted on the device since the desktop last knew.
    [[nodiscard]] virtual Dictionary installedAssets() noexcept { return {}; }
};

} // namespace appsync
