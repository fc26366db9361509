// The sync host's plug-in protocol: what the host may ask of a client that handles a data class, and in which order.
//
// A client is made once (`platform/Platform.h`) and kept for the life of the process. The host then posts
// `startupCompleteName` (`platform/Notifications.h`), upon which the client connects to the install coordinator.
//
// A sync. The desktop stages it first (below).
//  1. `supportedDataclasses` has "Application"; `disabledAssetTypes` has it, too, when nothing may be done.
//  2. `prepareForSyncWithHostAnchor…` and `reconcileSync…`, with `currentSyncAnchor`. The client takes the staging
//     folder away and removes the apps that are to go. Without a staging folder there is nothing to do, and no error.
//  3. `installedAssets`: what the desktop is told.
//  4. `outstandingAssetTransfers`, once: the plan. Placeholders appear.
//  5. For each asset of the plan `assetTransfer_updatedProgress` as often as is useful, then
//     `assetTransfer_succeeded_withError`, with success and the file or with the error. After one that
//     `QRIsRecoverableError` admits, such as that of an interrupt, the placeholder stays for the next sync.
//  6. `assetTransferEndedWithSuccess`: false unless all were transferred. The client waits in it for its own installs;
//     those of coordinators may go on.
//  7. `syncEndedWithSuccess`. After a success the host writes "LastSyncAppState.plist" anew, since the client has
//     removed it.
//
// Calls for different assets may overlap, those for one asset never do, and all of step 5 have returned before step 6.
//
// A transfer. Before it tells progress the host sets `downloadProgress`, and before it tells success `path` and
// `completedAssetParts`. An asset that `isRestore` asks in "AssetParts" for the package, the app's data, or both. The
// package is told first. Data that waits is handed to the backup service and then told by another
// `assetTransfer_succeeded_withError`, with that part alone in `completedAssetParts` and, when the asset has a version,
// without a `path`: the client has kept where the package is.
//
// A received file is removed by the client when it has tried to install it itself. The host clears what else is in its
// folder of received files once no coordinator needs it, but for the files that "RestoreState.plist" names, whose data
// is still to come. What is left in "com.zuvex.qrd.Apps" of the temporary folder belongs to placeholders that could not
// be made; the host clears it after the sync.
//
// A restore. The host leaves the restore information, hands the apps' data to the backup service, and calls
// `reconcileRestoreOfType_withError` with type 2. The client makes the placeholders and moves the information to
// "/var/mobile/Library/Logs/MediaServices". With coordination the store client delivers the apps; without, the next
// sync does.
//
// Queries, outside of a sync: `installedAssetMetrics`, `zuvexIDsForAssets`, `prepareForBackup` before a backup, and
// `clearSyncData` to begin anew.
//
// Files. Lists are property lists, in either format; an element of another kind than here counts as absent.
//
//   /var/mobile/Media/PublicStaging/      where a relative `path` of an asset begins
//     ApplicationSync/                    the staging folder, moved into place whole:
//       ApplicationsSync.plist            the to-do list, an array of records (below)
//       SkellanIconState.plist            the icon layout (`platform/HomeScreen.h`), if there is a new one
//       <bundle identifier>/              of each app to install, as far as there are any:
//         Info.plist                      its facts, and beside this file the icon that they name
//         TamblinMetadata.plist           what the store says of it
//         TamblinArtwork                  its icon, when none can be drawn from the others
//   /var/mobile/Library/ApplicationSync/  the client's own; the host may know of:
//     TamblinStuff/                       the work area, which is the staging folder once it has been taken
//     LastSyncAppState.plist              the host's: an array of the identifiers that were installed after the last
//                                         sync; `installedAssets` tells those that have gone
//     RestoreState.plist                  a dictionary: identifier, then version, then "path" of a package that has
//     come
//   /var/mobile/Media/TamblinRestore/
//     RestoreApplications.plist           the restore information: of each identifier a dictionary of data,
//                                         "TamblinMetadata" (a property list) and, if there are any,
//                                         "ApplicationSINF" and "PlaceholderIcon" (a PNG)
//   /var/mobile/Library/Preferences/
//     com.zuvex.Halvane.DemotedApps.plist the identifiers of demoted apps, in two arrays:
//                                         "AutomaticDowngrades" and "IntentionalDowngrades"
//
// A record of the to-do list has the texts "identifier" and "operation", and for an install "version" and "name" as far
// as they are known; other keys are kept. What is staged is to "install" or "remove". The client changes the operation
// of what it brings to "DOWNLOADED", then "INSTALLED" or "FAILED"; to "SENT" for an asset that is not a download.
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
    /// Opens a sync. The request is passed over and may be null. False, with the reason in `error`, when it cannot go
    /// on; after true, `error` means nothing.
    virtual bool reconcileSync_withNewAnchor_progressCallback_error(QRSyncRequest* /*request*/,
                                                                    std::string_view /*newAnchor*/,
                                                                    const QRProgressCallback& /*progress*/,
                                                                    ErrorPtr* /*error*/) noexcept {
        return true;
    }
    /// Closes a sync. After a success the deleted apps that `installedAssets` has told are forgotten.
    virtual void syncEndedWithSuccess(bool /*success*/) noexcept {}
    virtual void cancelSyncOperations() noexcept {}
    virtual bool reconcileRestoreWithError(ErrorPtr* /*error*/) noexcept { return true; }
    /// Type 2 is a restore from a desktop's backup.
    virtual bool reconcileRestoreOfType_withError(int /*type*/, ErrorPtr* /*error*/) noexcept { return true; }
    virtual void restoreEndedWithError(const ErrorPtr& /*error*/) noexcept {}
    /// What the host is to fetch, in the order in which it should. Waits for the registry's lists of installs.
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
