// The plug-in's files: what each loader and accessor makes of them.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

// The places are an agreement with the desktop and the host, so a test spells them out.
TEST(WorkFilePlaces, AreTheAgreedOnes) {
    EXPECT_EQ(paths::applicationSync, "/var/mobile/Library/ApplicationSync");
    EXPECT_EQ(paths::workArea, "/var/mobile/Library/ApplicationSync/TamblinStuff");
    EXPECT_EQ(paths::toDoList, "/var/mobile/Library/ApplicationSync/TamblinStuff/ApplicationsSync.plist");
    EXPECT_EQ(paths::toDoListDebugCopy,
              "/var/mobile/Library/ApplicationSync/TamblinStuff/ApplicationsSync.plist-debug.plist");
    EXPECT_EQ(paths::iconState, "/var/mobile/Library/ApplicationSync/TamblinStuff/SkellanIconState.plist");
    EXPECT_EQ(paths::lastSyncAppState, "/var/mobile/Library/ApplicationSync/LastSyncAppState.plist");
    EXPECT_EQ(paths::restoreState, "/var/mobile/Library/ApplicationSync/RestoreState.plist");
    EXPECT_EQ(paths::assetSortOrder, "/var/mobile/Library/ApplicationSync/AssetSortOrder.plist");
    EXPECT_EQ(paths::icons, "/var/mobile/Library/ApplicationSync/Icons");
    EXPECT_EQ(paths::publicStaging, "/var/mobile/Media/PublicStaging");
    EXPECT_EQ(paths::stagingArea, "/var/mobile/Media/PublicStaging/ApplicationSync");
    EXPECT_EQ(paths::demotedApps, "/var/mobile/Library/Preferences/com.zuvex.Halvane.DemotedApps.plist");
    EXPECT_EQ(paths::restoreInfo, "/var/mobile/Media/TamblinRestore/RestoreApplications.plist");
    EXPECT_EQ(paths::processedRestoreInfo, "/var/mobile/Library/Logs/MediaServices/RestoreApplications.plist");
}

class WorkFiles : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }

    const std::string toDo{paths::toDoList};
    const std::string restore{paths::restoreState};
    const std::string demoted{paths::demotedApps};
};

// Loading a list.

TEST_F(WorkFiles, LoadsAListInItsOrder) {
    world.files.putPlist(toDo, Array{"a", 2, Dictionary{{"k", "v"}}});
    ErrorPtr error;
    EXPECT_EQ(client()._loadPlist_withError(toDo, &error), (Array{"a", 2, Dictionary{{"k", "v"}}}));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + toDo + ")", "plist.parse()"}));
}

TEST_F(WorkFiles, LoadsAnXmlListToo) {
    world.files.put(toDo, "<plist version=\"1.0\"><array><string>a</string></array></plist>");
    EXPECT_EQ(client()._loadPlist_withError(toDo, nullptr), Array{"a"});
}

TEST_F(WorkFiles, PassesAReadErrorOnAndLogsNothing) {
    world.faults.fail("files.readFile");
    ErrorPtr error;
    EXPECT_EQ(client()._loadPlist_withError(toDo, &error), std::nullopt);
    EXPECT_EQ(error->domain(), "TestDomain");
    EXPECT_EQ(journal(), Lines{"files.readFile(" + toDo + ")"});
}

TEST_F(WorkFiles, PassesErrorsOnUnchanged) {
    const ErrorPtr reason = Error::make("Disk", 5, {{"sector", 7}});
    ErrorPtr error;
    for (const char* call : {"files.readFile", "plist.parse"}) {
        putToDoList({});
        world.files.putPlist(paths::demotedApps, Dictionary{});
        world.faults.fail(call, 2, 0, reason);
        EXPECT_EQ(client()._loadPlist_withError(toDo, &error), std::nullopt);
        EXPECT_EQ(std::exchange(error, nullptr), reason);
        EXPECT_EQ(client()._loadDemotedAppsPlist_withError(paths::demotedApps, &error), std::nullopt);
        EXPECT_EQ(std::exchange(error, nullptr), reason);
    }
}

TEST_F(WorkFiles, TakesAnEmptyListFileForNoneAndLogsNothing) {
    world.files.put(toDo, "");
    ErrorPtr error;
    EXPECT_EQ(client()._loadPlist_withError(toDo, &error), std::nullopt);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(), Lines{"files.readFile(" + toDo + ")"});
}

TEST_F(WorkFiles, SaysThatAListCannotBeParsed) {
    world.files.put(toDo, "no property list");
    ErrorPtr error;
    EXPECT_EQ(client()._loadPlist_withError(toDo, &error), std::nullopt);
    EXPECT_EQ(error->domain(), propertyListErrorDomain);
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + toDo + ")", "plist.parse()", "error: couldn't parse todo list"}));
}

TEST_F(WorkFiles, SaysThatAListIsNoArray) {
    world.files.putPlist(paths::lastSyncAppState, Dictionary{});
    ErrorPtr error;
    EXPECT_EQ(client()._loadPlist_withError(paths::lastSyncAppState, &error), std::nullopt);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + std::string(paths::lastSyncAppState) + ")", "plist.parse()",
                                "error: todo list is not an array"}));
}

// Loading the demoted apps.

TEST_F(WorkFiles, LoadsTheDemotedApps) {
    const Dictionary apps{{"AutomaticDowngrades", Array{"a"}}};
    world.files.putPlist(demoted, apps);
    EXPECT_EQ(client()._loadDemotedAppsPlist_withError(demoted, nullptr), apps);
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + demoted + ")", "plist.parse()"}));
}

TEST_F(WorkFiles, TakesMissingOrEmptyDemotedAppsForNone) {
    ErrorPtr error;
    EXPECT_EQ(client()._loadDemotedAppsPlist_withError(demoted, &error), std::nullopt);
    EXPECT_EQ(error->domain(), posixErrorDomain);
    world.files.put(demoted, "");
    EXPECT_EQ(client()._loadDemotedAppsPlist_withError(demoted, nullptr), std::nullopt);
    EXPECT_EQ(journal(), Lines(2, "files.readFile(" + demoted + ")"));
}

TEST_F(WorkFiles, SaysThatDemotedAppsCannotBeParsed) {
    world.files.put(demoted, "no property list");
    ErrorPtr error;
    EXPECT_EQ(client()._loadDemotedAppsPlist_withError(demoted, &error), std::nullopt);
    EXPECT_EQ(error->domain(), propertyListErrorDomain);
    EXPECT_EQ(journal(),
              (Lines{"files.readFile(" + demoted + ")", "plist.parse()", "error: couldn't parse demoted apps list"}));
}

TEST_F(WorkFiles, SaysThatDemotedAppsAreNoDictionary) {
    world.files.putPlist(demoted, Array{});
    EXPECT_EQ(client()._loadDemotedAppsPlist_withError(demoted, nullptr), std::nullopt);
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + demoted + ")", "plist.parse()",
                                "error: demoted apps list is not a dictionary"}));
}

// Restore state.

TEST_F(WorkFiles, KeepsTheFirstRestoreStateInANewFile) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.serialise(xml)",
                                "files.writeFileAtomically(" + restore + ")"}));
    EXPECT_EQ(world.files.plistAt(restore), Value(Dictionary{{"a", Dictionary{{"1", Dictionary{{"path", "/p"}}}}}}));
}

TEST_F(WorkFiles, AddsRestoreStateBesideWhatIsThere) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/1", "path", "a", "1");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/2", "path", "a", "2");
    client()._setRestoreStatePropertyValue_forKey_identifier_version(7, "other", "a", "2");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/b", "path", "b", "1");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/3", "path", "a", "1");
    const Dictionary versions{{"1", Dictionary{{"path", "/3"}}}, {"2", Dictionary{{"path", "/2"}, {"other", 7}}}};
    EXPECT_EQ(world.files.plistAt(restore),
              Value(Dictionary{{"a", versions}, {"b", Dictionary{{"1", Dictionary{{"path", "/b"}}}}}}));
}

TEST_F(WorkFiles, WritesRestoreStateAsXml) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    EXPECT_TRUE(world.files.bytesAt(restore)->starts_with("<?xml"));
}

TEST_F(WorkFiles, LeavesARestoreStateThatCannotBeUnderstoodAsItIs) {
    for (const std::string& bytes :
         {std::string("no property list"), std::string(""), std::string("<plist version=\"1.0\"><array/></plist>")}) {
        world.files.put(restore, bytes);
        client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
        EXPECT_EQ(world.files.bytesAt(restore), bytes);
    }
}

TEST_F(WorkFiles, ReplacesLevelsOfRestoreStateThatAreNoDictionaries) {
    world.files.putPlist(restore, Dictionary{{"a", "stray"}, {"b", Dictionary{{"1", 5}, {"2", Dictionary{}}}}});
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/a", "path", "a", "1");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/b", "path", "b", "1");
    EXPECT_EQ(world.files.plistAt(restore),
              Value(Dictionary{{"a", Dictionary{{"1", Dictionary{{"path", "/a"}}}}},
                               {"b", Dictionary{{"1", Dictionary{{"path", "/b"}}}, {"2", Dictionary{}}}}}));
}

TEST_F(WorkFiles, FailsSilentlyWhenRestoreStateCannotBeWritten) {
    world.faults.fail("files.writeFileAtomically");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.serialise(xml)",
                                "files.writeFileAtomically(" + restore + ")"}));
    world.faults.fail("plist.serialise");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.serialise(xml)"}));
    EXPECT_FALSE(world.files.exists(restore));
}

TEST_F(WorkFiles, ReadsRestoreStateByAppVersionAndKey) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", "1");
    journal();
    const auto read = [&](std::string_view key, std::string_view app, const std::optional<std::string>& version) {
        return client()._restoreStatePropertyForKey_identifier_version(key, app, version);
    };
    EXPECT_EQ(read("path", "a", "1"), Value("/p"));
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.parse()"}));
    EXPECT_EQ(read("other", "a", "1"), std::nullopt);
    EXPECT_EQ(read("path", "b", "1"), std::nullopt);
    EXPECT_EQ(read("path", "a", "2"), std::nullopt);
    EXPECT_EQ(read("path", "a", std::nullopt), std::nullopt);
}

TEST_F(WorkFiles, ReadsNoRestoreStateFromAFileThatHoldsNone) {
    const auto read = [&] { return client()._restoreStatePropertyForKey_identifier_version("path", "a", "1"); };
    EXPECT_EQ(read(), std::nullopt);
    world.files.put(restore, "no property list");
    EXPECT_EQ(read(), std::nullopt);
    world.files.putPlist(restore, Array{});
    EXPECT_EQ(read(), std::nullopt);
    world.files.putPlist(restore, Dictionary{{"a", "no dictionary"}});
    EXPECT_EQ(read(), std::nullopt);
    world.files.putPlist(restore, Dictionary{{"a", Dictionary{{"1", 5}}}});
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(world.journal.linesWith("error"), Lines{});
}

TEST_F(WorkFiles, KeepsNoRestoreStateForAnAppWithoutVersion) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/p", "path", "a", std::nullopt);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(WorkFiles, CleansEveryVersionOfAnApp) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/1", "path", "a", "1");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/2", "path", "a", "2");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/b", "path", "b", "1");
    journal();
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.parse()", "plist.serialise(xml)",
                                "files.writeFileAtomically(" + restore + ")"}));
    EXPECT_EQ(world.files.plistAt(restore), Value(Dictionary{{"b", Dictionary{{"1", Dictionary{{"path", "/b"}}}}}}));
}

TEST_F(WorkFiles, DeletesRestoreStateWithItsLastApp) {
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/1", "path", "a", "1");
    journal();
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(),
              (Lines{"files.readFile(" + restore + ")", "plist.parse()", "files.removeItem(" + restore + ")"}));
    EXPECT_FALSE(world.files.exists(restore));
}

TEST_F(WorkFiles, CleansAnAppThatHasNoRestoreState) {
    const Dictionary state{{"b", Dictionary{{"1", Dictionary{{"path", "/b"}}}}}};
    world.files.putPlist(restore, state);
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.parse()", "plist.serialise(xml)",
                                "files.writeFileAtomically(" + restore + ")"}));
    EXPECT_EQ(world.files.plistAt(restore), Value(state));
    world.files.putPlist(restore, Dictionary{});
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_FALSE(world.files.exists(restore));
}

TEST_F(WorkFiles, CleansNothingInAFileThatIsNoDictionary) {
    world.files.putPlist(restore, Array{"a"});
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + restore + ")", "plist.parse()"}));
}

TEST_F(WorkFiles, CleansNothingWhereThereIsNoRestoreState) {
    client().cleanRestoreStateForIdentifier("a");
    world.files.put(restore, "no property list");
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(),
              (Lines{"files.readFile(" + restore + ")", "files.readFile(" + restore + ")", "plist.parse()"}));
}

// The to-do list.

TEST_F(WorkFiles, ChangesTheOperationOfARecordAndKeepsTheRest) {
    world.files.putPlist(toDo, Array{Dictionary{{"identifier", "a"}, {"operation", "install"}, {"name", "A"}},
                                     Dictionary{{"identifier", "b"}, {"operation", "install"}, {"extra", 1}}, "stray"});
    client().changeAssetID_toDo("b", "SENT");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + toDo + ")", "plist.parse()", "log: Changing b from install to SENT",
                                "plist.serialise(binary)", "files.writeFileAtomically(" + toDo + ")"}));
    EXPECT_EQ(world.files.plistAt(toDo),
              Value(Array{Dictionary{{"identifier", "a"}, {"operation", "install"}, {"name", "A"}},
                          Dictionary{{"identifier", "b"}, {"operation", "SENT"}, {"extra", 1}}, "stray"}));
    EXPECT_TRUE(world.files.bytesAt(toDo)->starts_with("bplist00"));
}

TEST_F(WorkFiles, ChangesOnlyTheFirstRecordOfAnApp) {
    putToDoList({{"a", "install"}, {"a", "install"}});
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(world.files.plistAt(toDo), Value(Array{Dictionary{{"identifier", "a"}, {"operation", "SENT"}},
                                                     Dictionary{{"identifier", "a"}, {"operation", "install"}}}));
}

TEST_F(WorkFiles, LeavesTheListByteForByteWhenTheAppIsNotInIt) {
    const std::string records = "<dict><key>identifier</key><string>b</string><key>operation</key><string>install"
                                "</string></dict><dict><key>operation</key><string>install</string></dict>";
    for (const std::string& list : {std::string(), records}) {
        const std::string bytes = "<plist version=\"1.0\"><array>" + list + "</array></plist>";
        world.files.put(toDo, bytes);
        client().changeAssetID_toDo("a", "SENT");
        EXPECT_EQ(journal(), (Lines{"files.readFile(" + toDo + ")", "plist.parse()"}));
        EXPECT_EQ(world.files.bytesAt(toDo), bytes);
    }
}

TEST_F(WorkFiles, ChangesARecordThatHasNoOperation) {
    world.files.putPlist(toDo, Array{Dictionary{{"identifier", "a"}}});
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(world.journal.linesWith("log:"), Lines{"log: Changing a from (null) to SENT"});
    EXPECT_EQ(operationOf("a"), "SENT");
}

TEST_F(WorkFiles, PassesOverStrayElementsInSearchOfARecord) {
    world.files.putPlist(toDo, Array{"a", 5, Dictionary{{"operation", "install"}}, Dictionary{{"identifier", 5}},
                                     Dictionary{{"identifier", "a"}, {"operation", "install"}}});
    EXPECT_EQ(client()._operationStateForIdentifier("a"), "install");
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(world.files.plistAt(toDo),
              Value(Array{"a", 5, Dictionary{{"operation", "install"}}, Dictionary{{"identifier", 5}},
                          Dictionary{{"identifier", "a"}, {"operation", "SENT"}}}));
}

TEST_F(WorkFiles, ChangesNothingInAListThatCannotBeLoaded) {
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(journal(), Lines{"files.readFile(" + toDo + ")"});
    world.files.put(toDo, "no property list");
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + toDo + ")", "plist.parse()", "error: couldn't parse todo list"}));
    EXPECT_EQ(world.files.bytesAt(toDo), "no property list");
}

TEST_F(WorkFiles, FailsSilentlyWhenTheListCannotBeWritten) {
    const Lines change{"files.readFile(" + toDo + ")", "plist.parse()", "log: Changing a from install to SENT",
                       "plist.serialise(binary)"};
    putToDoList({{"a", "install"}});
    world.faults.fail("plist.serialise");
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(journal(), change);
    world.faults.fail("files.writeFileAtomically");
    client().changeAssetID_toDo("a", "SENT");
    Lines written = change;
    written.push_back("files.writeFileAtomically(" + toDo + ")");
    EXPECT_EQ(journal(), written);
    EXPECT_EQ(operationOf("a"), "install");
}

TEST_F(WorkFiles, TellsNoOperationWhereARecordHasNone) {
    world.files.putPlist(toDo, Array{Dictionary{{"identifier", "a"}}, Dictionary{{"identifier", "b"}, {"operation", 5}},
                                     Dictionary{{"identifier", "a"}, {"operation", "SENT"}}});
    EXPECT_EQ(client()._operationStateForIdentifier("a"), std::nullopt);
    EXPECT_EQ(client()._operationStateForIdentifier("b"), std::nullopt);
}

TEST_F(WorkFiles, TellsTheOperationOfAnApp) {
    putToDoList({{"a", "install"}, {"b", "remove"}, {"b", "SENT"}});
    EXPECT_EQ(client()._operationStateForIdentifier("b"), "remove");
    EXPECT_EQ(client()._operationStateForIdentifier("c"), std::nullopt);
    world.files.put(toDo, "");
    EXPECT_EQ(client()._operationStateForIdentifier("b"), std::nullopt);
}

TEST_F(WorkFiles, LosesNoChangeThatComesFromAnotherThread) {
    std::vector<std::pair<std::string, std::string>> records;
    for (int i = 0; i < 40; ++i) {
        records.emplace_back("app" + std::to_string(i), "install");
    }
    putToDoList(records);
    const auto change = [&](int first) {
        for (int i = first; i < 40; i += 2) {
            client().changeAssetID_toDo("app" + std::to_string(i), "INSTALLED");
            client()._setRestoreStatePropertyValue_forKey_identifier_version(i, "path", "app" + std::to_string(i), "1");
        }
    };
    std::thread other(change, 1);
    change(0);
    other.join();
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(operationOf("app" + std::to_string(i)), "INSTALLED");
    }
    EXPECT_EQ(world.files.plistAt(restore)->dictionary()->size(), 40u);
}

// Path safety.

TEST(PathSafety, RefusesWhatIsAbsentAndWhatCanClimb) {
    EXPECT_FALSE(paths::isSafe(std::nullopt));
    EXPECT_FALSE(paths::isSafe("a/../b"));
    EXPECT_FALSE(paths::isSafe("/.."));
    EXPECT_FALSE(paths::isSafe("a/..b"));
    EXPECT_TRUE(paths::isSafe("..a"));
    EXPECT_TRUE(paths::isSafe("a..b/c"));
    EXPECT_TRUE(paths::isSafe(""));
}

} // namespace
} // namespace appsync
