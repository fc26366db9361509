// The plug-in's own installs: the assertion, the install, the retry.
#include "concurrency/Semaphore.h"
#include "platform/InstallationService.h"
#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <thread>

namespace appsync {
namespace {

using namespace std::chrono_literals;
using inmemory::Lines;

class InstallQueue : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        start(false);
        world.files.put("/staged/a", "archive");
        asset = makeAsset("a");
        asset->path = "/staged/a";
    }
    /// Waits for queued installs on this thread.
    void finish() { client().assetTransferEndedWithSuccess(true); }
    static std::string transaction(bool success, const std::string& description) {
        return std::string("transactions.logScenario(\"Asset install\", step 0, success ") + (success ? "1" : "0") +
               ", a, \"" + description + "\")";
    }
    static Lines installed() {
        return {"registry.installApplication(file:///staged/a, {PackageType = Customer; BXBundleIdentifier = a;})",
                "log: a install succeeded", "files.readFile(" + std::string(paths::toDoList) + ")",
                "files.readFile(" + std::string(paths::restoreState) + ")"};
    }

    /// Of this process.
    static std::ptrdiff_t numberOfThreads() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    }

    const std::string grabbing = "log: Grabbing assertion for a";
    const std::string asked = "screen.assertion(a, reason 0)";
    const std::string released = "screen.releaseAssertion(a)";
    const std::string removed = "files.removeItem(/staged/a)";
    QRAssetPtr asset;
};

TEST_F(InstallQueue, InstallsUnderAGrantedAssertion) {
    client()._performAssetInstall(asset);
    EXPECT_EQ(journal(),
              join(join({grabbing, asked, "log: Assertion succeeded for a", transaction(true, "assertion succeeded")},
                        installed()),
                   {released, removed}));
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 1u);
    EXPECT_FALSE(world.files.exists("/staged/a"));
}

TEST_F(InstallQueue, InstallsAnAppThatDoesNotRun) {
    world.screen.assertionAnswers = {2};
    client()._performAssetInstall(asset);
    EXPECT_EQ(journal(), join(join({grabbing, asked, "log: Assertion not found for a, installing anyway...",
                                    transaction(true, "assertion not found")},
                                   installed()),
                              {removed}));
}

TEST_F(InstallQueue, HoldsAnAssertionOfAnAppThatDoesNotRun) {
    world.screen.assertionAnswers = {2};
    world.screen.assertsWhatItDoesNotFind = true;
    client()._performAssetInstall(asset);
    EXPECT_EQ(journal(), join(join({grabbing, asked, "log: Assertion not found for a, installing anyway...",
                                    transaction(true, "assertion not found")},
                                   installed()),
                              {released, removed}));
}

TEST_F(InstallQueue, FailsOnAnUnknownAnswer) {
    world.screen.assertionAnswers = {3};
    world.registry.addPlaceholder("a");
    client()._performAssetInstall(asset);
    EXPECT_EQ(
        journal(),
        (Lines{grabbing, asked, "error: Unknown error 3 getting assertion for a",
               transaction(false, "unknown error grabbing assertion"), "host.QRIsRecoverableError(POSIX 22)",
               "log: a install failed unrecoverably: POSIX 22", "files.readFile(" + std::string(paths::toDoList) + ")",
               "registry.uninstallApplication(a, no options)",
               "transactions.logScenario(\"Ulvane restore\", step 0, success 1, a, \"placeholder removed\")",
               "files.readFile(" + std::string(paths::restoreState) + ")", released, removed}));
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 0u);
}

TEST_F(InstallQueue, ReportsTheRegistrysErrorAndRemovesTheFile) {
    world.faults.fail("registry.installApplication");
    client()._performAssetInstall(asset);
    EXPECT_EQ(world.journal.linesWith("log: a install failed"),
              Lines{"log: a install failed unrecoverably: TestDomain 7"});
    EXPECT_EQ(journal().back(), removed);
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 1u);
}

TEST_F(InstallQueue, HandsTheRegistrysErrorOnWithItsFacts) {
    const ErrorPtr refusal = Error::make(TVInstallerErrorDomain, 13, {{"LegacyErrorString", "no space"}});
    world.faults.fail("registry.installApplication", 1, 0, refusal);
    client()._performAssetInstall(asset);
    EXPECT_EQ(world.journal.linesWith("host.QRIsRecoverableError"),
              Lines{"host.QRIsRecoverableError(" + refusal->description() + ")"});
    EXPECT_NE(refusal->description().find("no space"), std::string::npos);
}

TEST_F(InstallQueue, CountsAnAttemptOnceItsOutcomeIsKnown) {
    for (const std::string outcome : {"log: a install succeeded", "log: a install failed"}) {
        std::uint32_t before = 7;
        std::uint32_t after = 7;
        world.journal.whenAdded(outcome, [&] { before = client()._getAndResetNumAppInstallsAttempted(); });
        world.journal.whenAdded(released, [&] { after = client()._getAndResetNumAppInstallsAttempted(); });
        client()._performAssetInstall(asset);
        EXPECT_EQ(before, 0u);
        EXPECT_EQ(after, 1u);
        world.faults.fail("registry.installApplication");
    }
}

TEST_F(InstallQueue, ComesBackAfterADenial) {
    world.screen.assertionAnswers = {1};
    client()._performAssetInstall(asset);
    EXPECT_EQ(journal(), (Lines{grabbing, asked, "error: Assertion denied for a", transaction(true, "assertion denied"),
                                released, "error: Will retry installation of a in 30 seconds",
                                transaction(true, "retrying asset install"), "scheduler.runAfter(30000 ms)"}));
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 0u);
    EXPECT_TRUE(world.files.exists("/staged/a"));

    world.clock.advance(29999ms);
    EXPECT_EQ(journal(), Lines{});
    world.clock.advance(1ms);
    finish();
    const Lines lines = journal();
    EXPECT_EQ(lines.at(0), "error: Re-enqueue installation request for a");
    EXPECT_EQ(lines.at(1), "log: Enqueue install request for a");
    EXPECT_EQ(std::ranges::count(lines, "log: a install succeeded"), 1);
    EXPECT_FALSE(world.files.exists("/staged/a"));
}

TEST_F(InstallQueue, ForgetsTheRestoreStateAfterADenialToo) {
    asset->variantOptions = Dictionary{{"Version", "1.0"}};
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/staged/a", "path", "a", "1.0");
    world.screen.assertionAnswers = {1};
    client()._enqueueAssetInstall(asset);
    world.journal.waitFor("log: Finished install for a");
    stop(); // when the operation has ended
    EXPECT_EQ(world.journal.linesWith("registry.install"), Lines{});
    EXPECT_FALSE(world.files.exists(paths::restoreState));
}

TEST_F(InstallQueue, ComesBackAsOftenAsItIsDenied) {
    world.screen.assertionAnswers = {1, 1, 1, 0};
    client()._enqueueAssetInstall(asset);
    for (std::size_t denials = 1; denials <= 3; ++denials) {
        world.journal.waitFor("scheduler.runAfter(30000 ms)", denials);
        world.journal.waitFor("log: Finished install for a", denials);
        world.clock.advance(30s);
    }
    finish();
    EXPECT_EQ(world.journal.count("error: Assertion denied for a"), 3u);
    EXPECT_EQ(world.journal.count("log: a install succeeded"), 1u);
}

TEST_F(InstallQueue, TheEndOfTheTransferPhaseWaitsForARetry) {
    world.screen.assertionAnswers = {1};
    client()._enqueueAssetInstall(asset);
    world.journal.waitFor("log: Finished install for a");
    std::thread host([this] { finish(); });
    world.journal.waitFor("log: asset transfer ended withsuccess: y");
    EXPECT_EQ(world.journal.linesWith("log: Notifying SK we are done"), Lines{});
    world.clock.advance(30s);
    host.join();
    const Lines lines = journal();
    const auto installedAt = std::ranges::find(lines, "log: a install succeeded");
    const auto noticeAt = std::ranges::find(lines, "log: Notifying SK we are done syncing");
    EXPECT_LT(installedAt, noticeAt);
    EXPECT_NE(noticeAt, lines.end());
}

TEST_F(InstallQueue, RunsAQueuedInstallFromItsFirstToItsLastStep) {
    client()._enqueueAssetInstall(asset);
    world.journal.waitFor("log: Finished install for a");
    finish();
    Lines lines = journal();
    // The end of the wait is another thread's.
    lines.erase(std::ranges::find(lines, "log: asset transfer ended withsuccess: y"));
    const Lines expected = join(
        join({"log: Enqueue install request for a", "log: Performing install for a", grabbing, asked,
              "log: Assertion succeeded for a", transaction(true, "assertion succeeded")},
             installed()),
        {released, removed, "log: Finished install for a", "files.readFile(" + std::string(paths::restoreState) + ")"});
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(expected.size())), expected);
}

TEST_F(InstallQueue, AnnouncesEachInstallBeforeItBegins) {
    constexpr int installs = 500; // of which some begin at once
    for (int i = 0; i < installs; ++i) {
        const auto each = makeAsset("app" + std::to_string(i));
        each->path = "/staged/app" + std::to_string(i);
        client()._enqueueAssetInstall(each);
    }
    finish();
    std::set<std::string> announced;
    int begun = 0;
    const std::string announcement = "log: Enqueue install request for ";
    const std::string beginning = "log: Performing install for ";
    for (const std::string& line : journal()) {
        if (line.starts_with(announcement)) {
            announced.insert(line.substr(announcement.size()));
        } else if (line.starts_with(beginning)) {
            EXPECT_TRUE(announced.contains(line.substr(beginning.size()))) << line;
            ++begun;
        }
    }
    EXPECT_EQ(announced.size(), std::size_t{installs});
    EXPECT_EQ(begun, installs);
}

TEST_F(InstallQueue, DropsRetriesAndWaitingInstallsAtTeardown) {
    world.screen.assertionAnswers = {1};
    client()._performAssetInstall(asset);
    EXPECT_EQ(world.clock.pending(), 1u);
    stop();
    journal();
    world.clock.advance(30s);
    EXPECT_EQ(journal(), Lines{});
    EXPECT_TRUE(world.files.exists("/staged/a"));
}

TEST_F(InstallQueue, RunsTenInstallsAtOnceAndNoMore) {
    std::promise<void> opened;
    const auto gate = opened.get_future().share();
    Semaphore arrived;
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    world.screen.beforeAssertion = [&] {
        const int now = ++running;
        for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
        }
        arrived.signal();
        gate.wait();
        --running;
    };
    const auto enqueue = [&](int first, int end) {
        for (int i = first; i < end; ++i) {
            auto each = makeAsset("app" + std::to_string(i));
            each->path = "/staged/app" + std::to_string(i);
            client()._enqueueAssetInstall(each);
        }
    };
    enqueue(0, 10);
    for (int i = 0; i < 10; ++i) {
        arrived.wait();
    }
    const auto threads = numberOfThreads();
    enqueue(10, 20); // an eleventh would have got its thread here
    EXPECT_EQ(numberOfThreads(), threads);
    opened.set_value();
    finish();
    EXPECT_EQ(most, 10);
    EXPECT_EQ(world.journal.linesWith("registry.installApplication").size(), 20u);
}

TEST_F(InstallQueue, RunsManyInstallsAndCountsEach) {
    for (int i = 0; i < 40; ++i) {
        auto each = makeAsset("app" + std::to_string(i));
        each->path = "/staged/app" + std::to_string(i);
        world.files.put(*each->path, "archive");
        client()._enqueueAssetInstall(each);
    }
    finish();
    EXPECT_EQ(world.journal.linesWith("registry.installApplication").size(), 40u);
    EXPECT_EQ(world.journal.count("store.refreshReceipts()"), 1u);
    for (int i = 0; i < 40; ++i) {
        EXPECT_FALSE(world.files.exists("/staged/app" + std::to_string(i)));
    }
}

} // namespace
} // namespace appsync
