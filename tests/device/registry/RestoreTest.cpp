// Placeholders of restores and of demoted apps.
#include "RegistryFixture.h"

#include <algorithm>

namespace appsync::device {
namespace {

using Strings = std::vector<std::string>;

class RestorePlaceholder : public RegistryTest {
  protected:
    void putRestored(const std::string& app = identifier) {
        PlaceholderRequest request = placeholder(app, PDInstallTypeRestore);
        request.metadata = Data("restored metadata");
        request.sinf = Data("restored record");
        ASSERT_TRUE(registry().installPlaceholder(request));
    }
    /// "application identifier|bundle identifier" of each proxy.
    Strings listed(bool coordinationIsEnabled, std::uint64_t type = PDBundleTypeAll) {
        ApplicationWorkspace own(registry(), nullptr, coordinationIsEnabled);
        Strings all;
        own.enumerateBundlesOfType_block(type, [&](const PDApplicationProxyPtr& proxy, bool&) {
            all.push_back(proxy->applicationIdentifier() + "|" + proxy->bundleIdentifier());
        });
        return all;
    }
    Application now() { return registry().application(identifier).value_or(Application{}); }
};

TEST_F(RestorePlaceholder, IsListedApartWithoutCoordination) {
    putRestored("r");
    ASSERT_TRUE(registry().installPlaceholder(placeholder("s", PDInstallTypeSync)));
    ASSERT_TRUE(install("i"));
    const Strings apart{"restore.r|r", "s|s", "i|i"};
    EXPECT_EQ(listed(false), apart);
    EXPECT_EQ(listed(false, PDBundleTypeInstalled), apart);
    EXPECT_EQ(listed(true), (Strings{"r|r", "s|s", "i|i"}));
}

TEST_F(RestorePlaceholder, HasItsOwnIdentifierEverywhereElse) {
    putRestored();
    ApplicationWorkspace own(registry(), nullptr, false);
    EXPECT_EQ(own.applicationProxyForIdentifier_placeholder(identifier, true)->applicationIdentifier(), identifier);
    PDApplicationProxyPtr entry;
    own.enumerateBundlesOfType_block(PDBundleTypeAll,
                                     [&](const PDApplicationProxyPtr& proxy, bool&) { entry = proxy; });
    const auto progress = own.installProgressForApplication_withPhase(entry, PDInstallPhaseLoading);
    ASSERT_NE(progress, nullptr) << "a listed proxy means the app";
    EXPECT_EQ(registry().existingProgress(identifier), progress);
}

TEST_F(RestorePlaceholder, StaysARestoreWhenTheSyncMakesItsOwn) {
    putRestored();
    PlaceholderRequest request = placeholder();
    request.metadata = Data("other metadata");
    ASSERT_TRUE(registry().installPlaceholder(request));
    EXPECT_EQ(now().installType, PDInstallTypeRestore);
    EXPECT_EQ(content(now().containerPath + "/TamblinMetadata.plist"), "restored metadata");
    EXPECT_EQ(content(now().containerPath + "/ApplicationSINF"), "restored record");
    EXPECT_EQ(containers().size(), 1U);
}

TEST_F(RestorePlaceholder, OfAnotherKindReplacesIt) {
    putRestored();
    PlaceholderRequest request = placeholder(identifier, PDInstallTypeDowngrade);
    request.metadata = Data("other metadata");
    ASSERT_TRUE(registry().installPlaceholder(request));
    EXPECT_EQ(now().installType, PDInstallTypeDowngrade);
    EXPECT_EQ(content(now().containerPath + "/TamblinMetadata.plist"), "other metadata");
    EXPECT_EQ(content(now().containerPath + "/ApplicationSINF"), "(missing)");
}

TEST_F(RestorePlaceholder, OfASyncAloneIsNone) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    EXPECT_EQ(now().installType, PDInstallTypeSync);
}

class DemotedPlaceholder : public RestorePlaceholder {
  protected:
    void SetUp() override {
        RestorePlaceholder::SetUp();
        ASSERT_TRUE(install());
        data = now().dataContainerPath;
        ASSERT_TRUE(files().createDirectory(data, true, std::nullopt, nullptr));
        ASSERT_TRUE(files().createFile(data + "/file", "data", {}));
    }
    Result<void> demote() {
        PlaceholderRequest request = placeholder(identifier, PDInstallTypeDowngrade);
        request.replacesApp = true;
        return registry().installPlaceholder(request);
    }
    std::string data;
};

TEST_F(DemotedPlaceholder, TakesTheAppsPlaceAndLeavesItsData) {
    ASSERT_TRUE(demote());
    for (const bool isReopened : {false, true}) {
        if (isReopened) {
            open();
        }
        EXPECT_FALSE(now().isInstalled);
        EXPECT_TRUE(now().isPlaceholder);
        EXPECT_EQ(containers().size(), 1U);
        EXPECT_EQ(content(data + "/file"), "data");
    }
}

TEST_F(DemotedPlaceholder, ThatCannotBeRegisteredLeavesTheApp) {
    PlaceholderRequest request = placeholder(identifier, PDInstallTypeDowngrade);
    request.replacesApp = true;
    request.bundlePath = "/tmp/nothing";
    EXPECT_FALSE(registry().installPlaceholder(request));
    EXPECT_TRUE(now().isInstalled);
    EXPECT_FALSE(now().isPlaceholder);
    EXPECT_EQ(containers().size(), 1U);
}

TEST_F(DemotedPlaceholder, WhenASyncTakesItBackLeavesTheDataForALaterInstall) {
    ASSERT_TRUE(demote());
    ASSERT_TRUE(registry().uninstall(identifier, RemovalReason::sync, RemovalScope::placeholderElseApp));
    EXPECT_EQ(content(data + "/file"), "data");
    ASSERT_TRUE(install());
    EXPECT_EQ(content(data + "/file"), "data");
}

TEST_F(DemotedPlaceholder, StaysWhenAnInstallIsTakenBackOfWhichThereIsNoPlaceholder) {
    ASSERT_TRUE(demote());
    EXPECT_FALSE(registry().uninstall(identifier, RemovalReason::sync, RemovalScope::placeholderOnly));
    EXPECT_TRUE(registry().hasPlaceholder(identifier));
}

TEST_F(DemotedPlaceholder, ComesBackWithItsDataWhenTheAppsReturnIsTakenBackOrCancelled) {
    const std::vector<std::function<bool()>> endings{
        [&] { return bool(registry().uninstall(identifier, RemovalReason::sync, RemovalScope::placeholderOnly)); },
        [&] { return bool(registry().uninstall(identifier, RemovalReason::sync, RemovalScope::placeholderElseApp)); },
        [&] { return registry().cancelInstall(identifier); }};
    ASSERT_TRUE(demote());
    for (const auto& end : endings) {
        registry().follow({.demotion = [](std::string_view) { return std::optional(PDInstallTypeDowngrade); }});
        ASSERT_TRUE(registry().installPlaceholder(placeholder()));
        ASSERT_NE(registry().progress(identifier), nullptr);
        EXPECT_TRUE(end());
        for (int look = 0; look < 2; ++look) { // as it is, and as it was written down
            EXPECT_EQ(registry().application(identifier)->installType, PDInstallTypeDowngrade);
            EXPECT_EQ(registry().application(identifier)->installState, std::nullopt);
            EXPECT_EQ(content(data + "/file"), "data");
            look == 0 ? open() : void();
        }
    }
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    EXPECT_TRUE(registry().uninstall(identifier, RemovalReason::person, RemovalScope::everything));
    EXPECT_FALSE(registry().application(identifier));
}

TEST_F(DemotedPlaceholder, GoesWithItsDataWhenAPersonRemovesIt) {
    ASSERT_TRUE(demote());
    ASSERT_TRUE(registry().uninstall(identifier, RemovalReason::person, RemovalScope::placeholderElseApp));
    EXPECT_FALSE(files().fileExists(data));
}

TEST_F(RestorePlaceholder, WhoFollowsIsToldWhenAnAppIsInstalledOrGone) {
    Strings told;
    registry().follow({.wasInstalled = [&](std::string_view app) { told.push_back("installed " + std::string(app)); },
                       .isGone = [&](std::string_view app) { told.push_back("gone " + std::string(app)); }});
    ASSERT_TRUE(install("a"));
    EXPECT_FALSE(registry().installArchive(request("damaged", "b")));
    putRestored("c");
    ASSERT_TRUE(registry().uninstall("c", RemovalReason::sync, RemovalScope::placeholderOnly));
    EXPECT_EQ(told, Strings{"installed a"});
    putRestored("c");
    ASSERT_TRUE(registry().uninstall("c", RemovalReason::person, RemovalScope::placeholderOnly));
    ASSERT_TRUE(registry().uninstall("a", RemovalReason::sync, RemovalScope::everything));
    EXPECT_EQ(told, (Strings{"installed a", "gone c", "gone a"}));
}

} // namespace
} // namespace appsync::device
