#include "RegistryFixture.h"

#include <filesystem>

namespace appsync::device {
namespace {

TEST_F(RegistryTest, PlaceholderBundleMovesIntoAContainer) {
    const auto made = placeholder(identifier, PDInstallTypeRestore);
    const auto installed = registry().installPlaceholder(made);
    ASSERT_TRUE(installed) << errorText(installed.error());
    EXPECT_FALSE(files().fileExists(made.bundlePath));
    const auto app = registry().application(identifier);
    ASSERT_TRUE(app);
    EXPECT_FALSE(app->isInstalled);
    EXPECT_TRUE(app->isPlaceholder);
    EXPECT_EQ(app->name, "Waiting");
    EXPECT_EQ(app->version, "0.9");
    EXPECT_EQ(app->installType, PDInstallTypeRestore);
    EXPECT_EQ(app->bundlePath, app->containerPath + "/org.example.app.app");
    EXPECT_EQ(content(app->bundlePath + "/Icon.png"), "waiting icon");
    EXPECT_FALSE(app->progress);
    EXPECT_EQ(staged(), std::vector<std::string>());
}

TEST_F(RegistryTest, PlaceholderIsThereAfterReopening) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder(identifier, PDInstallTypeDowngrade)));
    open();
    ASSERT_TRUE(registry().settle());
    const auto app = registry().application(identifier);
    ASSERT_TRUE(app);
    EXPECT_TRUE(app->isPlaceholder);
    EXPECT_FALSE(app->isInstalled);
    EXPECT_EQ(app->installType, PDInstallTypeDowngrade);
}

TEST_F(RegistryTest, PlaceholderKeepsMetadataAndSinf) {
    auto made = placeholder();
    made.metadata = Data("metadata");
    made.sinf = Data("sinf");
    ASSERT_TRUE(registry().installPlaceholder(made));
    const std::string container = registry().application(identifier)->containerPath;
    EXPECT_EQ(content(container + "/TamblinMetadata.plist"), "metadata");
    EXPECT_EQ(content(container + "/ApplicationSINF"), "sinf");
}

TEST_F(RegistryTest, PlaceholderCanBeBuiltFromItsParts) {
    ASSERT_TRUE(files().createFile("/tmp/an-icon.png", "drawn", {}));
    PlaceholderRequest made;
    made.identifier = identifier;
    made.info = {{"BXBundleDisplayName", "Built"}, {"BXBundleVersion", "3.1"}};
    made.iconPath = "/tmp/an-icon.png";
    made.installType = PDInstallTypeSync;
    const auto installed = registry().installPlaceholder(made);
    ASSERT_TRUE(installed) << errorText(installed.error());
    const auto app = *registry().application(identifier);
    EXPECT_EQ(app.name, "Built");
    EXPECT_EQ(app.version, "3.1");
    EXPECT_EQ(content(*app.iconPath), "drawn");
    const auto info = device->codec.propertyListWithData(content(app.bundlePath + "/Info.plist"), nullptr);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->dictionary()->string("BXBundleIdentifier"), identifier);
    EXPECT_EQ(info->dictionary()->string("BXBundleIconFile"), "Icon.png");
    EXPECT_TRUE(files().fileExists("/tmp/an-icon.png"));
}

TEST_F(RegistryTest, PlaceholderCanShareItsIcon) {
    ASSERT_TRUE(files().createFile("/tmp/an-icon.png", "drawn", {}));
    PlaceholderRequest made;
    made.identifier = identifier;
    made.iconPath = "/tmp/an-icon.png";
    made.sharesIcon = true;
    ASSERT_TRUE(registry().installPlaceholder(made));
    const auto app = registry().application(identifier);
    EXPECT_EQ(content(*app->iconPath), "drawn");
    EXPECT_TRUE(std::filesystem::equivalent(device->root->hostPath(*app->iconPath),
                                            device->root->hostPath("/tmp/an-icon.png")));
}

TEST_F(RegistryTest, PlaceholderWhoseIconIsMissingIsStillThere) {
    for (const bool sharesIcon : {false, true}) {
        PlaceholderRequest made;
        made.identifier = identifier;
        made.iconPath = "/tmp/missing.png";
        made.sharesIcon = sharesIcon;
        ASSERT_TRUE(registry().installPlaceholder(made));
        EXPECT_EQ(registry().application(identifier)->name, identifier);
        EXPECT_EQ(registry().application(identifier)->iconPath, std::nullopt);
    }
}

TEST_F(RegistryTest, PlaceholderStandsBesideTheInstalledVersion) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    const auto app = *registry().application(identifier);
    EXPECT_TRUE(app.isInstalled);
    EXPECT_TRUE(app.isPlaceholder);
    EXPECT_EQ(app.version, "1.0");
    EXPECT_EQ(content(app.bundlePath + "/Name"), "executable of org.example.app 1.0");
    EXPECT_EQ(app.installType, PDInstallTypeSync);
    EXPECT_EQ(registry().applications().size(), 1U);
    EXPECT_EQ(containers().size(), 2U);
    ASSERT_TRUE(install(identifier, "2.0"));
    EXPECT_FALSE(registry().hasPlaceholder(identifier));
    EXPECT_EQ(registry().application(identifier)->version, "2.0");
    EXPECT_EQ(containers().size(), 1U);
}

TEST_F(RegistryTest, NewPlaceholderReplacesTheOld) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder(identifier, PDInstallTypeSync)));
    ASSERT_TRUE(registry().installPlaceholder(placeholder(identifier, PDInstallTypeRestore)));
    EXPECT_EQ(registry().application(identifier)->installType, PDInstallTypeRestore);
    EXPECT_EQ(containers().size(), 1U);
    EXPECT_EQ(registry().applications().size(), 1U);
}

TEST_F(RegistryTest, BadPlaceholderBundleIsRefusedAndLeftInItsPlace) {
    auto made = placeholder();
    const auto refuse = [&] {
        const auto failed = registry().installPlaceholder(made);
        EXPECT_FALSE(failed);
        EXPECT_EQ(failed.error()->code(), code(InstallerError::placeholderInvalid));
        EXPECT_EQ(failed.error()->userInfo().string(errorPathKey), made.bundlePath);
        EXPECT_FALSE(registry().application(identifier));
        EXPECT_EQ(staged(), std::vector<std::string>());
        EXPECT_EQ(containers(), std::vector<std::string>());
        return errorText(failed.error());
    };
    ASSERT_TRUE(files().createFile(made.bundlePath + "/Info.plist", "garbage", {}));
    EXPECT_NE(refuse().find("its Info.plist cannot be read"), std::string::npos);
    ASSERT_TRUE(files().createFile(made.bundlePath + "/Info.plist", infoList("org.example.other"), {}));
    EXPECT_NE(refuse().find("its Info.plist is that of \"org.example.other\""), std::string::npos);
    ASSERT_TRUE(files().removeItem(made.bundlePath + "/Info.plist", nullptr));
    EXPECT_NE(refuse().find("No such file or directory"), std::string::npos);
    EXPECT_TRUE(files().fileExists(made.bundlePath + "/Icon.png"));
    made.bundlePath = "/tmp/missing.app";
    (void)refuse();
}

TEST_F(RegistryTest, FailureOfABuiltPlaceholderNamesTheFileAndTheReason) {
    PlaceholderRequest made;
    made.identifier = identifier;
    faults->forget();
    faults->failAt = 2; // after the container and the bundle's folder
    faults->failure = ENOSPC;
    const auto installed = registry().installPlaceholder(made);
    faults->failAt = -1;
    ASSERT_FALSE(installed);
    const std::string text = errorText(installed.error());
    EXPECT_NE(text.find("/org.example.app.app/Info.plist: No space left on device"), std::string::npos) << text;
    EXPECT_EQ(staged(), std::vector<std::string>());
}

TEST_F(RegistryTest, FailureOfAnyStepLeavesTheBundleInItsPlaceOrInstalled) {
    const auto made = placeholder();
    for (int step = 0;; ++step) {
        ASSERT_LT(step, 30);
        faults->forget();
        faults->failAt = step;
        faults->failure = EIO;
        const auto installed = registry().installPlaceholder(made);
        faults->failAt = -1;
        EXPECT_EQ(staged(), std::vector<std::string>()) << step;
        if (installed) {
            break;
        }
        EXPECT_FALSE(registry().application(identifier)) << step;
        EXPECT_EQ(content(made.bundlePath + "/Icon.png"), "waiting icon") << step;
        EXPECT_EQ(containers(), std::vector<std::string>()) << step;
    }
    EXPECT_TRUE(registry().hasPlaceholder(identifier));
}

TEST_F(RegistryTest, APlaceholderWhoseCommitHasFailedAndMayStandAllTheSameIsKeptUntilTheNextStart) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder(identifier, PDInstallTypeIntentionalDowngrade)));
    const auto before = containers();
    const std::string databasePath = device->root->databasePath();
    faults->failBelow = {databasePath};
    faults->failure = EIO;
    EXPECT_FALSE(registry().installPlaceholder(placeholder()));
    faults->failBelow = {};
    EXPECT_EQ(containers().size(), 2U);
    open();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(containers(), before);
    EXPECT_EQ(registry().application(identifier)->installType, PDInstallTypeIntentionalDowngrade);
}

} // namespace
} // namespace appsync::device
