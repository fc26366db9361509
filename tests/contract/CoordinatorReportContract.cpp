// What coordinators do, and what is reported of it.
#include "platform/InstallCoordinator.h"
#include "tests/contract/Apps.h"

#include <atomic>
#include <functional>
#include <future>
#include <set>
#include <thread>

namespace appsync::contract {
namespace {

/// Keeps what it is told, one line each.
class Reports final : public KXAppInstallObserverDelegate {
  public:
    void coordinatorShouldPrioritize(const KXAppInstallCoordinatorPtr& coordinator) noexcept override {
        _note("prioritize", coordinator, nullptr);
    }
    void coordinatorDidInstallPlaceholder(const KXAppInstallCoordinatorPtr& coordinator) noexcept override {
        _note("placeholder", coordinator, nullptr);
    }
    void coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept override {
        _note("completed", coordinator, coordinator->error());
    }
    void coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator, const ErrorPtr& reason,
                                               KXClientIdentifier client) noexcept override {
        EXPECT_NE(reason, nullptr);
        EXPECT_NE(client, KXClientSyncHost) << "it was not the client itself";
        _note("cancelled", coordinator, nullptr);
    }

    [[nodiscard]] testing::AssertionResult waitFor(const std::string& line) {
        std::unique_lock lock(_mutex);
        return awaitOn(
            _told, lock, [&] { return std::ranges::find(_lines, line) != _lines.end(); }, "the report: " + line);
    }
    [[nodiscard]] bool has(const std::string& line) {
        const std::lock_guard lock(_mutex);
        return std::ranges::find(_lines, line) != _lines.end();
    }
    [[nodiscard]] std::size_t count() {
        const std::lock_guard lock(_mutex);
        return _lines.size();
    }
    /// The error of the coordinator that was last said to have ended.
    [[nodiscard]] ErrorPtr error() {
        const std::lock_guard lock(_mutex);
        return _error;
    }
    /// Runs within each call, before it is noted.
    std::function<void(const KXAppInstallCoordinatorPtr&)> during = [](const KXAppInstallCoordinatorPtr&) {};

  private:
    void _note(const std::string& what, const KXAppInstallCoordinatorPtr& coordinator, const ErrorPtr& error) {
        const std::string app = coordinator->bundleID().value_or("nothing");
        {
            const std::lock_guard lock(_mutex);
            EXPECT_TRUE(_running.insert(app).second) << "about one app one call at a time";
        }
        during(coordinator);
        const std::lock_guard lock(_mutex);
        _lines.push_back(what + " " + app + (error ? " with an error" : ""));
        _error = error;
        _running.erase(app);
        _told.notify_all();
    }

    std::mutex _mutex;
    std::set<std::string> _running; // the apps that calls are about
    std::condition_variable _told;
    std::vector<std::string> _lines;
    ErrorPtr _error;
};

/// An install as the client prepares it.
class Install {
  public:
    template <class Coordinator>
    Install(const Platform& platform, KXCoordinatorClass<Coordinator>& kind, const std::string& identifier,
            KXClientIdentifier client = KXClientSyncHost)
        : coordinator(kind.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                          identifier, client, true, nullptr, nullptr),
                      "a coordinator made for " + identifier),
          asset(platform.transferPromises.initWithName_client_diskSpaceNeeded("asset", client, 0),
                "a promise of a transfer"),
          placeholder(platform.placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
                          "Name", identifier, PDInstallTypeSync, client),
                      "a placeholder of " + identifier) {
        TVInstallOptions options;
        options.setRegistryInstallType(PDInstallTypeSync);
        options.setInstallTargetType(1);
        EXPECT_TRUE(coordinator->setInstallOptions_error(options, nullptr));
        EXPECT_TRUE(coordinator->setInitialODRAssetPromises_error({}, nullptr));
        EXPECT_TRUE(coordinator->setAppAssetPromise_error(asset, nullptr));
        EXPECT_TRUE(placeholder->setPlaceholderAttributes_error(KXPlaceholderAttributes::init(), nullptr));
    }
    void showPlaceholder() const {
        EXPECT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
        EXPECT_TRUE(coordinator->setPlaceholderPromise_error(placeholder, nullptr));
    }
    void deliver(const FileURL& archive) const {
        asset->setTransferPath(archive);
        asset->setPercentComplete(1);
        asset->setComplete(true);
    }

    const Answer<KXAppInstallCoordinator> coordinator;
    const Answer<KXPromisedTransferToPath> asset;
    const Answer<KXPlaceholder> placeholder;
};

std::shared_ptr<KXAppInstallObserver> connect(const Platform& platform, Reports& reports,
                                              const std::set<KXClientIdentifier>& clients = {KXClientSyncHost}) {
    auto connection =
        platform.installObservers.initWithMachServiceName_forClients_delegate(observerServiceName, clients, &reports);
    EXPECT_NE(connection, nullptr);
    return connection;
}

/// An installed app whose update shows its placeholder; connected as long as this lives.
class BegunUpdate {
  public:
    BegunUpdate(DeviceUnderTest& device, const Platform& platform, Reports& reports) {
        device.install({A, "1.0"});
        _connection = connect(platform, reports);
        _update.emplace(platform, platform.updatingCoordinators, A);
        _update->showPlaceholder();
        EXPECT_TRUE(reports.waitFor("placeholder " + A));
    }
    [[nodiscard]] const KXAppInstallCoordinatorPtr& coordinator() const { return _update->coordinator; }

  private:
    std::shared_ptr<KXAppInstallObserver> _connection;
    std::optional<Install> _update;
};

bool hasCoordinator(const Platform& platform, const std::string& identifier) {
    return platform.coordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
               identifier, KXClientSyncHost, false, nullptr, nullptr) != nullptr;
}

} // namespace

TEST_P(CoordinatorReportContract, APlaceholderAppearsWhenItIsConfiguredAndNotBefore) {
    const Apps apps(device(), platform());
    Reports reports;
    const auto connection = connect(platform(), reports);
    const Install unfinished(platform(), platform().initiatingCoordinators, A);
    EXPECT_TRUE(unfinished.coordinator->setPlaceholderPromise_error(unfinished.placeholder, nullptr));
    const Install whole(platform(), platform().initiatingCoordinators, B);
    whole.showPlaceholder();
    EXPECT_TRUE(reports.waitFor("placeholder " + B));
    ASSERT_NE(apps.appOrPlaceholder(B), nullptr);
    EXPECT_TRUE(apps.appOrPlaceholder(B)->isPlaceholder());
    EXPECT_EQ(apps.appOrPlaceholder(B)->installType(), PDInstallTypeSync);
    EXPECT_EQ(apps.appOrPlaceholder(A), nullptr);
    EXPECT_TRUE(unfinished.placeholder->setConfigurationCompleteWithError(nullptr));
    EXPECT_TRUE(reports.waitFor("placeholder " + A));
}

TEST_P(CoordinatorReportContract, TheAppIsInstalledWhenItsPromiseIsComplete) {
    const Apps apps(device(), platform());
    Reports reports;
    std::atomic<bool> isOnOwnThread = true;
    reports.during = [&, test = std::this_thread::get_id()](const auto&) {
        isOnOwnThread = isOnOwnThread && std::this_thread::get_id() != test;
    };
    const auto connection = connect(platform(), reports);
    const Install install(platform(), platform().initiatingCoordinators, A);
    install.showPlaceholder();
    ASSERT_TRUE(reports.waitFor("placeholder " + A));
    install.deliver(device().putArchive({A, "1.5"}));
    ASSERT_TRUE(reports.waitFor("completed " + A));
    ASSERT_NE(apps.app(A), nullptr);
    EXPECT_EQ(apps.app(A)->bundleVersion(), "1.5");
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder());
    EXPECT_FALSE(hasCoordinator(platform(), A)) << "it has ended";
    EXPECT_TRUE(isOnOwnThread);
    EXPECT_EQ(reports.count(), 2U);
}

TEST_P(CoordinatorReportContract, AnUpdateReplacesTheInstalledVersion) {
    const Apps apps(device(), platform());
    device().install({A, "1.0"});
    Reports reports;
    const auto connection = connect(platform(), reports);
    const Install update(platform(), platform().updatingCoordinators, A);
    update.showPlaceholder();
    update.deliver(device().putArchive({A, "2.0"}));
    ASSERT_TRUE(reports.waitFor("completed " + A));
    EXPECT_EQ(apps.app(A)->bundleVersion(), "2.0");
}

TEST_P(CoordinatorReportContract, AFailureEndsTheCoordinatorWithItsErrorAndLeavesTheInstalledVersion) {
    const Apps apps(device(), platform());
    device().install({A, "1.0"});
    ASSERT_TRUE(platform().files.createFile("/tmp/damaged", "no archive", {}));
    Reports reports;
    const auto connection = connect(platform(), reports);
    const Install update(platform(), platform().updatingCoordinators, A);
    update.showPlaceholder();
    update.deliver(fileAt("/tmp/damaged"));
    ASSERT_TRUE(reports.waitFor("completed " + A + " with an error"));
    EXPECT_EQ(reports.error()->domain(), TVInstallerErrorDomain) << textOf(reports.error());
    EXPECT_NE(update.coordinator->error(), nullptr);
    ASSERT_NE(apps.app(A), nullptr);
    EXPECT_EQ(apps.app(A)->bundleVersion(), "1.0");
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder());
    EXPECT_FALSE(hasCoordinator(platform(), A));
}

TEST_P(CoordinatorReportContract, SeveralAppsAreInstalledSideBySide) {
    const Apps apps(device(), platform());
    Reports reports;
    const auto connection = connect(platform(), reports);
    std::vector<std::future<void>> installs;
    for (const std::string& app : {A, B, C}) {
        installs.push_back(std::async(std::launch::async, [&, app, archive = device().putArchive({app})] {
            const Install install(platform(), platform().initiatingCoordinators, app);
            install.showPlaceholder();
            install.deliver(archive);
        }));
    }
    for (std::future<void>& install : installs) {
        install.get();
    }
    for (const std::string& app : {A, B, C}) {
        EXPECT_TRUE(reports.waitFor("completed " + app));
        EXPECT_NE(apps.app(app), nullptr);
    }
}

TEST_P(CoordinatorReportContract, APersonsCancelIsReportedAndTakesThePlaceholderAway) {
    const Apps apps(device(), platform());
    Reports reports;
    const BegunUpdate update(device(), platform(), reports);
    device().cancelByPerson(A);
    ASSERT_TRUE(reports.waitFor("cancelled " + A));
    EXPECT_NE(update.coordinator()->error(), nullptr);
    EXPECT_FALSE(hasCoordinator(platform(), A));
    ASSERT_NE(apps.appOrPlaceholder(A), nullptr);
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder());
}

TEST_P(CoordinatorReportContract, TheClientsOwnCancelTakesThePlaceholderAwayAndIsNotReportedToIt) {
    const Apps apps(device(), platform());
    Reports reports;
    const auto connection = connect(platform(), reports);
    const Install install(platform(), platform().initiatingCoordinators, A);
    install.showPlaceholder();
    ASSERT_TRUE(reports.waitFor("placeholder " + A));
    EXPECT_TRUE(
        install.coordinator->cancelForReason_client_error(Error::make(QRErrorDomain, 30), KXClientSyncHost, nullptr));
    EXPECT_EQ(apps.appOrPlaceholder(A), nullptr);
    const Install witness(platform(), platform().initiatingCoordinators, B);
    witness.showPlaceholder();
    ASSERT_TRUE(reports.waitFor("placeholder " + B));
    EXPECT_FALSE(reports.has("cancelled " + A));
}

TEST_P(CoordinatorReportContract, APersonsWishThatAnAppComeFirstIsReported) {
    Reports reports;
    const auto connection = connect(platform(), reports);
    const Install install(platform(), platform().initiatingCoordinators, A);
    install.showPlaceholder();
    device().prioritizeByPerson(A);
    EXPECT_TRUE(reports.waitFor("prioritize " + A));
}

TEST_P(CoordinatorReportContract, OnlyCoordinatorsOfTheNamedClientsAreReported) {
    Reports ofHost;
    Reports ofStore;
    const auto first = connect(platform(), ofHost, {KXClientSyncHost});
    const auto second = connect(platform(), ofStore, {KXClientCorbin});
    const Install store(platform(), platform().initiatingCoordinators, A, KXClientCorbin);
    store.showPlaceholder();
    ASSERT_TRUE(ofStore.waitFor("placeholder " + A));
    const Install host(platform(), platform().initiatingCoordinators, B);
    host.showPlaceholder();
    ASSERT_TRUE(ofHost.waitFor("placeholder " + B));
    EXPECT_EQ(ofHost.count(), 1U);
    EXPECT_EQ(ofStore.count(), 1U);
}

TEST_P(CoordinatorReportContract, TheObserverOfACoordinatorIsToldThroughTheConnection) {
    Reports reports;
    Reports own;
    const auto connection = connect(platform(), reports);
    const Install install(platform(), platform().initiatingCoordinators, A);
    install.coordinator->setObserver(&own);
    install.showPlaceholder();
    EXPECT_TRUE(own.waitFor("placeholder " + A));
    EXPECT_TRUE(reports.waitFor("placeholder " + A));
}

TEST_P(CoordinatorReportContract, DroppingAConnectionWaitsForARunningCallAndNoneFollows) {
    Signal inside("a report");
    Signal proceed("the drop of the connection");
    Signal left("the end of the report");
    std::atomic<bool> hasLeft = false;
    Reports reports;
    reports.during = [&](const auto&) {
        inside.raise();
        EXPECT_TRUE(proceed.wait());
        hasLeft = true;
        left.raise();
    };
    auto connection = connect(platform(), reports);
    const Install first(platform(), platform().initiatingCoordinators, A);
    first.showPlaceholder();
    ASSERT_TRUE(inside.wait());
    std::thread helper([&] { proceed.raise(); });
    connection = nullptr;
    EXPECT_TRUE(hasLeft);
    helper.join();
    EXPECT_TRUE(left.wait());
    Reports witness;
    const auto other = connect(platform(), witness);
    const Install second(platform(), platform().initiatingCoordinators, B);
    second.showPlaceholder();
    EXPECT_TRUE(witness.waitFor("placeholder " + B));
    EXPECT_EQ(reports.count(), 1U);
}

TEST_P(CoordinatorReportContract, ADelegateMayUseTheCoordinatorWithinACall) {
    const FileURL archive = device().putArchive({A});
    Reports reports;
    std::atomic<bool> isDelivered = false;
    reports.during = [&](const KXAppInstallCoordinatorPtr& coordinator) {
        if (isDelivered.exchange(true)) {
            return;
        }
        const auto asset = coordinator->appAssetPromiseWithError(nullptr);
        EXPECT_NE(asset, nullptr);
        if (asset) {
            asset->setTransferPath(archive);
            asset->setComplete(true);
        }
    };
    const auto connection = connect(platform(), reports);
    const Install install(platform(), platform().initiatingCoordinators, A);
    install.showPlaceholder();
    EXPECT_TRUE(reports.waitFor("completed " + A));
}

TEST_P(CoordinatorReportContract, TakingAnInstallBackEndsItsCoordinatorAndLeavesTheInstalledVersion) {
    const Apps apps(device(), platform());
    Reports reports;
    const BegunUpdate update(device(), platform(), reports);
    ErrorPtr error;
    EXPECT_TRUE(platform().coordinators.uninstallAppWithBundleID_error(A, &error)) << textOf(error);
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(hasCoordinator(platform(), A));
    ASSERT_NE(apps.appOrPlaceholder(A), nullptr);
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder());
}

/// How far an install has come when it is taken back.
enum class Stage { placeholderIsUp, placeholderIsNotUpYet, noCoordinator, nothing };

TEST_P(CoordinatorReportContract, TakingAnInstallBackLeavesAnInstalledVersionAtEveryStage) {
    const Apps apps(device(), platform());
    Reports reports;
    const auto connection = connect(platform(), reports);
    int number = 0;
    for (const bool isInstalled : {false, true}) {
        for (const Stage stage :
             {Stage::placeholderIsUp, Stage::placeholderIsNotUpYet, Stage::noCoordinator, Stage::nothing}) {
            const std::string app = "com.example.n" + std::to_string(++number);
            SCOPED_TRACE(app);
            if (isInstalled) {
                device().install({app, "1.0"});
            }
            std::optional<Install> install;
            if (stage == Stage::noCoordinator) {
                ASSERT_TRUE(apps.installPlaceholder(app));
            } else if (stage != Stage::nothing && isInstalled) {
                install.emplace(platform(), platform().updatingCoordinators, app);
            } else if (stage != Stage::nothing) {
                install.emplace(platform(), platform().initiatingCoordinators, app);
            }
            if (stage == Stage::placeholderIsUp) {
                install->showPlaceholder();
                ASSERT_TRUE(reports.waitFor("placeholder " + app));
            }
            ErrorPtr error;
            EXPECT_EQ(platform().coordinators.uninstallAppWithBundleID_error(app, &error), stage != Stage::nothing);
            EXPECT_EQ(!error, stage != Stage::nothing) << textOf(error);
            EXPECT_FALSE(hasCoordinator(platform(), app));
            EXPECT_EQ(apps.app(app) != nullptr, isInstalled);
            const auto shown = apps.appOrPlaceholder(app);
            EXPECT_TRUE(!shown || !shown->isPlaceholder());
            EXPECT_FALSE(platform().coordinators.uninstallAppWithBundleID_error(app, nullptr)) << "nothing is left";
        }
    }
}

TEST_P(CoordinatorReportContract, AnUninstallTakesTheAppItsPlaceholderAndItsCoordinator) {
    const Apps apps(device(), platform());
    Reports reports;
    const BegunUpdate update(device(), platform(), reports);
    Signal completed("the completion of the uninstall");
    const auto uninstall = [&](ErrorPtr& answer) {
        platform().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(A, false,
                                                                                            [&](const ErrorPtr& error) {
                                                                                                answer = error;
                                                                                                completed.raise();
                                                                                            });
        EXPECT_TRUE(completed.wait());
    };
    ErrorPtr first;
    uninstall(first);
    EXPECT_EQ(first, nullptr) << textOf(first);
    EXPECT_EQ(apps.appOrPlaceholder(A), nullptr);
    EXPECT_FALSE(hasCoordinator(platform(), A));
    ErrorPtr second;
    uninstall(second);
    EXPECT_NE(second, nullptr) << "nothing is there";
}

TEST_P(CoordinatorReportContract, ARestoredAppComesWhenItsFileAndItsDataAreThere) {
    const Apps apps(device(), platform());
    Reports reports;
    const auto connection = connect(platform(), reports);
    const Install restore(platform(), platform().restoringCoordinators, A);
    const auto data = platform().outOfBandPromises.initWithName_client_diskSpaceNeeded("data", KXClientSyncHost, 0);
    ASSERT_NE(data, nullptr);
    const auto restoring = std::dynamic_pointer_cast<KXRestoringAppInstallCoordinator>(restore.coordinator);
    ASSERT_NE(restoring, nullptr);
    ASSERT_TRUE(restoring->setUserDataPromise_error(data, nullptr));
    restore.showPlaceholder();
    ASSERT_TRUE(reports.waitFor("placeholder " + A));
    data->setComplete(true);
    restore.deliver(device().putArchive({A}));
    ASSERT_TRUE(reports.waitFor("completed " + A));
    EXPECT_NE(apps.app(A), nullptr);
}

TEST_P(CoordinatorReportContract, ADemotedAppsRestoreEndsWithItsPlaceholder) {
    const Apps apps(device(), platform());
    Reports reports;
    const auto connection = connect(platform(), reports);
    const auto coordinator =
        platform()
            .restoringDemotedCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                A, KXClientSyncHost, true, nullptr, nullptr);
    ASSERT_NE(coordinator, nullptr);
    const auto placeholder = platform().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "Name", A, PDInstallTypeDowngrade, KXClientSyncHost);
    ASSERT_NE(placeholder, nullptr);
    ASSERT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    ASSERT_TRUE(coordinator->setPlaceholderPromise_error(placeholder, nullptr));
    ASSERT_TRUE(reports.waitFor("completed " + A));
    ASSERT_NE(apps.appOrPlaceholder(A), nullptr);
    EXPECT_TRUE(apps.appOrPlaceholder(A)->isPlaceholder()) << "it stays";
    EXPECT_EQ(apps.appOrPlaceholder(A)->installType(), PDInstallTypeDowngrade);
}

TEST_P(CoordinatorReportContract, AnInstallGoesOnInTheNextProcess) {
    APPSYNC_NEEDS(outlivesItsProcess);
    Reports reports;
    {
        const auto connection = connect(platform(), reports);
        const Install install(platform(), platform().initiatingCoordinators, A);
        install.showPlaceholder();
        ASSERT_TRUE(reports.waitFor("placeholder " + A));
    }
    restart();
    const auto connection = connect(platform(), reports);
    const auto found =
        platform().coordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            A, KXClientSyncHost, false, nullptr, nullptr);
    ASSERT_NE(found, nullptr);
    const auto asset = found->appAssetPromiseWithError(nullptr);
    ASSERT_NE(asset, nullptr);
    asset->setTransferPath(device().putArchive({A}));
    asset->setComplete(true);
    ASSERT_TRUE(reports.waitFor("completed " + A));
    EXPECT_NE(Apps(device(), platform()).app(A), nullptr);
}

} // namespace appsync::contract
