// The client that handles the data class "Application": the whole plug-in at a glance.
//
// The sync host makes one client and keeps it for the life of the process. Host calls and platform callbacks arrive on
// any thread. An operation that fails logs it and returns false or null; nothing is thrown. The definitions stand in
// the folder of their subsystem, one file per subject, named behind each heading.
#pragma once

#include "concurrency/Group.h"
#include "concurrency/Guarded.h"
#include "concurrency/OperationQueue.h"
#include "concurrency/SerialQueue.h"
#include "concurrency/SharedTurns.h"
#include "platform/ApplicationRegistry.h"
#include "platform/FileSystem.h"
#include "platform/InstallCoordinator.h"
#include "platform/Platform.h"
#include "platform/host/Client.h"
#include "plugin/client/IdentifierSet.h"
#include "plugin/client/PendingRetries.h"
#include "plugin/log/Log.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {

class HVManager;
class NotificationCenter;

class AppsClient final : public PDApplicationWorkspaceObserverProtocol,
                         public KXAppInstallObserverDelegate,
                         public QRClient {
  public:
    // The client object: plugin/client/AppsClient.cpp, plugin/client/HostInterface.cpp

    /// A new client, registered with the services that it observes; null when it could not be made.
    [[nodiscard]] static std::unique_ptr<AppsClient> init(const Platform& platform);
    /// One whose own installs are run by this queue.
    [[nodiscard]] static std::unique_ptr<AppsClient> init(const Platform& platform,
                                                          std::unique_ptr<OperationQueue> installOperationQueue);
    /// Waits for running installs; those that have not begun and pending retries are dropped.
    ~AppsClient() override;
    AppsClient(const AppsClient&) = delete;
    AppsClient& operator=(const AppsClient&) = delete;

    [[nodiscard]] bool responds(QRClientOperation operation) const noexcept override;
    [[nodiscard]] std::vector<std::string> supportedDataclasses() noexcept override;
    [[nodiscard]] std::string currentSyncAnchor() noexcept override;
    bool prepareForSyncWithHostAnchor_progressCallback_error(std::string_view hostAnchor,
                                                             const QRProgressCallback& progress,
                                                             ErrorPtr* error) noexcept override;
    /// {"Application"} when policy forbids both installing and removing apps, otherwise nullopt.
    [[nodiscard]] std::optional<std::set<std::string>> disabledAssetTypes() noexcept override;
    [[nodiscard]] bool _appInstallationAllowed();
    [[nodiscard]] bool _appRemovalAllowed();
    /// The installs attempted since the last call.
    [[nodiscard]] std::uint32_t _getAndResetNumAppInstallsAttempted();
    /// Opens the connection to the install coordinator's observer service, once. Called on the notification center's
    /// thread when the daemon announces that its start-up is complete.
    void setupInstallCoordinatorObserver();
    [[nodiscard]] std::string description() const;

    // Work files: plugin/client/WorkFiles.cpp
    //
    // Each change of a file is one undisturbed read, change and write.

    /// The array that a property-list file holds; nullopt when it is missing, empty, or no array.
    [[nodiscard]] std::optional<Array> _loadPlist_withError(std::string_view path, ErrorPtr* error);
    /// The dictionary that the demoted-apps file holds; nullopt when it is missing, empty, or no dictionary.
    [[nodiscard]] std::optional<Dictionary> _loadDemotedAppsPlist_withError(std::string_view path, ErrorPtr* error);
    /// What the restore state keeps for an app's version under a property name. An app without a version has none.
    [[nodiscard]] std::optional<Value>
    _restoreStatePropertyForKey_identifier_version(std::string_view key, std::string_view identifier,
                                                   const std::optional<std::string>& version);
    /// Keeps a value for an app's version. Without a version nothing is kept.
    void _setRestoreStatePropertyValue_forKey_identifier_version(const Value& value, std::string_view key,
                                                                 std::string_view identifier,
                                                                 const std::optional<std::string>& version);
    /// Forgets the restore state of every version of an app.
    void cleanRestoreStateForIdentifier(std::string_view identifier);
    /// Changes the operation of the app's first to-do record. Changes that come while the list is being written share
    /// the next writing; each call returns when its own has been written, or could not be.
    void changeAssetID_toDo(std::string_view identifier, std::string_view operation);
    [[nodiscard]] std::optional<std::string> _operationStateForIdentifier(std::string_view identifier);

    // Opening and closing a sync: plugin/client/ReconcileSync.cpp

    bool reconcileSync_withNewAnchor_progressCallback_error(QRSyncRequest* request, std::string_view newAnchor,
                                                            const QRProgressCallback& progress,
                                                            ErrorPtr* error) noexcept override;
    void syncEndedWithSuccess(bool success) noexcept override;
    void clearSyncData() noexcept override;

    // Inventory: plugin/client/InstalledAssets.cpp

    /// "_Deleted": an array of dictionaries, each with the "BXBundleIdentifier" of an app that has gone from the device
    /// since the desktop last knew of it, once each and in no particular order. What the to-do list still expects to
    /// install is left out.
    [[nodiscard]] Dictionary installedAssets() noexcept override;

    // Side queries: plugin/client/SideQueries.cpp

    /// How many apps a person has installed, "_Count", and their bytes, "_PhysicalSize"; "_PurgeableSize" is 0.
    [[nodiscard]] Dictionary installedAssetMetrics() noexcept override;
    /// The accounts that the store's metadata of the apps name.
    [[nodiscard]] std::set<std::string> zuvexIDsForAssets() noexcept override;
    /// Brings the store's metadata of the apps up to date: whether an app is licensed to the device, and that it no
    /// longer counts as downloaded by itself.
    void prepareForBackup() noexcept override;

    // Download planning: plugin/planning/OutstandingAssetTransfers.cpp

    /// What the host is to fetch, in the order of the home screen's icons. Called once a sync.
    [[nodiscard]] std::vector<QRAssetPtr> outstandingAssetTransfers() noexcept override;

    // Transfer completion: plugin/pipeline/TransferCompletion.cpp

    void assetTransfer_succeeded_withError(const QRAssetPtr& asset, bool succeeded,
                                           const ErrorPtr& error) noexcept override;
    /// Waits, without a time-out, for queued installs and the store client.
    void assetTransferEndedWithSuccess(bool success) noexcept override;
    void assetInstallSucceeded(const QRAssetPtr& asset) noexcept override;
    void assetInstallFailed_withError(const QRAssetPtr& asset, const ErrorPtr& error) noexcept override;
    /// True when a later sync may get past the error: the host says so, and no installer has refused the app.
    [[nodiscard]] bool _isRecoverableError(const ErrorPtr& error);

    // Install queue: plugin/pipeline/InstallQueue.cpp

    /// Queues the install of a received file. Returns at once.
    void _enqueueAssetInstall(const QRAssetPtr& asset);
    /// One attempt to install, on a thread of the install queue. An app that is busy is tried again 30 seconds later,
    /// as often as it takes.
    void _performAssetInstall(const QRAssetPtr& asset);

    // Progress: plugin/pipeline/Progress.cpp

    void assetTransfer_updatedProgress(const QRAssetPtr& asset, double fraction) noexcept override;
    /// The registry's progress object of an app; null with install coordination, and when there is none.
    [[nodiscard]] FNProgressPtr _progressForAssetIdentifier(std::string_view identifier);

    // Coordinators and promises: plugin/coordination/CoordinatorsAndPromises.cpp
    //
    // Factories; null when the object could not be had. Whatever is made but cannot be attached is cancelled.

    /// An update's coordinator for an existing app, otherwise a new install's. One that another client created is not
    /// touched: then this returns null without an error.
    [[nodiscard]] KXAppInstallCoordinatorPtr
    _initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
        std::string_view bundleIdentifier, bool existingApp, bool createIfNotExisting, ErrorPtr* error);
    [[nodiscard]] std::shared_ptr<KXRestoringAppInstallCoordinator>
    _restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error(std::string_view bundleIdentifier,
                                                                                 bool createIfNotExisting,
                                                                                 ErrorPtr* error);
    [[nodiscard]] KXPlaceholderPtr _placeHolderForBundleIdentifier_name_installType(std::string_view bundleIdentifier,
                                                                                    std::string_view name,
                                                                                    std::uint64_t installType);
    KXPromisedTransferToPathPtr _createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator(
        std::string_view bundleIdentifier, const std::optional<std::string>& path,
        const KXAppInstallCoordinatorPtr& coordinator);
    /// Announces an icon file that is already in place. `diskSpaceNeeded` is in bytes.
    [[nodiscard]] KXPromisedTransferToPathPtr
    _createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
        std::string_view bundleIdentifier, std::string_view transferPath, std::uint64_t diskSpaceNeeded,
        const KXPlaceholderPtr& placeholder, bool forAppInstall);
    /// A promise of user data that is already kept, since the plug-in never delivers user data itself.
    [[nodiscard]] KXPromisedOutOfBandTransferPtr _userDataPromiseForBundleIdentifier(std::string_view bundleIdentifier);

    // AppInstallUsingCoordination: plugin/coordination/InstallPreparation.cpp, plugin/coordination/InstallTransfer.cpp

    /// Readies a coordinator for an app that is to come. True: its placeholder promise is in place.
    bool prepareAppForInstallUsingCoordination_existingApp(const QRAssetPtr& asset, bool existingApp);
    /// Hands the asset's download progress to its promise. False when no coordinator works on the app, or when its
    /// promise is satisfied already; a promise that could not be made is passed over.
    bool updateTransferProgressForApp_existingApp(const QRAssetPtr& asset, bool existingApp);
    /// Hands the received file to the app's promise and satisfies it. False as above.
    bool transferCompleteForApp_existingApp(const QRAssetPtr& asset, bool existingApp);
    /// Cancels the coordinators of what has not arrived when a sync has failed.
    void assetSyncFinishedWithStatus_outstandingItems(bool success, const std::vector<std::string>& outstandingItems);
    /// Returns at once; the outcome is logged when it comes.
    void uninstallAppUsingCoordination(std::string_view bundleIdentifier);

    // Restore through coordination: plugin/coordination/Restore.cpp, plugin/coordination/RestorePlaceholder.cpp
    //
    // Store metadata is untrusted: a property list with a dictionary, or a failure. True: a placeholder is in place,
    // or another client has taken the app over.

    /// Readies a coordinator for an app that a desktop restore brings back. `demotionStatus`: 0 not demoted, 1
    /// intentionally, 2 automatically demoted before the backup.
    bool prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
        std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
        const std::optional<Data>& iconData, std::uint64_t demotionStatus);
    /// For an app that stays offloaded: its placeholder is all there is to restore.
    bool _prepareDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData_demotionStatus(
        std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
        const std::optional<Data>& iconData, std::uint64_t demotionStatus);
    /// For an app that the store client is to fetch.
    bool _prepareNonDemotedAppForRestoreWithBundleId_TamblinMetadata_sinfData_iconData(
        std::string_view bundleIdentifier, const Data& tamblinMetadata, const std::optional<Data>& sinfData,
        const std::optional<Data>& iconData);
    /// A configured placeholder with the icon (PNG), if there is one; null when it could not be had.
    [[nodiscard]] KXPlaceholderPtr _placeHolderForBundleIdentifier_withTamblinMetadata_sinfData_iconData_demotionStatus(
        std::string_view bundleIdentifier, const Dictionary& metadata, const std::optional<Data>& sinfData,
        const std::optional<Data>& iconData, std::uint64_t demotionStatus);

    // Callbacks of the coordinator and the registry: plugin/coordination/Callbacks.cpp

    void promiseDidBeginFulfillmentWithIdentifier(std::uint64_t promise) noexcept override;
    void coordinatorDidInstallPlaceholder(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinatorShouldPrioritize(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator, const ErrorPtr& reason,
                                               KXClientIdentifier client) noexcept override;
    void applicationInstallsDidCancel(const PDApplicationProxies& applications) noexcept override;

    // Placeholder bundles and icons: plugin/placeholders/PlaceholderBundles.cpp,
    // plugin/placeholders/PlaceholderQueries.cpp

    /// Renders an app's icon into a PNG file.
    bool _makeIconFromBundlePath_saveTo(const std::optional<std::string>& bundlePath, std::string_view path);
    [[nodiscard]] std::string placeholderAppPathForBundleIdentifier(std::string_view bundleIdentifier);
    bool createPlaceHolderPath_forBundleIdentifier_withAttributes(std::string_view path,
                                                                  std::string_view bundleIdentifier,
                                                                  const FileAttributes& attributes);
    /// `fileSize`, unless null, gets the size written in bytes, 0 when nothing was.
    bool writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(const std::optional<Data>& icon,
                                                                                   std::string_view path,
                                                                                   std::uint64_t* fileSize,
                                                                                   std::string_view bundleIdentifier,
                                                                                   const FileAttributes& attributes);
    /// Builds and installs the plug-in's own placeholder for an asset; none without a name or an identifier. An asset
    /// without a version has a placeholder without one.
    void _createPlaceHolderApplication(const QRAssetPtr& asset);
    /// Always false with install coordination.
    [[nodiscard]] bool _placeholderExistsForApplication(std::string_view bundleIdentifier);
    void _enumeratePlaceholdersWithBlock(const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block);
    [[nodiscard]] std::set<std::string> _getSystemAppPlaceholders();

    // Desktop restore info: plugin/placeholders/RestoreInfo.cpp, plugin/placeholders/RestorePlaceholder.cpp

    /// Opens a restore. One of type 2 turns the restore info that the desktop left into placeholders. Always true,
    /// without an error.
    bool reconcileRestoreOfType_withError(int type, ErrorPtr* error) noexcept override;
    /// Makes a placeholder for each app of the restore info that has none yet, and moves the info away, processed or
    /// not. An app whose identifier cannot be a file's name is skipped. The outcome of the last app that was not
    /// skipped, false when there was none; true without restore info.
    bool _processTamblinRestoreInfo();
    /// Builds and installs the plug-in's own placeholder for a restored app. What the metadata lacks is null in the
    /// Info dictionary and left out of its file, which can hold no null. True also when the metadata is none.
    bool _processTamblinRestoreInfoForApp_tamblinMetaData_sinfData_iconData(std::string_view bundleIdentifier,
                                                                            const Data& tamblinMetaData,
                                                                            const std::optional<Data>& sinfData,
                                                                            const std::optional<Data>& iconData);

    // Home screen: plugin/homescreen/SyncNotice.cpp, plugin/homescreen/IconOrder.cpp

    /// Tells the home screen that a sync is starting or done.
    void _notifySkellan(bool starting);
    /// The items in the order of the home screen's icons, the rest after them. Those placed leave the dictionary.
    [[nodiscard]] Array _orderTheItems(Dictionary& items);

  private:
    /// Where memory runs out the process ends, or services would go on calling a client that is gone.
    AppsClient(const Platform& platform, std::unique_ptr<OperationQueue> installOperationQueue) noexcept;

    struct ToDoChange {
        std::string_view identifier;
        std::string_view operation;
    };

    const Platform _platform;
    const PlugInLog _log;
    SharedTurns<ToDoChange> _toDoChanges; // changes of the to-do list, one writing at a time
    Mutex _restoreStateMutex;             // around each change of the restore state
    PendingRetries _pendingRetries;

    Guarded<std::optional<Array>> _uninstalledApps; // bundle identifiers; nullopt until the inventory was asked for
    Group _installGroup;                            // queued installs and pending retries
    std::atomic<std::uint32_t> _numAppInstallsAttempted = 0;
    IdentifierSet _outstandingRFXTransfers; // assets of which progress was told and whose transfer has not ended
    const std::unique_ptr<OperationQueue> _installOperationQueue;
    std::shared_ptr<HVManager> _backupManager;
    IdentifierSet _kplAppsToIgnore; // volume-licensed apps that this sync leaves alone; none is recognised today
    std::set<std::string, std::less<>> _updatingApps GUARDED_BY(_accessQueue);      // updates of installed apps
    std::set<std::string, std::less<>> _userCancelledApps GUARDED_BY(_accessQueue); // cancelled on the device
    std::atomic<bool> _useInstallCoordinator;                                       // never changes after construction
    SerialQueue _accessQueue;
    std::shared_ptr<KXAppInstallObserver> _appInstallObserver; // null until the daemon's start-up is complete
};

/// Called by the notification center when the daemon's start-up is complete; `observer` is the client.
void _handleQRDStartupCompletedNotification(NotificationCenter* center, void* observer, std::string_view name,
                                            const void* object, const Dictionary* userInfo);

} // namespace appsync
