// What happens when an asset has arrived or failed, and at the end of the transfer phase.
#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <thread>

namespace appsync {
namespace {

using inmemory::Lines;

const std::string toDo{paths::toDoList};
const std::string restoreFile{paths::restoreState};

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class TransferCompletion : public inmemory::ClientTest {
  protected:
    QRAssetPtr arrived(std::string_view identifier, std::optional<std::string> path = "/files/app") {
        auto asset = makeAsset(identifier);
        asset->path = std::move(path);
        asset->variantOptions = Dictionary{{"Version", "1.0"}};
        return asset;
    }
    QRAssetPtr restored(std::string_view identifier, std::uint32_t completedParts) {
        auto asset = arrived(identifier);
        asset->isRestore = true;
        asset->completedAssetParts = completedParts;
        return asset;
    }
    /// The journal of a call of `assetTransfer:succeeded:withError:` alone: installs run later, on the queue.
    Lines succeed(const QRAssetPtr& asset) {
        client().assetTransfer_succeeded_withError(asset, true, nullptr);
        return journal();
    }
    Lines fail(const QRAssetPtr& asset, const ErrorPtr& error = inmemory::injectedError()) {
        client().assetTransfer_succeeded_withError(asset, false, error);
        return journal();
    }
    /// The first lines of the journal, before those that an install on its own thread adds.
    Lines journalUpTo(std::size_t count) {
        Lines lines = journal();
        lines.resize(std::min(count, lines.size()));
        return lines;
    }
    static Lines ended(const QRAssetPtr& asset, bool succeeded, bool existingApp = false) {
        return {"log: transfer for asset " + asset->description() + " ended with success " + (succeeded ? "y" : "n") +
                " error " + (succeeded ? "(null)" : "TestDomain 7") + " existingApp:" + (existingApp ? "1" : "0")};
    }
    static Lines noProgress(const std::string& identifier) {
        return {"log: Not returning FNProgress * for " + identifier + " as kestrow is enabled"};
    }
    static Lines changed(const std::string& identifier, const std::string& from, const std::string& to) {
        return {"files.readFile(" + toDo + ")", "plist.parse()",
                "log: Changing " + identifier + " from " + from + " to " + to, "plist.serialise(binary)",
                "files.writeFileAtomically(" + toDo + ")"};
    }
    static Lines received(const std::string& identifier, const std::string& path = "/files/app") {
        return Lines{"log: Received file at " + path} + changed(identifier, "install", "DOWNLOADED");
    }
    static Lines cleaned() { return {"files.readFile(" + restoreFile + ")"}; }

    /// A placeholder with a progress object, on a device without coordination.
    std::shared_ptr<inmemory::Progress> placeholderWithProgress(const std::string& identifier,
                                                                std::uint64_t state = 1) {
        return world.registry.addProgress(world.registry.addPlaceholder(identifier), state, PDInstallPhaseLoading);
    }
    static Lines lookedUp(const std::string& identifier) {
        return {"registry.applicationProxyForIdentifier(" + identifier + ", placeholder 1)",
                "registry.installProgressForApplication(" + identifier + ", phase 0)",
                "error: Returning <progress " + identifier + "> progress for " + identifier};
    }
    static Lines notFound(const std::string& identifier) {
        return {"registry.applicationProxyForIdentifier(" + identifier + ", placeholder 1)",
                "error: Returning (null) progress for " + identifier};
    }
    void cancelOnDevice(const std::string& identifier) {
        client().coordinator_canceledWithReason_client(std::make_shared<inmemory::Coordinator<KXAppInstallCoordinator>>(
                                                           world.context, world.coordinators.add(identifier)),
                                                       nullptr, 1);
    }
    /// Waits until the install queue has run dry, without the lines of the wait's end.
    void waitForInstalls() {
        client().assetTransferEndedWithSuccess(true);
        world.journal.waitFor("log: asset transfer ended");
    }
};

// Success, with the coordinator.

TEST_F(TransferCompletion, HandsASyncedAppToItsCoordinator) {
    start(true);
    putToDoList({{"a", "install"}});
    const auto state = world.coordinators.add("a");
    state->assetPromise = std::make_shared<inmemory::TransferPromise>(world.context, "a-Asset");
    const auto asset = arrived("a");
    EXPECT_EQ(succeed(asset),
              (ended(asset, true) + noProgress("a") + Lines{"log: asset transfer succeeded for a"} + received("a") +
               Lines{"log: Installing synced asset " + asset->description(),
                     "transactions.logStep(3, party 1, phase 1, success 1, a, \"Create coordinator\")",
                     "coordinators.initiating(a, client 3, create 0)",
                     "log: Created initiating coordinator <initiating a> (createIfNotExisting:0, existingApp:0) for "
                     "a with error (null)",
                     "transactions.logStep(3, party 1, phase 2, success 1, a, \"Finished creating coordinator\")",
                     "promise(a-Asset).setTransferPath(file:///files/app)", "log: Satisfying asset promise for a",
                     "promise(a-Asset).setPercentComplete(1.000000)", "promise(a-Asset).setComplete(1)"}));
    EXPECT_EQ(operationOf("a"), "DOWNLOADED");
}

TEST_F(TransferCompletion, KnowsAnUpdateOnceAndThenForgetsIt) {
    start(true);
    world.registry.addInstalled("a");
    putToDoList({{"a", "install"}});
    ASSERT_EQ(client().outstandingAssetTransfers().size(), 1u);
    journal();
    const auto asset = arrived("a");
    EXPECT_EQ(succeed(asset).front(), ended(asset, true, true).front());
    EXPECT_EQ(succeed(asset).front(), ended(asset, true, false).front());
}

TEST_F(TransferCompletion, HandsAnUpdateToItsUpdatingCoordinator) {
    start(true);
    world.registry.addInstalled("a");
    putToDoList({{"a", "install"}});
    ASSERT_EQ(client().outstandingAssetTransfers().size(), 1u);
    journal();
    client().assetTransfer_succeeded_withError(arrived("a"), true, nullptr);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{"coordinators.updating(a, client 3, create 0)"});
}

TEST_F(TransferCompletion, ForgetsTheAssetBeforeItSaysSo) {
    start(true);
    cancelOnDevice("a");
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    journal();
    world.journal.whenAdded("log: transfer for asset", [this] {
        client().assetTransferEndedWithSuccess(true);
        cancelOnDevice("a");
    });
    const Lines lines = fail(arrived("a"));
    EXPECT_EQ(std::ranges::count(lines, "coordinators.any(a, client 3, create 0)"), 0);
    EXPECT_EQ(std::ranges::count(lines, "log: Cancelling asset sync for a"), 1);
}

TEST_F(TransferCompletion, LeavesRestoreAssetsToTheCoordinator) {
    start(true);
    putToDoList({{"a", "install"}, {"b", "install"}});
    const auto data = restored("a", 2);
    EXPECT_EQ(succeed(data), ended(data, true) + noProgress("a") + Lines{"log: asset transfer succeeded for a"} +
                                 received("a") +
                                 Lines{"log: Not processing kQRAssetPartApplicationData for restore asset " +
                                       data->description() + " as coordination is enabled"});
    const auto whole = restored("b", 3);
    EXPECT_EQ(succeed(whole),
              ended(whole, true) + noProgress("b") + Lines{"log: asset transfer succeeded for b"} + received("b") +
                  Lines{"log: Not processing restore asset " + whole->description() + " as coordination is enabled"});
}

// Success, without it.

TEST_F(TransferCompletion, EndsTheLoadingPhaseAndInstalls) {
    start(false);
    placeholderWithProgress("a");
    putToDoList({{"a", "install"}});
    const auto asset = arrived("a");
    client().assetTransfer_succeeded_withError(asset, true, nullptr);
    waitForInstalls();
    const Lines expected =
        ended(asset, true) + lookedUp("a") +
        Lines{"log: asset transfer succeeded for a", "registry.installPhaseFinishedForProgress(<progress a>)"} +
        received("a") +
        Lines{"log: Installing synced asset " + asset->description(), "log: Enqueue install request for a"};
    EXPECT_EQ(journalUpTo(expected.size()), expected);
    EXPECT_EQ(operationOf("a"), "INSTALLED");
}

TEST_F(TransferCompletion, InstallsRestoredDataAtOnce) {
    start(false);
    putToDoList({{"a", "install"}});
    const auto asset = restored("a", 2);
    client().assetTransfer_succeeded_withError(asset, true, nullptr);
    waitForInstalls();
    const Lines expected = ended(asset, true) + notFound("a") + Lines{"log: asset transfer succeeded for a"} +
                           received("a") + Lines{"log: Enqueue install request for a"};
    EXPECT_EQ(journalUpTo(expected.size()), expected);
}

TEST_F(TransferCompletion, InstallsARestoredAppThatHasNoData) {
    start(false);
    putToDoList({{"a", "install"}});
    const auto asset = restored("a", 1);
    client().assetTransfer_succeeded_withError(asset, true, nullptr);
    waitForInstalls();
    const Lines expected = ended(asset, true) + notFound("a") + Lines{"log: asset transfer succeeded for a"} +
                           received("a") +
                           Lines{"backup.restoreDataExists(a, no size)",
                                 "log: No restore data exists for Application:a", "log: Enqueue install request for a"};
    EXPECT_EQ(journalUpTo(expected.size()), expected);
}

TEST_F(TransferCompletion, KeepsARestoredAppUntilItsDataHasCome) {
    start(false);
    const auto progress = placeholderWithProgress("a");
    world.backup.withRestoreData["a"] = 5;
    putToDoList({{"a", "install"}});
    const auto asset = restored("a", 3);
    EXPECT_EQ(succeed(asset),
              (ended(asset, true) + lookedUp("a") +
               Lines{"log: asset transfer succeeded for a", "registry.installPhaseFinishedForProgress(<progress a>)"} +
               received("a") +
               Lines{"backup.restoreDataExists(a, no size)", "log: Restore data exists for Application:a",
                     "progress(a).setInstallPhase(2)", "files.readFile(" + restoreFile + ")", "plist.serialise(xml)",
                     "files.writeFileAtomically(" + restoreFile + ")"}));
    EXPECT_EQ(client()._restoreStatePropertyForKey_identifier_version("path", "a", "1.0"), Value("/files/app"));
}

TEST_F(TransferCompletion, NeedsNoProgressObjectToKeepARestoredApp) {
    start(false);
    world.backup.withRestoreData["a"] = 5;
    client().assetTransfer_succeeded_withError(restored("a", 3), true, nullptr);
    EXPECT_EQ(world.journal.linesWith("progress("), Lines{});
    EXPECT_EQ(world.journal.count("log: Restore data exists for Application:a"), 1u);
}

// Paths.

TEST_F(TransferCompletion, MakesARelativePathAbsolute) {
    start(true);
    const auto asset = arrived("a", "Foo.ipa");
    succeed(asset);
    EXPECT_EQ(asset->path, "/var/mobile/Media/PublicStaging/Foo.ipa");
}

TEST_F(TransferCompletion, TakesAMissingPathFromTheRestoreState) {
    start(true);
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/kept/file", "path", "a", "1.0");
    const auto asset = arrived("a", std::nullopt);
    succeed(asset);
    EXPECT_EQ(asset->path, "/kept/file");
}

TEST_F(TransferCompletion, LeavesARelativePathOfTheRestoreStateAsItIs) {
    start(true);
    client()._setRestoreStatePropertyValue_forKey_identifier_version("kept/file", "path", "a", "1.0");
    const auto asset = arrived("a", std::nullopt);
    EXPECT_EQ(std::ranges::count(succeed(asset), "log: Received file at kept/file"), 1);
    EXPECT_EQ(asset->path, "kept/file");
}

TEST_F(TransferCompletion, TakesNothingButASafeStringFromTheRestoreState) {
    start(true);
    putToDoList({{"a", "install"}});
    client()._setRestoreStatePropertyValue_forKey_identifier_version(7, "path", "a", "1.0");
    EXPECT_EQ(succeed(arrived("a", std::nullopt)).back(), "log: Ignoring invalid path: (null)");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/x/../y", "path", "a", "1.0");
    EXPECT_EQ(succeed(arrived("a", std::nullopt)).back(), "log: Ignoring invalid path: /x/../y");
    EXPECT_EQ(operationOf("a"), "install");
}

TEST_F(TransferCompletion, IgnoresAPathThatCanClimb) {
    start(true);
    putToDoList({{"a", "install"}});
    const auto asset = arrived("a", "/x/../y");
    EXPECT_EQ(succeed(asset), (ended(asset, true) + noProgress("a") +
                               Lines{"log: asset transfer succeeded for a", "log: Ignoring invalid path: /x/../y"}));
    EXPECT_EQ(operationOf("a"), "install");
    const auto relative = arrived("a", "../y");
    EXPECT_EQ(succeed(relative).back(), "log: Ignoring invalid path: /var/mobile/Media/PublicStaging/../y");
}

TEST_F(TransferCompletion, IgnoresAPathThatNobodyKnows) {
    start(true);
    putToDoList({{"a", "install"}});
    const auto asset = arrived("a", std::nullopt);
    EXPECT_EQ(succeed(asset), (ended(asset, true) + noProgress("a") +
                               Lines{"log: asset transfer succeeded for a", "files.readFile(" + restoreFile + ")",
                                     "log: Ignoring invalid path: (null)"}));
    EXPECT_EQ(operationOf("a"), "install");
}

TEST_F(TransferCompletion, IgnoresASentFileWhosePathIsInvalid) {
    start(true);
    putToDoList({{"a", "install"}});
    const auto asset = arrived("a", "/x/../y");
    asset->isDownload = false;
    EXPECT_EQ(succeed(asset), (ended(asset, true) + noProgress("a") +
                               Lines{"log: asset transfer succeeded for a", "log: Ignoring invalid path: /x/../y"}));
    EXPECT_EQ(operationOf("a"), "install");
}

TEST_F(TransferCompletion, OnlyRecordsWhatWasSentFromTheDevice) {
    start(true);
    putToDoList({{"a", "install"}});
    const auto asset = arrived("a");
    asset->isDownload = false;
    EXPECT_EQ(succeed(asset), ended(asset, true) + noProgress("a") + Lines{"log: asset transfer succeeded for a"} +
                                  changed("a", "install", "SENT"));
}

// Failure.

class FailedTransfer : public TransferCompletion {
  protected:
    static Lines failedLine(const QRAssetPtr& asset, bool recoverable) {
        return {"host.QRIsRecoverableError(TestDomain 7)",
                "log: failed to transfer asset " + asset->description() +
                    ". err=TestDomain 7, recoverable=" + (recoverable ? "1" : "0")};
    }
};

TEST_F(FailedTransfer, LeavesEverythingWhenItMayWorkLater) {
    start(false);
    const auto progress = placeholderWithProgress("a");
    world.errors.recoverableDomains.insert("TestDomain");
    putToDoList({{"a", "install"}});
    const auto asset = arrived("a");
    EXPECT_EQ(fail(asset),
              ended(asset, false) + lookedUp("a") + failedLine(asset, true) + Lines{"progress(a).setInstallState(4)"});
    EXPECT_EQ(operationOf("a"), "install");
}

TEST_F(FailedTransfer, NeedsNoProgressObjectToLeaveEverything) {
    start(true);
    world.errors.recoverableDomains.insert("TestDomain");
    const auto asset = arrived("a");
    EXPECT_EQ(fail(asset), ended(asset, false) + noProgress("a") + failedLine(asset, true));
}

TEST_F(FailedTransfer, DoesNothingForAnAppThatTheRegistryDoesNotHave) {
    start(true);
    const auto asset = arrived("a");
    EXPECT_EQ(fail(asset), ended(asset, false) + noProgress("a") + failedLine(asset, false) +
                               Lines{"registry.applicationIsInstalled(a)"});
}

TEST_F(FailedTransfer, LeavesARestoredAppAlone) {
    start(false);
    placeholderWithProgress("a");
    const auto asset = restored("a", 1);
    EXPECT_EQ(fail(asset), ended(asset, false) + lookedUp("a") + failedLine(asset, false) +
                               Lines{"registry.applicationIsInstalled(a)"});
}

TEST_F(FailedTransfer, LeavesARestoredAppToTheCoordinator) {
    start(true);
    world.registry.addPlaceholder("a");
    const auto asset = restored("a", 1);
    EXPECT_EQ(fail(asset), ended(asset, false) + noProgress("a") + failedLine(asset, false) +
                               Lines{"registry.applicationIsInstalled(a)"});
}

TEST_F(FailedTransfer, TakesThePlaceholderBackThroughTheRegistry) {
    start(false);
    placeholderWithProgress("a", PDInstallStatePaused);
    const auto asset = arrived("a");
    EXPECT_EQ(fail(asset), (ended(asset, false) + lookedUp("a") + failedLine(asset, false) +
                            Lines{"registry.applicationIsInstalled(a)", "progress(a).cancel()",
                                  "log: Uninstalling placeholder a", "log: Uninstalling app using PD a",
                                  "registry.uninstallApplication(a, {UninstallPlaceholdersOnly = 1;})",
                                  "log: Uninstalled a without install co-ordinator with error (null) with status 1"}));
}

TEST_F(FailedTransfer, CancelsNoInstallThatHasEnded) {
    start(false);
    const auto progress = placeholderWithProgress("a", PDInstallStateCanceled);
    EXPECT_EQ(std::ranges::count(fail(arrived("a")), "progress(a).cancel()"), 0);
    EXPECT_EQ(progress->state, PDInstallStateCanceled);
}

TEST_F(FailedTransfer, SaysWhenTheRegistryCouldNotUninstall) {
    start(false);
    placeholderWithProgress("a");
    world.faults.fail("registry.uninstallApplication");
    EXPECT_EQ(fail(arrived("a")).back(),
              "log: Uninstalled a without install co-ordinator with error (null) with status 0");
}

TEST_F(FailedTransfer, TakesThePlaceholderBackThroughTheCoordinator) {
    start(true);
    world.registry.addPlaceholder("a");
    const auto asset = arrived("a");
    EXPECT_EQ(fail(asset), (ended(asset, false) + noProgress("a") + failedLine(asset, false) +
                            Lines{"registry.applicationIsInstalled(a)", "log: Uninstalling placeholder a",
                                  "log: Uninstalling app using install co-ordinator a", "coordinators.uninstallApp(a)",
                                  "log: Uninstalled a with install co-ordinator with error (null) with status 1"}));
    world.faults.fail("coordinators.uninstallApp");
    EXPECT_EQ(fail(asset).back(), "log: Uninstalled a with install co-ordinator with error TestDomain 7 with status 0");
}

TEST_F(FailedTransfer, UninstallsNothingThatThePersonCancelled) {
    start(true);
    world.registry.addPlaceholder("a");
    cancelOnDevice("a");
    journal();
    const auto asset = arrived("a");
    EXPECT_EQ(fail(asset), (ended(asset, false) + noProgress("a") + failedLine(asset, false) +
                            Lines{"registry.applicationIsInstalled(a)", "log: Uninstalling placeholder a",
                                  "log: Uninstalled a with install co-ordinator with error (null) with status 0"}));
    // The cancel counts once.
    EXPECT_EQ(std::ranges::count(fail(asset), "coordinators.uninstallApp(a)"), 1);
}

TEST_F(FailedTransfer, CancelsNoProgressThatThereIsNot) {
    start(false);
    world.registry.addPlaceholder("a");
    const Lines lines = fail(arrived("a"));
    EXPECT_EQ(std::ranges::count(lines, "error: Returning (null) progress for a"), 1);
    EXPECT_EQ(lines.back(), "log: Uninstalled a without install co-ordinator with error (null) with status 1");
}

TEST_F(FailedTransfer, UninstallsWhatWasCancelledBeforeAnEarlierTransferEnded) {
    start(true);
    world.registry.addPlaceholder("a");
    cancelOnDevice("a");
    succeed(arrived("a"));
    EXPECT_EQ(std::ranges::count(fail(arrived("a")), "coordinators.uninstallApp(a)"), 1);
}

TEST_F(FailedTransfer, UninstallsThroughTheRegistryWhoeverCancelled) {
    start(false);
    placeholderWithProgress("a");
    cancelOnDevice("a");
    EXPECT_EQ(fail(arrived("a")).back(),
              "log: Uninstalled a without install co-ordinator with error (null) with status 1");
    EXPECT_EQ(world.registry.find("a", true), nullptr);
}

// Which errors may work later.

TEST_F(FailedTransfer, UninstallsWhatAnInstallerHasRefused) {
    start(true);
    world.registry.addPlaceholder("a");
    world.errors.recoverableDomains = {"PendryError"};
    const Lines lines = fail(arrived("a"), Error::make("PendryError", 1));
    EXPECT_EQ(std::ranges::count(lines, "coordinators.uninstallApp(a)"), 1);
}

TEST_F(FailedTransfer, CountsErrorsOfInstallersAsFinal) {
    start();
    world.errors.recoverableDomains = {"X", "TVInstallerErrorDomain", "PendryError"};
    EXPECT_TRUE(client()._isRecoverableError(Error::make("X", 1)));
    EXPECT_FALSE(client()._isRecoverableError(Error::make("Y", 1)));
    EXPECT_FALSE(client()._isRecoverableError(Error::make("TVInstallerErrorDomain", 1)));
    EXPECT_FALSE(client()._isRecoverableError(Error::make("PendryError", 1)));
    EXPECT_FALSE(client()._isRecoverableError(nullptr));
}

// The end of the transfer phase.

class TransferEnd : public TransferCompletion {
  protected:
    static Lines notice() {
        return {"notify.register(com.zuvex.skellan.qrd.wsyncnotify)", "log: Notifying SK we are done syncing",
                "screen.port()", "notify.setState(token 5, 0)", "notify.post(com.zuvex.skellan.qrd.wsyncnotify)"};
    }
};

TEST_F(TransferEnd, TellsTheHomeScreen) {
    start();
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(journal(), Lines{"log: asset transfer ended withsuccess: y"} + notice());
    client().assetTransferEndedWithSuccess(false);
    EXPECT_EQ(journal(), Lines{"log: asset transfer ended withsuccess: n"} + notice());
}

TEST_F(TransferEnd, RefreshesReceiptsAfterInstalls) {
    start(false);
    client()._performAssetInstall(arrived("a"));
    journal();
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(journal(),
              (Lines{"log: asset transfer ended withsuccess: y"} + notice() +
               Lines{"store.init()", "store.refreshReceipts()", "log: refreshReceiptsWithCompletionBlock succeeded"}));
}

TEST_F(TransferEnd, RefreshesNoReceiptsWithoutInstallsSinceTheLastPhase) {
    start(false);
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("store."), Lines{});
    client()._performAssetInstall(arrived("a"));
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("store.").size(), 2u);
    journal();
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("store."), Lines{});
}

TEST_F(TransferEnd, WaitsUntilReceiptsAreRefreshed) {
    start(false);
    client().assetTransfer_updatedProgress(makeAsset("b"), 0.5);
    client()._performAssetInstall(arrived("a"));
    world.store.completesAtOnce = false;
    std::thread host([this] { client().assetTransferEndedWithSuccess(false); });
    world.journal.waitFor("store.refreshReceipts()");
    EXPECT_EQ(world.journal.linesWith("log: Setting state for outstanding"), Lines{});
    world.store.completions.at(0)(nullptr);
    host.join();
    const Lines lines = journal();
    const auto refreshedAt = std::ranges::find(lines, "log: refreshReceiptsWithCompletionBlock succeeded");
    const auto settledAt = std::ranges::find_if(
        lines, [](const auto& line) { return line.starts_with("log: Setting state for outstanding"); });
    EXPECT_LT(refreshedAt, settledAt);
    EXPECT_NE(settledAt, lines.end());
}

TEST_F(TransferEnd, SaysWhenReceiptsCannotBeRefreshed) {
    start(false);
    client()._performAssetInstall(arrived("a"));
    world.faults.fail("store.refreshReceipts");
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(journal().back(), "log: refreshReceiptsWithCompletionBlock failed: TestDomain 7");
}

TEST_F(TransferEnd, SettlesOutstandingTransfersWithTheCoordinator) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    client().assetTransfer_updatedProgress(makeAsset("b"), 0.5);
    world.coordinators.add("b");
    journal();
    client().assetTransferEndedWithSuccess(false);
    EXPECT_EQ(journal(), (Lines{"log: asset transfer ended withsuccess: n"} + notice() +
                          Lines{"coordinators.any(a, client 3, create 0)", "coordinators.any(b, client 3, create 0)",
                                "log: Cancelling coordinator with error QRError 30 for b",
                                "coordinator(b).cancel(QRError 30, client 3)"}));
    client().assetTransferEndedWithSuccess(false);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{});
}

TEST_F(TransferEnd, SettlesOutstandingTransfersWithTheRegistry) {
    for (const bool success : {true, false}) {
        inmemory::ClientTest::start(false);
        world.registry.uninstallApplication_withOptions("a", nullptr);
        placeholderWithProgress("a");
        client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
        client().assetTransfer_updatedProgress(makeAsset("b"), 0.5);
        journal();
        client().assetTransferEndedWithSuccess(success);
        const std::string name = success ? "PDInstallStateFinished" : "PDInstallStateFailed";
        const std::string setting = "log: Setting state for outstanding RFX loading phase of asset ";
        EXPECT_EQ(
            journal(),
            (Lines{std::string("log: asset transfer ended withsuccess: ") + (success ? "y" : "n")} + notice() +
             Lines{setting + "a to " + name} + lookedUp("a") +
             Lines{std::string("progress(a).setInstallState(") + (success ? "5" : "4") + ")",
                   "registry.installPhaseFinishedForProgress(<progress a>)", setting + "b to " + name} +
             notFound("b") +
             (success ? Lines{"error: Called with success == YES but with 2 outstanding RFX transfers!"} : Lines{})));
    }
}

TEST_F(TransferEnd, CancelsNoCoordinatorAfterASuccess) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    world.coordinators.add("a");
    journal();
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(journal(), (Lines{"log: asset transfer ended withsuccess: y"} + notice() +
                          Lines{"coordinators.any(a, client 3, create 0)",
                                "error: Called with success == YES but with 1 outstanding RFX transfers!"}));
}

TEST_F(TransferEnd, LooksAtEachThingWhenItComesToIt) {
    start(false);
    world.journal.whenAdded("notify.post(", [this] { client()._performAssetInstall(arrived("a")); });
    world.journal.whenAdded("store.refreshReceipts()",
                            [this] { client().assetTransfer_updatedProgress(makeAsset("late"), 0.5); });
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.count("log: refreshReceiptsWithCompletionBlock succeeded"), 1u);
    EXPECT_EQ(journal().back(), "error: Called with success == YES but with 1 outstanding RFX transfers!");
}

TEST_F(TransferEnd, ForgetsEverythingAfterItHasSaidSo) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    world.journal.whenAdded("error: Called with success", [this] {
        client().assetTransfer_updatedProgress(makeAsset("late"), 0.5);
        cancelOnDevice("late");
    });
    client().assetTransferEndedWithSuccess(true);
    journal();
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{});
    cancelOnDevice("late");
    EXPECT_EQ(world.journal.count("log: Cancelling asset sync for late"), 1u);
}

TEST_F(TransferEnd, ForgetsUpdatesOnlyWithOutstandingTransfers) {
    start(true);
    world.registry.addInstalled("a");
    putToDoList({{"a", "install"}});
    ASSERT_EQ(client().outstandingAssetTransfers().size(), 1u);
    client().assetTransferEndedWithSuccess(true);
    journal();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.1);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{"coordinators.updating(a, client 3, create 0)"});
    client().assetTransferEndedWithSuccess(true);
    journal();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.1);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{"coordinators.initiating(a, client 3, create 0)"});
}

TEST_F(TransferEnd, ForgetsCancelsOnTheDeviceOnlyWithOutstandingTransfers) {
    start(true);
    world.registry.addPlaceholder("a");
    cancelOnDevice("a");
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(std::ranges::count(fail(arrived("a")), "coordinators.uninstallApp(a)"), 0);
    cancelOnDevice("a");
    client().assetTransfer_updatedProgress(makeAsset("b"), 0.1);
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(std::ranges::count(fail(arrived("a")), "coordinators.uninstallApp(a)"), 1);
}

TEST_F(TransferEnd, ForgetsAnAssetThatHasEnded) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    fail(arrived("a"));
    client().assetTransferEndedWithSuccess(false);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{});
}

// The outcome of an install.

class InstallOutcome : public TransferCompletion {};

TEST_F(InstallOutcome, RecordsASuccess) {
    start(false);
    putToDoList({{"a", "DOWNLOADED"}});
    client().assetInstallSucceeded(arrived("a"));
    EXPECT_EQ(journal(), Lines{"log: a install succeeded"} + changed("a", "DOWNLOADED", "INSTALLED") + cleaned());
}

TEST_F(InstallOutcome, LeavesNothingInTheRestoreStateHoweverItEnds) {
    start(false);
    const auto remember = [this](std::string_view identifier) {
        client()._setRestoreStatePropertyValue_forKey_identifier_version("/files/app", "path", identifier, "1.0");
    };
    remember("a");
    remember("b");
    client().assetInstallSucceeded(arrived("a"));
    EXPECT_EQ(world.files.plistAt(paths::restoreState),
              Value(Dictionary{{"b", Dictionary{{"1.0", Dictionary{{"path", "/files/app"}}}}}}));
    client().assetInstallFailed_withError(arrived("b"), inmemory::injectedError());
    EXPECT_EQ(world.files.plistAt(paths::restoreState), std::nullopt);
}

TEST_F(InstallOutcome, LeavesTheRecordAfterAFailureThatMayPass) {
    start(false);
    world.errors.recoverableDomains.insert("TestDomain");
    putToDoList({{"a", "DOWNLOADED"}});
    client().assetInstallFailed_withError(arrived("a"), inmemory::injectedError());
    EXPECT_EQ(journal(), Lines({"host.QRIsRecoverableError(TestDomain 7)",
                                "log: a install failed but was recoverable: TestDomain 7",
                                "transactions.logScenario(\"Ulvane restore\", step 0, success 0, a, \"install failed "
                                "recoverably\")"}) +
                             cleaned());
    EXPECT_EQ(operationOf("a"), "DOWNLOADED");
}

TEST_F(InstallOutcome, RecordsWhatTheInstallerHasRefusedAsFailed) {
    start(false);
    world.errors.recoverableDomains.insert("TVInstallerErrorDomain");
    putToDoList({{"a", "DOWNLOADED"}});
    client().assetInstallFailed_withError(arrived("a"), Error::make("TVInstallerErrorDomain", 1));
    EXPECT_EQ(operationOf("a"), "FAILED");
}

TEST_F(InstallOutcome, CountsEveryFailureOfARestoreAsPassing) {
    for (const bool useInstallCoordinator : {false, true}) {
        start(useInstallCoordinator);
        client().assetInstallFailed_withError(restored("a", 1), inmemory::injectedError());
        EXPECT_EQ(
            journal(),
            Lines({"host.QRIsRecoverableError(TestDomain 7)", "log: a install failed but was recoverable: TestDomain 7",
                   "transactions.logScenario(\"Ulvane restore\", step 0, success 0, a, \"install failed "
                   "recoverably\")"}) +
                cleaned());
    }
}

TEST_F(InstallOutcome, RemovesThePlaceholderAfterAFinalFailure) {
    start(false);
    world.registry.addPlaceholder("a");
    putToDoList({{"a", "DOWNLOADED"}});
    client().assetInstallFailed_withError(arrived("a"), inmemory::injectedError());
    EXPECT_EQ(journal(),
              (Lines({"host.QRIsRecoverableError(TestDomain 7)", "log: a install failed unrecoverably: TestDomain 7"}) +
               changed("a", "DOWNLOADED", "FAILED") +
               Lines{"registry.uninstallApplication(a, no options)",
                     "transactions.logScenario(\"Ulvane restore\", step 0, success 1, a, \"placeholder removed\")"} +
               cleaned()));
}

TEST_F(InstallOutcome, SaysWhenThePlaceholderStays) {
    start(false);
    client().assetInstallFailed_withError(arrived("a"), inmemory::injectedError());
    EXPECT_EQ(journal(), Lines({"host.QRIsRecoverableError(TestDomain 7)",
                                "log: a install failed unrecoverably: TestDomain 7", "files.readFile(" + toDo + ")",
                                "registry.uninstallApplication(a, no options)", "error: Uninstall of a failed.",
                                "transactions.logScenario(\"Ulvane restore\", step 0, success 0, a, \"failed to remove "
                                "placeholder\")"}) +
                             cleaned());
}

TEST_F(InstallOutcome, UninstallsThroughTheCoordinatorAfterAFinalFailure) {
    start(true);
    client().assetInstallFailed_withError(arrived("a"), inmemory::injectedError());
    EXPECT_EQ(journal(), Lines({"host.QRIsRecoverableError(TestDomain 7)",
                                "log: a install failed unrecoverably: TestDomain 7", "files.readFile(" + toDo + ")",
                                "transactions.logStep(7, party 1, phase 1, success 1, a, \"Uninstall app\")",
                                "coordinators.uninstallAppLater(a, confirmation 0)"}) +
                             cleaned());
}

} // namespace
} // namespace appsync
