// Placeholder bundles, icons, and the registry's placeholders.
#include "tests/inmemory/ClientTest.h"

#include <algorithm>

namespace appsync {
namespace {

using inmemory::Lines;

const FileAttributes mobile{"mobile", "mobile"};

// Icons.

class IconRendering : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        start();
        world.files.putFolder("/bundle");
    }
    bool make(const std::optional<std::string>& path = "/bundle") {
        return client()._makeIconFromBundlePath_saveTo(path, "/icon.png");
    }
    const Lines steps{"bundles.bundleWithURL(file:///bundle/)",
                      "icons.render(/bundle)",
                      "image.destination(public.png, 1)",
                      "image.addImage(/bundle)",
                      "image.finalize()",
                      "files.writeFileAtomically(/icon.png)"};
    /// The first steps, and a message.
    Lines until(std::size_t count, const std::string& message) const {
        Lines lines(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(count));
        lines.push_back("error: " + message);
        return lines;
    }
};

TEST_F(IconRendering, WritesAPng) {
    EXPECT_TRUE(make());
    EXPECT_EQ(journal(), steps);
    EXPECT_EQ(world.files.bytesAt("/icon.png"), "PNG of /bundle");
}

TEST_F(IconRendering, SaysAtWhichStepItFailed) {
    EXPECT_FALSE(make(std::nullopt));
    EXPECT_EQ(journal(), until(0, "missing bundlePath"));
    EXPECT_FALSE(make(""));
    EXPECT_EQ(journal(), until(0, "couldn't create URL"));
    EXPECT_FALSE(make("/missing"));
    EXPECT_EQ(journal(), (Lines{"bundles.bundleWithURL(file:///missing/)", "error: couldn't create bundle from URL"}));
    const struct {
        const char* call;
        std::size_t steps;
        const char* message;
    } cases[] = {{"icons.render", 2, "couldn't create SK icon from bundle"},
                 {"image.destination", 3, "couldn't create image"},
                 {"image.finalize", 5, "Couldn't finalize image"},
                 {"files.writeFileAtomically", 6, "Couldn't save image file to /icon.png"}};
    for (const auto& [call, count, message] : cases) {
        world.faults.fail(call);
        EXPECT_FALSE(make());
        EXPECT_EQ(journal(), until(count, message));
    }
}

// The bundle's parts.

class PlaceholderParts : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        world.files.putFolder("/p");
        start();
    }
};

TEST_F(PlaceholderParts, StandInTheTemporaryDirectory) {
    EXPECT_EQ(client().placeholderAppPathForBundleIdentifier("com.example.a"),
              "/tmp/com.zuvex.qrd.Apps/com.example.a.app");
    world.process.temporaryFolder = "/p";
    EXPECT_EQ(client().placeholderAppPathForBundleIdentifier("com.example.a"),
              "/p/com.zuvex.qrd.Apps/com.example.a.app");
}

TEST_F(PlaceholderParts, DirectoryIsCreatedWithItsAttributes) {
    EXPECT_TRUE(client().createPlaceHolderPath_forBundleIdentifier_withAttributes("/p/a.app", "a", mobile));
    EXPECT_EQ(journal(), (Lines{"files.createDirectory(/p/a.app, with intermediates, owner mobile, group mobile)",
                                "log: Created app directory for 'a' at /p/a.app with err=(null)"}));
}

TEST_F(PlaceholderParts, DirectoryThatCannotBeCreatedIsRecorded) {
    world.faults.fail("files.createDirectory");
    EXPECT_FALSE(client().createPlaceHolderPath_forBundleIdentifier_withAttributes("/p/a.app", "a", mobile));
    EXPECT_EQ(journal(),
              (Lines{"files.createDirectory(/p/a.app, with intermediates, owner mobile, group mobile)",
                     "transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, a, \"Failed to create app "
                     "directory\")",
                     "log: Created app directory for 'a' at /p/a.app with err=TestDomain 7"}));
}

TEST_F(PlaceholderParts, DirectoryThatIsCreatedWithAnErrorIsRecordedToo) {
    world.files.complaintOfCreateDirectory = inmemory::injectedError();
    EXPECT_TRUE(client().createPlaceHolderPath_forBundleIdentifier_withAttributes("/p/a.app", "a", mobile));
    EXPECT_EQ(journal(),
              (Lines{"files.createDirectory(/p/a.app, with intermediates, owner mobile, group mobile)",
                     "transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, a, \"Failed to create app "
                     "directory\")",
                     "log: Created app directory for 'a' at /p/a.app with err=TestDomain 7"}));
}

TEST_F(PlaceholderParts, IconIsWrittenAndMeasured) {
    std::uint64_t size = 99;
    EXPECT_TRUE(client().writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        Data("bytes"), "/p/Icon.png", &size, "a", mobile));
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(journal(),
              (Lines{"files.createFile(/p/Icon.png, owner mobile, group mobile)", "files.attributesOfItem(/p/Icon.png)",
                     "log: icon data for 'a' was writen to /p/Icon.png with status:1 fileSize:5"}));
}

TEST_F(PlaceholderParts, MissingIconIsAnError) {
    std::uint64_t size = 99;
    EXPECT_FALSE(client().writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        std::nullopt, "/p/Icon.png", &size, "a", mobile));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(journal(), Lines{"error: no icon data for 'a'"});
}

TEST_F(PlaceholderParts, IconWithoutASingleByteIsWrittenAllTheSame) {
    std::uint64_t size = 99;
    EXPECT_TRUE(client().writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        Data(), "/p/Icon.png", &size, "a", mobile));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(world.files.bytesAt("/p/Icon.png"), "");
}

TEST_F(PlaceholderParts, IconThatCannotBeWrittenHasNoSize) {
    std::uint64_t size = 99;
    world.faults.fail("files.createFile");
    EXPECT_FALSE(client().writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        Data("bytes"), "/p/Icon.png", &size, "a", mobile));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(journal(), (Lines{"files.createFile(/p/Icon.png, owner mobile, group mobile)",
                                "log: icon data for 'a' was writen to /p/Icon.png with status:0 fileSize:0"}));
}

TEST_F(PlaceholderParts, IconThatCannotBeMeasuredHasNoSize) {
    std::uint64_t size = 99;
    world.faults.fail("files.attributesOfItem");
    EXPECT_TRUE(client().writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        Data("bytes"), "/p/Icon.png", &size, "a", mobile));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(journal().back(), "log: icon data for 'a' was writen to /p/Icon.png with status:1 fileSize:0");
}

TEST_F(PlaceholderParts, SizeNeedNotBeAskedFor) {
    EXPECT_TRUE(client().writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        Data("bytes"), "/p/Icon.png", nullptr, "a", mobile));
    EXPECT_EQ(journal().back(), "log: icon data for 'a' was writen to /p/Icon.png with status:1 fileSize:5");
}

// The whole placeholder.

class OwnPlaceholder : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        start(false);
        world.files.putPlist("/work/Info.plist",
                             Dictionary{{"UIWendralApp", "weekly"}, {"PDApplicationLaunchProhibited", true}});
        world.files.put("/work/icon.png", "icon");
        asset = makeAsset("a");
        asset->infoPlist = "/work/Info.plist";
        asset->icon = FileURL::fileURLWithPath("/work/icon.png", false);
        asset->variantOptions = Dictionary{{"Version", "1.0"}};
    }
    Lines create() {
        client()._createPlaceHolderApplication(asset);
        return journal();
    }
    const std::string bundle = "/tmp/com.zuvex.qrd.Apps/a.app";
    const std::string infoText = "{BXBundleIdentifier = a; BXBundleVersion = 1.0; BXBundleExecutable = Name; "
                                 "BXBundleDisplayName = Name; BXBundleIconFile = Icon.png; UIWendralApp = weekly; "
                                 "PDApplicationLaunchProhibited = 1;}";
    const Lines read{"log: plist /work/Info.plist", "files.readFile(/work/Info.plist)", "plist.parse()"};
    const Lines directory{"files.createDirectory(" + bundle + ", with intermediates, owner mobile, group mobile)",
                          "log: Created app directory for 'a' at " + bundle + " with err=(null)"};
    const Lines icon{"files.copyItem(/work/icon.png to " + bundle + "/Icon.png)"};
    const Lines info{"plist.serialise(xml)", "files.writeFileAtomically(" + bundle + "/Info.plist)"};
    const Lines install{"log: creating placeholder for '" + bundle + "'. info.plist=" + infoText,
                        "registry.installPlaceholder(file://" + bundle +
                            "/, {PackageType = Placeholder; BXBundleIdentifier = a; PDInstallType = 4;})"};
    static std::string transaction(bool success, const std::string& description) {
        return std::string("transactions.logScenario(\"Install placeholder\", step 0, success ") +
               (success ? "1" : "0") + ", a, \"" + description + "\")";
    }
    QRAssetPtr asset;
};

TEST_F(OwnPlaceholder, IsBuiltAndInstalled) {
    EXPECT_EQ(create(),
              (join({read,
                     directory,
                     icon,
                     info,
                     install,
                     {"log: Installed Placeholder app from path " + bundle + ": Name [a 1.0] [isWendral: weekly]",
                      transaction(true, "Installed placeholder")}})));
    EXPECT_EQ(world.files.bytesAt(bundle + "/Icon.png"), "icon");
    const auto written = world.files.plistAt(bundle + "/Info.plist");
    EXPECT_EQ(written->description(), infoText);
}

TEST_F(OwnPlaceholder, SaysWhenItCannotBeInstalled) {
    world.faults.fail("registry.installPlaceholder");
    EXPECT_EQ(
        create(),
        (join({read,
               directory,
               icon,
               info,
               install,
               {"error: Placeholder app install failed from path " + bundle + ": Name [a 1.0] [isWendral: weekly]",
                transaction(false, "Failed to install placeholder")}})));
}

TEST_F(OwnPlaceholder, IsNotMadeWithoutNameOrIdentifier) {
    asset->prettyName = "";
    EXPECT_EQ(create(), read);
    asset->prettyName = std::nullopt;
    EXPECT_EQ(create(), read);
    asset->prettyName = "Name";
    asset->identifier = "";
    EXPECT_EQ(create(), read);
}

TEST_F(OwnPlaceholder, IsNotMadeWithoutItsDirectory) {
    world.faults.fail("files.createDirectory");
    EXPECT_EQ(create().back(), "log: Created app directory for 'a' at " + bundle + " with err=TestDomain 7");
}

TEST_F(OwnPlaceholder, IsNotMadeWhereAnIdentifierLeadsOutOfTheFolderOfPlaceholders) {
    asset->identifier = "../x";
    EXPECT_EQ(
        create(),
        (join({read,
               {"transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, ../x, \"Failed to create app "
                "directory\")",
                "log: Created app directory for '../x' at /tmp/com.zuvex.qrd.Apps/../x.app with err=POSIX 22"}})));
    asset->identifier = "..x";
    EXPECT_EQ(create().back().find("success 0"), std::string::npos) << "a name may begin with dots";
}

TEST_F(OwnPlaceholder, IsMadeWithoutAnIconThatCannotBeCopied) {
    world.faults.fail("files.copyItem");
    EXPECT_EQ(
        create(),
        (join({read,
               directory,
               {icon[0], "error: Copying icon from /work/icon.png to " + bundle + "/Icon.png failed: TestDomain 7"},
               info,
               install,
               {"log: Installed Placeholder app from path " + bundle + ": Name [a 1.0] [isWendral: weekly]",
                transaction(true, "Installed placeholder")}})));
}

TEST_F(OwnPlaceholder, IsMadeWithoutAnIconThatTheAssetDoesNotHave) {
    asset->icon = std::nullopt;
    const Lines lines = create();
    EXPECT_EQ(std::ranges::count(lines, icon[0]), 0);
    EXPECT_EQ(lines.back(), transaction(true, "Installed placeholder"));
}

TEST_F(OwnPlaceholder, IsNotInstalledWithoutItsInfo) {
    world.faults.fail("files.writeFileAtomically");
    EXPECT_EQ(create(), (join({read, directory, icon, info})));
    world.faults.fail("plist.serialise");
    EXPECT_EQ(create(), (join({read, directory, icon, {"plist.serialise(xml)"}})));
}

TEST_F(OwnPlaceholder, DoesWithoutTheAppsInfoAndVersion) {
    asset->infoPlist = std::nullopt;
    asset->variantOptions = std::nullopt;
    const Lines lines = create();
    EXPECT_EQ(lines.front(), "log: plist (null)");
    EXPECT_EQ(lines.at(lines.size() - 2),
              "log: Installed Placeholder app from path " + bundle + ": Name [a (null)] [isWendral: 0]");
    EXPECT_EQ(world.files.plistAt(bundle + "/Info.plist")->description(),
              "{BXBundleIdentifier = a; BXBundleExecutable = Name; BXBundleDisplayName = Name; BXBundleIconFile = "
              "Icon.png; UIWendralApp = 0; PDApplicationLaunchProhibited = 0;}");
}

TEST_F(OwnPlaceholder, TakesOnlyWhatItUnderstandsFromTheAppsInfo) {
    world.files.putPlist("/work/Info.plist", Dictionary{{"UIWendralApp", 3}, {"PDApplicationLaunchProhibited", "yes"}});
    create();
    const auto written = world.files.plistAt(bundle + "/Info.plist");
    EXPECT_EQ(*written->dictionary()->find("UIWendralApp"), Value(3));
    EXPECT_EQ(*written->dictionary()->find("PDApplicationLaunchProhibited"), Value(false));
    world.files.putPlist("/work/Info.plist", Array{"UIWendralApp"});
    create();
    EXPECT_EQ(*world.files.plistAt(bundle + "/Info.plist")->dictionary()->find("UIWendralApp"), Value(false));
}

// Queries.

class PlaceholderQueries : public inmemory::ClientTest {};

TEST_F(PlaceholderQueries, FindAPlaceholderWithoutTheCoordinator) {
    start(false);
    world.registry.addInstalled("a");
    world.registry.addPlaceholder("b");
    EXPECT_TRUE(client()._placeholderExistsForApplication("b"));
    EXPECT_EQ(journal(), (Lines{"registry.enumerateBundlesOfType(1)", "log: Found placeholder for bundle b"}));
    EXPECT_FALSE(client()._placeholderExistsForApplication("c"));
    EXPECT_EQ(journal(), Lines{"registry.enumerateBundlesOfType(1)"});
}

TEST_F(PlaceholderQueries, TakeAnInstalledAppForAPlaceholder) {
    start(false);
    world.registry.addInstalled("a");
    EXPECT_TRUE(client()._placeholderExistsForApplication("a"));
    EXPECT_EQ(journal(), (Lines{"registry.enumerateBundlesOfType(1)", "log: Found placeholder for bundle a"}));
}

TEST_F(PlaceholderQueries, KnowAnAppByItsBundleIdentifier) {
    start(false);
    world.registry.addPlaceholder("b")->registeredAs = "restore.b";
    const auto system = world.registry.addPlaceholder("s");
    system->registeredAs = "restore.s";
    system->kind = "System";
    EXPECT_TRUE(client()._placeholderExistsForApplication("b"));
    EXPECT_FALSE(client()._placeholderExistsForApplication("restore.b"));
    EXPECT_EQ(client()._getSystemAppPlaceholders(), std::set<std::string>{"s"});
}

TEST_F(PlaceholderQueries, StopAtTheFirstFind) {
    start(false);
    world.registry.addPlaceholder("b");
    world.registry.addPlaceholder("b");
    EXPECT_TRUE(client()._placeholderExistsForApplication("b"));
    EXPECT_EQ(world.journal.count("log: Found placeholder for bundle b"), 1u);
}

TEST_F(PlaceholderQueries, FindNoneWithTheCoordinator) {
    start(true);
    world.registry.addPlaceholder("b");
    EXPECT_FALSE(client()._placeholderExistsForApplication("b"));
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(PlaceholderQueries, VisitPlaceholdersUntilTheyAreStopped) {
    start();
    world.registry.addInstalled("a");
    world.registry.addPlaceholder("b");
    world.registry.addPlaceholder("c");
    world.registry.addPlaceholder("d");
    Lines visited;
    client()._enumeratePlaceholdersWithBlock([&](const PDApplicationProxyPtr& proxy, bool& stop) {
        visited.push_back(proxy->bundleIdentifier());
        stop = proxy->bundleIdentifier() == "c";
    });
    EXPECT_EQ(visited, (Lines{"b", "c"}));
    EXPECT_EQ(journal(), Lines{"registry.enumerateBundlesOfType(0)"});
}

TEST_F(PlaceholderQueries, CollectSystemAppPlaceholders) {
    start();
    world.registry.addPlaceholder("user");
    world.registry.addPlaceholder("system2")->kind = "System";
    world.registry.addPlaceholder("system1")->kind = "System";
    world.registry.addInstalled("installed")->kind = "System";
    EXPECT_EQ(client()._getSystemAppPlaceholders(), (std::set<std::string>{"system1", "system2"}));
    EXPECT_EQ(journal(),
              (Lines{"registry.enumerateBundlesOfType(7)", "log: SystemAppPlaceholders (system1, system2)"}));
}

TEST_F(PlaceholderQueries, GoByTheStateOfAnApp) {
    start();
    for (const std::string& kind : {std::string("User"), std::string("System")}) {
        const auto named = world.registry.addPlaceholder("named" + kind);
        named->placeholderByState = false;
        const auto hidden = world.registry.addInstalled("hidden" + kind);
        hidden->placeholderByState = true;
        named->kind = hidden->kind = kind;
    }
    Lines visited;
    client()._enumeratePlaceholdersWithBlock(
        [&](const PDApplicationProxyPtr& proxy, bool&) { visited.push_back(proxy->bundleIdentifier()); });
    EXPECT_EQ(visited, (Lines{"hiddenUser", "hiddenSystem"}));
    EXPECT_EQ(client()._getSystemAppPlaceholders(), std::set<std::string>{"hiddenSystem"});
}

} // namespace
} // namespace appsync
