// The query for installs under way.
#include "plugin/pipeline/InProgressAssetQuery.h"
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

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

TEST_F(InProgress, ListsASyncInstallOnceItIsInstalling) {
    add("loading", PDInstallTypeSync, PDInstallStateActive, PDInstallPhaseLoading);
    add("installing", PDInstallTypeSync, PDInstallStateActive, PDInstallPhaseInstalling);
    query();
    EXPECT_EQ(inProgress, List{"installing"});
    EXPECT_EQ(restoring, List{});
}

TEST_F(InProgress, ListsAStoreDownloadWhileItIsLoading) {
    add("a", PDInstallTypeStoreDownload, PDInstallStateActive, PDInstallPhaseLoading);
    query();
    EXPECT_EQ(inProgress, List{"a"});
    EXPECT_EQ(restoring, List{});
}

TEST_F(InProgress, ListsARestoreAsRestoringUntilItRestoresData) {
    add("loading", PDInstallTypeRestore, PDInstallStateActive, PDInstallPhaseLoading);
    add("installing", PDInstallTypeRestore, PDInstallStateActive, PDInstallPhaseInstalling);
    add("data", PDInstallTypeRestore, PDInstallStateActive, PDInstallPhaseRestoringData);
    query();
    EXPECT_EQ(inProgress, List{});
    EXPECT_EQ(restoring, (List{"loading", "installing"}));
}

TEST_F(InProgress, ListsNeitherPausedNorWaitingInstalls) {
    for (const std::uint64_t type : {PDInstallTypeStoreDownload, PDInstallTypeRestore}) {
        add("paused", type, PDInstallStatePaused, PDInstallPhaseInstalling);
        add("waiting", type, PDInstallStateWaiting, PDInstallPhaseLoading);
    }
    add("set aside", PDInstallTypeSync, PDInstallStateActive, PDInstallPhaseInstalling);
    world.registry.paused = {world.registry.prioritized.back()};
    world.registry.prioritized.pop_back();
    query();
    EXPECT_EQ(inProgress, List{});
    EXPECT_EQ(restoring, List{});
}

TEST_F(InProgress, NeverListsAnAppWithoutPlaceholder) {
    add("a", PDInstallTypeStoreDownload, PDInstallStateActive, PDInstallPhaseLoading)->placeholder = false;
    add("b", PDInstallTypeRestore, PDInstallStateActive, PDInstallPhaseLoading)->placeholder = false;
    query();
    EXPECT_EQ(inProgress, List{});
    EXPECT_EQ(restoring, List{});
    EXPECT_EQ(world.journal.linesWith("log: No placeholder"),
              (Lines{"log: No placeholder for asset identifier a", "log: No placeholder for asset identifier b"}));
}

TEST_F(InProgress, GivesEmptyListsWhenNothingIsPrioritized) {
    query();
    EXPECT_EQ(inProgress, List{});
    EXPECT_EQ(restoring, List{});
}

TEST_F(InProgress, LogsAnUnknownTypeWithItsNumber) {
    add("a", 9, PDInstallStateActive, PDInstallPhaseInstalling);
    query();
    EXPECT_EQ(world.journal.linesWith("log: Got install"),
              Lines{"log: Got install type=Unknown Install Type: 9 state=PDInstallStateActive "
                    "phase=PDInstallPhaseInstalling for a"});
}

TEST_F(InProgress, KeepsTheOrderOfTheReport) {
    add("c", PDInstallTypeSync, PDInstallStateActive, PDInstallPhaseInstalling);
    add("r2", PDInstallTypeRestore, PDInstallStateActive, PDInstallPhaseLoading);
    add("a", PDInstallTypeSync, PDInstallStateActive, PDInstallPhaseInstalling);
    add("r1", PDInstallTypeRestore, PDInstallStateActive, PDInstallPhaseLoading);
    query();
    EXPECT_EQ(inProgress, (List{"c", "a"}));
    EXPECT_EQ(restoring, (List{"r2", "r1"}));
}

TEST_F(InProgress, ListsAppsUnderTheirApplicationIdentifier) {
    add("a", PDInstallTypeSync, PDInstallStateActive, PDInstallPhaseInstalling)->registeredAs = "TEAM.a";
    query();
    EXPECT_EQ(inProgress, List{"TEAM.a"});
}

TEST_F(InProgress, GivesNoListsWhenTheRegistryDoesNotAnswerInTime) {
    inProgress = List{"stale"};
    restoring = List{"stale"};
    world.registry.answersQueries = false;
    const PlugInLog log(world.log);
    InProgressAssetQuery::currentInProgressAssetIDs_restoringAssetIDs(world.registry, log, inProgress, restoring,
                                                                      std::chrono::milliseconds(0));
    EXPECT_EQ(journal(), (Lines{"registry.addObserver()",
                                "log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...",
                                "error: Query for in progress assets timed out", "registry.removeObserver()"}));
    EXPECT_EQ(inProgress, std::nullopt);
    EXPECT_EQ(restoring, std::nullopt);
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
