// The placeholder of a restored app.
#include "tests/plugin/coordination/RestoreFixture.h"

namespace appsync {
namespace {

class RestorePlaceholder : public RestoreFixture {
  protected:
    KXPlaceholderPtr make(std::uint64_t demotionStatus = 0) {
        return client()._placeHolderForBundleIdentifier_withTamblinMetadata_sinfData_iconData_demotionStatus(
            "a", metadata, sinfData, iconData, demotionStatus);
    }
    /// The name under which the placeholder is made.
    std::string nameMade() {
        journal();
        EXPECT_NE(make(), nullptr);
        const Lines lines = world.journal.linesWith("placeholders.init(");
        return lines.size() == 1 ? lines[0] : "";
    }
    /// The attributes that the placeholder is given.
    std::string attributesSetOnIt() {
        journal();
        EXPECT_NE(make(), nullptr);
        const Lines lines = world.journal.linesWith("placeholder(a).setPlaceholderAttributes(");
        return lines.size() == 1 ? lines[0] : "";
    }
    static std::string attributesLine(const std::string& facts) { return attributesSet("<" + facts + ">").front(); }

    const Lines cancelled{"placeholder(a).cancel(QRError 29, client 3)"};
};

TEST_F(RestorePlaceholder, HasIconAttributesMetadataAndProtectionRecord) {
    const auto placeholder = make();
    ASSERT_NE(placeholder, nullptr);
    EXPECT_EQ(placeholder->description(), "<placeholder a>");
    EXPECT_EQ(journal(), wholePlaceholder(2));
    EXPECT_EQ(world.files.bytesAt(iconPath), "four");
}

TEST_F(RestorePlaceholder, ItsInstallTypeTellsHowTheAppWasDemoted) {
    const struct {
        std::uint64_t demotionStatus;
        int installType;
    } cases[] = {{0, 2}, {1, 8}, {2, 7}, {3, 2}, {18446744073709551615U, 2}};
    for (const auto& [demotionStatus, installType] : cases) {
        EXPECT_NE(make(demotionStatus), nullptr);
        EXPECT_EQ(journal(), wholePlaceholder(installType)) << demotionStatus;
    }
}

// What it reads from the store metadata.

TEST_F(RestorePlaceholder, IsNamedByTheTitleElseTheItemNameElseTheIdentifier) {
    metadata = {{"itemName", "Item"}, {"title", "Title"}};
    EXPECT_EQ(nameMade(), "placeholders.init(Title, a, install type 2, client 3)");
    metadata = {{"itemName", "Item"}};
    EXPECT_EQ(nameMade(), "placeholders.init(Item, a, install type 2, client 3)");
    metadata = {};
    EXPECT_EQ(nameMade(), "placeholders.init(a, a, install type 2, client 3)");
}

TEST_F(RestorePlaceholder, IsNamedByNothingButText) {
    metadata = {{"title", 7}, {"itemName", "Item"}};
    EXPECT_EQ(nameMade(), "placeholders.init(Item, a, install type 2, client 3)");
    metadata = {{"title", Array{"Title"}}, {"itemName", Data("Item")}};
    EXPECT_EQ(nameMade(), "placeholders.init(a, a, install type 2, client 3)");
}

TEST_F(RestorePlaceholder, TakesTheLaunchFlagFromTheFirstKeyThatHasOne) {
    const struct {
        Dictionary metadata;
        bool prohibited;
    } cases[] = {{{}, false},
                 {{{"PDApplicationLaunchProhibited", true}}, true},
                 {{{"PDApplicationLaunchProhibited", false}}, false},
                 {{{"launchProhibited", true}}, true},
                 {{{"launchProhibited", false}}, false},
                 {{{"PDApplicationLaunchProhibited", false}, {"launchProhibited", true}}, false},
                 {{{"PDApplicationLaunchProhibited", true}, {"launchProhibited", false}}, true},
                 {{{"PDApplicationLaunchProhibited", 1}}, true},
                 {{{"PDApplicationLaunchProhibited", "true"}, {"launchProhibited", true}}, true},
                 {{{"PDApplicationLaunchProhibited", "true"}}, false},
                 {{{"launchProhibited", Dictionary{}}}, false}};
    for (const auto& [given, prohibited] : cases) {
        metadata = given;
        EXPECT_EQ(attributesSetOnIt(), attributesLine(std::string("launchProhibited=") + (prohibited ? "1" : "0") +
                                                      " bundleVersion=(null) infoPlist=(null)"))
            << Value(given).description();
    }
}

TEST_F(RestorePlaceholder, HasNoVersionThatIsNotText) {
    metadata = {{"bundleVersion", 3}};
    EXPECT_EQ(attributesSetOnIt(), attributesLine("launchProhibited=0 bundleVersion=(null) infoPlist=(null)"));
}

// What may be missing.

TEST_F(RestorePlaceholder, CompletesWithoutProtectionRecord) {
    sinfData = std::nullopt;
    EXPECT_NE(make(), nullptr);
    EXPECT_EQ(journal(),
              join({directory, icon, madePlaceholder(2), iconPromise, attributes, storeMetadata, configured}));
}

TEST_F(RestorePlaceholder, CompletesWithoutIcon) {
    iconData = std::nullopt;
    EXPECT_NE(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               {"error: no icon data for 'a'"},
                               madePlaceholder(2),
                               attributes,
                               storeMetadata,
                               sinfSet,
                               configured}));
}

TEST_F(RestorePlaceholder, PromisesNoIconThatHasNoBytes) {
    iconData = Data("");
    EXPECT_NE(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               {icon[0], icon[1],
                                "log: icon data for 'a' was writen to " + iconPath + " with status:1 fileSize:0"},
                               madePlaceholder(2),
                               attributes,
                               storeMetadata,
                               sinfSet,
                               configured}));
}

TEST_F(RestorePlaceholder, PromisesNoIconThatCouldNotBeWritten) {
    world.faults.fail("files.createFile");
    EXPECT_NE(make(), nullptr);
    EXPECT_EQ(journal(),
              join({directory,
                    {icon[0], "log: icon data for 'a' was writen to " + iconPath + " with status:0 fileSize:0"},
                    madePlaceholder(2),
                    attributes,
                    storeMetadata,
                    sinfSet,
                    configured}));
}

// What ends it.

TEST_F(RestorePlaceholder, IsNotMadeWithoutItsDirectory) {
    world.faults.fail("files.createDirectory");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), (Lines{createDirectory,
                                "transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, a, \"Failed to "
                                "create app directory\")",
                                "log: Created app directory for 'a' at " + directoryPath + " with err=TestDomain 7"}));
}

TEST_F(RestorePlaceholder, EndsWhereNoPlaceholderCanBeCreated) {
    world.faults.fail("placeholders.init");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               icon,
                               {step(4, 1, true, "Create placeholder"), madePlaceholder(2)[1],
                                "log: Created placeholder (null) for 'a' of type 2",
                                step(4, 2, false, "Finished creating placeholder")}}));
}

TEST_F(RestorePlaceholder, IsCancelledWhenItsIconCannotBePromised) {
    world.faults.fail("promises.transfer");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), join({directory, icon, madePlaceholder(2), {iconPromise[0]}, cancelled}));
}

TEST_F(RestorePlaceholder, IsCancelledWhenItTakesNoIcon) {
    world.faults.fail("placeholder.setIconPromise");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               icon,
                               madePlaceholder(2),
                               {iconPromise[0], iconPromise[1], iconPromise[2], iconPromise[3],
                                "error: Error TestDomain 7 adding icon promise to placeholder for 'a'",
                                "promise(a-Icon).cancel(QRError 29, client 3)"},
                               cancelled}));
}

TEST_F(RestorePlaceholder, IsCancelledWhenItTakesNoAttributes) {
    world.faults.fail("placeholder.setPlaceholderAttributes");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               icon,
                               madePlaceholder(2),
                               iconPromise,
                               {attributes[0], "error: Error TestDomain 7 setting placeholder attributes for 'a'"},
                               cancelled}));
}

TEST_F(RestorePlaceholder, IsCancelledWhenItTakesNoStoreMetadata) {
    world.faults.fail("placeholder.setMetadata");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               icon,
                               madePlaceholder(2),
                               iconPromise,
                               attributes,
                               {storeMetadata[0], "error: Error TestDomain 7 setting store metadata for 'a'"},
                               cancelled}));
}

TEST_F(RestorePlaceholder, IsCancelledWhenItTakesNoProtectionRecord) {
    world.faults.fail("placeholder.setSinfData");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(), join({directory,
                               icon,
                               madePlaceholder(2),
                               iconPromise,
                               attributes,
                               storeMetadata,
                               {sinfSet[0], "error: Error TestDomain 7 setting SINF data for 'a'"},
                               cancelled}));
}

TEST_F(RestorePlaceholder, IsCancelledWhenItCannotBeCompleted) {
    world.faults.fail("placeholder.setConfigurationComplete");
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(journal(),
              join({directory,
                    icon,
                    madePlaceholder(2),
                    iconPromise,
                    attributes,
                    storeMetadata,
                    sinfSet,
                    {configured[0], "error: Error TestDomain 7 setting placeholder configuration as complete for 'a'"},
                    cancelled}));
}

} // namespace
} // namespace appsync
