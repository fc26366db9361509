// Installs that the queue cannot run or the registry cannot be asked for.
#include "concurrency/Semaphore.h"
#include "tests/concurrency/NoMoreThreads.h"
#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <thread>

namespace appsync {
namespace {

using inmemory::Lines;

class InstallQueueFailures : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(false); }
    QRAssetPtr staged(const std::string& identifier, std::string path) {
        auto asset = makeAsset(identifier);
        asset->path = std::move(path);
        return asset;
    }
};

TEST_F(InstallQueueFailures, AnArchiveThatNoURLNamesFailsWithoutAnError) {
    const std::string path("/staged\0/a", 10);
    client()._performAssetInstall(staged("a", path));
    EXPECT_EQ(
        journal(),
        (Lines{"log: Grabbing assertion for a", "screen.assertion(a, reason 0)", "log: Assertion succeeded for a",
               "transactions.logScenario(\"Asset install\", step 0, success 1, a, \"assertion succeeded\")",
               "host.QRIsRecoverableError((null))", "log: a install failed unrecoverably: (null)",
               "files.readFile(" + std::string(paths::toDoList) + ")", "registry.uninstallApplication(a, no options)",
               "error: Uninstall of a failed.",
               "transactions.logScenario(\"Ulvane restore\", step 0, success 0, a, \"failed to remove placeholder\")",
               "files.readFile(" + std::string(paths::restoreState) + ")", "screen.releaseAssertion(a)",
               "files.removeItem(" + path + ")"}));
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 1u);
}

TEST_F(InstallQueueFailures, WhereNoThreadCanBeStartedAnInstallRunsBeforeItsRequestReturns) {
    const NoMoreThreads noMore;
    std::thread::id installer;
    world.screen.beforeAssertion = [&] { installer = std::this_thread::get_id(); };
    client()._enqueueAssetInstall(staged("a", "/staged/a"));
    EXPECT_EQ(installer, std::this_thread::get_id());
}

TEST_F(InstallQueueFailures, ARequestDuringTeardownIsDropped) {
    // The queue's last operation holds an asset whose end says that the queue has stopped.
    constexpr int workers = 10;
    Semaphore arrived;
    Semaphore stopped;
    Semaphore leave;
    world.screen.beforeAssertion = [&] {
        arrived.signal();
        leave.wait();
    };
    for (int i = 0; i < workers; ++i) {
        client()._enqueueAssetInstall(staged("busy", "/staged/busy"));
        arrived.wait();
    }
    const auto kept = staged("waiting", "/staged/waiting");
    client()._enqueueAssetInstall(QRAssetPtr(kept.get(), [&stopped](QRAsset*) { stopped.signal(); }));

    AppsClient& going = client();
    std::thread teardown([this] { stop(); });
    stopped.wait();
    going._enqueueAssetInstall(staged("late", "/staged/late"));
    for (int i = 0; i < workers; ++i) {
        leave.signal();
    }
    teardown.join();
    EXPECT_EQ(world.journal.count("log: Enqueue install request for late"), 1u);
    EXPECT_EQ(world.journal.count("log: Finished install for busy"), 10u);
    EXPECT_EQ(world.journal.linesWith("log: Performing install for late"), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: Performing install for waiting"), Lines{});
}

} // namespace
} // namespace appsync
