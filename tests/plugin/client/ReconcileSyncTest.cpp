// Opening a sync with what the desktop staged, closing it, and wiping what the plug-in keeps.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

const std::string root{paths::applicationSync};
const std::string work{paths::workArea};
const std::string staging{paths::stagingArea};
const std::string notice = "com.zuvex.skellan.qrd.wsyncnotify";

class ReconcileSync : public inmemory::ClientTest {
  protected:
    /// Stages a to-do list: pairs of identifier and operation.
    void stage(const Array& records) { world.files.putPlist(staging + "/ApplicationsSync.plist", records); }
    static Dictionary record(const Value& identifier, std::string_view operation) {
        return {{"identifier", identifier}, {"operation", operation}};
    }
    bool reconcile() {
        error = nullptr;
        return client().reconcileSync_withNewAnchor_progressCallback_error(nullptr, "ANCHOR", {}, &error);
    }
    /// The journal of a reconciliation: from its first steps to the loaded list, the given lines, and the end.
    static Lines whole(const Lines& middle) {
        Lines lines{"log: starting to reconcile sync with new anchor ANCHOR",
                    "files.removeItem(" + work + ")",
                    "files.createDirectory(" + root + ", with intermediates)",
                    "files.fileExists(" + staging + ")",
                    "files.moveItem(" + staging + " to " + work + ")",
                    "policy.effectiveBoolValueForSetting(allowAppRemoval)",
                    "files.readFile(" + work + "/ApplicationsSync.plist)"};
        lines.insert(lines.end(), middle.begin(), middle.end());
        lines.emplace_back("log: finished reconcile sync");
        return lines;
    }
    static Lines joined(Lines first, const Lines& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    }

    const Lines startingNotice{"notify.register(" + notice + ")",
                               "log: Notifying SK we are starting syncing",
                               "screen.port()",
                               "notify.setState(token 5, 1)",
                               "notify.post(" + notice + ")",
                               "files.readFile(" + work + "/SkellanIconState.plist)"};
    const Lines debugCopy{"plist.serialise(binary)",
                          "files.writeFileAtomically(" + work + "/ApplicationsSync.plist-debug.plist)"};
    ErrorPtr error;
};

TEST_F(ReconcileSync, MovesTheStagingAreaInAndCopiesItsList) {
    start();
    stage({record("a", "install")});
    world.files.put(work + "/old", "of an earlier sync");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined(joined({"plist.parse()"}, startingNotice), debugCopy)));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(world.files.exists(work + "/old"));
    EXPECT_FALSE(world.files.exists(staging));
    EXPECT_EQ(world.files.plistAt(paths::toDoListDebugCopy), Value(Array{record("a", "install")}));
    EXPECT_TRUE(world.files.bytesAt(paths::toDoListDebugCopy)->starts_with("bplist00"));
}

TEST_F(ReconcileSync, IgnoresThatThereWasNoWorkArea) {
    start();
    stage({});
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(error, nullptr);
}

TEST_F(ReconcileSync, EndsWhenTheWorkAreaCannotBeMade) {
    start();
    stage({});
    world.faults.fail("files.createDirectory");
    EXPECT_FALSE(reconcile());
    EXPECT_EQ(error->domain(), "TestDomain");
    EXPECT_EQ(journal(),
              (Lines{"log: starting to reconcile sync with new anchor ANCHOR", "files.removeItem(" + work + ")",
                     "files.createDirectory(" + root + ", with intermediates)", "log: can't create work area",
                     "log: finished reconcile sync"}));
}

TEST_F(ReconcileSync, HasNothingToDoWithoutStagingArea) {
    start();
    world.files.put(work + "/old", "of an earlier sync");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(),
              (Lines{"log: starting to reconcile sync with new anchor ANCHOR", "files.removeItem(" + work + ")",
                     "files.createDirectory(" + root + ", with intermediates)", "files.fileExists(" + staging + ")",
                     "log: Nothing to do", "log: finished reconcile sync"}));
    EXPECT_FALSE(world.files.exists(work));
}

TEST_F(ReconcileSync, EndsWhenTheStagingAreaCannotBeMoved) {
    start();
    stage({});
    world.faults.fail("files.moveItem");
    EXPECT_FALSE(reconcile());
    EXPECT_EQ(error->domain(), "TestDomain");
    EXPECT_EQ(journal(),
              (Lines{"log: starting to reconcile sync with new anchor ANCHOR", "files.removeItem(" + work + ")",
                     "files.createDirectory(" + root + ", with intermediates)", "files.fileExists(" + staging + ")",
                     "files.moveItem(" + staging + " to " + work + ")", "log: Can't move staging area",
                     "log: finished reconcile sync"}));
}

TEST_F(ReconcileSync, TellsTheHomeScreenEvenOfAnEmptyStagingArea) {
    start();
    world.files.putFolder(staging);
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined({"log: Nothing to do from Tamblin"}, startingNotice)));
    EXPECT_FALSE(world.files.exists(paths::toDoListDebugCopy));
}

TEST_F(ReconcileSync, GoesOnWithAListThatCannotBeRead) {
    start();
    world.files.put(staging + "/ApplicationsSync.plist", "no property list");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(),
              whole(joined({"plist.parse()", "error: couldn't parse todo list", "log: Nothing to do from Tamblin"},
                           startingNotice)));
    EXPECT_EQ(error->domain(), propertyListErrorDomain);
}

TEST_F(ReconcileSync, GoesOnWithAListOfAnotherRoot) {
    start();
    world.files.putPlist(staging + "/ApplicationsSync.plist", Dictionary{});
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(),
              whole(joined({"plist.parse()", "error: todo list is not an array", "log: Nothing to do from Tamblin"},
                           startingNotice)));
}

TEST_F(ReconcileSync, RemovesNothingWhenPolicyForbidsIt) {
    start();
    world.policy.settings["allowAppRemoval"] = OLBoolValue::explicitlyNo;
    stage({record("a", "remove")});
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(),
              whole(joined(joined({"plist.parse()", "log: Not processing deletes because app removal is restricted"},
                                  startingNotice),
                           debugCopy)));
}

TEST_F(ReconcileSync, SaysNothingOfPolicyWithoutAList) {
    start();
    world.policy.settings["allowAppRemoval"] = OLBoolValue::explicitlyNo;
    world.files.putFolder(staging);
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined({"log: Nothing to do from Tamblin"}, startingNotice)));
}

TEST_F(ReconcileSync, RemovesThroughTheCoordinator) {
    start(true);
    stage({record("a", "remove"), record("b", "install"), record("c", "remove")});
    EXPECT_TRUE(reconcile());
    const Lines removals{"plist.parse()",
                         "log: a targeted for termination",
                         "log: c targeted for termination",
                         "log: performing 2 deletions",
                         "transactions.logStep(7, party 1, phase 1, success 1, a, \"Uninstall app\")",
                         "coordinators.uninstallAppLater(a, confirmation 0)",
                         "transactions.logStep(7, party 1, phase 1, success 1, c, \"Uninstall app\")",
                         "coordinators.uninstallAppLater(c, confirmation 0)"};
    EXPECT_EQ(journal(), whole(joined(joined(removals, startingNotice), debugCopy)));
    EXPECT_EQ(operationOf("a"), "remove");
}

TEST_F(ReconcileSync, RemovesThroughTheRegistryAndGoesOnAfterAFailure) {
    start(false);
    world.registry.addInstalled("a");
    world.registry.addInstalled("b");
    world.faults.fail("registry.uninstallApplication");
    stage({record("a", "remove"), record("b", "remove")});
    EXPECT_TRUE(reconcile());
    const Lines removals{"plist.parse()",
                         "log: a targeted for termination",
                         "log: b targeted for termination",
                         "log: performing 2 deletions",
                         "registry.uninstallApplication(a, no options)",
                         "error: Uninstall of a failed.",
                         "transactions.logScenario(\"Tamblin Sync\", step 0, success 0, a, \"Uninstall failed\")",
                         "registry.uninstallApplication(b, no options)",
                         "transactions.logScenario(\"Tamblin Sync\", step 0, success 1, b, \"Uninstall succeeded\")"};
    EXPECT_EQ(journal(), whole(joined(joined(removals, startingNotice), debugCopy)));
}

TEST_F(ReconcileSync, NeverRemovesWhatCouldLeadElsewhere) {
    start();
    stage({record("a/../b", "remove"), record(5, "remove"), record("/..", "remove"),
           Dictionary{{"operation", "remove"}}, "stray", record("..c", "remove")});
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(world.journal.linesWith("log: ..c targeted"), Lines{"log: ..c targeted for termination"});
    EXPECT_EQ(world.journal.linesWith("log: a"), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: /"), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: performing"), Lines{"log: performing 1 deletions"});
    EXPECT_EQ(world.journal.linesWith("coordinators.uninstall"),
              Lines{"coordinators.uninstallAppLater(..c, confirmation 0)"});
}

TEST_F(ReconcileSync, SaysNothingOfWhatCouldLeadElsewhereWhateverItsOperation) {
    start(false);
    Array records;
    for (const char* operation : {"install", "remove", "SENT", "DOWNLOADED", "INSTALLED", "FAILED", ""}) {
        records.push_back(record("a/../b", operation));
    }
    stage(records);
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined(joined({"plist.parse()"}, startingNotice), debugCopy)));
}

TEST_F(ReconcileSync, TakesTheOperationExactlyAsItIsWritten) {
    start();
    stage({record("a", "Remove"), record("b", "remove "), Dictionary{{"identifier", "c"}}});
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined(joined({"plist.parse()"}, startingNotice), debugCopy)));
}

TEST_F(ReconcileSync, SendsTheIconLayoutAsItIs) {
    start();
    world.files.put(staging + "/SkellanIconState.plist", "any bytes");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined(joined({"log: Nothing to do from Tamblin"}, startingNotice),
                                      {"log: Sending iconlayout to SK", "screen.port()",
                                       "screen.SKSetIconState(port 77, any bytes)"})));
}

TEST_F(ReconcileSync, SendsNoEmptyIconLayout) {
    start();
    world.files.put(staging + "/SkellanIconState.plist", "");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined({"log: Nothing to do from Tamblin"}, startingNotice)));
}

TEST_F(ReconcileSync, RemovesAnAppAsOftenAsItIsListed) {
    start();
    stage({record("a", "remove"), record("a", "remove")});
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(world.journal.count("log: a targeted for termination"), 2u);
    EXPECT_EQ(world.journal.count("log: performing 2 deletions"), 1u);
    EXPECT_EQ(world.journal.count("coordinators.uninstallAppLater(a, confirmation 0)"), 2u);
}

TEST_F(ReconcileSync, GoesOnWhenTheDebugCopyCannotBeMade) {
    start();
    stage({record("a", "install")});
    world.faults.fail("plist.serialise");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined(joined({"plist.parse()"}, startingNotice), {"plist.serialise(binary)"})));
    stage({record("a", "install")});
    world.faults.fail("files.writeFileAtomically");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(journal(), whole(joined(joined({"plist.parse()"}, startingNotice), debugCopy)));
}

TEST_F(ReconcileSync, SendsTheIconLayoutBeforeItCopiesTheList) {
    start();
    stage({});
    world.files.put(staging + "/SkellanIconState.plist", "any bytes");
    EXPECT_TRUE(reconcile());
    const Lines layout{"log: Sending iconlayout to SK", "screen.port()", "screen.SKSetIconState(port 77, any bytes)"};
    EXPECT_EQ(journal(), whole(joined(joined(joined({"plist.parse()"}, startingNotice), layout), debugCopy)));
}

TEST_F(ReconcileSync, WorksWithoutAnErrorOut) {
    start();
    EXPECT_TRUE(client().reconcileSync_withNewAnchor_progressCallback_error(nullptr, "A", {}, nullptr));
    world.faults.fail("files.createDirectory");
    EXPECT_FALSE(client().reconcileSync_withNewAnchor_progressCallback_error(nullptr, "A", {}, nullptr));
}

// The end of a sync.

class SyncEnd : public inmemory::ClientTest {};

TEST_F(SyncEnd, LeavesEverythingAfterAFailedSync) {
    start();
    world.files.put(paths::lastSyncAppState, "x");
    client().syncEndedWithSuccess(false);
    EXPECT_EQ(journal(), Lines{"log: sync ended with success: n"});
    EXPECT_TRUE(world.files.exists(paths::lastSyncAppState));
}

TEST_F(SyncEnd, RefreshesTheRootAndDropsTheLastState) {
    start();
    world.files.putFolder(root);
    world.files.put(paths::lastSyncAppState, "x");
    client().syncEndedWithSuccess(true);
    EXPECT_EQ(journal(), (Lines{"log: sync ended with success: y", "files.utimes(" + root + ")",
                                "files.removeItem(" + root + "/LastSyncAppState.plist)"}));
    EXPECT_FALSE(world.files.exists(paths::lastSyncAppState));
}

TEST_F(SyncEnd, SaysWhenTheTimesCannotBeSet) {
    start();
    world.faults.fail("files.utimes", 1, 0, Error::make(posixErrorDomain, 13));
    client().syncEndedWithSuccess(true);
    EXPECT_EQ(journal(), (Lines{"log: sync ended with success: y", "files.utimes(" + root + ")",
                                "error: Failed to update utimes of \"" + root + "\": errno 13",
                                "files.removeItem(" + root + "/LastSyncAppState.plist)"}));
}

// Clearing.

TEST_F(SyncEnd, ClearingRemovesFilesPlaceholdersAndTheUninstalledList) {
    start();
    world.registry.addInstalled("installed");
    world.registry.addPlaceholder("p1");
    world.registry.addPlaceholder("p2");
    world.lowLevelInstaller.uninstalled = Dictionary{{"u1", true}, {"u2", Dictionary{}}};
    world.faults.fail("registry.uninstallApplication");
    world.files.put(paths::toDoList, "x");
    client().clearSyncData();
    EXPECT_EQ(
        journal(),
        (Lines{"log: blasting work area", "files.removeItem(" + root + ")", "log: Uninstalling all placeholder apps",
               "registry.enumerateBundlesOfType(0)", "registry.uninstallApplication(p1, no options)",
               "log: Uninstall p1 = n", "registry.uninstallApplication(p2, no options)", "log: Uninstall p2 = y",
               "tevrin.lookupUninstalled(no options)", "tevrin.clearUninstalled((u1, u2), no options)"}));
    EXPECT_FALSE(world.files.exists(root));
}

const Lines clearing{"log: blasting work area", "files.removeItem(" + root + ")",
                     "log: Uninstalling all placeholder apps", "registry.enumerateBundlesOfType(0)",
                     "tevrin.lookupUninstalled(no options)"};

TEST_F(SyncEnd, ClearingGoesOnWhenThereAreNoFiles) {
    start(false);
    world.faults.fail("files.removeItem");
    client().clearSyncData();
    Lines expected = clearing;
    expected.emplace_back("tevrin.clearUninstalled((), no options)");
    EXPECT_EQ(journal(), expected);
}

TEST_F(SyncEnd, ClearingUninstallsPlaceholdersThroughTheRegistryOnBothPaths) {
    for (const bool useInstallCoordinator : {false, true}) {
        start(useInstallCoordinator);
        world.registry.addPlaceholder("p");
        client().clearSyncData();
        EXPECT_EQ(world.journal.count("registry.uninstallApplication(p, no options)"), 1u);
        EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{});
        EXPECT_EQ(world.registry.find("p", true), nullptr);
    }
}

TEST_F(SyncEnd, ClearingNamesAPlaceholderByItsBundle) {
    start(false);
    world.registry.addPlaceholder("p")->registeredAs = "TEAM.p";
    client().clearSyncData();
    EXPECT_EQ(world.journal.linesWith("registry.uninstall"), Lines{"registry.uninstallApplication(p, no options)"});
    EXPECT_EQ(world.journal.linesWith("log: Uninstall "), Lines{"log: Uninstall p = y"});
}

TEST_F(SyncEnd, ClearingSaysWhenTheUninstalledListIsNotToBeHad) {
    start();
    world.lowLevelInstaller.uninstalled = std::nullopt;
    client().clearSyncData();
    Lines expected = clearing;
    expected.emplace_back("error: Failed to fetch uninstalled apps list to clear it");
    EXPECT_EQ(journal(), expected);
}

TEST_F(SyncEnd, ClearingSaysWhenTheUninstalledListIsNotCleared) {
    start();
    world.faults.fail("tevrin.clearUninstalled");
    client().clearSyncData();
    Lines expected = clearing;
    expected.emplace_back("tevrin.clearUninstalled((), no options)");
    expected.emplace_back("error: Failed to clear uninstalled apps list");
    EXPECT_EQ(journal(), expected);
}

} // namespace
} // namespace appsync
