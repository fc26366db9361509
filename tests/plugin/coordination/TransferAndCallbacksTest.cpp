// Feeding the app asset promise, settling, uninstalling, and what coordinator and registry report.
#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <thread>

namespace appsync {
namespace {

using inmemory::Lines;
using InMemoryCoordinator = inmemory::Coordinator<KXAppInstallCoordinator>;

class CoordinatedTransfer : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        start();
        asset = makeAsset("a");
        asset->path = "/file";
        asset->downloadProgress = 0.25;
        asset->installProgress = 0.125;
    }
    std::shared_ptr<inmemory::TransferPromise> addPromise(const std::string& kind = "initiating") {
        const auto promise = std::make_shared<inmemory::TransferPromise>(world.context, "a-Asset");
        world.coordinators.add("a", kind)->assetPromise = promise;
        return promise;
    }
    static Lines lookedUp(const std::string& kind, bool found) {
        Lines lines{"transactions.logStep(3, party 1, phase 1, success 1, a, \"Create coordinator\")",
                    "coordinators." + kind + "(a, client 3, create 0)"};
        if (found) {
            lines.push_back("log: Created " + kind + " coordinator <" + kind +
                            " a> (createIfNotExisting:0, existingApp:" + (kind == "updating" ? "1" : "0") +
                            ") for a with error (null)");
        }
        lines.push_back(std::string("transactions.logStep(3, party 1, phase 2, success ") + (found ? "1" : "0") +
                        ", a, \"Finished creating coordinator\")");
        return lines;
    }
    QRAssetPtr asset;
};

TEST_F(CoordinatedTransfer, ProgressGoesToThePromise) {
    addPromise();
    EXPECT_TRUE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(lookedUp("initiating", true),
                              {"log: Updating download progress: 0.250000 install progress:0.125000 for a",
                               "promise(a-Asset).setPercentComplete(0.250000)"}));
}

TEST_F(CoordinatedTransfer, ProgressOfAnUpdateGoesToTheUpdatingCoordinator) {
    addPromise("updating");
    EXPECT_TRUE(client().updateTransferProgressForApp_existingApp(asset, true));
    EXPECT_EQ(journal().at(1), "coordinators.updating(a, client 3, create 0)");
}

TEST_F(CoordinatedTransfer, ProgressMakesAMissingPromise) {
    world.coordinators.add("a");
    EXPECT_TRUE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(lookedUp("initiating", true),
                              {"promises.transfer(a-Asset, client 3, file:///file, 0)",
                               "coordinator(a).setAppAssetPromise(<promise a-Asset>)",
                               "log: Added app asset promise to coordinator for 'a'",
                               "log: Updating download progress: 0.250000 install progress:0.125000 for a",
                               "promise(a-Asset).setPercentComplete(0.250000)"}));
}

TEST_F(CoordinatedTransfer, ProgressMakesAPromiseWithoutPathForAFileThatHasNoneYet) {
    world.coordinators.add("a");
    asset->path = std::nullopt;
    EXPECT_TRUE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(world.journal.linesWith("promises."), Lines{"promises.transfer(a-Asset, client 3, no path, 0)"});
}

TEST_F(CoordinatedTransfer, ProgressAndCompletionSurviveAPromiseThatCannotBeMade) {
    world.coordinators.add("a");
    world.faults.fail("promises.transfer", inmemory::Faults::always);
    client().updateTransferProgressForApp_existingApp(asset, false);
    client().transferCompleteForApp_existingApp(asset, false);
    EXPECT_EQ(world.journal.linesWith("promise("), Lines{});
}

TEST_F(CoordinatedTransfer, ProgressAndCompletionGoOnWithoutAPromise) {
    world.coordinators.add("a");
    world.faults.fail("promises.transfer", inmemory::Faults::always);
    const Lines tried = join(lookedUp("initiating", true), {"promises.transfer(a-Asset, client 3, file:///file, 0)",
                                                            "error: Error creating asset promise for 'a'"});
    EXPECT_TRUE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(tried, {"log: Updating download progress: 0.250000 install progress:0.125000 for a"}));
    EXPECT_TRUE(client().transferCompleteForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(tried, {"log: Satisfying asset promise for a"}));
}

TEST_F(CoordinatedTransfer, ProgressNeedsAWorkingCoordinator) {
    EXPECT_FALSE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), lookedUp("initiating", false));
    addPromise();
    world.coordinators.find("a")->error = inmemory::injectedError();
    EXPECT_FALSE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), lookedUp("initiating", true));
}

TEST_F(CoordinatedTransfer, ProgressComesTooLateForASatisfiedPromise) {
    addPromise()->complete = true;
    EXPECT_FALSE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(lookedUp("initiating", true), {"log: Asset promise is already satisfied for a"}));
}

TEST_F(CoordinatedTransfer, CompletionSatisfiesThePromise) {
    addPromise();
    EXPECT_TRUE(client().transferCompleteForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(lookedUp("initiating", true),
                              {"promise(a-Asset).setTransferPath(file:///file)", "log: Satisfying asset promise for a",
                               "promise(a-Asset).setPercentComplete(1.000000)", "promise(a-Asset).setComplete(1)"}));
    EXPECT_FALSE(client().transferCompleteForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), join(lookedUp("initiating", true), {"log: Asset promise is already satisfied for a"}));
}

TEST_F(CoordinatedTransfer, CompletionMakesAMissingPromise) {
    world.coordinators.add("a", "updating");
    EXPECT_TRUE(client().transferCompleteForApp_existingApp(asset, true));
    EXPECT_EQ(journal(),
              join(lookedUp("updating", true),
                   {"promises.transfer(a-Asset, client 3, file:///file, 0)",
                    "coordinator(a).setAppAssetPromise(<promise a-Asset>)",
                    "log: Added app asset promise to coordinator for 'a'", "log: Satisfying asset promise for a",
                    "promise(a-Asset).setPercentComplete(1.000000)", "promise(a-Asset).setComplete(1)"}));
}

TEST_F(CoordinatedTransfer, CompletionNeedsAWorkingCoordinator) {
    EXPECT_FALSE(client().transferCompleteForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), lookedUp("initiating", false));
    addPromise();
    world.coordinators.find("a")->error = inmemory::injectedError();
    EXPECT_FALSE(client().transferCompleteForApp_existingApp(asset, false));
    EXPECT_EQ(journal(), lookedUp("initiating", true));
}

TEST_F(CoordinatedTransfer, AFailedSyncCancelsWhatIsOutstanding) {
    world.coordinators.add("b");
    world.coordinators.add("c", "updating");
    client().assetSyncFinishedWithStatus_outstandingItems(false, {"a", "b", "c"});
    EXPECT_EQ(
        journal(),
        (Lines{"coordinators.any(a, client 3, create 0)", "coordinators.any(b, client 3, create 0)",
               "log: Cancelling coordinator with error QRError 30 for b", "coordinator(b).cancel(QRError 30, client 3)",
               "coordinators.any(c, client 3, create 0)", "log: Cancelling coordinator with error QRError 30 for c",
               "coordinator(c).cancel(QRError 30, client 3)"}));
}

TEST_F(CoordinatedTransfer, ASuccessfulSyncCancelsNothing) {
    world.coordinators.add("b");
    client().assetSyncFinishedWithStatus_outstandingItems(true, {"b"});
    EXPECT_EQ(journal(), Lines{"coordinators.any(b, client 3, create 0)"});
}

TEST_F(CoordinatedTransfer, UninstallingLogsItsOutcomeWhenItComes) {
    client().uninstallAppUsingCoordination("a");
    client().uninstallAppUsingCoordination("b");
    EXPECT_EQ(journal(), (Lines{"transactions.logStep(7, party 1, phase 1, success 1, a, \"Uninstall app\")",
                                "coordinators.uninstallAppLater(a, confirmation 0)",
                                "transactions.logStep(7, party 1, phase 1, success 1, b, \"Uninstall app\")",
                                "coordinators.uninstallAppLater(b, confirmation 0)"}));
    stop(); // the outcome may come when the client has gone
    journal();
    world.coordinators.any.completions.at(0)(nullptr);
    world.coordinators.any.completions.at(1)(inmemory::injectedError());
    EXPECT_EQ(journal(), (Lines{"log: Uninstall of a with install coordinator succeeded wiht error (null).",
                                "transactions.logStep(7, party 1, phase 2, success 1, a, \"Uninstall app\")",
                                "log: Uninstall of b with install coordinator succeeded wiht error TestDomain 7.",
                                "transactions.logStep(7, party 1, phase 2, success 0, b, \"Uninstall app\")"}));
}

// Callbacks.

class Callbacks : public inmemory::ClientTest {
  protected:
    std::shared_ptr<InMemoryCoordinator> coordinator(const std::string& identifier, ErrorPtr error = nullptr) {
        const auto state = world.coordinators.add(identifier);
        state->error = std::move(error);
        return std::make_shared<InMemoryCoordinator>(world.context, state);
    }
    std::shared_ptr<InMemoryCoordinator> nameless() {
        const auto state = world.coordinators.add("x");
        state->hasIdentifier = false;
        return std::make_shared<InMemoryCoordinator>(world.context, state);
    }
    const std::string toDo{paths::toDoList};
    const std::string restore{paths::restoreState};
};

TEST_F(Callbacks, LogThatAPromiseBegins) {
    start().promiseDidBeginFulfillmentWithIdentifier(18446744073709551615U);
    EXPECT_EQ(journal(), Lines{"log: promiseDidBeginFulfillmentWithIdentifier 18446744073709551615"});
}

TEST_F(Callbacks, LogAnInstalledPlaceholder) {
    start();
    client().coordinatorDidInstallPlaceholder(coordinator("a"));
    client().coordinatorDidInstallPlaceholder(coordinator("b", inmemory::injectedError()));
    EXPECT_EQ(journal(), (Lines{"log: coordinatorDidInstallPlaceholder for a with error (null)",
                                "log: coordinatorDidInstallPlaceholder for b with error TestDomain 7"}));
}

TEST_F(Callbacks, RecordACompletion) {
    start();
    putToDoList({{"a", "DOWNLOADED"}});
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    journal();
    client().coordinatorDidCompleteSuccessfully(coordinator("a"));
    EXPECT_EQ(journal(),
              (Lines{"log: coordinatorDidCompleteSuccessfully for a with error (null)", "files.readFile(" + toDo + ")",
                     "plist.parse()", "log: Changing a from DOWNLOADED to INSTALLED", "plist.serialise(binary)",
                     "files.writeFileAtomically(" + toDo + ")", "files.readFile(" + restore + ")", "plist.parse()",
                     "files.removeItem(" + restore + ")"}));
}

TEST_F(Callbacks, RecordAFailedCompletion) {
    start();
    putToDoList({{"a", "DOWNLOADED"}});
    client().coordinatorDidCompleteSuccessfully(coordinator("a", inmemory::injectedError()));
    EXPECT_EQ(journal(), (Lines{"log: coordinatorDidCompleteSuccessfully for a with error TestDomain 7",
                                "files.readFile(" + toDo + ")", "plist.parse()",
                                "log: Changing a from DOWNLOADED to FAILED", "plist.serialise(binary)",
                                "files.writeFileAtomically(" + toDo + ")", "files.readFile(" + restore + ")"}));
    EXPECT_EQ(operationOf("a"), "FAILED");
}

TEST_F(Callbacks, RecordACompletionOnTheirCallersThread) {
    start();
    putToDoList({{"a", "DOWNLOADED"}});
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    std::vector<std::thread::id> writers;
    for (const std::string& change : {"files.writeFileAtomically(" + toDo, "files.removeItem(" + restore}) {
        world.journal.whenAdded(change, [&writers] { writers.push_back(std::this_thread::get_id()); });
    }
    client().coordinatorDidCompleteSuccessfully(coordinator("a"));
    EXPECT_EQ(writers, std::vector<std::thread::id>(2, std::this_thread::get_id()));
}

TEST_F(Callbacks, RecordNothingForANamelessCoordinator) {
    start();
    putToDoList({{"a", "DOWNLOADED"}});
    client().coordinatorDidCompleteSuccessfully(nameless());
    client().coordinatorShouldPrioritize(nameless());
    client().coordinator_canceledWithReason_client(nameless(), nullptr, 1);
    EXPECT_EQ(journal(), Lines{"log: coordinatorDidCompleteSuccessfully for (null) with error (null)"});
}

TEST_F(Callbacks, AskTheHostToPrioritise) {
    start();
    client().coordinatorShouldPrioritize(coordinator("a"));
    EXPECT_EQ(journal(),
              (Lines{"log: Prioritize a", "host.prioritizeAsset(<Application:a (null) download path=(null)>)"}));
    stop(); // the outcome may come when the client has gone
    journal();
    world.deviceService.completions.at(0)(nullptr);
    world.deviceService.completions.at(0)(inmemory::injectedError());
    EXPECT_EQ(journal(), (Lines{"log: Prioritize a finished with error (null)",
                                "log: Prioritize a finished with error TestDomain 7"}));
}

TEST_F(Callbacks, SayWhenTheHostCannotPrioritise) {
    start();
    world.deviceService.canPrioritize = false;
    client().coordinatorShouldPrioritize(coordinator("a"));
    world.deviceService.exists = false;
    client().coordinatorShouldPrioritize(coordinator("a"));
    EXPECT_EQ(journal(), (Lines{"log: Prioritize a", "error: Cannot prioritize a as it's not supported",
                                "log: Prioritize a", "error: Cannot prioritize a as it's not supported"}));
}

TEST_F(Callbacks, PassACancelOnOnce) {
    start();
    client().coordinator_canceledWithReason_client(coordinator("a"), inmemory::injectedError(), 1);
    client().coordinator_canceledWithReason_client(coordinator("a"), nullptr, 3);
    EXPECT_EQ(journal(), (Lines{"log: Cancelling asset sync for a",
                                "host.cancelAssetTransferForFailedAsset(<Application:a (null) download path=(null)>)",
                                "error: Cannot cancel a as it's already cancelled 1 OR the call is not supported"}));
}

TEST_F(Callbacks, SayWhenTheHostCannotCancel) {
    start();
    world.deviceService.canCancel = false;
    client().coordinator_canceledWithReason_client(coordinator("a"), nullptr, 1);
    world.deviceService.exists = false;
    client().coordinator_canceledWithReason_client(coordinator("b"), nullptr, 1);
    EXPECT_EQ(journal(), (Lines{"error: Cannot cancel a as it's already cancelled 0 OR the call is not supported",
                                "error: Cannot cancel b as it's already cancelled 0 OR the call is not supported"}));
}

TEST_F(Callbacks, PassACancelOnOnceHoweverManyThreadsReportIt) {
    start();
    const auto cancelled = coordinator("a");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { client().coordinator_canceledWithReason_client(cancelled, nullptr, 1); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(world.journal.linesWith("host.cancel").size(), 1u);
    EXPECT_EQ(world.journal.linesWith("error: Cannot cancel a as it's already cancelled 1").size(), 3u);
}

TEST_F(Callbacks, RememberACancelThatTheHostCouldNotTake) {
    start();
    world.deviceService.canCancel = false;
    client().coordinator_canceledWithReason_client(coordinator("a"), nullptr, 1);
    world.deviceService.canCancel = true;
    journal();
    client().coordinator_canceledWithReason_client(coordinator("a"), nullptr, 1);
    EXPECT_EQ(journal(), Lines{"error: Cannot cancel a as it's already cancelled 1 OR the call is not supported"});
}

TEST_F(Callbacks, LetTheHostEndACancelledTransferWithinTheirCall) {
    start();
    world.registry.addPlaceholder("a");
    world.journal.whenAdded("host.cancelAssetTransferForFailedAsset", [this] {
        client().assetTransfer_succeeded_withError(makeAsset("a"), false, inmemory::injectedError());
    });
    client().coordinator_canceledWithReason_client(coordinator("a"), nullptr, 1);
    EXPECT_EQ(world.journal.linesWith("log: transfer for asset").size(), 1u);
    // The transfer knows that the person has cancelled it.
    EXPECT_EQ(world.journal.linesWith("coordinators.uninstallApp("), Lines{});
}

TEST_F(Callbacks, LeaveTheRegistrysCancelsToTheCoordinator) {
    start(true);
    client().applicationInstallsDidCancel({world.registry.addPlaceholder("a", 2)});
    EXPECT_EQ(journal(), Lines{"log: not handling applicationInstallsDidCancel because install coordination is "
                               "enabled."});
}

TEST_F(Callbacks, FailTheTransfersOfCancelledRestores) {
    start(false);
    client().applicationInstallsDidCancel({world.registry.addPlaceholder("a", 2), world.registry.addPlaceholder("b", 4),
                                           world.registry.addPlaceholder("c", 2)});
    EXPECT_EQ(world.journal.linesWith("log: transfer for asset"),
              (Lines{"log: transfer for asset <Application:a (null) download path=(null)> ended with success n error "
                     "QRError 2 existingApp:0",
                     "log: transfer for asset <Application:c (null) download path=(null)> ended with success n error "
                     "QRError 2 existingApp:0"}));
}

TEST_F(Callbacks, FailTheTransferOfTheAppThatTheRegistryCallsCancelled) {
    start(false);
    const auto cancelled = world.registry.addPlaceholder("a", 2);
    cancelled->registeredAs = "registered";
    client().applicationInstallsDidCancel({cancelled});
    EXPECT_EQ(world.journal.linesWith("log: transfer for asset"),
              Lines{"log: transfer for asset <Application:registered (null) download path=(null)> ended with success n "
                    "error QRError 2 existingApp:0"});
}

TEST_F(Callbacks, IgnoreOtherCancelledInstalls) {
    start(false);
    client().applicationInstallsDidCancel(
        {world.registry.addPlaceholder("a", 4), world.registry.addPlaceholder("b", 7)});
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(Callbacks, SayNothingOfReportsThatNobodyHandles) {
    start(true);
    const auto reported = coordinator("a");
    KXAppInstallObserverDelegate& delegate = client();
    delegate.coordinatorShouldResume(reported);
    delegate.coordinatorShouldPause(reported);
    delegate.coordinator_configuredPromiseDidBeginFulfillment(reported, 1);
    delegate.coordinatorShouldBeginRestoringUserData(reported);
    delegate.shouldPrioritizeAppWithBundleID("a");
    PDApplicationWorkspaceObserverProtocol& observer = client();
    const auto placeholder = world.registry.addPlaceholder("a");
    observer.applicationInstallsArePrioritized_arePaused({placeholder}, {placeholder});
    EXPECT_EQ(journal(), Lines{});
}

} // namespace
} // namespace appsync
