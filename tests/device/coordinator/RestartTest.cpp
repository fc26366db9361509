// Coordinators outlive the process that made them, wherever it ended.
#include "tests/device/coordinator/CoordinatorTest.h"

#include "device/coordinator/CoordinatorStore.h"
#include "device/root/Paths.h"
#include "tests/device/root/Faults.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

namespace appsync::device {
namespace {

TEST_F(CoordinatorTest, IsFoundByALaterProcessWithEverythingThatWasSet) {
    (void)prepare(A, true);
    const auto restoring = lookUp(classes().restoringCoordinators, B, true, KXClientCorbin);
    ASSERT_TRUE(restoring->setAppAssetPromiseResponsibleClient_error(KXClientCorbin, nullptr));
    const auto data = classes().outOfBandPromises.initWithName_client_diskSpaceNeeded("d", KXClientSyncHost, 0);
    ASSERT_TRUE(restoring->setUserDataPromise_error(data, nullptr));
    coordinator->waitUntilIdle();
    reopen();
    const auto found = lookUp(classes().updatingCoordinators, A, false);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->creatorIdentifier(), KXClientSyncHost);
    EXPECT_TRUE(found->hasInstallOptions());
    EXPECT_TRUE(found->hasInitialODRAssetPromises());
    EXPECT_TRUE(found->hasAppAssetPromise());
    EXPECT_TRUE(found->hasPlaceholderPromise());
    EXPECT_FALSE(found->appAssetPromiseWithError(nullptr)->isComplete());
    const auto restored = lookUp(classes().restoringCoordinators, B, false);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->creatorIdentifier(), KXClientCorbin);
    EXPECT_TRUE(restored->hasUserDataPromise());
    EXPECT_EQ(restored->appAssetPromiseResponsibleClientWithError(nullptr), KXClientCorbin);
}

TEST_F(CoordinatorTest, ATransferGoesOnInALaterProcess) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    reopen();
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->application(A)->installState, PDInstallStateWaiting);
    const auto asset = find(A)->appAssetPromiseWithError(nullptr);
    asset->setPercentComplete(0.5);
    EXPECT_EQ(registry->application(A)->progress, 0.5);
    deliver({find(A), asset, nullptr, {}}, makeArchive(A));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, AnInterruptedInstallIsDoneByALaterProcess) {
    for (int round = 0; round < 8; ++round) {
        const auto gate = std::make_shared<Gate>("create", "App.app");
        reopen(gate);
        gate->close();
        deliver(prepare(A), makeArchive(A));
        gate->waitForArrival();
        std::thread closing([this] { close(); });
        for (int i = 0; i < 100 * round; ++i) {
            std::this_thread::yield(); // what follows holds however far the closing has come
        }
        gate->open();
        closing.join();
        reopen();
        coordinator->waitUntilIdle();
        EXPECT_TRUE(registry->isInstalled(A));
        const Lines lines = reports.take();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "completed " + A), 1);
        expectNothingLeftOf(A);
        ASSERT_TRUE(registry->uninstall(A, RemovalReason::sync, RemovalScope::everything));
    }
}

TEST_F(CoordinatorTest, AnOutcomeWaitsForAConnectionAlsoInALaterProcess) {
    const auto app = prepare(A);
    (void)prepare(B);
    coordinator->waitUntilIdle();
    connection.reset();
    (void)reports.take();
    deliver(app, makeArchive(A));
    ASSERT_TRUE(coordinator->cancelByUser(B));
    coordinator->waitUntilIdle();
    EXPECT_EQ(find(A), nullptr);
    EXPECT_EQ(allRows(), 2) << "no more is kept than what is to be reported";
    (void)prepare(B);
    coordinator->waitUntilIdle();
    reopen();
    coordinator->waitUntilIdle();
    Lines lines = reports.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (Lines{"cancelled " + B + " by 2 with DeviceInstallCoordinator 11", "completed " + A}));
    EXPECT_TRUE(find(B)) << "a later coordinator of the app is not touched";
    EXPECT_TRUE(registry->hasPlaceholder(B));
    (void)reports.take();
    reopen();
    coordinator->waitUntilIdle();
    EXPECT_TRUE(reports.lines().empty()) << "nothing is reported twice";
}

TEST_F(CoordinatorTest, NothingIsInstalledBeforeItResumes) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    (void)reports.take();
    reopen(nullptr, false);
    deliver({find(A), find(A)->appAssetPromiseWithError(nullptr), nullptr, {}}, makeArchive(A));
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->isInstalled(A));
    coordinator->resume();
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
}

TEST_F(CoordinatorTest, AFileThatHasDisappearedMeanwhileSettlesTheCoordinatorWithAnError) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    reopen(nullptr, false);
    const std::string path = makeArchive(A);
    deliver({find(A), find(A)->appAssetPromiseWithError(nullptr), nullptr, {}}, path);
    close();
    ASSERT_TRUE(device.files().removeItem(path, nullptr));
    (void)reports.take();
    reopen();
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"completed " + A + " with DeviceInstallCoordinator 9"});
    EXPECT_FALSE(registry->application(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, APlaceholderThatHasDisappearedMeanwhileSettlesTheCoordinatorWithAnError) {
    (void)prepare(A);
    coordinator->waitUntilIdle();
    const std::string bundle = registry->application(A)->bundlePath;
    close();
    ASSERT_TRUE(device.files().removeItem(bundle, nullptr));
    (void)reports.take();
    reopen();
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"completed " + A + " with DeviceInstallCoordinator 10"});
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, ANumberOfAPromiseIsNotGivenTwice) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    reopen();
    const auto later = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    const auto made = lookUp(classes().initiatingCoordinators, B, true);
    EXPECT_TRUE(made->setAppAssetPromise_error(later, nullptr));
    EXPECT_NE(later->description().substr(0, 11),
              find(A)->appAssetPromiseWithError(nullptr)->description().substr(0, 11));
}

TEST_F(CoordinatorTest, OfTheOutcomesThatNobodyAskedForTheNewestAreKept) {
    CoordinatorStore store(*device.database, propertyLists);
    for (const char* bundleID : {"one", "open", "two", "three"}) {
        CoordinatorState state;
        state.bundleID = bundleID;
        ASSERT_TRUE(store.insert(state));
        if (state.bundleID != "open") {
            ASSERT_TRUE(store.updateToReport(state));
        }
    }
    Mutex mutex;
    const StatesLock lock(mutex);
    std::uint64_t lastPromise = 0;
    const auto loaded = store.load(lastPromise, 2);
    ASSERT_TRUE(loaded);
    Lines left;
    for (const auto& [id, state] : *loaded) {
        left.push_back(state->bundleID);
    }
    EXPECT_EQ(left, (Lines{"open", "two", "three"}));
}

TEST_F(CoordinatorTest, DamagedRowsDoNoHarm) {
    (void)prepare(A);
    (void)prepare(B);
    coordinator->waitUntilIdle();
    ASSERT_TRUE(registry->uninstall(A, RemovalReason::sync, RemovalScope::placeholderOnly));
    close();
    {
        Database::Transaction transaction(*device.database);
        transaction.run("UPDATE coordinator SET kind = 99 WHERE bundle = ?1", A);
        transaction.run("UPDATE coordinator SET error = 'x', metadata = 'y', installType = 'z' WHERE bundle = ?1", B);
        transaction.run("UPDATE coordinatorPlaceholder SET info = 'no list'");
        transaction.run("INSERT INTO coordinatorPromise VALUES (900, 900, 1, 'n', 3, 0, NULL, 1)");
        ASSERT_TRUE(transaction.commit());
    }
    reopen();
    coordinator->waitUntilIdle();
    EXPECT_EQ(find(A), nullptr);
    ASSERT_TRUE(find(B));
    deliver({find(B), find(B)->appAssetPromiseWithError(nullptr), nullptr, {}}, makeArchive(B));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(B));
}

TEST_F(CoordinatorTest, APlaceholderThatIsInstalledOnceMoreHasItsIcon) {
    /// Of the commits after a container has come to its place the second fails: that the placeholder is installed.
    class SecondCommit final : public FaultPoint {
      public:
        int before(std::string_view operation, std::string_view path) noexcept override {
            if (operation == "rename" && path.starts_with(containersFolder)) {
                _commits = 0;
            }
            return operation == "commit" && _commits >= 0 && ++_commits == 2 ? EIO : 0;
        }

      private:
        std::atomic<int> _commits = -1;
    };
    reopen(std::make_shared<SecondCommit>());
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(exists(app.icon));
    reopen();
    coordinator->waitUntilIdle();
    EXPECT_TRUE(exists(registry->application(A)->iconPath.value_or("")));
    EXPECT_FALSE(exists(app.icon));
}

/// Ends the process before each change to the disk in turn, and looks at what a later process makes of it.
class CoordinatorCrashTest : public CoordinatorTest {
  protected:
    /// Runs the work in another process that ends before the change with this number; true when it got through.
    bool runUntil(int change, const std::function<void()>& work) {
        close();
        device.database.reset();
        device.root.reset();
        const pid_t child = ::fork();
        if (child == 0) {
            reopen(std::make_shared<EndingFaults>(change));
            work();
            close();
            ::_exit(0);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(EndingFaults::hasEnded(status) || status == 0);
        reopen();
        return status == 0;
    }
};

TEST_F(CoordinatorCrashTest, ACrashAtAnyPointLeavesTheAppOrItsCoordinatorAndNoFilesForEver) {
    bool isThrough = false;
    int change = 0;
    for (; !isThrough; ++change) {
        SCOPED_TRACE("before change " + std::to_string(change));
        isThrough = runUntil(change, [this] {
            deliver(prepare(A), makeArchive(A));
            coordinator->waitUntilIdle();
        });
        coordinator->waitUntilIdle();
        if (const auto open = find(A)) {
            EXPECT_FALSE(registry->isInstalled(A));
            EXPECT_TRUE(open->cancelForReason_client_error(Error::make(QRErrorDomain, 30), KXClientSyncHost, nullptr));
        }
        const auto left = registry->application(A);
        EXPECT_TRUE(!left || (left->isInstalled && !left->isPlaceholder));
        EXPECT_EQ(allRows(), 0);
        if (left) {
            EXPECT_TRUE(exists(left->bundlePath + "/App"));
            EXPECT_FALSE(exists("/var/mobile/Media/PublicStaging/" + A + ".ipa"));
            EXPECT_TRUE(registry->uninstall(A, RemovalReason::sync, RemovalScope::everything));
        }
        // What a client has put down but not yet handed over is the client's.
        device.files().removeItem("/var/mobile/Media/PublicStaging", nullptr);
        device.files().removeItem("/tmp/com.zuvex.qrd.Apps", nullptr);
    }
    EXPECT_GT(change, 20);
}

TEST_F(CoordinatorCrashTest, APlaceholderHasItsIconAfterACrashAtAnyPoint) {
    bool isThrough = false;
    int placeholders = 0;
    for (int change = 0; !isThrough; ++change) {
        SCOPED_TRACE("before change " + std::to_string(change));
        isThrough = runUntil(change, [this] {
            (void)prepare(A);
            coordinator->waitUntilIdle();
        });
        coordinator->waitUntilIdle();
        if (const auto app = registry->application(A)) {
            EXPECT_TRUE(app->iconPath && exists(*app->iconPath));
            ++placeholders;
        }
        if (const auto open = find(A)) {
            EXPECT_TRUE(open->cancelForReason_client_error(Error::make(QRErrorDomain, 30), KXClientSyncHost, nullptr));
        }
        EXPECT_FALSE(registry->application(A));
        // An icon that a client has not yet handed over is the client's.
        device.files().removeItem("/tmp/com.zuvex.qrd.Apps", nullptr);
    }
    EXPECT_GT(placeholders, 5);
}

} // namespace
} // namespace appsync::device
