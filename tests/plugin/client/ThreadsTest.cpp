// What several threads may do at once. Under the thread sanitizer each of these finds a lock that is not taken.
#include "plugin/client/IdentifierSet.h"
#include "plugin/client/PendingRetries.h"
#include "tests/inmemory/ClientTest.h"

#include <atomic>
#include <barrier>
#include <chrono>
#include <functional>
#include <thread>

namespace appsync {
namespace {

/// Waits without putting the threads in order.
void waitFor(const std::atomic<bool>& flag) {
    while (!flag.load(std::memory_order_relaxed)) {
        std::this_thread::yield();
    }
}

/// Runs one after the other, on two threads that nothing orders but the locks of what they call: the thread sanitizer
/// sees every access that these do not guard, whatever the machine does.
void inTurn(const std::function<void()>& first, const std::function<void()>& second) {
    std::atomic<bool> ended = false;
    std::thread one([&] {
        first();
        ended.store(true, std::memory_order_relaxed);
    });
    std::thread other([&] {
        waitFor(ended);
        second();
    });
    one.join();
    other.join();
}

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

TEST(IdentifierSetThreads, SeeEachOthersChanges) {
    IdentifierSet set;
    const auto add = [&] { set.add("a"); };
    inTurn(add, [&] { set.remove("a"); });
    inTurn(add, [&] { EXPECT_TRUE(set.contains("a")); });
    inTurn([&] { set.removeAll(); }, add);
    inTurn([&] { set.add("b"); }, [&] { EXPECT_EQ(set.count(), 2u); });
    inTurn([&] { set.add("c"); }, [&] { EXPECT_EQ(set.all(), (std::vector<std::string>{"a", "b", "c"})); });
    inTurn([&] { set.remove("c"); }, [&] { EXPECT_EQ(set.count(), 2u); });
}

class Threads : public inmemory::ClientTest {
  protected:
    /// A quiet client: messages would put the threads in order.
    AppsClient& startQuietly(bool useInstallCoordinator) {
        world.log.enabled = false;
        return start(useInstallCoordinator);
    }
};

TEST_F(Threads, AddRunAndDropRetries) {
    int ran = 0;
    PendingRetries retries(world.clock);
    const auto add = [&] { retries.runAfter(std::chrono::seconds(1), [&] { ++ran; }); };
    inTurn(add, add);
    inTurn([&] { world.clock.advance(std::chrono::seconds(1)); }, add);
    inTurn(add, [&] { retries.dropAll(); });
    inTurn([&] { retries.dropAll(); }, add);
    world.clock.advance(std::chrono::seconds(1));
    EXPECT_EQ(ran, 3);
}

TEST_F(Threads, DropRetriesWhileOthersRun) {
    std::atomic<int> ran = 0;
    for (int round = 0; round < 20; ++round) {
        PendingRetries retries(world.clock);
        for (int i = 0; i < 10; ++i) {
            retries.runAfter(std::chrono::seconds(1), [&] { ++ran; });
        }
        together(
            1, [&](int) { world.clock.advance(std::chrono::seconds(1)); }, [&](int) { retries.dropAll(); });
    }
    EXPECT_LE(ran, 200);
    EXPECT_EQ(world.clock.pending(), 0u);
}

TEST_F(Threads, RememberAndForgetUninstalledApps) {
    world.lowLevelInstaller.uninstalled = Dictionary{{"gone", Dictionary{}}};
    startQuietly(true);
    const auto takeInventory = [this] { EXPECT_NE(client().installedAssets().array("_Deleted"), nullptr); };
    const auto syncEnds = [this] { client().syncEndedWithSuccess(true); };
    inTurn(takeInventory, syncEnds);
    inTurn(syncEnds, takeInventory);
    inTurn(takeInventory, takeInventory);
    inTurn(takeInventory, syncEnds);
    EXPECT_EQ(world.lowLevelInstaller.uninstalled, Dictionary{});
}

TEST_F(Threads, RememberUninstalledAppsWhileASyncEnds) {
    world.lowLevelInstaller.uninstalled = Dictionary{{"gone", Dictionary{}}};
    startQuietly(true);
    const auto takeInventory = [this] { EXPECT_NE(client().installedAssets().array("_Deleted"), nullptr); };
    takeInventory();
    // The other inventory comes in the midst of the end, again without putting the threads in order.
    std::atomic<bool> isClearing = false;
    std::atomic<bool> isTaken = false;
    bool wasInTheMidst = false;
    world.journal.whenAdded("tevrin.clearUninstalled", [&] {
        wasInTheMidst = true;
        isClearing.store(true, std::memory_order_relaxed);
        waitFor(isTaken);
    });
    std::thread inventory([&] {
        waitFor(isClearing);
        takeInventory();
        isTaken.store(true, std::memory_order_relaxed);
    });
    client().syncEndedWithSuccess(true);
    isClearing.store(true, std::memory_order_relaxed);
    inventory.join();
    EXPECT_TRUE(wasInTheMidst);
    EXPECT_EQ(world.lowLevelInstaller.uninstalled, Dictionary{});
}

TEST_F(Threads, ShareOneWritingOfTheToDoList) {
    start();
    std::size_t written = 0;
    // How far the others have come when the first writing ends is the machine's choice: give them more time each round.
    for (int patience = 1; written != 2; patience *= 2) {
        ASSERT_LT(patience, 1 << 24) << "nobody has shared a writing";
        putToDoList({{"a", "install"}, {"b", "install"}, {"c", "install"}});
        std::atomic<int> coming = 0;
        std::vector<std::jthread> others;
        world.journal.whenAdded("files.writeFileAtomically", [&] {
            for (const char* identifier : {"b", "c"}) {
                others.emplace_back([&, identifier] {
                    ++coming;
                    client().changeAssetID_toDo(identifier, "SENT");
                    EXPECT_EQ(operationOf(identifier), "SENT");
                });
            }
            while (coming < 2) {
                std::this_thread::yield();
            }
            for (int i = 0; i < patience; ++i) {
                std::this_thread::yield();
            }
        });
        client().changeAssetID_toDo("a", "SENT");
        others.clear();
        written = world.journal.linesWith("files.writeFileAtomically").size();
        EXPECT_EQ(world.journal.linesWith("log: Changing").size(), 3u);
        for (const char* identifier : {"a", "b", "c"}) {
            EXPECT_EQ(operationOf(identifier), "SENT");
        }
        journal();
    }
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

TEST_F(Threads, CancelMoveAndEndTransfers) {
    world.deviceService.exists = false;
    startQuietly(true);
    const auto moves = [&] { client().assetTransfer_updatedProgress(makeAsset("a"), 0.5); };
    const auto ends = [&] {
        client().assetTransfer_succeeded_withError(makeAsset("a"), false, inmemory::injectedError());
    };
    const auto cancelled =
        std::make_shared<inmemory::Coordinator<KXAppInstallCoordinator>>(world.context, world.coordinators.add("a"));
    const auto cancel = [&] { client().coordinator_canceledWithReason_client(cancelled, nullptr, 1); };
    const auto phaseEnds = [&] { client().assetTransferEndedWithSuccess(false); };
    inTurn(cancel, cancel);
    inTurn(cancel, ends);
    inTurn(ends, cancel);
    inTurn(moves, ends);
    inTurn(moves, phaseEnds);
    inTurn(phaseEnds, cancel);
    moves();
    inTurn(cancel, phaseEnds);
    moves();
    inTurn(phaseEnds, ends);
    EXPECT_EQ(world.journal.linesWith("log: "), inmemory::Lines{});
}

TEST_F(Threads, PlanAnUpdateThenMoveAndEndItsTransfer) {
    start(true);
    world.registry.addInstalled("a");
    world.files.putPlist(std::string(paths::workArea) + "/a/Info.plist", Dictionary{});
    const auto plan = [this] {
        putToDoList({{"a", "install"}});
        EXPECT_EQ(client().outstandingAssetTransfers().size(), 1u);
    };
    const auto moves = [this] { client().assetTransfer_updatedProgress(makeAsset("a"), 0.5); };
    inTurn(plan, moves);
    inTurn(moves, plan);
    inTurn(plan, [this] { client().assetTransfer_succeeded_withError(makeAsset("a"), false, nullptr); });
}

} // namespace
} // namespace appsync
