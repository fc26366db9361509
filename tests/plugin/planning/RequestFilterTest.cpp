// Which wanted apps may be requested at all.
#include "plugin/planning/RequestFilter.h"
#include "plugin/client/IdentifierSet.h"
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

class InProgressFiltering : public testing::Test {
  protected:
    using List = std::vector<std::string>;
    inmemory::World world;
    const PlugInLog log{world.log};
    Dictionary wanted{{"a", Dictionary{}}, {"b", Dictionary{}}, {"c", Dictionary{}}};
};

TEST_F(InProgressFiltering, TakesOutAppsInProgressAndKeepsThoseThatAreRestored) {
    dropAppsInProgress(log, List{"a", "c", "unknown"}, List{"b"}, wanted);
    EXPECT_EQ(world.journal.take(), (Lines{"log: Assets already in progress (not returning these): (a, c, unknown)",
                                           "log: Assets currently restoring: (b)"}));
    EXPECT_EQ(wanted, (Dictionary{{"b", Dictionary{}}}));
}

TEST_F(InProgressFiltering, GoesOnWithoutTheLists) {
    const Dictionary before = wanted;
    dropAppsInProgress(log, std::nullopt, std::nullopt, wanted);
    EXPECT_EQ(world.journal.take(), (Lines{"error: Failed to get list of assets already in progress!",
                                           "error: Failed to get list of assets currently restoring!"}));
    EXPECT_EQ(wanted, before);
}

class RequestFiltering : public testing::Test {
  protected:
    bool admits(Dictionary entry) {
        entry.set("BXBundleIdentifier", "a");
        const RequestFilter filter{
            log, installationAllowed, useInstallCoordinator, kplAppsToIgnore, systemPlaceholders, requested};
        return filter.admits(Candidate(entry));
    }
    Lines said() { return world.journal.take(); }

    inmemory::World world;
    const PlugInLog log{world.log};
    bool installationAllowed = true;
    bool useInstallCoordinator = true;
    IdentifierSet kplAppsToIgnore;
    std::set<std::string> systemPlaceholders;
    std::set<std::string> requested;
};

TEST_F(RequestFiltering, AdmitsAPlainApp) {
    EXPECT_TRUE(admits({}));
    useInstallCoordinator = false;
    EXPECT_TRUE(admits({{"IsRestore", 1}, {"auto_demoted_app", 1}, {"system_app", true}}));
    EXPECT_EQ(said(), Lines{});
}

TEST_F(RequestFiltering, RefusesInstallsThatPolicyForbids) {
    installationAllowed = false;
    EXPECT_FALSE(admits({}));
    EXPECT_EQ(said(), Lines{"log: skipping a - its not a restore and app installation is disabled"});
    useInstallCoordinator = false;
    EXPECT_TRUE(admits({{"IsRestore", 1}}));
}

TEST_F(RequestFiltering, RefusesRestoresOfAppsToIgnore) {
    kplAppsToIgnore.add("a");
    EXPECT_FALSE(admits({{"IsRestore", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is currenlty marked as to be ignored for download - skipping"});
    EXPECT_TRUE(admits({}));
}

TEST_F(RequestFiltering, LeavesRestoresToTheStoreDaemon) {
    EXPECT_FALSE(admits({{"IsRestore", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is currenlty marked to be restored and will be handled by corbind - skipping"});
}

TEST_F(RequestFiltering, LeavesSystemAppsAlone) {
    EXPECT_FALSE(admits({{"system_app", true}, {"auto_demoted_app", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is auto demoted: 1, manual demoted: 0, system app:1 - skipping"});
    EXPECT_FALSE(admits({{"system_app", true}, {"intentional_demoted_app", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is auto demoted: 0, manual demoted: 1, system app:1 - skipping"});
}

TEST_F(RequestFiltering, LeavesSystemPlaceholdersAlone) {
    systemPlaceholders.insert("a");
    useInstallCoordinator = false;
    EXPECT_FALSE(admits({}));
    EXPECT_EQ(said(), Lines{"log: a is system app placeholder - skipping"});
}

TEST_F(RequestFiltering, RequestsDemotedAppsOnlyWhenAskedTo) {
    EXPECT_FALSE(admits({{"auto_demoted_app", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is currenlty demoted (manual:1, auto:0) - skipping"});
    EXPECT_FALSE(admits({{"intentional_demoted_app", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is currenlty demoted (manual:0, auto:1) - skipping"});
    requested.insert("a");
    EXPECT_TRUE(admits({{"auto_demoted_app", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is currenlty demoted (manual:1, auto:0) - but will be installed as it's requested "
                            "by client"});
}

TEST_F(RequestFiltering, ChecksInItsOrder) {
    installationAllowed = false;
    kplAppsToIgnore.add("a");
    systemPlaceholders.insert("a");
    Dictionary entry{{"system_app", true}, {"auto_demoted_app", 1}};
    EXPECT_FALSE(admits(entry));
    EXPECT_TRUE(said().front().starts_with("log: skipping a"));
    entry.set("IsRestore", 1);
    EXPECT_FALSE(admits(entry));
    EXPECT_TRUE(said().front().ends_with("ignored for download - skipping"));
    kplAppsToIgnore.removeAll();
    EXPECT_FALSE(admits(entry));
    EXPECT_TRUE(said().front().ends_with("handled by corbind - skipping"));
    installationAllowed = true;
    entry.set("IsRestore", 0);
    EXPECT_FALSE(admits(entry));
    EXPECT_TRUE(said().front().ends_with("system app:1 - skipping"));
    entry.set("system_app", false);
    EXPECT_FALSE(admits(entry));
    EXPECT_TRUE(said().front().ends_with("is system app placeholder - skipping"));
}

TEST_F(RequestFiltering, RefusesTheSameWithoutTheCoordinator) {
    useInstallCoordinator = false;
    kplAppsToIgnore.add("a");
    EXPECT_FALSE(admits({{"IsRestore", 1}}));
    EXPECT_EQ(said(), Lines{"log: a is currenlty marked as to be ignored for download - skipping"});
    installationAllowed = false;
    EXPECT_FALSE(admits({}));
    EXPECT_EQ(said(), Lines{"log: skipping a - its not a restore and app installation is disabled"});
}

TEST_F(RequestFiltering, RefusesTheSameWhenTheListAsksForTheApp) {
    requested.insert("a");
    EXPECT_FALSE(admits({{"IsRestore", 1}}));
    EXPECT_FALSE(admits({{"system_app", true}, {"auto_demoted_app", 1}}));
    systemPlaceholders.insert("a");
    EXPECT_FALSE(admits({}));
    installationAllowed = false;
    EXPECT_FALSE(admits({}));
}

TEST_F(RequestFiltering, ReadsFlagsLeniently) {
    EXPECT_TRUE(admits({{"IsRestore", "1"}, {"system_app", Array{}}, {"auto_demoted_app", Dictionary{}}}));
    EXPECT_FALSE(admits({{"IsRestore", 0.5}}));
}

} // namespace
} // namespace appsync
