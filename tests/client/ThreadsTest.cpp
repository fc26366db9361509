// What several threads may do at once. Under the thread sanitizer each of these finds a lock that is not taken.
#include "client/IdentifierSet.h"
#include "client/PendingRetries.h"
#include "tests/inmemory/ClientTest.h"

#include <atomic>
#include <barrier>
#include <chrono>
#include <functional>
#include <thread>

namespace appsync {
namespace {

/// Runs both at the same time, so many times each.
void together(int times, const std::function<void(int)>& one, const std::function<void(int)>& other) {
    std::barrier start(2);
    const auto repeat = [&](const std::function<void(int)>& task) {
        start.arrive_and_wait();
        for (int i = 0; i < times; ++i) {
            task(i);
        }
    };
    std::thread second(repeat, other);
    repeat(one);
    second.join();
}

TEST(IdentifierSetThreads, BearEachOperationBesideAChange) {
    IdentifierSet set;
    const auto change = [&](int i) { set.add("a" + std::to_string(i % 20)); };
    const std::function<void(int)> operations[] = {change,
                                                   [&](int i) { set.remove("a" + std::to_string(i % 20)); },
                                                   [&](int) { set.removeAll(); },
                                                   [&](int) { EXPECT_FALSE(set.contains("b")); },
                                                   [&](int) { EXPECT_LE(set.count(), 20u); },
                                                   [&](int) { EXPECT_LE(set.all().size(), 20u); }};
    for (const auto& operation : operations) {
        together(200, change, operation);
    }
}

class Threads : public inmemory::ClientTest {
  protected:
    /// A quiet client: messages would put the threads in step.
    AppsClient& startQuietly(bool useInstallCoordinator) {
        world.log.enabled = false;
        return start(useInstallCoordinator);
    }
};

TEST_F(Threads, AddRetriesWhileOthersRun) {
    PendingRetries retries(world.clock);
    std::atomic<int> ran = 0;
    const auto add = [&](int) { retries.runAfter(std::chrono::seconds(1), [&] { ++ran; }); };
    together(100, add, add);
    together(100, add, [&](int) { world.clock.advance(std::chrono::seconds(1)); });
    world.clock.advance(std::chrono::seconds(1));
    EXPECT_EQ(ran, 300);
}

TEST_F(Threads, DropRetriesWhileOthersRun) {
    std::atomic<int> ran = 0;
    for (int round = 0; round < 50; ++round) {
        PendingRetries retries(world.clock);
        for (int i = 0; i < 10; ++i) {
            retries.runAfter(std::chrono::seconds(1), [&] { ++ran; });
        }
        together(
            1, [&](int) { world.clock.advance(std::chrono::seconds(1)); }, [&](int) { retries.dropAll(); });
    }
    EXPECT_LE(ran, 500);
    EXPECT_EQ(world.clock.pending(), 0u);
}

TEST_F(Threads, TakeTheInventoryWhileASyncEnds) {
    world.lowLevelInstaller.uninstalled = Dictionary{{"gone", Dictionary{}}};
    world.faults.fail("tevrin.clearUninstalled", inmemory::Faults::always);
    startQuietly(true);
    together(
        50, [this](int) { EXPECT_EQ(client().installedAssets().array("_Deleted")->size(), 1u); },
        [this](int) { client().syncEndedWithSuccess(true); });
}

TEST_F(Threads, ForgetUninstalledAppsWhileTheInventoryIsTaken) {
    startQuietly(true);
    together(
        50, [this](int) { EXPECT_EQ(client().installedAssets().array("_Deleted")->size(), 0u); },
        [this](int) { client().syncEndedWithSuccess(true); });
}

TEST_F(Threads, CleanRestoreStateWhileItIsWritten) {
    startQuietly(false);
    const auto set = [this](const std::string& identifier) {
        client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", identifier, "1");
    };
    for (int i = 0; i < 30; ++i) {
        set("old" + std::to_string(i));
    }
    together(
        30, [&](int i) { set("new" + std::to_string(i)); },
        [this](int i) { client().cleanRestoreStateForIdentifier("old" + std::to_string(i)); });
    EXPECT_EQ(world.files.plistAt(paths::restoreState)->dictionary()->size(), 30u);
}

TEST_F(Threads, CancelAppsWhileTransfersMoveAndEnd) {
    world.deviceService.exists = false;
    startQuietly(true);
    const auto app = [](int i) { return "a" + std::to_string(i % 5); };
    const auto moves = [&](int i) { client().assetTransfer_updatedProgress(makeAsset(app(i)), 0.5); };
    const auto ends = [&](int i) {
        client().assetTransfer_succeeded_withError(makeAsset(app(i)), false, inmemory::injectedError());
    };
    const auto cancelled =
        std::make_shared<inmemory::Coordinator<KXAppInstallCoordinator>>(world.context, world.coordinators.add("a0"));
    const auto cancel = [&](int) { client().coordinator_canceledWithReason_client(cancelled, nullptr, 1); };
    const auto phaseEnds = [&](int) {
        client().assetTransfer_updatedProgress(makeAsset("late"), 0.5);
        client().assetTransferEndedWithSuccess(false);
    };
    together(100, moves, ends);
    together(100, cancel, ends);
    together(100, cancel, cancel);
    together(100, cancel, phaseEnds);
    together(100, moves, phaseEnds);
    phaseEnds(0);
    EXPECT_EQ(world.log.formats(), std::vector<std::string>{});
}

TEST_F(Threads, PlanUpdatesWhileTransfersMove) {
    start(true);
    for (const std::string identifier : {"a", "b", "c"}) {
        world.registry.addInstalled(identifier);
        world.files.putPlist(std::string(paths::workArea) + "/" + identifier + "/Info.plist", Dictionary{});
    }
    together(
        10,
        [this](int) {
            putToDoList({{"a", "install"}, {"b", "install"}, {"c", "install"}});
            EXPECT_EQ(client().outstandingAssetTransfers().size(), 3u);
        },
        [this](int) {
            for (int i = 0; i < 20; ++i) {
                client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
            }
        });
}

} // namespace
} // namespace appsync
