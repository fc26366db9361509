// What a restore makes of the info that the desktop left behind.
#include "tests/inmemory/ClientTest.h"

#include <algorithm>

namespace appsync {
namespace {

using inmemory::Lines;

const std::string infoPath{paths::restoreInfo};
const std::string processedPath{paths::processedRestoreInfo};
const std::string demotedPath{paths::demotedApps};

class RestoreInfo : public inmemory::ClientTest {
  protected:
    static Data plist(const Value& value) {
        return *PropertyListCodec().dataWithPropertyList(value, PropertyListFormat::binary, nullptr);
    }
    /// One app's restore info.
    static Dictionary app(const std::string& title = "Name") {
        return {{"TamblinMetadata", plist(Dictionary{{"title", title}, {"bundleVersion", "1.0"}})},
                {"ApplicationSINF", Data("sinf")},
                {"PlaceholderIcon", Data("picture")}};
    }
    void putInfo(const Value& root) { world.files.putPlist(infoPath, root); }
    bool process() { return client()._processTamblinRestoreInfo(); }
    bool reconcile(int type = 2) { return client().reconcileRestoreOfType_withError(type, nullptr); }
    /// The identifiers of the placeholders that were installed, in their order.
    Lines restored() const {
        constexpr std::string_view key = "BXBundleIdentifier = ";
        Lines identifiers;
        for (const std::string& line : world.journal.linesWith("registry.installPlaceholder")) {
            const std::size_t from = line.find(key) + key.size();
            identifiers.push_back(line.substr(from, line.find(';', from) - from));
        }
        return identifiers;
    }

    const Lines begin{"notify.register(com.zuvex.skellan.qrd.wsyncnotify)",
                      "log: Notifying SK we are starting syncing",
                      "screen.port()",
                      "notify.setState(token 5, 1)",
                      "notify.post(com.zuvex.skellan.qrd.wsyncnotify)",
                      "files.createDirectory(" + std::string(paths::applicationSync) + ", with intermediates)"};
    const Lines found{"files.fileExists(" + infoPath + ")", "files.readFile(" + infoPath + ")"};
    const Lines parsed = join({found, {"log: processing tamblin restore info", "plist.parse()"}});
    const Lines nothingDemoted{"files.readFile(" + demotedPath + ")", "oversize: Demoted Apps: (null)"};
    const Lines archived{"files.removeItem(" + processedPath + ")",
                         "files.moveItem(" + infoPath + " to " + processedPath + ")"};
};

// The host's call.

TEST_F(RestoreInfo, IsWhatTheHostMayAskFor) {
    start();
    EXPECT_TRUE(client().responds(QRClientOperation::reconcileRestoreOfType_withError));
    EXPECT_FALSE(client().responds(QRClientOperation::reconcileRestoreWithError));
    EXPECT_FALSE(client().responds(QRClientOperation::restoreEndedWithError));
}

TEST_F(RestoreInfo, IsLeftAloneByARestoreOfAnotherType) {
    start(false);
    putInfo(Dictionary{{"a", app()}});
    for (const int type : {0, 1, 3, -2}) {
        EXPECT_TRUE(reconcile(type));
        EXPECT_EQ(journal(), (join({{"log: reconcileRestoreOfType " + std::to_string(type)}, begin})));
    }
    EXPECT_TRUE(world.files.exists(infoPath));
}

TEST_F(RestoreInfo, BecomesAPlaceholderWithoutTheCoordinator) {
    start(false);
    putInfo(Dictionary{{"a", app()}});
    const std::string bytes = *world.files.bytesAt(infoPath);
    EXPECT_TRUE(reconcile());
    const std::string bundle = "/tmp/com.zuvex.qrd.Apps/a.app";
    EXPECT_EQ(
        journal(),
        (join({{"log: reconcileRestoreOfType 2"},
               begin,
               parsed,
               nothingDemoted,
               {"log: processing tamblin restore info for 'a' demotionStatus :0", "registry.enumerateBundlesOfType(1)",
                "log: processing app restore info for 'a'", "plist.parse()",
                "files.createDirectory(" + bundle + ", with intermediates, owner mobile, group mobile)",
                "log: Created app directory for 'a' at " + bundle + " with err=(null)",
                "files.createFile(" + bundle + "/Icon.png, owner mobile, group mobile)",
                "files.attributesOfItem(" + bundle + "/Icon.png)",
                "log: icon data for 'a' was writen to " + bundle + "/Icon.png with status:1 fileSize:7",
                "log: creating placeholder for '" + bundle +
                    "'. info.plist={BXBundleIdentifier = a; BXBundleVersion = 1.0; BXBundleExecutable = Name; "
                    "BXBundleDisplayName = Name; BXBundleIconFile = Icon.png; UIWendralApp = 0; "
                    "PDApplicationLaunchProhibited = 0;}",
                "plist.serialise(xml)", "files.writeFileAtomically(" + bundle + "/Info.plist)",
                "registry.installPlaceholder(file://" + bundle +
                    "/, {PackageType = Placeholder; BXBundleIdentifier = a; PDInstallType = 2; TamblinMetadata = " +
                    inmemory::wholeText(*app().data("TamblinMetadata")) + "; ApplicationSINF = <sinf>;})",
                "log: Installed Placeholder app from path " + bundle + ": Name [a 1.0] [isWendral: 0]",
                "transactions.logScenario(\"Tamblin App Restore\", step 0, success 1, a, \"Installed placeholder\")"},
               archived})));
    EXPECT_FALSE(world.files.exists(infoPath));
    EXPECT_EQ(world.files.bytesAt(processedPath), bytes);
}

TEST_F(RestoreInfo, LeavesNoErrorWhateverHappens) {
    start(false);
    world.faults.fail("files.readFile");
    world.faults.fail("files.createDirectory");
    world.faults.fail("files.moveItem");
    putInfo(Dictionary{{"a", app()}});
    ErrorPtr error = inmemory::injectedError();
    EXPECT_TRUE(client().reconcileRestoreOfType_withError(2, &error));
    EXPECT_EQ(error, nullptr);
    error = inmemory::injectedError();
    EXPECT_TRUE(client().reconcileRestoreOfType_withError(1, &error));
    EXPECT_EQ(error, nullptr);
}

TEST_F(RestoreInfo, IsProcessedWithoutASyncDirectory) {
    start(false);
    putInfo(Dictionary{{"a", app()}});
    world.faults.fail("files.createDirectory");
    EXPECT_TRUE(reconcile());
    EXPECT_EQ(restored(), Lines{"a"});
}

// The file.

TEST_F(RestoreInfo, MayBeMissing) {
    start(false);
    EXPECT_TRUE(process());
    EXPECT_EQ(journal(), (Lines{"files.fileExists(" + infoPath + ")",
                                "log: no tamblin restore plist found - skipping processing of tamblin restored apps"}));
}

TEST_F(RestoreInfo, IsMovedAwayWhenItCannotBeRead) {
    start(false);
    putInfo(Dictionary{{"a", app()}});
    world.faults.fail("files.readFile");
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({found, {"log: failed to read tamblin app restore info. err=TestDomain 7"}, archived})));
    EXPECT_FALSE(world.files.exists(infoPath));
}

TEST_F(RestoreInfo, IsMovedAwayWhenItCannotBeParsed) {
    start(false);
    const std::string whole(plist(Dictionary{{"a", app()}, {"b", app()}}).bytes());
    for (const std::string& bytes :
         {std::string(), std::string("no property list"), whole.substr(0, whole.size() / 2), whole.substr(0, 1)}) {
        world.files.put(infoPath, bytes);
        ErrorPtr reason;
        EXPECT_EQ(PropertyListCodec().propertyListWithData(bytes, &reason), std::nullopt);
        EXPECT_FALSE(process());
        EXPECT_EQ(journal(), (join({parsed,
                                    {"log: failed to parse tamblin app restore info. err=" + reason->description()},
                                    archived})));
        EXPECT_EQ(world.files.bytesAt(processedPath), bytes);
    }
}

TEST_F(RestoreInfo, IsMovedAwayWhenItIsNoDictionary) {
    start(false);
    for (const Value& root : {Value(Array{app()}), Value("a"), Value(2), Value(Data("a"))}) {
        putInfo(root);
        EXPECT_FALSE(process());
        EXPECT_EQ(journal(), (join({parsed, {"log: failed to parse tamblin app restore info. err=(null)"}, archived})));
    }
}

TEST_F(RestoreInfo, TakesThePlaceOfAnEarlierOne) {
    start(false);
    world.files.put(processedPath, "earlier");
    putInfo(Dictionary{});
    const std::string bytes = *world.files.bytesAt(infoPath);
    process();
    EXPECT_EQ(world.files.bytesAt(processedPath), bytes);
}

TEST_F(RestoreInfo, ThatCannotBeMovedAwaySkipsTheAppsThatItHasRestored) {
    start(false);
    putInfo(Dictionary{{"a", app()}});
    world.faults.fail("files.moveItem");
    EXPECT_TRUE(process());
    EXPECT_EQ(journal().back(), "log: failed to copy tamblin metadata. err=TestDomain 7");
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({parsed,
                                nothingDemoted,
                                {"log: processing tamblin restore info for 'a' demotionStatus :0",
                                 "registry.enumerateBundlesOfType(1)", "log: Found placeholder for bundle a",
                                 "log: placeholder already exists for 'a' - skiping'"},
                                archived})));
}

TEST_F(RestoreInfo, BecomesARequestOfTheNextSync) {
    start(false);
    putInfo(Dictionary{{"a", app()}});
    EXPECT_TRUE(reconcile());
    // The registry keeps a restore's placeholder under another identifier than the app's.
    world.registry.find("a", true)->registeredAs = "restore.a";
    journal();
    const auto assets = client().outstandingAssetTransfers();
    ASSERT_EQ(assets.size(), 1u);
    EXPECT_EQ(assets.front()->identifier, "a");
    EXPECT_EQ(assets.front()->prettyName, "Name");
    EXPECT_TRUE(assets.front()->isRestore);
    EXPECT_EQ(assets.front()->infoPlist, "/tmp/com.zuvex.qrd.Apps/a.app/Info.plist");
}

// Demotion.

TEST_F(RestoreInfo, TellsHowAnAppWasDemoted) {
    start(false);
    const Dictionary demoted{{"AutomaticDowngrades", Array{"auto", "both"}},
                             {"IntentionalDowngrades", Array{"both", "user"}}};
    world.files.putPlist(demotedPath, demoted);
    putInfo(Dictionary{{"plain", app()}, {"auto", app()}, {"user", app()}});
    process();
    EXPECT_EQ(world.journal.linesWith("oversize: "), Lines{"oversize: Demoted Apps: " + Value(demoted).description()});
    EXPECT_EQ(world.journal.linesWith("log: processing tamblin restore info for"),
              (Lines{"log: processing tamblin restore info for 'plain' demotionStatus :0",
                     "log: processing tamblin restore info for 'auto' demotionStatus :2",
                     "log: processing tamblin restore info for 'user' demotionStatus :1"}));
}

TEST_F(RestoreInfo, CountsAnAppOfBothDemotedListsAsDemotedAutomatically) {
    start(false);
    world.files.putPlist(demotedPath,
                         Dictionary{{"IntentionalDowngrades", Array{"a"}}, {"AutomaticDowngrades", Array{"a"}}});
    putInfo(Dictionary{{"a", app()}});
    process();
    EXPECT_EQ(world.journal.count("log: processing tamblin restore info for 'a' demotionStatus :2"), 1u);
}

TEST_F(RestoreInfo, CountsEveryAppAsNotDemotedWithoutUsableLists) {
    start(false);
    for (const Value& file : {Value(Dictionary{}), Value(Array{"a"}), Value(Dictionary{{"AutomaticDowngrades", "a"}}),
                              Value(Dictionary{{"AutomaticDowngrades", Array{5, Array{"a"}, Data("a")}}})}) {
        world.files.putPlist(demotedPath, file);
        putInfo(Dictionary{{"a", 0}});
        process();
        EXPECT_EQ(world.journal.count("log: processing tamblin restore info for 'a' demotionStatus :0"), 1u);
        journal();
    }
}

TEST_F(RestoreInfo, BecomesTheSameOwnPlaceholderOfADemotedApp) {
    start(false);
    world.files.putPlist(demotedPath,
                         Dictionary{{"AutomaticDowngrades", Array{"auto"}}, {"IntentionalDowngrades", Array{"user"}}});
    putInfo(Dictionary{{"auto", app()}, {"user", app()}});
    EXPECT_TRUE(process());
    const Lines installs = world.journal.linesWith("registry.installPlaceholder");
    ASSERT_EQ(installs.size(), 2u);
    for (const std::string& install : installs) {
        EXPECT_NE(install.find("PDInstallType = 2;"), std::string::npos) << install;
    }
}

// The apps.

TEST_F(RestoreInfo, IsProcessedInItsOrderAndAnswersForTheLastApp) {
    start(false);
    putInfo(Dictionary{{"c", app()}, {"a", app()}, {"b", app()}});
    EXPECT_TRUE(process());
    EXPECT_EQ(restored(), (Lines{"c", "a", "b"}));
    journal();
    putInfo(Dictionary{{"d", app()}, {"e", app()}});
    world.faults.fail("registry.installPlaceholder", 1, 1);
    EXPECT_FALSE(process());
    putInfo(Dictionary{{"f", app()}, {"g", app()}});
    world.faults.fail("registry.installPlaceholder");
    EXPECT_TRUE(process());
}

TEST_F(RestoreInfo, AnswersForTheLastAppThatWasNotSkipped) {
    start(false);
    putInfo(Dictionary{{"a", app()}, {"skipped", 5}, {"x/y", app()}});
    EXPECT_TRUE(process());
    putInfo(Dictionary{{"b", app()}, {"skipped", 5}});
    world.faults.fail("registry.installPlaceholder");
    EXPECT_FALSE(process());
}

TEST_F(RestoreInfo, AnswersYesForALastAppWhoseMetadataCannotBeParsed) {
    start(false);
    putInfo(Dictionary{{"a", app()}, {"b", Dictionary{{"TamblinMetadata", Data("nonsense")}}}});
    world.faults.fail("registry.installPlaceholder");
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("transactions."),
              (Lines{"transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, a, \"Failed to install "
                     "placeholder\")",
                     "transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, b, \"Failed to parse "
                     "tamblin metadata\")"}));
}

TEST_F(RestoreInfo, WithoutAppsOrWithSkippedOnesAnswersNoYetTheRestoreGoesOn) {
    start(false);
    for (const Dictionary& apps : {Dictionary{}, Dictionary{{"a", 5}}, Dictionary{{"a", Dictionary{}}}}) {
        putInfo(apps);
        EXPECT_FALSE(process());
        putInfo(apps);
        EXPECT_TRUE(reconcile());
    }
}

TEST_F(RestoreInfo, SkipsAnAppWithAPlaceholderBeforeItIsLookedAt) {
    start(false);
    world.registry.addPlaceholder("a");
    putInfo(Dictionary{{"a", "no dictionary"}});
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({parsed,
                                nothingDemoted,
                                {"log: processing tamblin restore info for 'a' demotionStatus :0",
                                 "registry.enumerateBundlesOfType(1)", "log: Found placeholder for bundle a",
                                 "log: placeholder already exists for 'a' - skiping'"},
                                archived})));
}

TEST_F(RestoreInfo, SkipsAnAppThatItDoesNotDescribe) {
    start(false);
    for (const Value& entry : {Value(5), Value("text"), Value(Array{app()}), Value(Data("bytes"))}) {
        putInfo(Dictionary{{"a", entry}});
        EXPECT_FALSE(process());
        EXPECT_EQ(journal(),
                  (join({parsed,
                         nothingDemoted,
                         {"log: processing tamblin restore info for 'a' demotionStatus :0",
                          "registry.enumerateBundlesOfType(1)", "log: no tamblin restore info for 'a' - skipping"},
                         archived})));
    }
}

TEST_F(RestoreInfo, IgnoresAnAppWithoutMetadata) {
    start(false);
    for (const Dictionary& entry :
         {Dictionary{}, Dictionary{{"TamblinMetadata", "text"}}, Dictionary{{"TamblinMetadata", Dictionary{}}}}) {
        putInfo(Dictionary{{"a", entry}});
        EXPECT_FALSE(process());
        EXPECT_EQ(journal(),
                  (join({parsed,
                         nothingDemoted,
                         {"log: processing tamblin restore info for 'a' demotionStatus :0",
                          "registry.enumerateBundlesOfType(1)", "log: no TamblinMetadata for 'a' - ignoring"},
                         archived})));
    }
}

TEST_F(RestoreInfo, DoesWithoutProtectionDataAndIconOfAnotherKind) {
    start(false);
    Dictionary entry = app();
    entry.set("ApplicationSINF", "text");
    entry.set("PlaceholderIcon", Array{});
    putInfo(Dictionary{{"a", entry}});
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.count("error: no icon data for 'a'"), 1u);
    EXPECT_TRUE(world.journal.linesWith("registry.installPlaceholder").at(0).ends_with("ApplicationSINF = (null);})"));
}

TEST_F(RestoreInfo, OfAnIdentifierThatCouldLeadElsewhereIsSkippedBeforeAnythingIsWritten) {
    for (const bool useInstallCoordinator : {false, true}) {
        start(useInstallCoordinator);
        for (const std::string& identifier :
             {std::string("../../var/x"), std::string("a/../../x"), std::string("a/b"), std::string("/x"),
              std::string(".."), std::string("."), std::string(), std::string("a\0b", 3)}) {
            putInfo(Dictionary{{identifier, app()}});
            EXPECT_FALSE(process());
            EXPECT_EQ(journal(),
                      (join({parsed,
                             nothingDemoted,
                             {"log: processing tamblin restore info for '" + identifier + "' demotionStatus :0",
                              "log: Ignoring invalid path: " + identifier},
                             archived})));
        }
    }
}

TEST_F(RestoreInfo, OfOtherAppsIsProcessedBesideAnIdentifierThatLeadsElsewhere) {
    start(false);
    putInfo(Dictionary{{"a", app()}, {"../b", app()}, {"..c", app()}, {"d/..", app()}, {"e~", app()}});
    EXPECT_TRUE(process());
    EXPECT_EQ(restored(), (Lines{"a", "..c", "e~"}));
}

// With the coordinator.

class CoordinatedRestoreInfo : public RestoreInfo {
  protected:
    void SetUp() override { start(true); }
};

TEST_F(CoordinatedRestoreInfo, ReadiesACoordinator) {
    putInfo(Dictionary{{"a", app()}});
    EXPECT_TRUE(reconcile());
    const Lines lines = journal();
    const Lines before = join({{"log: reconcileRestoreOfType 2"},
                               begin,
                               parsed,
                               nothingDemoted,
                               {"log: processing tamblin restore info for 'a' demotionStatus :0",
                                "log: processing app restore for non demoted bundle 'a' with install coordination",
                                "transactions.logStep(2, party 1, phase 1, success 1, a, \"Restore app\")",
                                "plist.parse()", "coordinators.restoring(a, client 3, create 1)"}});
    const Lines after = join({{"log: processing app restore for a finished with status 1 error (null)",
                               "transactions.logStep(2, party 1, phase 2, success 1, a, \"Restore app\")"},
                              archived});
    ASSERT_GE(lines.size(), before.size() + after.size());
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before.size())), before);
    EXPECT_EQ(Lines(lines.end() - static_cast<std::ptrdiff_t>(after.size()), lines.end()), after);
    EXPECT_TRUE(world.coordinators.find("a")->hasPlaceholderPromise);
}

TEST_F(CoordinatedRestoreInfo, HandsOnProtectionDataAndIcon) {
    putInfo(Dictionary{{"a", app()}, {"b", Dictionary{{"TamblinMetadata", plist(Dictionary{})}}}});
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("placeholder(a).setSinfData"), Lines{"placeholder(a).setSinfData(<sinf>)"});
    EXPECT_EQ(world.journal.linesWith("placeholder(b).setSinfData"), Lines{});
    EXPECT_EQ(world.files.bytesAt("/tmp/com.zuvex.qrd.Apps/a.app/Icon.png"), "picture");
    EXPECT_EQ(world.journal.count("error: no icon data for 'b'"), 1u);
}

TEST_F(CoordinatedRestoreInfo, HandsOnHowAnAppWasDemoted) {
    world.files.putPlist(demotedPath,
                         Dictionary{{"AutomaticDowngrades", Array{"auto"}}, {"IntentionalDowngrades", Array{"user"}}});
    putInfo(Dictionary{{"plain", app()}, {"auto", app()}, {"user", app()}});
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("coordinators."),
              (Lines{"coordinators.restoring(plain, client 3, create 1)",
                     "coordinators.restoringDemoted(auto, client 3, create 1)",
                     "coordinators.restoringDemoted(user, client 3, create 1)"}));
    EXPECT_EQ(world.journal.linesWith("placeholders.init"),
              (Lines{"placeholders.init(Name, plain, install type 2, client 3)",
                     "placeholders.init(Name, auto, install type 7, client 3)",
                     "placeholders.init(Name, user, install type 8, client 3)"}));
}

TEST_F(CoordinatedRestoreInfo, RestoresAnAppThatHasAPlaceholderToo) {
    world.registry.addPlaceholder("a");
    putInfo(Dictionary{{"a", app()}});
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("log: placeholder already"), Lines{});
    EXPECT_EQ(world.journal.linesWith("registry."), Lines{});
}

TEST_F(CoordinatedRestoreInfo, AnswersForTheLastApp) {
    putInfo(Dictionary{{"a", app()}, {"b", app()}});
    world.faults.fail("coordinators.restoring", 1, 1);
    EXPECT_FALSE(process());
    putInfo(Dictionary{{"c", app()}, {"d", app()}});
    world.faults.fail("coordinators.restoring");
    EXPECT_TRUE(process());
}

} // namespace
} // namespace appsync
