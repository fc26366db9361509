#include "device/log/TransactionLog.h"
#include "device/log/LogFile.h"
#include "tests/device/log/Records.h"
#include "tests/device/root/Faults.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

namespace appsync::device {
namespace {

class TransactionLogTest : public testing::Test {
  protected:
    void open(std::int64_t capacity = TransactionLog::defaultCapacity) {
        log.reset();
        log = std::move(*TransactionLog::open(*device.database, nullptr, capacity));
    }
    void scenario(std::string_view description, std::string_view bundleID = "com.example.a") const {
        log->logScenario_step_success_forBundleID_description("Asset install", TransactionStep::none, true, bundleID,
                                                              description);
    }
    [[nodiscard]] std::vector<TransactionRecord>
    records(std::optional<std::string_view> bundleID = std::nullopt) const {
        return recordsOf(*log, bundleID);
    }

    [[nodiscard]] std::vector<std::string> loggedTexts() {
        std::vector<std::string> texts;
        EXPECT_TRUE(LogCursor(device.files()).readOn([&](const LogEntry& entry) {
            texts.push_back(entry.text);
            return true;
        }));
        return texts;
    }

    OpenRoot device;
    std::unique_ptr<TransactionLog> log;
};

TEST_F(TransactionLogTest, KeepsStepsWithAllTheirFacts) {
    open();
    log->logStep_byParty_phase_success_forBundleID_description(TransactionStep::uninstall, TransactionParty::syncPlugIn,
                                                               TransactionPhase::end, false, "com.example.a",
                                                               "Uninstall app");
    const auto all = records();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].step, TransactionStep::uninstall);
    EXPECT_EQ(all[0].party, TransactionParty::syncPlugIn);
    EXPECT_EQ(all[0].phase, TransactionPhase::end);
    EXPECT_FALSE(all[0].success);
    EXPECT_FALSE(all[0].scenario);
    EXPECT_EQ(all[0].bundleID, "com.example.a");
    EXPECT_EQ(all[0].description, "Uninstall app");
    EXPECT_GT(all[0].time, 0);
}

TEST_F(TransactionLogTest, KeepsScenarios) {
    open();
    scenario("assertion not found");
    const auto all = records();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].scenario, "Asset install");
    EXPECT_EQ(all[0].step, TransactionStep::none);
    EXPECT_TRUE(all[0].success);
}

TEST_F(TransactionLogTest, RecordsStayInOrderAcrossProcesses) {
    open();
    scenario("one");
    scenario("two");
    log.reset();
    device.reopen();
    open();
    scenario("three");
    const auto all = records();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].description, "one");
    EXPECT_EQ(all[2].description, "three");
    EXPECT_LT(all[0].number, all[1].number);
    EXPECT_LE(all[0].time, all[2].time);
}

TEST_F(TransactionLogTest, CanBeAskedForOneApp) {
    open();
    scenario("one", "a");
    scenario("two", "b");
    scenario("three", "a");
    const auto of = records("a");
    ASSERT_EQ(of.size(), 2U);
    EXPECT_EQ(of[1].description, "three");
    EXPECT_TRUE(records("c").empty());
}

TEST_F(TransactionLogTest, KeepsTheNewestRecordsOnly) {
    open(10);
    for (int i = 0; i < 35; ++i) {
        scenario(std::to_string(i));
        if (i % 4 == 0) {
            ASSERT_TRUE(log->flush());
        }
    }
    const auto all = records();
    ASSERT_EQ(all.size(), 10U);
    EXPECT_EQ(all.front().description, "25");
    EXPECT_EQ(all.back().description, "34");
    EXPECT_EQ(all.back().number, 35);
}

TEST_F(TransactionLogTest, AnswersThousandsOfRecords) {
    open();
    for (int i = 0; i < 2500; ++i) {
        scenario(std::to_string(i));
    }
    const auto all = records();
    ASSERT_EQ(all.size(), 2500U);
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i].description, std::to_string(i));
    }
}

TEST_F(TransactionLogTest, AVisitorMayStop) {
    open();
    scenario("one");
    scenario("two");
    int visited = 0;
    EXPECT_TRUE(log->visit([&](const TransactionRecord&) {
        ++visited;
        return false;
    }));
    EXPECT_EQ(visited, 1);
}

TEST_F(TransactionLogTest, NothingIsReadBeyondARecordThatTheVisitorStopsAt) {
    open();
    for (int i = 0; i < 2500; ++i) {
        scenario(std::to_string(i));
    }
    log.reset();
    device.database.reset();
    std::string file = readHostFile(device.root->databasePath());
    std::fill(file.begin() + static_cast<std::ptrdiff_t>(file.size() / 4 * 3), file.end(), '\xff');
    writeHostFile(device.root->databasePath(), file);
    device.database = std::move(*Database::open(*device.root));
    open();
    EXPECT_TRUE(log->visit([](const TransactionRecord&) { return false; }));
    EXPECT_TRUE(isError(log->visit([](const TransactionRecord&) { return true; }).error(), databaseErrorDomain,
                        DatabaseError::damaged));
}

TEST_F(TransactionLogTest, ARecordThatCouldNotBeWrittenIsWrittenLater) {
    const auto faults = std::make_shared<RecordingFaults>();
    device.reopen(faults);
    open();
    faults->forget();
    faults->failAt = 0;
    faults->failure = ENOSPC;
    scenario("one");
    bool hasFailed = false;
    while (!hasFailed && faults->count() == 0) { // whoever comes first, the log's own thread or this one
        hasFailed = !log->flush();
    }
    scenario("two");
    const auto all = records();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].description, "one");
}

TEST_F(TransactionLogTest, RecordsOfSeveralThreadsAreAllKept) {
    open();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 300; ++n) {
                scenario(std::to_string(i * 1000 + n));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<std::string> descriptions;
    for (const TransactionRecord& record : records()) {
        descriptions.insert(record.description);
    }
    EXPECT_EQ(descriptions.size(), 1200U);
}

class FailingCommits final : public FaultPoint {
  public:
    int before(std::string_view operation, std::string_view /*path*/) noexcept override {
        if (!doFail || operation != "commit") {
            return 0;
        }
        ++count;
        return ENOSPC;
    }
    void waitFor(int failures) const {
        while (count < failures) {
            std::this_thread::yield();
        }
    }

    std::atomic<bool> doFail = false;
    std::atomic<int> count = 0;
};

TEST_F(TransactionLogTest, TellsTheFirstOfSeveralFailuresToWriteIt) {
    const auto faults = std::make_shared<FailingCommits>();
    device.reopen(faults);
    auto mirror = std::move(*LogFile::open(device.files()));
    log = std::move(*TransactionLog::open(*device.database, mirror.get()));
    faults->doFail = true;
    scenario("one");
    faults->waitFor(1);
    scenario("two");
    faults->waitFor(2);
    faults->doFail = false;
    ASSERT_EQ(records().size(), 2U);
    log.reset();
    mirror.reset();
    const auto texts = loggedTexts();
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_TRUE(texts[0].starts_with("the transaction log is tried again with its next record: the database "))
        << texts[0];
}

TEST_F(TransactionLogTest, TellsHowManyRecordsItLost) {
    const auto faults = std::make_shared<FailingCommits>();
    device.reopen(faults);
    auto mirror = std::move(*LogFile::open(device.files()));
    log = std::move(*TransactionLog::open(*device.database, mirror.get()));
    faults->doFail = true;
    constexpr int lost = 3;
    for (int i = 0; i < 20'000 + lost; ++i) {
        scenario(std::to_string(i));
    }
    EXPECT_FALSE(log->flush());
    faults->doFail = false;
    const auto kept = records();
    ASSERT_EQ(kept.size(), 20'000U);
    EXPECT_EQ(kept.front().description, std::to_string(lost));
    EXPECT_TRUE(log->flush());
    log.reset();
    mirror.reset();
    EXPECT_EQ(
        std::ranges::count(loggedTexts(), "the transaction log lacks 3 records, which could not be written in time"),
        1);
}

TEST_F(TransactionLogTest, MirrorsRecordsToTheLogItWasGiven) {
    auto mirror = std::move(*LogFile::open(device.files()));
    log = std::move(*TransactionLog::open(*device.database, mirror.get()));
    scenario("before the log was named");
    log->initializeWithLog(std::make_shared<const SystemLog>(SystemLog{"com.zuvex.appinstallation", "qrd.appsync"}));
    log->logStep_byParty_phase_success_forBundleID_description(TransactionStep::coordinatorCreation,
                                                               TransactionParty::syncPlugIn, TransactionPhase::start,
                                                               true, "com.example.a", "Create coordinator");
    log->logScenario_step_success_forBundleID_description("Tamblin Sync", TransactionStep::none, false, "com.example.a",
                                                          "Uninstall failed");
    log.reset();
    mirror.reset();
    std::vector<LogEntry> entries;
    ASSERT_TRUE(LogCursor(device.files()).readOn([&](const LogEntry& entry) {
        entries.push_back(entry);
        return true;
    }));
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].source, "com.zuvex.appinstallation/qrd.appsync");
    EXPECT_EQ(entries[0].text, "step coordinator creation begins for com.example.a: Create coordinator");
    EXPECT_EQ(entries[0].level, LogLevel::standard);
    EXPECT_EQ(entries[1].text, "scenario \"Tamblin Sync\" for com.example.a without success: Uninstall failed");
    EXPECT_EQ(entries[1].level, LogLevel::error);
}

} // namespace
} // namespace appsync::device
