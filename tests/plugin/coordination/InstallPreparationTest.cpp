// Readying a coordinator for an app that is to come.
#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <set>
#include <thread>

namespace appsync {
namespace {

using inmemory::Lines;

class InstallPreparation : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        start();
        world.files.putPlist("/work/Info.plist", info);
        world.files.putPlist("/work/TamblinMetadata.plist", metadata);
        world.files.put("/work/icon.png", "four");
        asset = makeAsset("a");
        asset->infoPlist = "/work/Info.plist";
        asset->storePlist = "/work/TamblinMetadata.plist";
        asset->icon = FileURL::fileURLWithPath("/work/icon.png", false);
        asset->variantOptions = Dictionary{{"Version", "1.0"}};
    }
    bool prepare(bool existingApp = false) {
        return client().prepareAppForInstallUsingCoordination_existingApp(asset, existingApp);
    }

    const Dictionary info{{"k", "v"}, {"PDApplicationLaunchProhibited", true}};
    const Dictionary metadata{{"title", "T"}};
    QRAssetPtr asset;

    // The journal of a whole preparation, in parts.
    const Lines begun{"files.readFile(/work/Info.plist)",
                      "plist.parse()",
                      "files.readFile(/work/TamblinMetadata.plist)",
                      "plist.parse()",
                      "oversize: processing app install for bundle 'a', title Name assetplist {k = v; "
                      "PDApplicationLaunchProhibited = 1;}, version 1.0 with install coordination",
                      step(1, 1, true, "Install App")};
    const Lines coordinator{step(3, 1, true, "Create coordinator"), "coordinators.initiating(a, client 3, create 1)",
                            "log: Created initiating coordinator <initiating a> (createIfNotExisting:1, existingApp:0) "
                            "for a with error (null)",
                            step(3, 2, true, "Finished creating coordinator"), "coordinator(a).setObserver()"};
    const std::string setOptions =
        "coordinator(a).setInstallOptions(metadata {title = T;}, sinf (null), install type 4, "
        "target type 1)";
    const Lines options{setOptions, "log: set install options on coordinator for a"};
    const Lines odr{"coordinator(a).setInitialODRAssetPromises(0)",
                    "log: set ODR asset promise to install coordinator for a"};
    const Lines promise{"promises.transfer(a-Asset, client 3, no path, 0)",
                        "coordinator(a).setAppAssetPromise(<promise a-Asset>)",
                        "log: Added app asset promise to coordinator for 'a'"};
    const std::string createDirectory =
        "files.createDirectory(/tmp/com.zuvex.qrd.Apps/a.app, with intermediates, owner "
        "mobile, group mobile)";
    const std::string iconPath = "/tmp/com.zuvex.qrd.Apps/a.app/Icon.png";
    const Lines directory{createDirectory,
                          "log: Created app directory for 'a' at /tmp/com.zuvex.qrd.Apps/a.app with err=(null)"};
    const Lines icon{step(5, 1, true, "Copying icon"),
                     "files.copyItem(/work/icon.png to " + iconPath + ")",
                     "files.attributesOfItem(" + iconPath + ")",
                     "log: icon for a at " + iconPath + " has a size of 4",
                     "log: Copied icon from /work/icon.png to " + iconPath + " with error (null) for 'a', sizeOnDisk:4",
                     step(5, 2, true, "Copying icon")};
    const Lines placeholder{step(4, 1, true, "Create placeholder"),
                            "placeholders.init(Name, a, install type 4, client 3)",
                            "log: Created placeholder <placeholder a> for 'a' of type 4",
                            step(4, 2, true, "Finished creating placeholder")};
    const Lines iconPromise{"promises.transfer(a-Icon, client 3, file://" + iconPath + ", 4)",
                            "promise(a-Icon).setPercentComplete(1.000000)", "promise(a-Icon).setComplete(1)",
                            "placeholder(a).setIconPromise(<promise a-Icon>)",
                            "log: Added icon promise to placeholder for 'a'"};
    const std::string attributesText =
        "<launchProhibited=1 bundleVersion=1.0 infoPlist={k = v; PDApplicationLaunchProhibited = 1;}>";
    const Lines attributes{"placeholder(a).setPlaceholderAttributes(" + attributesText + ")",
                           "log: set " + attributesText + " attributes on placeholder for a"};
    const Lines storeMetadata{"placeholder(a).setMetadata({title = T;})",
                              "log: set store metadata on placeholder for a"};
    const Lines configured{"placeholder(a).setConfigurationComplete()",
                           "log: set placeholder configuration as complete for a"};
    const Lines attached{"coordinator(a).setPlaceholderPromise(<placeholder a>)",
                         "log: added placeholder promise to coordinator for a"};
    const Lines succeeded{"log: processing app install for bundle a finished with status 1 error (null)",
                          step(1, 2, true, "Install app")};
    // A placeholder that lacks something is attached all the same.
    const Lines beforeAttributes =
        join({begun, coordinator, options, odr, promise, directory, icon, placeholder, iconPromise});
    const Lines afterAnError =
        join({attached,
              {"log: processing app install for bundle a finished with status 1 error TestDomain 7", succeeded[1]}});
    static Lines failed(const std::string& error = "TestDomain 7") {
        return {"log: processing app install for bundle a finished with status 0 error " + error,
                step(1, 2, false, "Install app")};
    }
    const Lines cancelledPlaceholder{"log: Cancelling placeholder for appBundleIdentifier:a",
                                     "placeholder(a).cancel(QRError 1, client 3)"};
    const Lines cancelledCoordinator{"log: Cancelling coordinator for appBundleIdentifier:a",
                                     "coordinator(a).cancel(QRError 1, client 3)"};
};

TEST_F(InstallPreparation, SetsUpANewAppFromOptionsToPlaceholder) {
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun, coordinator, options, odr, promise, directory, icon, placeholder, iconPromise,
                               attributes, storeMetadata, configured, attached, succeeded}));
    EXPECT_EQ(world.coordinators.find("a")->observer, &client());
    EXPECT_EQ(world.files.bytesAt(iconPath), "four");
}

TEST_F(InstallPreparation, CallsAnUpdateByItsName) {
    EXPECT_TRUE(prepare(true));
    const Lines lines = journal();
    EXPECT_TRUE(has(lines, step(1, 1, true, "Update app")));
    EXPECT_TRUE(has(lines, "coordinators.updating(a, client 3, create 1)"));
    EXPECT_EQ(lines.back(), step(1, 2, true, "Install app"));
}

TEST_F(InstallPreparation, FailsBeforeAnythingWithoutNameAndIdentifier) {
    for (const std::optional<std::string>& name : {std::optional<std::string>(""), std::optional<std::string>()}) {
        asset = makeAsset("", name);
        EXPECT_FALSE(prepare());
        const std::string none = "\"Install";
        EXPECT_EQ(journal(), (Lines{"oversize: processing app install for bundle '', title " + name.value_or("(null)") +
                                        " assetplist (null), version (null) with install coordination",
                                    "transactions.logStep(1, party 1, phase 1, success 1, , " + none + " App\")",
                                    "log: processing app install for bundle  finished with status 0 error (null)",
                                    "transactions.logStep(1, party 1, phase 2, success 0, , " + none + " app\")"}));
    }
}

TEST_F(InstallPreparation, GoesOnWithOneOfNameAndIdentifier) {
    asset->prettyName = std::nullopt;
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(has(journal(), "placeholders.init(a, a, install type 4, client 3)"));
    asset = makeAsset("", "Name");
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(has(journal(), "placeholders.init(Name, , install type 4, client 3)"));
}

TEST_F(InstallPreparation, NamesThePlaceholderWithAnEmptyName) {
    asset->prettyName = "";
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(has(journal(), "placeholders.init(, a, install type 4, client 3)"));
}

TEST_F(InstallPreparation, FailsWithoutCoordinator) {
    world.faults.fail("coordinators.initiating");
    EXPECT_FALSE(prepare());
    EXPECT_EQ(
        journal(),
        join({begun, {coordinator[0], coordinator[1], step(3, 2, false, "Finished creating coordinator")}, failed()}));
}

TEST_F(InstallPreparation, TouchesNoCoordinatorOfAnotherClient) {
    const auto state = world.coordinators.add("a");
    state->creator = 1;
    EXPECT_FALSE(prepare());
    EXPECT_FALSE(state->cancelled);
    EXPECT_EQ(state->observer, nullptr);
    EXPECT_EQ(journal().back(), failed("(null)").back());
}

TEST_F(InstallPreparation, CancelsTheCoordinatorWhenOptionsCannotBeSet) {
    world.faults.fail("coordinator.setInstallOptions");
    EXPECT_FALSE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               {setOptions, "error: Error TestDomain 7 setting install options on coordinator for 'a'"},
                               failed(),
                               cancelledCoordinator}));
}

TEST_F(InstallPreparation, KeepsInstallOptionsThatAreThereAndSetsNoStoreMetadata) {
    world.coordinators.add("a")->hasInstallOptions = true;
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               {"log: coordinator for a has install options"},
                               odr,
                               promise,
                               directory,
                               icon,
                               placeholder,
                               iconPromise,
                               attributes,
                               {"placeholder(a).setMetadata((null))", "log: set store metadata on placeholder for a"},
                               configured,
                               attached,
                               succeeded}));
}

TEST_F(InstallPreparation, CancelsTheCoordinatorWhenOnDemandResourcesCannotBeSet) {
    world.faults.fail("coordinator.setInitialODRAssetPromises");
    EXPECT_FALSE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               options,
                               {odr[0], "error: Error TestDomain 7 setting ODR asset promise for 'a'"},
                               failed(),
                               cancelledCoordinator}));
}

TEST_F(InstallPreparation, KeepsEveryPromiseThatIsThere) {
    const auto state = world.coordinators.add("a");
    state->hasInstallOptions = true;
    state->hasInitialODRAssetPromises = true;
    state->assetPromise = std::make_shared<inmemory::TransferPromise>(world.context, "a-Asset");
    state->hasPlaceholderPromise = true;
    EXPECT_TRUE(prepare());
    EXPECT_EQ(
        journal(),
        join({begun,
              coordinator,
              {"log: coordinator for a has install options", "log: coordinator for a has an ODR app asset promise",
               "log: coordinator for a has an app asset promise", "log: coordinator for a has a placeholder promise"},
              succeeded}));
}

TEST_F(InstallPreparation, MakesThePlaceholderBesideAnAssetPromiseThatIsThere) {
    world.coordinators.add("a")->assetPromise = std::make_shared<inmemory::TransferPromise>(world.context, "a-Asset");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               options,
                               odr,
                               {"log: coordinator for a has an app asset promise"},
                               directory,
                               icon,
                               placeholder,
                               iconPromise,
                               attributes,
                               storeMetadata,
                               configured,
                               attached,
                               succeeded}));
}

TEST_F(InstallPreparation, SetsOptionsBesideOnDemandResourcesThatAreThere) {
    const auto state = world.coordinators.add("a");
    state->hasInitialODRAssetPromises = true;
    state->hasPlaceholderPromise = true;
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               options,
                               {"log: coordinator for a has an ODR app asset promise"},
                               promise,
                               {"log: coordinator for a has a placeholder promise"},
                               succeeded}));
}

TEST_F(InstallPreparation, GoesOnWithoutAssetPromise) {
    world.faults.fail("coordinator.setAppAssetPromise");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(),
              join({begun,
                    coordinator,
                    options,
                    odr,
                    {promise[0], promise[1], "error: Error TestDomain 7 adding app asset promise at (null) to 'a'",
                     "error: Cancelling asset promise for 'a'", "promise(a-Asset).cancel(QRError 30, client 3)"},
                    directory,
                    icon,
                    placeholder,
                    iconPromise,
                    attributes,
                    storeMetadata,
                    configured,
                    attached,
                    succeeded}));
}

TEST_F(InstallPreparation, MakesThePlaceholderEvenWithoutItsDirectory) {
    world.faults.fail("files.createDirectory");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(),
              join({begun,
                    coordinator,
                    options,
                    odr,
                    promise,
                    {createDirectory,
                     "transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, a, \"Failed to create app "
                     "directory\")",
                     "log: Created app directory for 'a' at /tmp/com.zuvex.qrd.Apps/a.app with err=TestDomain 7"},
                    placeholder,
                    attributes,
                    storeMetadata,
                    configured,
                    attached,
                    succeeded}));
}

TEST_F(InstallPreparation, CopiesNoIconThatTheAssetDoesNotHave) {
    asset->icon = std::nullopt;
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun, coordinator, options, odr, promise, directory, placeholder, attributes,
                               storeMetadata, configured, attached, succeeded}));
}

TEST_F(InstallPreparation, GoesOnWithoutAnIconThatCouldNotBeCopied) {
    world.faults.fail("files.copyItem");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               options,
                               odr,
                               promise,
                               directory,
                               {icon[0], icon[1],
                                "log: Copied icon from /work/icon.png to " + iconPath +
                                    " with error TestDomain 7 for 'a', sizeOnDisk:0",
                                icon[5]},
                               placeholder,
                               attributes,
                               storeMetadata,
                               configured,
                               afterAnError}));
}

TEST_F(InstallPreparation, ReportsTheLastErrorOfAllSteps) {
    world.faults.fail("files.copyItem");
    world.faults.fail("placeholder.setMetadata", 1, 0, Error::make("Later", 8));
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(has(journal(), "log: processing app install for bundle a finished with status 1 error Later 8"));
}

TEST_F(InstallPreparation, MakesNoFolderForAnIdentifierThatLeadsOutOfThePlaceholders) {
    for (const std::string identifier : {"../x", "../../x", "x/../../y"}) {
        asset = makeAsset(identifier);
        asset->icon = FileURL::fileURLWithPath("/work/icon.png", false);
        EXPECT_TRUE(prepare());
        const Lines lines = journal();
        EXPECT_TRUE(has(lines, "log: Created app directory for '" + identifier + "' at /tmp/com.zuvex.qrd.Apps/" +
                                   identifier + ".app with err=POSIX 22"));
        for (const std::string& line : lines) {
            EXPECT_FALSE(line.starts_with("files.")) << line;
        }
    }
}

TEST_F(InstallPreparation, TakesAnIconWhoseAttributesCannotBeReadForEmpty) {
    world.faults.fail("files.attributesOfItem");
    EXPECT_TRUE(prepare());
    const Lines lines = journal();
    EXPECT_TRUE(has(lines, "log: icon for a at " + iconPath + " has a size of 0"));
    EXPECT_TRUE(has(lines, "log: Copied icon from /work/icon.png to " + iconPath +
                               " with error TestDomain 7 for 'a', sizeOnDisk:0"));
    EXPECT_FALSE(has(lines, iconPromise[0]));
    EXPECT_TRUE(has(lines, attributes[0]));
}

TEST_F(InstallPreparation, LetsTheCoordinatorDecideAboutAMissingPlaceholder) {
    world.faults.fail("placeholders.init");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(),
              join({begun,
                    coordinator,
                    options,
                    odr,
                    promise,
                    directory,
                    icon,
                    {placeholder[0], placeholder[1], "log: Created placeholder (null) for 'a' of type 4",
                     step(4, 2, false, "Finished creating placeholder"), "coordinator(a).setPlaceholderPromise((null))",
                     "log: added placeholder promise to coordinator for a"},
                    succeeded}));
}

TEST_F(InstallPreparation, CancelsTheCoordinatorThatTakesNoMissingPlaceholder) {
    world.faults.fail("placeholders.init");
    world.faults.fail("coordinator.setPlaceholderPromise");
    EXPECT_FALSE(prepare());
    const Lines lines = journal();
    EXPECT_EQ(Lines(lines.end() - 6, lines.end()),
              join({{"coordinator(a).setPlaceholderPromise((null))",
                     "error: Error TestDomain 7 adding placeholder promise to coordinator for 'a'"},
                    failed(),
                    cancelledCoordinator}));
}

TEST_F(InstallPreparation, SkipsAttributesWhenTheIconIsNotPromised) {
    world.faults.fail("placeholder.setIconPromise");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               options,
                               odr,
                               promise,
                               directory,
                               icon,
                               placeholder,
                               {iconPromise[0], iconPromise[1], iconPromise[2], iconPromise[3],
                                "error: Error TestDomain 7 adding icon promise to placeholder for 'a'",
                                "promise(a-Icon).cancel(QRError 30, client 3)"},
                               attached,
                               succeeded}));
}

TEST_F(InstallPreparation, AttachesThePlaceholderWithoutAttributes) {
    world.faults.fail("placeholder.setPlaceholderAttributes");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(), join({beforeAttributes,
                               {attributes[0], "error: Error TestDomain 7 setting attributes on placeholder for 'a'"},
                               afterAnError}));
}

TEST_F(InstallPreparation, AttachesThePlaceholderWithoutMetadata) {
    world.faults.fail("placeholder.setMetadata");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(),
              join({beforeAttributes,
                    attributes,
                    {storeMetadata[0], "error: Error TestDomain 7 setting store metadata on placeholder for 'a'"},
                    afterAnError}));
}

TEST_F(InstallPreparation, AttachesThePlaceholderWithoutCompletion) {
    world.faults.fail("placeholder.setConfigurationComplete");
    EXPECT_TRUE(prepare());
    EXPECT_EQ(journal(),
              join({beforeAttributes,
                    attributes,
                    storeMetadata,
                    {configured[0], "error: Error TestDomain 7 setting placeholder configuration as complete for 'a'"},
                    afterAnError}));
}

TEST_F(InstallPreparation, CancelsPlaceholderThenCoordinatorWhenTheyDoNotFit) {
    world.faults.fail("coordinator.setPlaceholderPromise");
    EXPECT_FALSE(prepare());
    EXPECT_EQ(journal(),
              join({begun,
                    coordinator,
                    options,
                    odr,
                    promise,
                    directory,
                    icon,
                    placeholder,
                    iconPromise,
                    attributes,
                    storeMetadata,
                    configured,
                    {attached[0], "error: Error TestDomain 7 adding placeholder promise to coordinator for 'a'"},
                    failed(),
                    cancelledPlaceholder,
                    cancelledCoordinator}));
}

TEST_F(InstallPreparation, WorksWithoutInfoAndMetadata) {
    world.files.put("/work/Info.plist", "no property list");
    world.files.putPlist("/work/TamblinMetadata.plist", Array{});
    asset->variantOptions = std::nullopt;
    EXPECT_TRUE(prepare());
    const Lines lines = journal();
    EXPECT_TRUE(has(lines, "oversize: processing app install for bundle 'a', title Name assetplist (null), version "
                           "(null) with install coordination"));
    EXPECT_TRUE(has(lines, "coordinator(a).setInstallOptions(metadata (null), sinf (null), install type 4, target type "
                           "1)"));
    EXPECT_TRUE(has(lines, "placeholder(a).setPlaceholderAttributes(<launchProhibited=0 bundleVersion=(null) "
                           "infoPlist=(null)>)"));
    EXPECT_TRUE(has(lines, "placeholder(a).setMetadata((null))"));
}

TEST_F(InstallPreparation, ProhibitsALaunchOnlyWhenTheInfoSaysSo) {
    const struct {
        Dictionary info;
        bool prohibited;
    } cases[] = {{{{"PDApplicationLaunchProhibited", true}}, true},
                 {{{"PDApplicationLaunchProhibited", false}}, false},
                 {{}, false},
                 {{{"PDApplicationLaunchProhibited", Array{}}}, false}};
    for (const auto& [given, prohibited] : cases) {
        world.files.putPlist("/work/Info.plist", given);
        world.coordinators.remove("a");
        EXPECT_TRUE(prepare());
        const std::string expected = std::string("placeholder(a).setPlaceholderAttributes(<launchProhibited=") +
                                     (prohibited ? "1" : "0") +
                                     " bundleVersion=1.0 infoPlist=" + Value(given).description() + ">)";
        EXPECT_TRUE(has(journal(), expected)) << expected;
    }
}

TEST_F(InstallPreparation, AndWhatFollowsItStayOnTheirCallersThread) {
    std::set<std::thread::id> callers;
    world.context.interceptor = [&callers](std::string_view, std::string_view) {
        callers.insert(std::this_thread::get_id());
        return ErrorPtr();
    };
    asset->path = "/file";
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(client().updateTransferProgressForApp_existingApp(asset, false));
    EXPECT_TRUE(client().transferCompleteForApp_existingApp(asset, false));
    world.context.interceptor = nullptr;
    EXPECT_EQ(callers, std::set<std::thread::id>{std::this_thread::get_id()});
}

} // namespace
} // namespace appsync
