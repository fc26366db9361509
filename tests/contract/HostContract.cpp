// The process, the log and transaction log, the scheduler, and what the sync host offers.
#include "platform/FileSystem.h"
#include "platform/Process.h"
#include "platform/Scheduler.h"
#include "platform/TransactionLog.h"
#include "platform/host/Log.h"
#include "platform/host/SyncHost.h"
#include "tests/contract/Rules.h"

#include <atomic>
#include <thread>
#include <vector>

namespace appsync::contract {

using namespace std::chrono_literals;

TEST_P(HostContract, TheTemporaryFolderIsThereAndItsPathHasNoSlashAtItsEnd) {
    const std::string folder = platform().process.temporaryDirectory();
    EXPECT_TRUE(folder.starts_with('/')) << folder;
    EXPECT_FALSE(folder.ends_with('/')) << folder;
    EXPECT_TRUE(platform().files.createFile(folder + "/file", "bytes", {}));
}

TEST_P(HostContract, TheFoldersThatTheClientWritesIntoWithoutMakingThemAreThere) {
    for (const std::string folder :
         {"/var/mobile/Library", "/var/mobile/Library/Logs/MediaServices", "/var/mobile/Media"}) {
        EXPECT_TRUE(platform().files.createFile(folder + "/file", "bytes", {})) << folder;
    }
}

TEST_P(HostContract, TheProcessHasABundleIdentifierOrNone) {
    EXPECT_NE(platform().process.mainBundleIdentifier(), "") << "nothing stands for none";
}

TEST_P(HostContract, TheDeviceServiceIsOneAndCompletesAPrioritisationOnce) {
    const auto service = platform().deviceService.sharedInstance();
    if (!service) {
        GTEST_SKIP() << "the host offers none";
    }
    EXPECT_EQ(platform().deviceService.sharedInstance(), service);
    const auto asset = QRAsset::downloadAssetWithIdentifier_dataclass_prettyName("com.example.a", "Application", "A");
    if (service->respondsToPrioritizeAsset()) {
        Signal completed("the completion of the prioritisation");
        std::atomic<int> completions = 0;
        service->prioritizeAsset_withCompletion(asset, [&](const ErrorPtr&) {
            ++completions;
            completed.raise();
        });
        device().proceed();
        EXPECT_TRUE(completed.wait());
        EXPECT_EQ(completions, 1);
    }
    if (service->respondsToCancelAssetTransferForFailedAsset()) {
        service->cancelAssetTransferForFailedAsset(asset); // one that nobody fetches
    }
}

TEST_P(HostContract, NoErrorIsNothingToGetPast) {
    EXPECT_FALSE(platform().errorClassification.QRIsRecoverableError(nullptr));
    EXPECT_FALSE(platform().errorClassification.QRIsRecoverableError(Error::make("NobodysDomain", 1)));
}

TEST_P(LogContract, MessagesOfSeveralThreadsAreAllKept) {
    HostLog& log = platform().log;
    std::vector<std::thread> threads;
    for (const std::string name : {"first", "second", "third"}) {
        threads.emplace_back([&log, name] {
            for (int i = 0; i < 20; ++i) {
                const LogLevel level = i % 2 == 0 ? LogLevel::standard : LogLevel::error;
                EXPECT_TRUE(log.isEnabled(QRLogCategorySyncBundle, level));
                const std::string text = name + " message " + std::to_string(i) + " with (null) and %{public}@";
                log.write(QRLogCategorySyncBundle, level, "%{public}@ message", text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    log.write(QRLogCategorySyncBundle_Oversize, LogLevel::standard, "%{public}@", "a large payload");
    log.write(QRLogCategoryFramework, LogLevel::error, "unexpected type for %{public}@", "an unexpected type");
    for (const std::string text : {"first message 0 with (null) and %{public}@", "second message 19", "third message 7",
                                   "a large payload", "an unexpected type"}) {
        EXPECT_TRUE(device().hasLogged(text)) << text;
    }
    EXPECT_FALSE(device().hasLogged("fourth message"));
}

TEST_P(LogContract, TransactionsAreKeptByApp) {
    AITransactionLog& log = platform().transactionLog;
    log.initializeWithLog(std::make_shared<SystemLog>(SystemLog{"com.example", "transactions"}));
    const auto record = [&](TransactionPhase phase, const std::string& app) {
        log.logStep_byParty_phase_success_forBundleID_description(
            TransactionStep::installOrUpdate, TransactionParty::syncPlugIn, phase, true, app, "Install app");
    };
    std::thread other([&] { record(TransactionPhase::start, "com.example.b"); });
    record(TransactionPhase::start, "com.example.a");
    record(TransactionPhase::end, "com.example.a");
    log.logScenario_step_success_forBundleID_description("Tamblin Sync", TransactionStep::none, false, "com.example.a",
                                                         "");
    other.join();
    EXPECT_EQ(device().transactionsOf("com.example.a"), 3U);
    EXPECT_EQ(device().transactionsOf("com.example.b"), 1U);
    EXPECT_EQ(device().transactionsOf("com.example.c"), 0U);
}

TEST_P(SchedulerContract, ATaskRunsOnceOnAnotherThreadAndNotBeforeItsTime) {
    const auto start = device().now();
    std::atomic<std::chrono::milliseconds> time{0ms};
    std::atomic<int> runs = 0;
    std::thread::id thread;
    Signal ran("the task");
    const auto task = platform().scheduler.runAfter(40ms, [&] {
        time = device().now();
        thread = std::this_thread::get_id();
        ++runs;
        ran.raise();
    });
    device().letPass(39ms);
    device().letPass(40ms);
    ASSERT_TRUE(ran.wait());
    EXPECT_GE(time.load() - start, 40ms);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_FALSE(task->cancel()) << "it has run";
    EXPECT_EQ(runs, 1);
}

TEST_P(SchedulerContract, ATaskRunsAlsoWhenItsHandleIsDropped) {
    Signal ran("the task");
    (void)platform().scheduler.runAfter(1ms, [&] { ran.raise(); });
    device().letPass(1ms);
    EXPECT_TRUE(ran.wait());
}

TEST_P(SchedulerContract, ATaskThatWasTakenBackNeverRuns) {
    std::atomic<int> runs = 0;
    Signal later("the later task");
    const auto task = platform().scheduler.runAfter(20ms, [&] { ++runs; });
    EXPECT_TRUE(task->cancel());
    EXPECT_TRUE(task->cancel()) << "that is true a second time";
    (void)platform().scheduler.runAfter(40ms, [&] { later.raise(); });
    device().letPass(40ms);
    EXPECT_TRUE(later.wait());
    EXPECT_EQ(runs, 0);
}

TEST_P(SchedulerContract, TakingBackATaskThatRunsWaitsForItsEnd) {
    Signal started("the task");
    Signal cancelling("the task to be taken back");
    Signal left("the end of the task");
    std::atomic<bool> hasEnded = false;
    const auto task = platform().scheduler.runAfter(0ms, [&] {
        started.raise();
        EXPECT_TRUE(cancelling.wait());
        hasEnded = true;
        left.raise();
    });
    device().letPass(0ms);
    ASSERT_TRUE(started.wait());
    std::thread helper([&] { cancelling.raise(); });
    EXPECT_FALSE(task->cancel());
    EXPECT_TRUE(hasEnded);
    helper.join();
    EXPECT_TRUE(left.wait());
}

TEST_P(SchedulerContract, ATaskMayTryToTakeItselfBack) {
    Signal handed("the task's handle");
    Signal ran("the task");
    std::shared_ptr<ScheduledTask> task;
    std::atomic<bool> answer = true;
    task = platform().scheduler.runAfter(0ms, [&] {
        EXPECT_TRUE(handed.wait());
        answer = task->cancel();
        ran.raise();
    });
    handed.raise();
    device().letPass(0ms);
    EXPECT_TRUE(ran.wait());
    EXPECT_FALSE(answer);
}

TEST_P(SchedulerContract, SeveralTasksRunAtOnce) {
    Signal first("the first task, while the second one runs");
    Signal second("the second task, while the first one runs");
    Signal done("the end of the tasks");
    (void)platform().scheduler.runAfter(0ms, [&] {
        first.raise();
        EXPECT_TRUE(second.wait());
        done.raise();
    });
    (void)platform().scheduler.runAfter(0ms, [&] {
        second.raise();
        EXPECT_TRUE(first.wait());
        done.raise();
    });
    device().letPass(0ms);
    EXPECT_TRUE(done.wait());
    EXPECT_TRUE(done.wait());
}

TEST_P(SchedulerContract, ATaskMayScheduleTheNext) {
    Signal ran("the task");
    (void)platform().scheduler.runAfter(1ms, [&] {
        (void)platform().scheduler.runAfter(0ms, [&] { ran.raise(); });
        ran.raise();
    });
    device().letPass(1ms);
    EXPECT_TRUE(ran.wait());
    device().letPass(1ms);
    EXPECT_TRUE(ran.wait());
}

} // namespace appsync::contract
