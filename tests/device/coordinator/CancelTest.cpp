// Cancelling, prioritising and uninstalling while coordinators are open.
#include "archive/InstallerError.h"
#include "concurrency/Semaphore.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/ApplicationWorkspace.h"
#include "device/root/Paths.h"
#include "tests/device/coordinator/CoordinatorTest.h"

#include <thread>

namespace appsync::device {
namespace {

ErrorPtr reason() {
    return Error::make(QRErrorDomain, 30);
}

TEST_F(CoordinatorTest, ACancelByItsOwnClientTakesEverythingAwayAndIsNotReported) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    EXPECT_TRUE(app.coordinator->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(reports.lines().empty());
    EXPECT_EQ(app.coordinator->error()->code(), 30);
    EXPECT_FALSE(registry->application(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, ACancelByAnotherClientIsReported) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    EXPECT_TRUE(find(A)->cancelForReason_client_error(reason(), KXClientCorbin, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"cancelled " + A + " by 1 with QRError 30"});
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, APersonCancelsAnInstallThatWaitsForItsFile) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    EXPECT_TRUE(coordinator->cancelByUser(A));
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"cancelled " + A + " by 2 with DeviceInstallCoordinator 11"});
    expectNothingLeftOf(A);
    EXPECT_FALSE(coordinator->cancelByUser(A));
    EXPECT_FALSE(coordinator->cancelByUser("com.example.unknown"));
}

TEST_F(CoordinatorTest, ACancelledUpdateLeavesTheInstalledVersion) {
    install(A, "1.0");
    (void)prepare(A, true);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(coordinator->cancelByUser(A));
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->application(A)->version, "1.0");
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, ARunningInstallIsStopped) {
    const auto gate = std::make_shared<Gate>("create", "App.app");
    reopen(gate);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    gate->close();
    deliver(app, makeArchive(A));
    gate->waitForArrival();
    bool isCancelled = false;
    std::thread person([&] { isCancelled = coordinator->cancelByUser(A); });
    while (!app.coordinator->error()) { // set before the install is asked to stop
        std::this_thread::yield();
    }
    ErrorPtr error;
    EXPECT_FALSE(app.coordinator->setInstallOptions_error(TVInstallOptions{}, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::ended));
    gate->open();
    person.join();
    EXPECT_TRUE(isCancelled);
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), (Lines{"promise 1", "cancelled " + A + " by 2 with DeviceInstallCoordinator 11"}));
    EXPECT_FALSE(registry->application(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, APlaceholderThatIsBeingInstalledIsTakenAwayAgain) {
    // In the registry, and when it is installed and its icon file is being removed.
    for (const auto& gate : {std::make_shared<Gate>("link", "Icon.png"), std::make_shared<Gate>("unlink", "/tmp/")}) {
        reopen(gate);
        const auto made = lookUp(classes().initiatingCoordinators, A, true);
        const auto placeholder = makePlaceholder(A);
        gate->close();
        ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
        gate->waitForArrival();
        std::thread client([&] { made->cancelForReason_client_error(reason(), KXClientCorbin, nullptr); });
        while (!made->error()) {
            std::this_thread::yield();
        }
        gate->open();
        client.join();
        coordinator->waitUntilIdle();
        EXPECT_EQ(reports.take(), (Lines{"placeholder " + A, "cancelled " + A + " by 1 with QRError 30"}));
        expectNothingLeftOf(A);
    }
}

TEST_F(CoordinatorTest, ACancelThatComesTooLateIsRefusedAndTheInstallIsASuccess) {
    // The last thing before the app is registered: the way back is closed then.
    const auto gate = std::make_shared<Gate>("rename", "/var/containers/Bundle/Application");
    reopen(gate);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    const std::string archive = makeArchive(A);
    app.asset->setTransferPath(FileURL::fileURLWithPath(archive, false));
    gate->close();
    app.asset->setComplete(true);
    gate->waitForArrival();
    ErrorPtr error;
    bool isCancelled = true;
    std::thread client(
        [&] { isCancelled = app.coordinator->cancelForReason_client_error(reason(), KXClientCorbin, &error); });
    while (!app.coordinator->error()) {
        std::this_thread::yield();
    }
    gate->open();
    client.join();
    EXPECT_FALSE(isCancelled);
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::tooLate));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
    EXPECT_EQ(reports.lines(), Lines{"completed " + A});
    EXPECT_EQ(app.coordinator->error(), nullptr);
}

TEST_F(CoordinatorTest, ASecondCancelIsRefused) {
    const auto app = prepare(A);
    EXPECT_TRUE(app.coordinator->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    ErrorPtr error;
    EXPECT_FALSE(app.coordinator->cancelForReason_client_error(reason(), KXClientSyncHost, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::ended));
}

TEST_F(CoordinatorTest, ACoordinatorThatHasEndedTakesNothingMore) {
    const auto app = prepare(A);
    ASSERT_TRUE(app.coordinator->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    const auto promise = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    EXPECT_FALSE(app.coordinator->setInstallOptions_error(TVInstallOptions{}, nullptr));
    EXPECT_FALSE(app.coordinator->setAppAssetPromise_error(promise, nullptr));
    EXPECT_FALSE(app.coordinator->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    deliver(app, makeArchive(A));
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->application(A));
    EXPECT_EQ(allRows(), 0);
}

TEST_F(CoordinatorTest, AfterACancelTheAppMayHaveANewCoordinator) {
    ASSERT_TRUE(prepare(A).coordinator->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    deliver(prepare(A), makeArchive(A));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
}

TEST_F(CoordinatorTest, ANewCoordinatorWaitsUntilTheOldOneIsClearedAway) {
    const auto gate = std::make_shared<Gate>("unlink", "/var/containers/Bundle/Application");
    reopen(gate);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    gate->close();
    std::thread client([&] { app.coordinator->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr); });
    gate->waitForArrival(); // at the placeholder's removal
    EXPECT_EQ(find(A), nullptr);
    std::atomic<bool> isMade = false;
    std::thread other([&] { isMade = lookUp(classes().initiatingCoordinators, A, true) != nullptr; });
    EXPECT_FALSE(isMade);
    gate->open();
    client.join();
    other.join();
    EXPECT_TRUE(isMade);
    EXPECT_FALSE(find(A)->hasInstallOptions());
}

TEST_F(CoordinatorTest, APromiseThatIsCancelledCancelsItsCoordinator) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(app.asset->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    EXPECT_EQ(app.coordinator->error()->code(), 30);
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, APlaceholderThatIsCancelledCancelsItsCoordinator) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(app.placeholder->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, WhatIsCancelledBeforeItIsAttachedCannotBeAttached) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto promise = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    EXPECT_TRUE(promise->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    EXPECT_FALSE(promise->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    EXPECT_FALSE(made->setAppAssetPromise_error(promise, nullptr));
    promise->setComplete(true);
    EXPECT_FALSE(promise->isComplete());

    const auto placeholder = makePlaceholder(A);
    EXPECT_TRUE(placeholder->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    EXPECT_FALSE(exists(iconFolder(A))) << "nobody else removes its icon";
    EXPECT_FALSE(made->setPlaceholderPromise_error(placeholder, nullptr));
    EXPECT_EQ(made->error(), nullptr);
}

TEST_F(CoordinatorTest, APlaceholderMayBeDescribedAndCancelledWhileItsChangesAreRefused) {
    const std::string app = "com.example.an-app-whose-name-is-no-short-text";
    const auto made = lookUp(classes().initiatingCoordinators, app, true);
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "Name of " + app, app, PDInstallTypeSync, KXClientSyncHost);
    ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    std::atomic<bool> isDone = false;
    std::atomic<int> refused = 0;
    std::thread changing([&] {
        while (!isDone) {
            refused += placeholder->setIconPromise_error(nullptr, nullptr) ? 0 : 1;
        }
    });
    const std::string description = placeholder->description();
    while (refused < 1'000) {
        EXPECT_EQ(placeholder->description(), description);
    }
    EXPECT_TRUE(placeholder->cancelForReason_client_error(reason(), KXClientSyncHost, nullptr));
    isDone = true;
    changing.join();
}

TEST_F(CoordinatorTest, APersonsWishForAnAppToComeFirstIsReported) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    EXPECT_TRUE(coordinator->prioritizeByUser(A));
    EXPECT_FALSE(coordinator->prioritizeByUser(B));
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"prioritize " + A});
}

/// Hears which installs come first and which were cancelled.
class Followed final : public PDApplicationWorkspaceObserver {
  public:
    void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies& prioritized,
                                                     const PDApplicationProxies&) noexcept override {
        for (const PDApplicationProxyPtr& proxy : prioritized) {
            order.push_back(proxy->applicationIdentifier());
        }
        _toldOfOrder.signal();
    }
    void applicationInstallsDidCancel(const PDApplicationProxies& applications) noexcept override {
        for (const PDApplicationProxyPtr& proxy : applications) {
            cancelled.push_back(proxy->applicationIdentifier());
        }
        _toldOfCancel.signal();
    }
    void waitForOrder() { _toldOfOrder.wait(); }
    void waitForCancel() { _toldOfCancel.wait(); }
    /// Read by the test once the observer is removed: no call is running then.
    Lines order;
    Lines cancelled;

  private:
    Semaphore _toldOfOrder;
    Semaphore _toldOfCancel;
};

TEST_F(CoordinatorTest, AnAppThatAPersonWantsFirstIsFirstInTheRegistry) {
    (void)prepare(A);
    (void)prepare(B);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(coordinator->prioritizeByUser(B));
    ApplicationWorkspace workspace(*registry);
    Followed followed;
    workspace.addObserver(&followed);
    followed.waitForOrder();
    workspace.removeObserver(&followed);
    EXPECT_EQ(followed.order, (Lines{B, A}));
}

TEST_F(CoordinatorTest, APersonsCancelIsToldByTheRegistryToo) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    ApplicationWorkspace workspace(*registry);
    Followed followed;
    workspace.addObserver(&followed);
    followed.waitForOrder();
    EXPECT_TRUE(coordinator->cancelByUser(A));
    followed.waitForCancel();
    workspace.removeObserver(&followed);
    EXPECT_EQ(followed.cancelled, Lines{A});
}

TEST_F(CoordinatorTest, AnAppThatAPersonWantsFirstOvertakesThoseThatWaitForAWorker) {
    const auto gate = std::make_shared<Gate>("mkdir", std::string(stagingFolder));
    reopen(gate);
    const auto name = [](std::size_t number) { return "com.example.n" + std::to_string(number); };
    std::vector<Preparation> apps;
    for (std::size_t i = 0; i < maxStepsAtOnce + 2; ++i) {
        apps.push_back(prepare(name(i)));
    }
    coordinator->waitUntilIdle();
    gate->close();
    for (std::size_t i = 0; i < apps.size(); ++i) {
        deliver(apps[i], makeArchive(name(i), "1.0", "N" + std::to_string(i)));
    }
    gate->waitForArrivals(maxStepsAtOnce);
    EXPECT_TRUE(coordinator->prioritizeByUser(name(maxStepsAtOnce + 1)));
    gate->letOnePass();
    gate->waitForArrivals(maxStepsAtOnce + 1);
    EXPECT_EQ(registry->existingProgress(name(maxStepsAtOnce))->installPhase(), PDInstallPhaseLoading);
    EXPECT_EQ(registry->existingProgress(name(maxStepsAtOnce + 1))->installPhase(), PDInstallPhaseInstalling);
    gate->open();
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->applications().size(), maxStepsAtOnce + 2);
}

TEST_F(CoordinatorTest, TakingAnInstallBackEndsItAndLeavesTheApp) {
    install(A, "1.0");
    const auto app = prepare(A, true);
    coordinator->waitUntilIdle();
    (void)reports.take();
    EXPECT_TRUE(classes().coordinators.uninstallAppWithBundleID_error(A, nullptr));
    EXPECT_TRUE(isError(app.coordinator->error(), coordinatorErrorDomain, CoordinatorError::uninstalled));
    EXPECT_EQ(registry->application(A)->version, "1.0");
    coordinator->waitUntilIdle();
    EXPECT_TRUE(reports.lines().empty());
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, AnInstallThatHasSucceededMeanwhileCannotBeTakenBack) {
    // The last thing before the app is registered: the way back is closed then.
    const auto gate = std::make_shared<Gate>("rename", "/var/containers/Bundle/Application");
    reopen(gate);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    app.asset->setTransferPath(FileURL::fileURLWithPath(makeArchive(A), false));
    gate->close();
    app.asset->setComplete(true);
    gate->waitForArrival();
    ErrorPtr error;
    bool isTakenBack = true;
    std::thread client([&] { isTakenBack = classes().coordinators.uninstallAppWithBundleID_error(A, &error); });
    while (!app.coordinator->error()) {
        std::this_thread::yield();
    }
    gate->open();
    client.join();
    EXPECT_FALSE(isTakenBack);
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::tooLate));
    EXPECT_TRUE(registry->isInstalled(A));
}

class Completion {
  public:
    auto callback() {
        return [this](const ErrorPtr& error) {
            outcome = error;
            thread = std::this_thread::get_id();
            _ran.signal();
        };
    }
    void wait() { _ran.wait(); }
    ErrorPtr outcome;
    std::thread::id thread;

  private:
    Semaphore _ran;
};

TEST_F(CoordinatorTest, UninstallingInTheBackgroundRemovesAppAndUpdateAndCompletesOnTheServicesThread) {
    install(A, "1.0");
    (void)prepare(A, true);
    coordinator->waitUntilIdle();
    Completion completion;
    classes().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(A, false, completion.callback());
    coordinator->waitUntilIdle();
    completion.wait();
    EXPECT_EQ(completion.outcome, nullptr);
    EXPECT_NE(completion.thread, std::this_thread::get_id());
    EXPECT_FALSE(registry->application(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, UninstallingAPlaceholderInTheBackgroundIsASuccess) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    Completion completion;
    classes().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(A, false, completion.callback());
    completion.wait();
    EXPECT_EQ(completion.outcome, nullptr);
    EXPECT_FALSE(registry->application(A));
}

TEST_F(CoordinatorTest, UninstallingInTheBackgroundAnAppWhosePlaceholderIsNotUpYetIsASuccess) {
    (void)lookUp(classes().initiatingCoordinators, A, true);
    Completion completion;
    classes().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(A, false, completion.callback());
    completion.wait();
    EXPECT_EQ(completion.outcome, nullptr);
    EXPECT_EQ(find(A), nullptr);
}

TEST_F(CoordinatorTest, UninstallingWhatIsNotThereOrNeedsAPersonsWordCompletesWithAnError) {
    Completion missing;
    classes().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(A, false, missing.callback());
    missing.wait();
    EXPECT_TRUE(isError(missing.outcome, TVInstallerErrorDomain, InstallerError::nothingToRemove));
    install(A);
    Completion asked;
    classes().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(A, true, asked.callback());
    asked.wait();
    EXPECT_TRUE(isError(asked.outcome, coordinatorErrorDomain, CoordinatorError::unsupported));
    EXPECT_TRUE(registry->isInstalled(A));
}

TEST_F(CoordinatorTest, APersonWhoRemovesAnAppEndsItsUpdateAndTheClientHears) {
    install(A, "1.0");
    (void)prepare(A, true);
    coordinator->waitUntilIdle();
    (void)reports.take();
    EXPECT_TRUE(coordinator->uninstallByUser(A));
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"cancelled " + A + " by 2 with DeviceInstallCoordinator 12"});
    EXPECT_FALSE(registry->application(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, CancelsFromManyThreadsEndEachCoordinatorOnce) {
    std::vector<Preparation> apps;
    for (int i = 0; i < 20; ++i) {
        apps.push_back(prepare("com.example.n" + std::to_string(i)));
    }
    std::atomic<int> cancelled = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (const Preparation& app : apps) {
                cancelled += app.coordinator->cancelForReason_client_error(reason(), KXClientCorbin, nullptr) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    coordinator->waitUntilIdle();
    EXPECT_EQ(cancelled, 20);
    const Lines lines = reports.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("cancelled"); }),
              20);
    EXPECT_TRUE(registry->applications().empty());
    EXPECT_EQ(allRows(), 0);
}

} // namespace
} // namespace appsync::device
