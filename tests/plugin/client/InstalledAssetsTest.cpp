// The inventory: which apps have gone from the device since the desktop last knew of them.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

const std::string toDo{paths::toDoList};
const std::string lastSync{paths::lastSyncAppState};

class InstalledAssets : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }

    void putLastSync(const Array& identifiers) { world.files.putPlist(lastSync, identifiers); }
    void putUninstalled(const std::vector<std::string>& identifiers) {
        world.lowLevelInstaller.uninstalled = Dictionary{};
        for (const std::string& identifier : identifiers) {
            world.lowLevelInstaller.uninstalled->set(identifier, Dictionary{});
        }
    }
    /// The identifiers of the result, which has the agreed form.
    Lines deleted() {
        const Dictionary result = client().installedAssets();
        EXPECT_EQ(result.size(), 1u);
        Lines identifiers;
        const Array* entries = result.array("_Deleted");
        EXPECT_NE(entries, nullptr);
        for (const Value& entry : entries ? *entries : Array{}) {
            const auto identifier = entry.dictionary()->string("BXBundleIdentifier");
            EXPECT_EQ(entry, Value(Dictionary{{"BXBundleIdentifier", identifier.value_or("none")}}));
            identifiers.emplace_back(identifier.value_or("none"));
        }
        return identifiers;
    }
    static std::string marked(const std::string& identifier, int found, int installed, int failed) {
        return "log: " + identifier + " not installed, and no todo (found=" + std::to_string(found) +
               " pi=" + std::to_string(installed) + " failed=" + std::to_string(failed) + ") Marking as deleted";
    }
    static std::string heldBack(const std::string& identifier) {
        return "log: " + identifier + " not installed, but is in our todo list. Not marking deleted";
    }
    static std::string finished(const std::string& toDoList, const std::string& uninstalled,
                                const std::string& lastSynced) {
        return "oversize: finished getting installed assets toDoList:" + toDoList + ", uninstalled apps " +
               uninstalled + ", last synced apps" + lastSynced;
    }
};

TEST_F(InstalledAssets, AreGatheredFromBothSourcesAndTheToDoList) {
    putToDoList({{"u2", "install"}});
    putLastSync(Array{"here", "gone"});
    putUninstalled({"u1", "u2"});
    world.registry.addInstalled("here");
    EXPECT_EQ(deleted(), (Lines{"u1", "gone"}));
    EXPECT_EQ(journal(),
              (Lines{"log: getting installed assets", "files.readFile(" + toDo + ")", "plist.parse()",
                     "files.readFile(" + lastSync + ")", "plist.parse()", "tevrin.lookupUninstalled(no options)",
                     "registry.applicationIsInstalled(here)", "registry.applicationIsInstalled(gone)",
                     marked("u1", 0, 0, 0), heldBack("u2"), marked("gone", 0, 0, 0),
                     finished("({identifier = u2; operation = install;})", "(u1, u2)", "(here, gone)")}));
}

TEST_F(InstalledAssets, AreNoneWithoutListsAndAnswer) {
    world.lowLevelInstaller.uninstalled = std::nullopt;
    EXPECT_EQ(client().installedAssets(), (Dictionary{{"_Deleted", Array{}}}));
    EXPECT_EQ(journal(),
              (Lines{"log: getting installed assets", "files.readFile(" + toDo + ")",
                     "files.readFile(" + lastSync + ")", "tevrin.lookupUninstalled(no options)",
                     "error: TevrinLookupUninstalled returned NULL", finished("(null)", "(null)", "(null)")}));
}

TEST_F(InstalledAssets, RelyOnTheLastSyncAloneWithoutAnswer) {
    putLastSync(Array{"gone"});
    world.lowLevelInstaller.uninstalled = std::nullopt;
    EXPECT_EQ(deleted(), Lines{"gone"});
    EXPECT_EQ(journal(),
              (Lines{"log: getting installed assets", "files.readFile(" + toDo + ")",
                     "files.readFile(" + lastSync + ")", "plist.parse()", "tevrin.lookupUninstalled(no options)",
                     "error: TevrinLookupUninstalled returned NULL", "registry.applicationIsInstalled(gone)",
                     marked("gone", 0, 0, 0), finished("(null)", "(null)", "(gone)")}));
}

TEST_F(InstalledAssets, ReportAnAppOfBothSourcesOnce) {
    putLastSync(Array{"a", "b", "a"});
    putUninstalled({"a"});
    EXPECT_EQ(deleted(), (Lines{"a", "b"}));
    EXPECT_EQ(world.journal.count(marked("a", 0, 0, 0)), 1u);
    EXPECT_EQ(world.journal.count("registry.applicationIsInstalled(a)"), 2u);
}

TEST_F(InstalledAssets, AreHeldBackByARecordInAnyStateButTheLast) {
    const Lines operations{"install", "SENT", "DOWNLOADED", "remove", "installed", "Failed", ""};
    std::vector<std::pair<std::string, std::string>> records;
    Lines apps;
    for (const std::string& operation : operations) {
        apps.push_back("app." + operation);
        records.emplace_back(apps.back(), operation);
    }
    putToDoList(records);
    putUninstalled(apps);
    EXPECT_EQ(deleted(), Lines{});
    Lines expected;
    for (const std::string& app : apps) {
        expected.push_back(heldBack(app));
    }
    EXPECT_EQ(world.journal.linesWith("log: app"), expected);
}

TEST_F(InstalledAssets, AreHeldBackByARecordWithoutOperation) {
    world.files.putPlist(toDo,
                         Array{Dictionary{{"identifier", "a"}}, Dictionary{{"identifier", "b"}, {"operation", 5}}});
    putUninstalled({"a", "b"});
    EXPECT_EQ(deleted(), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: a "), Lines{heldBack("a")});
    EXPECT_EQ(world.journal.linesWith("log: b "), Lines{heldBack("b")});
}

TEST_F(InstalledAssets, ReportAnAppWhoseInstallHasEnded) {
    putToDoList({{"a", "INSTALLED"}, {"b", "FAILED"}});
    putUninstalled({"a", "b"});
    EXPECT_EQ(deleted(), (Lines{"a", "b"}));
    EXPECT_EQ(world.journal.linesWith("log: a "), Lines{marked("a", 1, 1, 0)});
    EXPECT_EQ(world.journal.linesWith("log: b "), Lines{marked("b", 1, 0, 1)});
}

TEST_F(InstalledAssets, LookAtTheFirstRecordOfAnApp) {
    putToDoList({{"a", "INSTALLED"}, {"a", "install"}, {"b", "install"}, {"b", "FAILED"}});
    putUninstalled({"a", "b"});
    EXPECT_EQ(deleted(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("log: b "), Lines{heldBack("b")});
}

TEST_F(InstalledAssets, PassOverAnAppOfTheLastSyncThatIsStillInstalled) {
    putLastSync(Array{"installed", "waiting"});
    world.registry.addInstalled("installed");
    world.registry.addPlaceholder("waiting");
    EXPECT_EQ(deleted(), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: installed"), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: waiting"), Lines{});
}

TEST_F(InstalledAssets, BelieveTheUninstalledListEvenOfAnInstalledApp) {
    putUninstalled({"a"});
    world.registry.addInstalled("a");
    EXPECT_EQ(deleted(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("registry."), Lines{});
}

TEST_F(InstalledAssets, CountUnreadableListsAsEmpty) {
    world.files.put(toDo, "no property list");
    world.files.putPlist(lastSync, Dictionary{{"a", 1}});
    putUninstalled({"a"});
    EXPECT_EQ(deleted(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("error:"),
              (Lines{"error: couldn't parse todo list", "error: todo list is not an array"}));
    EXPECT_EQ(journal().back(), finished("(null)", "(a)", "(null)"));
}

TEST_F(InstalledAssets, PassOverStrayElements) {
    world.files.putPlist(toDo, Array{"a", 5, Dictionary{{"identifier", 5}}});
    putLastSync(Array{5, Array{"b"}, "c", Dictionary{}});
    putUninstalled({"a"});
    EXPECT_EQ(deleted(), (Lines{"a", "c"}));
    EXPECT_EQ(world.journal.linesWith("registry."), Lines{"registry.applicationIsInstalled(c)"});
}

TEST_F(InstalledAssets, AreReportedAgainUntilASyncSucceeds) {
    putUninstalled({"a"});
    EXPECT_EQ(deleted(), Lines{"a"});
    EXPECT_EQ(deleted(), Lines{"a"});
    client().syncEndedWithSuccess(true);
    EXPECT_EQ(deleted(), Lines{});
}

// What is remembered of the uninstalled apps, as the end of a sync shows it.

class RememberedUninstalledApps : public InstalledAssets {
  protected:
    /// The lines about uninstalled apps at the end of a successful sync.
    Lines clearedAtSyncEnd() {
        journal();
        client().syncEndedWithSuccess(true);
        Lines lines = journal();
        lines.erase(lines.begin(), lines.begin() + 2); // the message and the times
        EXPECT_EQ(lines.back(), "files.removeItem(" + lastSync + ")");
        lines.pop_back();
        return lines;
    }
    static Lines cleared(const std::string& identifiers) {
        return {"log: clearing uninstalled apps: " + identifiers,
                "tevrin.clearUninstalled(" + identifiers + ", no options)"};
    }
};

TEST_F(RememberedUninstalledApps, AreForgottenByBothAtTheEndOfASync) {
    putUninstalled({"a", "b"});
    deleted();
    EXPECT_EQ(clearedAtSyncEnd(), cleared("(a, b)"));
    EXPECT_TRUE(world.lowLevelInstaller.uninstalled->empty());
    EXPECT_EQ(clearedAtSyncEnd(), Lines{});
}

TEST_F(RememberedUninstalledApps, AreNoneBeforeTheFirstInventory) {
    putUninstalled({"a"});
    EXPECT_EQ(clearedAtSyncEnd(), Lines{});
}

TEST_F(RememberedUninstalledApps, AreClearedEvenWhenThereAreNone) {
    deleted();
    EXPECT_EQ(clearedAtSyncEnd(), cleared("()"));
}

TEST_F(RememberedUninstalledApps, AreKeptAfterAFailedSync) {
    putUninstalled({"a"});
    deleted();
    journal();
    client().syncEndedWithSuccess(false);
    EXPECT_EQ(journal(), Lines{"log: sync ended with success: n"});
    EXPECT_EQ(clearedAtSyncEnd(), cleared("(a)"));
}

TEST_F(RememberedUninstalledApps, AreKeptWhenTheServiceRefusesToForgetThem) {
    putUninstalled({"a"});
    deleted();
    world.faults.fail("tevrin.clearUninstalled");
    Lines refused = cleared("(a)");
    refused.emplace_back("error: Failed to clear uninstalled apps from Tevrin.");
    EXPECT_EQ(clearedAtSyncEnd(), refused);
    EXPECT_EQ(clearedAtSyncEnd(), cleared("(a)"));
}

TEST_F(RememberedUninstalledApps, AreReplacedByTheNextAnswer) {
    putUninstalled({"a", "b"});
    deleted();
    putUninstalled({"c"});
    deleted();
    EXPECT_EQ(clearedAtSyncEnd(), cleared("(c)"));
}

TEST_F(RememberedUninstalledApps, StayWhenTheServiceDoesNotAnswer) {
    putUninstalled({"a"});
    deleted();
    world.lowLevelInstaller.uninstalled = std::nullopt;
    journal();
    EXPECT_EQ(deleted(), Lines{});
    EXPECT_EQ(journal().back(), finished("(null)", "(a)", "(null)"));
    EXPECT_EQ(clearedAtSyncEnd(), cleared("(a)"));
}

TEST_F(RememberedUninstalledApps, StayWhenAllSyncDataIsCleared) {
    putUninstalled({"a"});
    deleted();
    client().clearSyncData();
    world.files.putFolder(paths::applicationSync);
    EXPECT_EQ(clearedAtSyncEnd(), cleared("(a)"));
}

TEST_F(RememberedUninstalledApps, AreClearedEvenWhenTheTimesCannotBeSet) {
    putUninstalled({"a"});
    deleted();
    journal();
    world.faults.fail("files.utimes", 1, 0, Error::make(posixErrorDomain, 13));
    client().syncEndedWithSuccess(true);
    const std::string root{paths::applicationSync};
    EXPECT_EQ(journal(), (Lines{"log: sync ended with success: y", "files.utimes(" + root + ")",
                                "error: Failed to update utimes of \"" + root + "\": errno 13",
                                "log: clearing uninstalled apps: (a)", "tevrin.clearUninstalled((a), no options)",
                                "files.removeItem(" + lastSync + ")"}));
}

} // namespace
} // namespace appsync
