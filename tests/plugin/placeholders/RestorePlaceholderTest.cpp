// The plug-in's own placeholder for a restored app.
#include "tests/inmemory/ClientTest.h"

#include <algorithm>

namespace appsync {
namespace {

using inmemory::Lines;

class RestorePlaceholder : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(false); }
    static Data plist(const Value& value) {
        return *PropertyListCodec().dataWithPropertyList(value, PropertyListFormat::binary, nullptr);
    }
    bool process(const Data& bytes) {
        return client()._processTamblinRestoreInfoForApp_tamblinMetaData_sinfData_iconData("a", bytes, sinf, icon);
    }
    bool process() { return process(plist(metadata)); }
    /// The Info file of the placeholder, as it prints.
    std::string writtenInfo() const { return world.files.plistAt(bundle + "/Info.plist")->description(); }
    static std::string transaction(bool success, const std::string& description) {
        return std::string("transactions.logScenario(\"Tamblin App Restore\", step 0, success ") +
               (success ? "1" : "0") + ", a, \"" + description + "\")";
    }
    /// What is said and recorded of a failure.
    Lines failure(const std::string& description) const {
        return {transaction(false, description),
                "log: failed to process app restore info for 'a'. tamblinMetadataDictionary=" +
                    Value(metadata).description()};
    }

    Dictionary metadata{{"bundleVersion", "1.0"}, {"title", "Name"}, {"UIWendralApp", "weekly"}};
    std::optional<Data> sinf = Data("sinf");
    std::optional<Data> icon = Data("picture");
    const std::string bundle = "/tmp/com.zuvex.qrd.Apps/a.app";
    const std::string infoText = "{BXBundleIdentifier = a; BXBundleVersion = 1.0; BXBundleExecutable = Name; "
                                 "BXBundleDisplayName = Name; BXBundleIconFile = Icon.png; UIWendralApp = weekly; "
                                 "PDApplicationLaunchProhibited = 0;}";
    const Lines parse{"log: processing app restore info for 'a'", "plist.parse()"};
    const Lines directory{"files.createDirectory(" + bundle + ", with intermediates, owner mobile, group mobile)",
                          "log: Created app directory for 'a' at " + bundle + " with err=(null)"};
    const Lines writeIcon{"files.createFile(" + bundle + "/Icon.png, owner mobile, group mobile)",
                          "files.attributesOfItem(" + bundle + "/Icon.png)",
                          "log: icon data for 'a' was writen to " + bundle + "/Icon.png with status:1 fileSize:7"};
    const Lines writeInfo{"log: creating placeholder for '" + bundle + "'. info.plist=" + infoText,
                          "plist.serialise(xml)", "files.writeFileAtomically(" + bundle + "/Info.plist)"};
    const std::string install = "registry.installPlaceholder(file://" + bundle +
                                "/, {PackageType = Placeholder; BXBundleIdentifier = a; PDInstallType = 2; "
                                "TamblinMetadata = " +
                                inmemory::wholeText(plist(metadata)) + "; ApplicationSINF = <sinf>;})";
};

TEST_F(RestorePlaceholder, IsInstalledWhateverItsTitleIs) {
    metadata.set("title", "N\x01\x1b[m\xEF\xBF\xBE"); // which XML cannot hold
    EXPECT_TRUE(process());
    EXPECT_EQ(world.files.plistAt(bundle + "/Info.plist")->dictionary()->string("BXBundleDisplayName"),
              "N\uFFFD\uFFFD[m\uFFFD");
}

TEST_F(RestorePlaceholder, IsBuiltAndInstalled) {
    EXPECT_TRUE(process());
    EXPECT_EQ(
        journal(),
        (join({parse,
               directory,
               writeIcon,
               writeInfo,
               {install, "log: Installed Placeholder app from path " + bundle + ": Name [a 1.0] [isWendral: weekly]",
                transaction(true, "Installed placeholder")}})));
    EXPECT_EQ(writtenInfo(), infoText);
    EXPECT_EQ(world.files.bytesAt(bundle + "/Icon.png"), "picture");
}

TEST_F(RestorePlaceholder, IsNotMadeOfMetadataThatCannotBeParsedWhichIsNoFailure) {
    for (const std::string& bytes :
         {std::string(), std::string("nonsense"), std::string(plist(metadata).bytes(), 0, 30)}) {
        ErrorPtr reason;
        EXPECT_EQ(PropertyListCodec().propertyListWithData(bytes, &reason), std::nullopt);
        EXPECT_TRUE(process(Data(bytes)));
        EXPECT_EQ(journal(), (join({parse,
                                    {"log: failed to parse tamblin metadata for 'a'. err=" + reason->description(),
                                     transaction(false, "Failed to parse tamblin metadata")}})));
    }
}

TEST_F(RestorePlaceholder, IsNotMadeOfMetadataThatIsNoDictionaryWhichIsNoFailure) {
    for (const Value& root : {Value(Array{"title"}), Value("title"), Value(5)}) {
        EXPECT_TRUE(process(plist(root)));
        EXPECT_EQ(journal(), (join({parse,
                                    {"log: failed to parse tamblin metadata for 'a'. err=(null)",
                                     transaction(false, "Failed to parse tamblin metadata")}})));
    }
}

TEST_F(RestorePlaceholder, RecordsItsMissingDirectoryTwice) {
    world.faults.fail("files.createDirectory");
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({parse,
                                {directory[0], transaction(false, "Failed to create app directory"),
                                 "log: Created app directory for 'a' at " + bundle + " with err=TestDomain 7",
                                 "log: failed to create app directory for 'a'. err=(null)"},
                                failure("Failed to create app directory")})));
}

TEST_F(RestorePlaceholder, IsBuiltWithoutIconBytes) {
    icon = std::nullopt;
    EXPECT_TRUE(process());
    EXPECT_EQ(
        journal(),
        (join({parse,
               directory,
               {"error: no icon data for 'a'"},
               writeInfo,
               {install, "log: Installed Placeholder app from path " + bundle + ": Name [a 1.0] [isWendral: weekly]",
                transaction(true, "Installed placeholder")}})));
}

TEST_F(RestorePlaceholder, IsBuiltWithoutAnIconThatCannotBeWritten) {
    world.faults.fail("files.createFile");
    EXPECT_TRUE(process());
    EXPECT_EQ(
        world.journal.count("log: icon data for 'a' was writen to " + bundle + "/Icon.png with status:0 fileSize:0"),
        1u);
    EXPECT_EQ(journal().back(), transaction(true, "Installed placeholder"));
}

TEST_F(RestorePlaceholder, IsNotInstalledWithoutItsInfo) {
    const Lines failed =
        join({{"log: failed to create placeholder info at " + bundle + "/Info.plist with info " + infoText},
              failure("Failed to create placeholder info")});
    world.faults.fail("files.writeFileAtomically");
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({parse, directory, writeIcon, writeInfo, failed})));
    world.faults.fail("plist.serialise");
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({parse, directory, writeIcon, {writeInfo[0], writeInfo[1]}, failed})));
}

TEST_F(RestorePlaceholder, SaysWhenItCannotBeInstalled) {
    world.faults.fail("registry.installPlaceholder");
    EXPECT_FALSE(process());
    EXPECT_EQ(journal(), (join({parse,
                                directory,
                                writeIcon,
                                writeInfo,
                                {install, "error: Placeholder app install failed from path " + bundle +
                                              ": Name [a 1.0] [isWendral: weekly]"},
                                failure("Failed to install placeholder")})));
}

TEST_F(RestorePlaceholder, HasNullNamesWhenTheMetadataHasNoTitleAndNoItemName) {
    metadata = {{"bundleVersion", "1.0"}};
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("log: creating"),
              Lines{"log: creating placeholder for '" + bundle +
                    "'. info.plist={BXBundleIdentifier = a; BXBundleVersion = 1.0; BXBundleExecutable = (null); "
                    "BXBundleDisplayName = (null); BXBundleIconFile = Icon.png; UIWendralApp = 0; "
                    "PDApplicationLaunchProhibited = 0;}"});
    EXPECT_EQ(world.journal.linesWith("log: Installed"),
              Lines{"log: Installed Placeholder app from path " + bundle + ": (null) [a 1.0] [isWendral: 0]"});
    EXPECT_EQ(writtenInfo(), "{BXBundleIdentifier = a; BXBundleVersion = 1.0; BXBundleIconFile = Icon.png; "
                             "UIWendralApp = 0; PDApplicationLaunchProhibited = 0;}");
}

TEST_F(RestorePlaceholder, HasANullVersionWhenTheMetadataHasNone) {
    metadata = {{"itemName", "Item"}};
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("log: Installed"),
              Lines{"log: Installed Placeholder app from path " + bundle + ": Item [a (null)] [isWendral: 0]"});
    EXPECT_EQ(writtenInfo(), "{BXBundleIdentifier = a; BXBundleExecutable = Item; BXBundleDisplayName = Item; "
                             "BXBundleIconFile = Icon.png; UIWendralApp = 0; PDApplicationLaunchProhibited = 0;}");
}

TEST_F(RestorePlaceholder, HasAllItsKeysWhenTheMetadataHasNone) {
    metadata = {};
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("log: creating"),
              Lines{"log: creating placeholder for '" + bundle +
                    "'. info.plist={BXBundleIdentifier = a; BXBundleVersion = (null); BXBundleExecutable = (null); "
                    "BXBundleDisplayName = (null); BXBundleIconFile = Icon.png; UIWendralApp = 0; "
                    "PDApplicationLaunchProhibited = 0;}"});
}

TEST_F(RestorePlaceholder, HasItsFlagsAsBooleans) {
    metadata = {};
    EXPECT_TRUE(process());
    const auto info = world.files.plistAt(bundle + "/Info.plist");
    for (const char* key : {"UIWendralApp", "PDApplicationLaunchProhibited"}) {
        EXPECT_EQ(info->dictionary()->find(key)->kind(), Value::Kind::boolean) << key;
    }
}

TEST_F(RestorePlaceholder, IsNamedByTheTitleBeforeTheItemName) {
    metadata = {{"itemName", "Item"}, {"title", "Title"}};
    process();
    EXPECT_EQ(world.journal.linesWith("log: Installed"),
              Lines{"log: Installed Placeholder app from path " + bundle + ": Title [a (null)] [isWendral: 0]"});
}

TEST_F(RestorePlaceholder, TakesValuesOfAnotherKindForMissing) {
    metadata = {{"bundleVersion", 2}, {"title", Array{}}, {"itemName", "Item"}, {"PDApplicationLaunchProhibited", "1"}};
    EXPECT_TRUE(process());
    EXPECT_EQ(world.journal.linesWith("log: Installed"),
              Lines{"log: Installed Placeholder app from path " + bundle + ": Item [a (null)] [isWendral: 0]"});
}

TEST_F(RestorePlaceholder, MayBeProhibitedToLaunchUnderTwoKeys) {
    const struct {
        Dictionary metadata;
        bool prohibited;
    } cases[] = {{{}, false},
                 {{{"launchProhibited", true}}, true},
                 {{{"launchProhibited", 1}}, true},
                 {{{"PDApplicationLaunchProhibited", true}}, true},
                 {{{"PDApplicationLaunchProhibited", true}, {"launchProhibited", false}}, true},
                 {{{"PDApplicationLaunchProhibited", false}, {"launchProhibited", true}}, false},
                 {{{"PDApplicationLaunchProhibited", "yes"}, {"launchProhibited", true}}, true},
                 {{{"launchProhibited", "yes"}}, false}};
    for (const auto& [given, prohibited] : cases) {
        metadata = given;
        EXPECT_TRUE(process());
        const auto info = world.files.plistAt(bundle + "/Info.plist");
        EXPECT_EQ(*info->dictionary()->find("PDApplicationLaunchProhibited"), Value(prohibited))
            << Value(given).description();
    }
}

TEST_F(RestorePlaceholder, IsInstalledWithNullForMissingProtectionData) {
    sinf = std::nullopt;
    EXPECT_TRUE(process());
    const Lines lines = world.journal.linesWith("registry.installPlaceholder");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines.front().ends_with(inmemory::wholeText(plist(metadata)) + "; ApplicationSINF = (null);})"))
        << lines.front();
}

} // namespace
} // namespace appsync
