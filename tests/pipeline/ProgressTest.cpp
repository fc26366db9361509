// The progress of a transfer, and the query for installs under way.
#include "pipeline/InProgressAssetQuery.h"
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

class TransferProgress : public inmemory::ClientTest {
  protected:
    std::shared_ptr<inmemory::Progress> addProgress(std::int64_t total = 1000) {
        const auto progress = world.registry.addProgress(world.registry.addPlaceholder("a"), 0, 0);
        progress->total = total;
        return progress;
    }
    const Lines lookedUp{"registry.applicationProxyForIdentifier(a, placeholder 1)",
                         "registry.installProgressForApplication(a, phase 0)",
                         "error: Returning <progress a> progress for a"};
};

TEST_F(TransferProgress, ShowsOnThePlaceholder) {
    start(false);
    addProgress();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.4567);
    EXPECT_EQ(journal(), (Lines{"log: finished transferring 0.456700 for a", lookedUp[0], lookedUp[1], lookedUp[2],
                                "progress(a).setInstallState(1)", "progress(a).setCompletedUnitCount(456)"}));
}

TEST_F(TransferProgress, SetsTheTotalOnceOnly) {
    start(false);
    addProgress(100);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(world.journal.linesWith("progress(a).setTotal"), Lines{"progress(a).setTotalUnitCount(1000)"});
}

TEST_F(TransferProgress, TruncatesAndDoesNotClamp) {
    start(false);
    const auto progress = addProgress();
    const struct {
        double fraction;
        std::int64_t units;
    } cases[] = {{0, 0}, {0.0019, 1}, {0.9999, 999}, {1.0, 1000}, {1.2, 1200}, {-0.0015, -1}};
    for (const auto& [fraction, units] : cases) {
        client().assetTransfer_updatedProgress(makeAsset("a"), fraction);
        EXPECT_EQ(progress->completed, units);
    }
}

TEST_F(TransferProgress, CountsAnAssetWithoutPlaceholderAsOutstanding) {
    start(false);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(journal(), (Lines{"log: finished transferring 0.500000 for a",
                                "registry.applicationProxyForIdentifier(a, placeholder 1)",
                                "error: Returning (null) progress for a"}));
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.count("error: Called with success == YES but with 1 outstanding RFX transfers!"), 1u);
}

TEST_F(TransferProgress, GoesToTheCoordinator) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(journal(), (Lines{"log: finished transferring 0.500000 for a",
                                "transactions.logStep(3, party 1, phase 1, success 1, a, \"Create coordinator\")",
                                "coordinators.initiating(a, client 3, create 0)",
                                "transactions.logStep(3, party 1, phase 2, success 0, a, \"Finished creating "
                                "coordinator\")"}));
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("coordinators.any"), Lines{"coordinators.any(a, client 3, create 0)"});
}

TEST_F(TransferProgress, FindsNoProgressObjectWithTheCoordinator) {
    start(true);
    addProgress();
    EXPECT_EQ(client()._progressForAssetIdentifier("a"), nullptr);
    EXPECT_EQ(journal(), Lines{"log: Not returning FNProgress * for a as kestrow is enabled"});
}

// The query.

class InProgress : public inmemory::ClientTest {
  protected:
    inmemory::ApplicationPtr add(const std::string& identifier, std::uint64_t type, std::uint64_t state,
                                 std::uint64_t phase) {
        const auto application = world.registry.addPlaceholder(identifier, type);
        world.registry.addProgress(application, state, phase);
        world.registry.prioritized.push_back(application);
        return application;
    }
    void query() {
        const PlugInLog log(world.log);
        InProgressAssetQuery::currentInProgressAssetIDs_restoringAssetIDs(world.registry, log, inProgress, restoring);
    }
    using List = std::vector<std::string>;
    std::optional<List> inProgress;
    std::optional<List> restoring;
};

TEST_F(InProgress, WaitsForTheFirstReport) {
    query();
    EXPECT_EQ(journal(),
              (Lines{"registry.addObserver()",
                     "log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...",
                     "oversize: prioritized proxies () paused proxies ()", "log: No assets currently in progress.",
                     "log: signaling semaphore", "log: Wait completed", "registry.removeObserver()"}));
    EXPECT_EQ(inProgress, List{});
    EXPECT_EQ(restoring, List{});
    EXPECT_TRUE(world.registry.observers().empty());
}

TEST_F(InProgress, SortsInstallsByTypeStateAndPhase) {
    enum Place { neither, progressing, restoringPlace };
    for (std::uint64_t type = 0; type <= 9; ++type) {
        for (std::uint64_t state = 0; state <= 6; ++state) {
            for (std::uint64_t phase = 0; phase <= 4; ++phase) {
                Place expected = neither;
                if (state == 1 && ((type != 2 && phase == 1) || (type == 1 && phase == 0))) {
                    expected = progressing;
                } else if (state == 1 && type == 2 && phase <= 1) {
                    expected = restoringPlace;
                }
                world.registry.prioritized.clear();
                add("a", type, state, phase);
                query();
                EXPECT_EQ(inProgress, expected == progressing ? List{"a"} : List{}) << type << state << phase;
                EXPECT_EQ(restoring, expected == restoringPlace ? List{"a"} : List{}) << type << state << phase;
                journal();
            }
        }
    }
}

TEST_F(InProgress, NamesTypeStateAndPhase) {
    const struct {
        std::uint64_t type, state, phase;
        const char* line;
    } cases[] = {
        {0, 0, 0, "type=PDInstallTypeNone state=PDInstallStateWaiting phase=PDInstallPhaseLoading"},
        {1, 1, 1, "type=PDInstallTypeStoreDownload state=PDInstallStateActive phase=PDInstallPhaseInstalling"},
        {2, 2, 2, "type=PDInstallTypeRestore state=PDInstallStatePaused phase=PDInstallPhaseRestoringData"},
        {3, 3, 3,
         "type=PDInstallTypeAutomaticDownload state=PDInstallStateCanceled phase=PDInstallPhaseInstallingPlaceholder"},
        {4, 4, 4, "type=PDInstallTypeSync state=PDInstallStateFailed phase=Unknown Install Phase: 4"},
        {5, 5, 0, "type=PDInstallTypeAutomaticUpdate state=PDInstallStateFinished phase=PDInstallPhaseLoading"},
        {6, 6, 0, "type=PDInstallTypeMigration state=Unknown Install State: 6 phase=PDInstallPhaseLoading"},
        {7, 0, 0, "type=PDInstallTypeDowngrade state=PDInstallStateWaiting phase=PDInstallPhaseLoading"},
        {8, 0, 0, "type=Unknown Install Type: 8 state=PDInstallStateWaiting phase=PDInstallPhaseLoading"},
        {9, 0, 0, "type=Unknown Install Type: 9 state=PDInstallStateWaiting phase=PDInstallPhaseLoading"},
    };
    for (const auto& [type, state, phase, line] : cases) {
        world.registry.prioritized.clear();
        add("a", type, state, phase);
        query();
        EXPECT_EQ(world.journal.linesWith("log: Got install"),
                  Lines{std::string("log: Got install ") + line + " for a"});
        journal();
    }
}

TEST_F(InProgress, PassesOverAppsWithoutPlaceholderOrProgress) {
    add("installed", 1, 1, 0)->placeholder = false;
    add("idle", 1, 1, 0)->progress = nullptr;
    add("paused", 1, 1, 0);
    world.registry.paused = {world.registry.prioritized.back()};
    world.registry.prioritized.pop_back();
    add("active", 1, 1, 0);
    query();
    EXPECT_EQ(journal(),
              (Lines{"registry.addObserver()",
                     "log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...",
                     "oversize: prioritized proxies (<app installed>, <app idle>, <app active>) paused proxies (<app "
                     "paused>)",
                     "log: No placeholder for asset identifier installed",
                     "log: No install progress found for asset identifier idle",
                     "log: Got install type=PDInstallTypeStoreDownload state=PDInstallStateActive "
                     "phase=PDInstallPhaseLoading for active",
                     "log: signaling semaphore", "log: Wait completed", "registry.removeObserver()"}));
    EXPECT_EQ(inProgress, List{"active"});
}

TEST_F(InProgress, KeepsTheFirstReportOnly) {
    const PlugInLog log(world.log);
    InProgressAssetQuery asked(log, std::chrono::milliseconds(0));
    asked.applicationInstallsArePrioritized_arePaused({}, {});
    add("late", 1, 1, 0);
    journal();
    asked.applicationInstallsArePrioritized_arePaused(world.registry.prioritized, {});
    EXPECT_EQ(journal(), Lines{"oversize: prioritized proxies (<app late>) paused proxies ()"});
    EXPECT_EQ(asked._inProgressAssetIDs(), List{});
    EXPECT_TRUE(asked._fetchResults());
    EXPECT_FALSE(asked._fetchResults()); // signalled once
}

TEST_F(InProgress, SaysWhenABoundedWaitHasPassed) {
    const PlugInLog log(world.log);
    InProgressAssetQuery asked(log, std::chrono::milliseconds(0));
    EXPECT_FALSE(asked._fetchResults());
    EXPECT_EQ(journal(), (Lines{"log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...",
                                "error: Query for in progress assets timed out"}));
    EXPECT_EQ(asked._inProgressAssetIDs(), std::nullopt);
    EXPECT_EQ(asked._restoringAssetIDs(), std::nullopt);
}

} // namespace
} // namespace appsync
