// The client object: construction, start-up, teardown and the host's simple questions.
#include "tests/inmemory/ClientTest.h"

#include <atomic>
#include <thread>

namespace appsync {
namespace {

using inmemory::Lines;

class ClientObject : public inmemory::ClientTest {};

const std::string startupComplete = "com.zuvex.qrd.QRStartupCompleteNotification";

TEST_F(ClientObject, IsMadeInTheOrderThatItsServicesPresuppose) {
    const auto client = AppsClient::init(world.platform());
    EXPECT_EQ(journal(), (Lines{"backup.init()", "registry.addObserver()",
                                "transactions.initializeWithLog(com.zuvex.appinstallation, qrd.appsync)",
                                "coordinators.coordinationIsEnabled()",
                                "center.addObserver(" + startupComplete + ", no object, suspension 1)"}));
}

TEST_F(ClientObject, LeavesTheSystemLogToTheTransactionLog) {
    std::shared_ptr<const SystemLog> kept;
    world.journal.whenAdded("transactions.initializeWithLog", [&] { kept = world.transactionLog.mirror.lock(); });
    start();
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(ClientObject, ListensToNoStartupOutsideTheDaemon) {
    for (const auto& identifier : {std::optional<std::string>("com.example.other"), std::optional<std::string>()}) {
        world.process.bundleIdentifier = identifier;
        auto client = AppsClient::init(world.platform());
        EXPECT_EQ(world.journal.linesWith("center."), Lines{});
        journal();
        world.center.post(startupComplete);
        EXPECT_EQ(journal(), Lines{});
        client = nullptr;
        EXPECT_EQ(journal(), Lines{"registry.removeObserver()"});
    }
}

TEST_F(ClientObject, LeavesNoObserverBehind) {
    start();
    EXPECT_EQ(world.registry.observers().size(), 1u);
    stop();
    EXPECT_TRUE(world.registry.observers().empty());
    journal();
    world.center.post(startupComplete);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(ClientObject, RespondsToWhatItImplements) {
    using enum QRClientOperation;
    start();
    for (const QRClientOperation operation :
         {supportedDataclasses, currentSyncAnchor, prepareForSyncWithHostAnchor_progressCallback_error,
          reconcileSync_withNewAnchor_progressCallback_error, syncEndedWithSuccess, reconcileRestoreOfType_withError,
          outstandingAssetTransfers, assetTransfer_succeeded_withError, assetTransfer_updatedProgress,
          assetInstallFailed_withError, assetInstallSucceeded, assetTransferEndedWithSuccess, prepareForBackup,
          zuvexIDsForAssets, clearSyncData, disabledAssetTypes, installedAssetMetrics, installedAssets}) {
        EXPECT_TRUE(client().responds(operation)) << static_cast<int>(operation);
    }
}

TEST_F(ClientObject, RespondsToNothingElse) {
    using enum QRClientOperation;
    start();
    for (const QRClientOperation operation :
         {registerMessageHandlersWithLink, prepareForSyncWithHostAnchor_progressCallback_vetchID_hostVersion_error,
          cancelSyncOperations, reconcileRestoreWithError, restoreEndedWithError,
          outstandingAssetTransfersWithDownloadManager, metadataUpdate_forAsset_withNewAnchor, prioritizeAsset,
          initiateAssetDownloadsWithCompletion, backupEnded, pathsToBackup_pathsNotToBackup,
          shouldRestoreFile_backupManager, shouldBackgroundRestorePath_backupManager,
          shouldBackgroundRestoreFile_backupManager}) {
        EXPECT_FALSE(client().responds(operation)) << static_cast<int>(operation);
    }
}

TEST_F(ClientObject, DoesNothingInOperationsThatItDoesNotImplement) {
    start();
    QRClient& host = client();
    const auto asset = makeAsset("a");
    ErrorPtr error;
    host.registerMessageHandlersWithLink(nullptr);
    host.prepareForSyncWithHostAnchor_progressCallback_vetchID_hostVersion_error("", {}, "", "", &error);
    host.cancelSyncOperations();
    host.reconcileRestoreWithError(&error);
    host.restoreEndedWithError(inmemory::injectedError());
    static_cast<void>(host.outstandingAssetTransfersWithDownloadManager(nullptr));
    host.metadataUpdate_forAsset_withNewAnchor({}, asset, "");
    host.prioritizeAsset(asset);
    host.initiateAssetDownloadsWithCompletion([](const ErrorPtr&) {});
    host.backupEnded();
    std::vector<std::string> paths;
    host.pathsToBackup_pathsNotToBackup(&paths, &paths);
    static_cast<void>(host.shouldRestoreFile_backupManager("/", nullptr));
    static_cast<void>(host.shouldBackgroundRestorePath_backupManager("/", nullptr));
    static_cast<void>(host.shouldBackgroundRestoreFile_backupManager("/", nullptr));
    EXPECT_EQ(journal(), Lines{});
    EXPECT_EQ(error, nullptr);
}

TEST_F(ClientObject, ConnectsOnceHoweverOftenStartupIsAnnounced) {
    start();
    world.center.post(startupComplete);
    world.center.post(startupComplete);
    EXPECT_EQ(journal(), Lines{"observers.init(com.zuvex.qrd.kpc.icappobserverdelegate, clients 3, delegate)"});
    stop();
    EXPECT_EQ(journal(), (Lines{"registry.removeObserver()", "center.removeObserver(" + startupComplete + ")",
                                "observers.close()"}));
}

TEST_F(ClientObject, ConnectsAtTheNextAnnouncementWhenItCouldNotBefore) {
    start();
    world.faults.fail("observers.init");
    for (int i = 0; i < 3; ++i) {
        world.center.post(startupComplete);
    }
    EXPECT_EQ(journal(), Lines(2, "observers.init(com.zuvex.qrd.kpc.icappobserverdelegate, clients 3, delegate)"));
}

TEST_F(ClientObject, IgnoresAStartupCallWithoutObserver) {
    start();
    _handleQRDStartupCompletedNotification(&world.center, nullptr, startupComplete, nullptr, nullptr);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(ClientObject, SaysAtTeardownWhichTransfersAreOutstanding) {
    start(false);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    client().assetTransfer_updatedProgress(makeAsset("b"), 0.5);
    world.screen.assertionAnswers = {SKSTerminationAssertionDenied};
    client()._performAssetInstall(makeAsset("c")); // to be tried again
    journal();
    stop();
    EXPECT_EQ(journal(),
              (Lines{"scheduler.cancel()", "error: <AppsClient> getting dealloc'd with 2 outstanding RFX transfers!",
                     "registry.removeObserver()", "center.removeObserver(" + startupComplete + ")"}));
}

TEST_F(ClientObject, HandlesTheOneDataClass) {
    EXPECT_EQ(start().supportedDataclasses(), std::vector<std::string>{"Application"});
    EXPECT_EQ(client().currentSyncAnchor(), "NO_APP_SYNC_ANCHOR");
}

TEST_F(ClientObject, ReportsTheSameAnchorBeforeAndAfterASync) {
    start();
    EXPECT_EQ(client().currentSyncAnchor(), "NO_APP_SYNC_ANCHOR");
    world.files.putPlist(paths::join(paths::stagingArea, "ApplicationsSync.plist"), Array{});
    EXPECT_TRUE(client().reconcileSync_withNewAnchor_progressCallback_error(nullptr, "NEW", {}, nullptr));
    EXPECT_EQ(client().currentSyncAnchor(), "NO_APP_SYNC_ANCHOR");
    client().syncEndedWithSuccess(true);
    EXPECT_EQ(client().currentSyncAnchor(), "NO_APP_SYNC_ANCHOR");
}

TEST_F(ClientObject, PreparingForASyncForgetsNoOutstandingTransfer) {
    start(false);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_TRUE(client().prepareForSyncWithHostAnchor_progressCallback_error("anchor", {}, nullptr));
    journal();
    stop();
    EXPECT_EQ(journal().front(), "error: <AppsClient> getting dealloc'd with 1 outstanding RFX transfers!");
}

TEST_F(ClientObject, PreparesForASyncWithoutAskingAnybody) {
    ErrorPtr error;
    EXPECT_TRUE(start().prepareForSyncWithHostAnchor_progressCallback_error("anchor", {}, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(ClientObject, IsDisabledOnlyWhenPolicyForbidsInstallingAndRemoving) {
    using enum OLBoolValue;
    const struct {
        OLBoolValue install, remove;
        bool disabled;
    } cases[] = {
        {explicitlyNo, unset, false},          {unset, explicitlyNo, false}, {explicitlyNo, explicitlyNo, true},
        {explicitlyYes, explicitlyYes, false}, {unset, unset, false},        {explicitlyNo, explicitlyYes, false}};
    start();
    for (const auto& [install, remove, disabled] : cases) {
        world.policy.settings["allowAppInstallation"] = install;
        world.policy.settings["allowAppRemoval"] = remove;
        const auto types = client().disabledAssetTypes();
        EXPECT_EQ(types.has_value(), disabled);
        EXPECT_TRUE(!types || *types == std::set<std::string>{"Application"});
    }
}

TEST_F(ClientObject, CountsInstallAttemptsFromZeroAfterEachReading) {
    start(false);
    auto asset = makeAsset("a");
    asset->path = "/staged/a";
    client()._performAssetInstall(asset);
    client()._performAssetInstall(asset);
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 2u);
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 0u);
}

TEST_F(ClientObject, CountsInstallAttemptsAcrossSyncsUntilTheyAreRead) {
    start(false);
    auto asset = makeAsset("a");
    asset->path = "/staged/a";
    client()._performAssetInstall(asset);
    client().syncEndedWithSuccess(true);
    EXPECT_TRUE(client().prepareForSyncWithHostAnchor_progressCallback_error("anchor", {}, nullptr));
    client().reconcileSync_withNewAnchor_progressCallback_error(nullptr, "NEW", {}, nullptr);
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 1u);
}

TEST_F(ClientObject, LosesNoAttemptThatIsCountedDuringAReading) {
    start(false);
    std::atomic<bool> ended = false;
    std::thread installs([&] {
        for (int i = 0; i < 200; ++i) {
            auto asset = makeAsset("a");
            asset->path = "/staged/a";
            client()._performAssetInstall(asset);
        }
        ended = true;
    });
    std::uint32_t attempts = 0;
    while (!ended) {
        attempts += client()._getAndResetNumAppInstallsAttempted();
    }
    installs.join();
    attempts += client()._getAndResetNumAppInstallsAttempted();
    EXPECT_EQ(attempts, 200u);
}

} // namespace
} // namespace appsync
