// Download planning as a whole.
#include "tests/inmemory/ClientTest.h"

#include "propertylist/Codec.h"

#include <algorithm>

namespace appsync {
namespace {

using inmemory::Lines;

const std::string work{paths::workArea};
const std::string icons{paths::icons};
const std::string restore{paths::restoreState};

class Planning : public inmemory::ClientTest {
  protected:
    Lines plan() {
        journal();
        assets = client().outstandingAssetTransfers();
        Lines identifiers;
        for (const QRAssetPtr& asset : assets) {
            identifiers.push_back(asset->identifier);
        }
        return identifiers;
    }
    /// The work area's folder of an app, with a bundle that can be opened.
    void stageApp(const std::string& identifier, const Dictionary& info = {}) {
        world.files.putPlist(work + "/" + identifier + "/Info.plist", info);
        world.files.putFolder(paths::applicationSync);
    }
    /// The journal from the start to the icon order, for a to-do list as it prints and the messages about its records.
    static Lines start_(const std::string& toDoList, const std::string& preExisting, const std::string& wanted,
                        const Lines& records) {
        return join(
            {{"policy.effectiveBoolValueForSetting(allowAppInstallation)",
              "files.readFile(" + std::string(paths::toDoList) + ")", "plist.parse()",
              "oversize: outstandingAssetTransfers starting with todoList " + toDoList,
              "registry.enumerateBundlesOfType(7)", "log: SystemAppPlaceholders ()",
              "registry.enumerateBundlesOfType(0)",
              "oversize: outstandingAssetTransfers preExistingPlaceHolders " + preExisting + ", idsWeWant " + wanted},
             records,
             {"registry.addObserver()", "log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...",
              "oversize: prioritized proxies () paused proxies ()", "log: No assets currently in progress.",
              "log: signaling semaphore", "log: Wait completed", "registry.removeObserver()",
              "log: Assets already in progress (not returning these): ()", "log: Assets currently restoring: ()",
              "screen.port()", "screen.SKGetFlattenedIconState(port 77, format 1)",
              "log: got no icon sort order from SK"}});
    }
    const Lines iconDirectory{"files.removeItem(" + icons + ")", "files.createDirectory(" + icons + ")"};
    std::vector<QRAssetPtr> assets;
};

TEST_F(Planning, RequestsAnAppWithoutTheCoordinator) {
    start(false);
    world.files.putPlist(
        paths::toDoList,
        Array{Dictionary{{"identifier", "a"}, {"operation", "install"}, {"version", "1.0"}, {"name", "Tamblin's"}}});
    stageApp("a", {{"BXBundleDisplayName", "Shown"}});
    EXPECT_EQ(plan(), Lines{"a"});
    const std::string folder = work + "/a";
    const std::string png = icons + "/a.png";
    const std::string bundle = "/tmp/com.zuvex.qrd.Apps/a.app";
    const std::string info = "{BXBundleIdentifier = a; BXBundleVersion = 1.0; BXBundleExecutable = Shown; "
                             "BXBundleDisplayName = Shown; BXBundleIconFile = Icon.png; UIWendralApp = 0; "
                             "PDApplicationLaunchProhibited = 0;}";
    EXPECT_EQ(
        journal(),
        (join({start_("({identifier = a; operation = install; version = 1.0; name = Tamblin's;})", "{}", "{}", {}),
               {"log: lastly a"},
               iconDirectory,
               {"bundles.bundleWithURL(file://" + folder + "/)",
                "bundles.bundleWithURL(file://" + folder + "/)",
                "icons.render(" + folder + ")",
                "image.destination(public.png, 1)",
                "image.addImage(" + folder + ")",
                "image.finalize()",
                "files.writeFileAtomically(" + png + ")",
                "files.readFile(" + restore + ")",
                "log: Asset a (pretty=Shown, version=1.0) prepped with icon file://" + png + ", at " + folder +
                    ", meta at " + folder + "/TamblinMetadata.plist, info at " + folder +
                    "/Info.plist, storePid=0, isRestore=n",
                "log: plist " + folder + "/Info.plist",
                "files.readFile(" + folder + "/Info.plist)",
                "plist.parse()",
                "files.createDirectory(" + bundle + ", with intermediates, owner mobile, group mobile)",
                "log: Created app directory for 'a' at " + bundle + " with err=(null)",
                "files.copyItem(" + png + " to " + bundle + "/Icon.png)",
                "plist.serialise(xml)",
                "files.writeFileAtomically(" + bundle + "/Info.plist)",
                "log: creating placeholder for '" + bundle + "'. info.plist=" + info,
                "registry.installPlaceholder(file://" + bundle +
                    "/, {PackageType = Placeholder; BXBundleIdentifier = a; PDInstallType = 4;})",
                "log: Installed Placeholder app from path " + bundle + ": Shown [a 1.0] [isWendral: 0]",
                "transactions.logScenario(\"Install placeholder\", step 0, success 1, a, \"Installed "
                "placeholder\")"}})));
    const QRAsset& asset = *assets.front();
    EXPECT_EQ(asset.dataclass, "Application");
    EXPECT_EQ(asset.prettyName, "Shown");
    EXPECT_EQ(asset.icon, FileURL::fileURLWithPath(png, false));
    EXPECT_FALSE(asset.isRestore);
    EXPECT_EQ(*asset.variantOptions, (Dictionary{{"AssetParts", 1}, {"Version", "1.0"}}));
    EXPECT_EQ(asset.storePlist, folder + "/TamblinMetadata.plist");
    EXPECT_EQ(asset.infoPlist, folder + "/Info.plist");
}

TEST_F(Planning, RequestsANewAppAndAnUpdateWithTheCoordinator) {
    start(true);
    world.registry.addInstalled("b");
    putToDoList({{"a", "install"}, {"b", "install"}});
    stageApp("a");
    stageApp("b");
    EXPECT_EQ(plan(), (Lines{"a", "b"}));
    EXPECT_EQ(world.journal.linesWith("registry.applicationProxy"),
              (Lines{"registry.applicationProxyForIdentifier(a, placeholder 0)",
                     "registry.applicationProxyForIdentifier(b, placeholder 0)"}));
    EXPECT_EQ(world.journal.linesWith("log: App "), Lines{"log: App b is already installed and will be updated."});
    EXPECT_EQ(world.journal.linesWith("coordinators."), (Lines{"coordinators.initiating(a, client 3, create 1)",
                                                               "coordinators.updating(b, client 3, create 1)"}));
    EXPECT_EQ(world.journal.linesWith("registry.installPlaceholder"), Lines{});
    journal();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    client().assetTransfer_updatedProgress(makeAsset("b"), 0.5);
    EXPECT_EQ(world.journal.linesWith("coordinators."), (Lines{"coordinators.initiating(a, client 3, create 0)",
                                                               "coordinators.updating(b, client 3, create 0)"}));
}

TEST_F(Planning, PreparesACoordinatedInstallInItsOrder) {
    start(true);
    putToDoList({{"a", "install"}});
    stageApp("a");
    world.registry.addInstalled("a");
    plan();
    const std::string folder = work + "/a";
    const Lines lines = journal();
    const auto from = std::ranges::find(lines, "files.readFile(" + restore + ")");
    ASSERT_GE(lines.end() - from, 6);
    EXPECT_EQ(Lines(from, from + 6),
              (Lines{"files.readFile(" + restore + ")",
                     "log: Asset a (pretty=a, version=(null)) prepped with icon file://" + icons + "/a.png, at " +
                         folder + ", meta at " + folder + "/TamblinMetadata.plist, info at " + folder +
                         "/Info.plist, storePid=0, isRestore=n",
                     "registry.applicationProxyForIdentifier(a, placeholder 0)",
                     "log: App a is already installed and will be updated.",
                     "files.readFile(" + folder + "/Info.plist)", "plist.parse()"}));
    EXPECT_EQ(std::ranges::count(lines, "transactions.logStep(1, party 1, phase 1, success 1, a, \"Update app\")"), 1);
}

TEST_F(Planning, OpensTheBundleBeforeItDecides) {
    start(true);
    world.files.putFolder(paths::applicationSync);
    world.registry.addPlaceholder("a", PDInstallTypeRestore);
    plan();
    const Lines lines = journal();
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(Lines(lines.end() - 5, lines.end()),
              (Lines{"log: lastly a", iconDirectory[0], iconDirectory[1],
                     "bundles.bundleWithURL(file:///var/containers/a/App.app/)",
                     "log: a is currenlty marked to be restored and will be handled by corbind - skipping"}));
}

TEST_F(Planning, RequestsAnAppWhosePlaceholderCannotBeInstalled) {
    start(false);
    putToDoList({{"a", "install"}});
    world.faults.fail("registry.installPlaceholder");
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("error: Placeholder app").size(), 1u);
}

TEST_F(Planning, TakesNeitherPlaceholdersNorVanishedAppsForInstalledOnes) {
    start(true);
    world.registry.addInstalled("a")->installed = false;
    world.registry.addPlaceholder("b");
    const auto placeholder = world.registry.addPlaceholder("c");
    placeholder->installed = true;
    placeholder->answersForInstalled = true;
    putToDoList({{"a", "install"}, {"b", "install"}, {"c", "install"}});
    EXPECT_EQ(plan(), (Lines{"b", "c", "a"}));
    EXPECT_EQ(world.journal.linesWith("log: App "), Lines{});
    EXPECT_EQ(world.journal.linesWith("coordinators.updating"), Lines{});
}

TEST_F(Planning, AsksAnAppItselfWhetherItIsAPlaceholder) {
    start(true);
    const auto update = world.registry.addInstalled("a");
    update->placeholderByState = true;
    const auto placeholder = world.registry.addPlaceholder("b");
    placeholder->installed = true;
    placeholder->answersForInstalled = true;
    placeholder->placeholderByState = false;
    putToDoList({{"a", "install"}, {"b", "install"}});
    plan();
    EXPECT_EQ(world.journal.linesWith("log: App "), Lines{"log: App a is already installed and will be updated."});
}

TEST_F(Planning, MarksAnAppThatCannotBePreparedAsFailed) {
    start(true);
    putToDoList({{"a", "install"}, {"b", "install"}});
    world.faults.fail("coordinators.initiating");
    EXPECT_EQ(plan(), Lines{"b"});
    const Lines lines = world.journal.lines();
    const auto from = std::ranges::find(lines, "error: Not requesting app asset for a");
    ASSERT_GE(lines.end() - from, 6);
    EXPECT_EQ(Lines(from, from + 6),
              (Lines{"error: Not requesting app asset for a", "files.readFile(" + std::string(paths::toDoList) + ")",
                     "plist.parse()", "log: Changing a from install to FAILED", "plist.serialise(binary)",
                     "files.writeFileAtomically(" + std::string(paths::toDoList) + ")"}));
    EXPECT_EQ(operationOf("a"), "FAILED");
    EXPECT_EQ(operationOf("b"), "install");
}

TEST_F(Planning, TakesNoUpdateForOneThatCouldNotBePrepared) {
    start(true);
    world.registry.addInstalled("a");
    putToDoList({{"a", "install"}});
    world.faults.fail("coordinators.updating");
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(world.journal.count("log: App a is already installed and will be updated."), 1u);
    EXPECT_EQ(operationOf("a"), "FAILED");
    journal();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{"coordinators.initiating(a, client 3, create 0)"});
}

TEST_F(Planning, TakesAnAppForAnUpdateAcrossSyncs) {
    start(true);
    world.registry.addInstalled("a");
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{"a"});
    client().syncEndedWithSuccess(true);
    EXPECT_TRUE(client().prepareForSyncWithHostAnchor_progressCallback_error("anchor", {}, nullptr));
    journal();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(world.journal.linesWith("coordinators."), Lines{"coordinators.updating(a, client 3, create 0)"});
}

TEST_F(Planning, RequestsNothingForAnEmptyOrMissingList) {
    start(true);
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(world.journal.linesWith("oversize: outstandingAssetTransfers starting"),
              Lines{"oversize: outstandingAssetTransfers starting with todoList (null)"});
    world.files.put(paths::toDoList, "no property list");
    EXPECT_EQ(plan(), Lines{});
}

TEST_F(Planning, PassesOverEveryOtherRecord) {
    start(true);
    world.files.putPlist(paths::toDoList,
                         Array{Dictionary{{"identifier", "a"}, {"operation", "remove"}},
                               Dictionary{{"identifier", "b"}, {"operation", "INSTALLED"}},
                               Dictionary{{"identifier", "c"}}, "stray", Dictionary{{"operation", "install"}},
                               Dictionary{{"identifier", 5}, {"operation", "install"}},
                               Dictionary{{"identifier", "d/../e"}, {"operation", "install"}}});
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(world.journal.linesWith("log: Ignoring"),
              (Lines{"log: Ignoring invalid path: (null)", "log: Ignoring invalid path: 5",
                     "log: Ignoring invalid path: d/../e"}));
    EXPECT_EQ(world.journal.linesWith("bundles."), Lines{});
}

TEST_F(Planning, SaysNothingOfARecordThatIsNoInstall) {
    start(true);
    Array records;
    for (const char* operation : {"remove", "SENT", "DOWNLOADED", "INSTALLED", "FAILED", "Install", ""}) {
        records.emplace_back(Dictionary{{"identifier", "a/../b"}, {"operation", operation}});
    }
    world.files.putPlist(paths::toDoList, records);
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(journal(), join({start_(Value(records).description(), "{}", "{}", {}), iconDirectory}));
}

TEST_F(Planning, RequestsAnAppOnceByItsFirstRecord) {
    start(true);
    world.files.putPlist(
        paths::toDoList,
        Array{Dictionary{{"identifier", "a"}, {"operation", "remove"}, {"version", "0.9"}},
              Dictionary{{"identifier", "a"}, {"operation", "install"}, {"version", "1.0"}, {"name", "One"}},
              Dictionary{{"identifier", "a"}, {"operation", "install"}, {"version", "2.0"}, {"name", "Two"}}});
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(assets.front()->prettyName, "One");
    EXPECT_EQ(assets.front()->version(), "1.0");
    EXPECT_EQ(world.journal.count("log: a already has a placeholder - skipping"), 1u);
}

TEST_F(Planning, RequestsNoAppUnderAnIdentifierThatClimbs) {
    start(false);
    putToDoList({{"a/../b", "install"}, {"c", "install"}});
    EXPECT_EQ(plan(), Lines{"c"});
    EXPECT_EQ(world.journal.linesWith("log: Ignoring"), Lines{"log: Ignoring invalid path: a/../b"});
    EXPECT_EQ(std::ranges::count_if(journal(), [](const auto& line) { return line.find("/..") != line.npos; }), 2);
}

TEST_F(Planning, KeepsAnEmptyVersionOfARecordButNotOfAPlaceholder) {
    start(true);
    world.registry.addPlaceholder("a")->version = "";
    world.files.putPlist(paths::toDoList,
                         Array{Dictionary{{"identifier", "a"}, {"operation", "install"}},
                               Dictionary{{"identifier", "b"}, {"operation", "install"}, {"version", ""}}});
    EXPECT_EQ(plan(), (Lines{"a", "b"}));
    EXPECT_EQ(*assets.at(0)->variantOptions, (Dictionary{{"AssetParts", 1}}));
    EXPECT_EQ(*assets.at(1)->variantOptions, (Dictionary{{"AssetParts", 1}, {"Version", ""}}));
}

TEST_F(Planning, DoesWithoutThePlacesOfAPlaceholder) {
    start(true);
    const auto placeholder = world.registry.addPlaceholder("a");
    placeholder->bundlePath = "";
    placeholder->containerPath = "";
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("bundles."), Lines{});
    EXPECT_EQ(world.journal.count("error: missing bundlePath"), 1u);
    EXPECT_EQ(assets.front()->icon, FileURL::fileURLWithPath("/TamblinArtwork", false));
    EXPECT_EQ(assets.front()->infoPlist, "/Info.plist");
}

TEST_F(Planning, TakesAnExistingPlaceholderBeforeTheRecord) {
    start(true);
    world.registry.addPlaceholder("a")->version = "0.9";
    world.files.putPlist(
        paths::toDoList,
        Array{Dictionary{{"identifier", "a"}, {"operation", "install"}, {"version", "1.0"}, {"name", "Tamblin's"}}});
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.count("log: a already has a placeholder - skipping"), 1u);
    const QRAsset& asset = *assets.front();
    EXPECT_EQ(asset.infoPlist, "/var/containers/a/App.app/Info.plist");
    EXPECT_EQ(asset.storePlist, "/var/containers/a/TamblinMetadata.plist");
    EXPECT_EQ(*asset.variantOptions, (Dictionary{{"AssetParts", 1}, {"Version", "0.9"}}));
    EXPECT_EQ(asset.prettyName, "a");
}

TEST_F(Planning, DescribesPlaceholders) {
    start(false);
    const auto application = world.registry.addPlaceholder("a", 7);
    application->kind = "System";
    application->version = "";
    plan();
    const std::string entry = "{a = {BXBundleIdentifier = a; Path = /var/containers/a/App.app; Container = "
                              "/var/containers/a; IsRestore = 0; auto_demoted_app = 1; intentional_demoted_app = 0; "
                              "system_app = 1;};}";
    EXPECT_EQ(world.journal.linesWith("oversize: outstandingAssetTransfers pre"),
              Lines{"oversize: outstandingAssetTransfers preExistingPlaceHolders " + entry + ", idsWeWant " + entry});
    application->type = 8;
    application->version = "2";
    application->kind = "User";
    plan();
    EXPECT_TRUE(world.journal.linesWith("oversize: outstandingAssetTransfers pre")
                    .front()
                    .find("BXBundleVersion = 2; Path = /var/containers/a/App.app; Container = /var/containers/a; "
                          "IsRestore = 0; auto_demoted_app = 0; intentional_demoted_app = 1; system_app = 0;") !=
                std::string::npos);
}

TEST_F(Planning, RequestsNoAppThatHasAPlaceholderWithoutTheCoordinator) {
    start(false);
    world.registry.addPlaceholder("a");
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(journal().back(), "log: Not creating a placeholder app for a because we already have one");
}

TEST_F(Planning, ReadiesTheAssetBeforeItLooksForAPlaceholder) {
    start(false);
    world.registry.addPlaceholder("a");
    world.files.putFolder("/var/containers/a/App.app");
    EXPECT_EQ(plan(), Lines{});
    const Lines lines = journal();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(*(lines.end() - 4), "files.writeFileAtomically(" + icons + "/a.png)");
    EXPECT_EQ(*(lines.end() - 3), "files.readFile(" + restore + ")");
    EXPECT_TRUE((lines.end() - 2)->starts_with("log: Asset a (pretty=a, version=1.0) prepped"));
    EXPECT_EQ(lines.back(), "log: Not creating a placeholder app for a because we already have one");
}

TEST_F(Planning, ChecksNoDemotionWithoutTheCoordinator) {
    start(false);
    world.registry.addPlaceholder("a", PDInstallTypeDowngrade)->registeredAs = "TEAM.a";
    world.registry.addPlaceholder("b", PDInstallTypeIntentionalDowngrade);
    putToDoList({{"b", "install"}});
    EXPECT_EQ(plan(), Lines{"a"});
    const Lines lines = journal();
    EXPECT_EQ(std::ranges::count_if(lines, [](const auto& line) { return line.find("demoted (") != line.npos; }), 0);
    EXPECT_EQ(lines.back(), "log: Not creating a placeholder app for b because we already have one");
}

TEST_F(Planning, NeverRequestsARestorePlaceholderWithTheCoordinator) {
    start(true);
    world.registry.addPlaceholder("a", PDInstallTypeRestore);
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(journal().back(), "log: a is currenlty marked to be restored and will be handled by corbind - skipping");
}

TEST_F(Planning, CountsAnAppThatHasAPlaceholderAsRequested) {
    start(true);
    world.registry.addPlaceholder("a", PDInstallTypeDowngrade);
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("log: a "),
              (Lines{"log: a already has a placeholder - skipping",
                     "log: a is currenlty demoted (manual:1, auto:0) - but will be installed as it's requested by "
                     "client"}));
}

TEST_F(Planning, DropsAppsThatAreUnderWay) {
    start(true);
    const auto application = world.registry.addPlaceholder("a", PDInstallTypeStoreDownload);
    world.registry.addProgress(application, PDInstallStateActive, PDInstallPhaseLoading);
    const auto restoring = world.registry.addPlaceholder("r", PDInstallTypeRestore);
    world.registry.addProgress(restoring, PDInstallStateActive, PDInstallPhaseLoading);
    world.registry.prioritized = {application, restoring};
    putToDoList({{"a", "install"}, {"b", "install"}});
    EXPECT_EQ(plan(), Lines{"b"});
    EXPECT_EQ(
        world.journal.linesWith("log: Assets "),
        (Lines{"log: Assets already in progress (not returning these): (a)", "log: Assets currently restoring: (r)"}));
    EXPECT_EQ(
        world.journal.count("log: r is currenlty marked to be restored and will be handled by corbind - skipping"), 1u);
}

TEST_F(Planning, FollowsTheOrderOfTheIcons) {
    start(true);
    const auto order = PropertyListCodec().dataWithPropertyList(Array{"c", "a"}, PropertyListFormat::binary, nullptr);
    world.screen.iconOrder = std::string(order->bytes());
    putToDoList({{"a", "install"}, {"b", "install"}, {"c", "install"}});
    EXPECT_EQ(plan(), (Lines{"c", "a", "b"}));
}

TEST_F(Planning, RequestsNothingWhenPolicyForbidsIt) {
    start(true);
    world.policy.settings["allowAppInstallation"] = OLBoolValue::explicitlyNo;
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(journal().back(), "log: skipping a - its not a restore and app installation is disabled");
}

TEST_F(Planning, LeavesOutSystemPlaceholders) {
    start(false);
    world.registry.addPlaceholder("a")->kind = "System";
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{});
    EXPECT_EQ(journal().back(), "log: a is system app placeholder - skipping");
}

TEST_F(Planning, RequestsADemotedAppThatTheListAsksFor) {
    start(true);
    world.registry.addPlaceholder("a", 7);
    world.registry.addPlaceholder("b", 8);
    putToDoList({{"a", "install"}});
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("log: a is currenlty").size(), 1u);
    EXPECT_EQ(world.journal.linesWith("log: b is"), Lines{"log: b is currenlty demoted (manual:0, auto:1) - skipping"});
}

TEST_F(Planning, GoesOnWithoutIconDirectory) {
    start(true);
    putToDoList({{"a", "install"}});
    world.faults.fail("files.createDirectory", 1);
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.linesWith("error: Can't create icon"),
              Lines{"error: Can't create icon scratch dir! TestDomain 7"});
}

TEST_F(Planning, FallsBackToTheArtworkWithoutIconDirectory) {
    start(true);
    putToDoList({{"a", "install"}});
    stageApp("a");
    world.faults.fail("files.createDirectory", 1);
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(world.journal.count("error: Couldn't save image file to " + icons + "/a.png"), 1u);
    EXPECT_EQ(assets.front()->icon, FileURL::fileURLWithPath(work + "/a/TamblinArtwork", false));
}

TEST_F(Planning, FallsBackToTheArtwork) {
    start(true);
    putToDoList({{"a", "install"}});
    stageApp("a");
    world.faults.fail("icons.render");
    plan();
    EXPECT_EQ(assets.front()->icon, FileURL::fileURLWithPath(work + "/a/TamblinArtwork", false));
}

TEST_F(Planning, NamesAnAppByWhatIsKnown) {
    start(true);
    world.files.putPlist(paths::toDoList,
                         Array{Dictionary{{"identifier", "a"}, {"operation", "install"}, {"name", "Tamblin's"}},
                               Dictionary{{"identifier", "b"}, {"operation", "install"}},
                               Dictionary{{"identifier", "c"}, {"operation", "install"}, {"name", 5}, {"version", 6}}});
    stageApp("c", {{"BXBundleDisplayName", 5}});
    plan();
    EXPECT_EQ(assets.at(0)->prettyName, "Tamblin's");
    EXPECT_EQ(assets.at(1)->prettyName, "b");
    EXPECT_EQ(assets.at(2)->prettyName, "c");
    EXPECT_EQ(*assets.at(2)->variantOptions, (Dictionary{{"AssetParts", 1}}));
}

// Restores.

class RestorePlanning : public Planning {
  protected:
    /// A restore placeholder that is registered under another identifier than its bundle's: the only kind that is
    /// requested, since one that is found under the bundle's identifier has its placeholder already.
    void addRestore() { world.registry.addPlaceholder("a", PDInstallTypeRestore)->registeredAs = "TEAM.a"; }
    void remember(const std::string& path) {
        client()._setRestoreStatePropertyValue_forKey_identifier_version(path, "path", "a", "1.0");
    }
};

TEST_F(RestorePlanning, RequestsPackageAndData) {
    start(false);
    addRestore();
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_TRUE(assets.front()->isRestore);
    EXPECT_EQ(*assets.front()->variantOptions, (Dictionary{{"AssetParts", 3}, {"Version", "1.0"}}));
    EXPECT_TRUE(world.journal.linesWith("log: Asset a ").front().ends_with("isRestore=y"));
}

TEST_F(RestorePlanning, RequestsTheDataOnlyWhenThePackageIsThere) {
    start(false);
    addRestore();
    remember("/kept");
    world.files.put("/kept", "archive");
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(*assets.front()->variantOptions, (Dictionary{{"AssetParts", 2}, {"Version", "1.0"}}));
    EXPECT_EQ(world.journal.count("log: Recovered download path for a at /kept"), 1u);
    const Lines lines = journal();
    const auto from = std::ranges::find(lines, "files.readFile(" + restore + ")");
    ASSERT_GE(lines.end() - from, 5);
    EXPECT_EQ(Lines(from, from + 4), (Lines{"files.readFile(" + restore + ")", "plist.parse()",
                                            "files.fileExists(/kept)", "log: Recovered download path for a at /kept"}));
    EXPECT_TRUE((from + 4)->starts_with("log: Asset a ("));
}

TEST_F(RestorePlanning, RequestsBothWhenWhatIsRememberedIsNoPath) {
    start(false);
    addRestore();
    client()._setRestoreStatePropertyValue_forKey_identifier_version(5, "path", "a", "1.0");
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(*assets.front()->variantOptions, (Dictionary{{"AssetParts", 3}, {"Version", "1.0"}}));
    EXPECT_EQ(world.journal.linesWith("files.fileExists"), Lines{});
}

TEST_F(RestorePlanning, RequestsBothWhenThePackageHasGone) {
    start(false);
    addRestore();
    remember("/gone");
    EXPECT_EQ(plan(), Lines{"a"});
    EXPECT_EQ(*assets.front()->variantOptions, (Dictionary{{"AssetParts", 3}, {"Version", "1.0"}}));
    EXPECT_EQ(world.journal.count("log: Download path recovered for a but the file is missing: /gone"), 1u);
}

TEST_F(RestorePlanning, RequestsOnlyThePackageOfAnAppThatIsNotRestored) {
    start(false);
    putToDoList({{"a", "install"}});
    world.files.put("/kept", "archive");
    world.files.putPlist(paths::toDoList,
                         Array{Dictionary{{"identifier", "a"}, {"operation", "install"}, {"version", "1.0"}}});
    remember("/kept");
    plan();
    EXPECT_EQ(world.journal.count("log: Recovered download path for a at /kept"), 1u);
    EXPECT_EQ(*assets.front()->variantOptions, (Dictionary{{"AssetParts", 1}, {"Version", "1.0"}}));
}

} // namespace
} // namespace appsync
