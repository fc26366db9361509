#include "RegistryFixture.h"

#include "device/root/Paths.h"

#include <filesystem>

namespace appsync::device {
namespace {

class Removal : public RegistryTest {
  protected:
    Result<void> remove(RemovalReason reason, RemovalScope scope) {
        return registry().uninstall(identifier, reason, scope);
    }
    void makeData() {
        const std::string data = "/var/mobile/Containers/Data/Application/" + std::string(identifier) + "/Documents";
        ASSERT_TRUE(files().createDirectory(data, true, std::nullopt, nullptr));
        ASSERT_TRUE(files().createFile(data + "/letter", "dear", {}));
        ASSERT_TRUE(files().createFile(data + "/other", "yours", {}));
    }
    bool hasData() { return files().fileExists(registry().application(identifier)->dataContainerPath); }
    std::vector<std::string> dataContainers() { return *files().list("/var/mobile/Containers/Data/Application"); }
};

TEST_F(Removal, TakesTheAppItsContainerAndItsData) {
    ASSERT_TRUE(install());
    makeData();
    EXPECT_TRUE(hasData());
    const auto removed = remove(RemovalReason::sync, RemovalScope::everything);
    ASSERT_TRUE(removed) << errorText(removed.error());
    EXPECT_FALSE(registry().application(identifier));
    EXPECT_EQ(containers(), std::vector<std::string>());
    EXPECT_EQ(dataContainers(), std::vector<std::string>());
    open();
    EXPECT_FALSE(registry().application(identifier));
}

TEST_F(Removal, OfNothingSaysSo) {
    const auto failed = remove(RemovalReason::sync, RemovalScope::everything);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::nothingToRemove));
    EXPECT_EQ(errorText(failed.error()), "cannot remove org.example.app: the device has no such app");
    ASSERT_TRUE(install());
    EXPECT_EQ(errorText(remove(RemovalReason::sync, RemovalScope::placeholderOnly).error()),
              "cannot remove org.example.app: the device has no placeholder of it");
    EXPECT_TRUE(registry().isInstalled(identifier));
}

TEST_F(Removal, OfAPlaceholderKeepsTheInstalledVersionAndItsData) {
    for (const RemovalScope scope : {RemovalScope::placeholderOnly, RemovalScope::placeholderElseApp}) {
        ASSERT_TRUE(install());
        makeData();
        ASSERT_TRUE(registry().installPlaceholder(placeholder()));
        ASSERT_TRUE(remove(RemovalReason::sync, scope));
        EXPECT_TRUE(registry().isInstalled(identifier));
        EXPECT_FALSE(registry().hasPlaceholder(identifier));
        EXPECT_TRUE(hasData());
        EXPECT_EQ(containers().size(), 1U);
    }
}

TEST_F(Removal, OfThePlaceholderElseTheAppTakesTheAppWhenThereIsNoPlaceholder) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::placeholderElseApp));
    EXPECT_FALSE(registry().application(identifier));
}

TEST_F(Removal, OfEverythingTakesBoth) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    EXPECT_FALSE(registry().application(identifier));
    EXPECT_EQ(containers(), std::vector<std::string>());
}

TEST_F(Removal, OfAPlaceholderWithoutAnAppTakesItsData) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder(identifier, PDInstallTypeIntentionalDowngrade)));
    makeData();
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    EXPECT_EQ(dataContainers(), std::vector<std::string>());
}

TEST_F(Removal, TakesDataThatCannotBeLookedAt) {
    ASSERT_TRUE(install());
    makeData();
    const std::string data = device->root->hostPath("/var/mobile/Containers/Data/Application/") + identifier;
    std::filesystem::remove_all(data);
    std::filesystem::create_symlink(identifier, data); // a link to itself
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    EXPECT_EQ(dataContainers(), std::vector<std::string>());
}

TEST_F(Removal, ByAPersonIsRememberedForTheDesktop) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(remove(RemovalReason::person, RemovalScope::everything));
    ASSERT_TRUE(removedApps());
    EXPECT_EQ(removedApps()->size(), 1U);
    EXPECT_TRUE(removedApps()->contains(identifier));
    open();
    EXPECT_TRUE(removedApps()->contains(identifier));
}

TEST_F(Removal, ByTheSyncIsNotRemembered) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    EXPECT_TRUE(removedApps()->empty());
}

TEST_F(Removal, OfAPlaceholderByAPersonIsNoDeletedApp) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    ASSERT_TRUE(remove(RemovalReason::person, RemovalScope::everything));
    EXPECT_TRUE(removedApps()->empty());
}

TEST_F(Removal, IsForgottenWhenTheAppComesBack) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(remove(RemovalReason::person, RemovalScope::everything));
    ASSERT_TRUE(install());
    EXPECT_TRUE(removedApps()->empty());
}

TEST_F(Removal, IsDurableBeforeTheFirstFileGoes) {
    ASSERT_TRUE(install());
    faults->forget();
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    EXPECT_EQ(faults->operations().front(), "commit");
    EXPECT_EQ(faults->operations()[1], "unlink");
}

TEST_F(Removal, ThatCannotBeRegisteredLeavesTheApp) {
    ASSERT_TRUE(install());
    faults->forget();
    faults->failAt = 0;
    faults->failure = EIO;
    const auto failed = remove(RemovalReason::person, RemovalScope::everything);
    faults->failAt = -1;
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::failed));
    EXPECT_NE(errorText(failed.error()).find("cannot remove org.example.app: "), std::string::npos);
    EXPECT_TRUE(registry().isInstalled(identifier));
    EXPECT_EQ(content(registry().application(identifier)->bundlePath + "/Name"), "executable of org.example.app 1.0");
    EXPECT_TRUE(removedApps()->empty());
}

TEST_F(Removal, WhoseFilesCannotGoIsFinishedWhenTheDeviceIsOpened) {
    ASSERT_TRUE(install());
    makeData();
    faults->forget();
    faults->failAt = 1; // the first file after the commit
    faults->failure = EIO;
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    faults->failAt = -1;
    EXPECT_EQ(containers().size(), 1U);
    open();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(containers(), std::vector<std::string>());
    EXPECT_EQ(dataContainers(), std::vector<std::string>());
}

TEST_F(Removal, WhoseDataCannotGoIsFinishedWhenTheDeviceIsOpened) {
    ASSERT_TRUE(install());
    makeData();
    faults->failBelow = {dataContainersFolder, stagingFolder};
    faults->failure = EIO;
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    faults->failBelow = {};
    ASSERT_EQ(containers(), std::vector<std::string>());
    ASSERT_EQ(dataContainers().size(), 1U);
    open();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(dataContainers(), std::vector<std::string>());
    faults->forget();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(faults->count(), 0U) << "nothing is left to do";
}

TEST_F(Removal, WhoseDataCannotGoLeavesTheDataOfAnAppThatHasComeBack) {
    for (const bool asPlaceholder : {false, true}) {
        ASSERT_TRUE(install());
        makeData();
        ASSERT_TRUE(files().createFile(dataContainerPath(identifier) + "/old", "old", {}));
        faults->failBelow = {dataContainersFolder, stagingFolder};
        faults->failure = EIO;
        ASSERT_TRUE(remove(RemovalReason::person, RemovalScope::everything));
        faults->failBelow = {};
        ASSERT_EQ(dataContainers().size(), 1U);
        ASSERT_TRUE(asPlaceholder ? registry().installPlaceholder(placeholder()) : install());
        ASSERT_TRUE(files().createFile(dataContainerPath(identifier) + "/new", "written since", {}));
        open();
        ASSERT_TRUE(registry().settle());
        EXPECT_EQ(content(dataContainerPath(identifier) + "/new"), "written since");
    }
}

TEST_F(Removal, TakesDataAsAWhole) {
    ASSERT_TRUE(install());
    makeData();
    faults->forget();
    ASSERT_TRUE(remove(RemovalReason::sync, RemovalScope::everything));
    const int changes = static_cast<int>(faults->count());
    for (int change = 0; change < changes; ++change) {
        SCOPED_TRACE(change);
        ASSERT_TRUE(install());
        makeData();
        faults->forget();
        faults->failAt = change;
        faults->failure = EIO;
        (void)remove(RemovalReason::sync, RemovalScope::everything);
        faults->failAt = -1;
        const std::string data = dataContainerPath(identifier);
        for (const char* file : {"/letter", "/other"}) {
            EXPECT_EQ(files().fileExists(data + "/Documents" + file), files().fileExists(data)) << file;
        }
        open();
        ASSERT_TRUE(registry().settle());
    }
    EXPECT_EQ(staged(), std::vector<std::string>());
}

class Settling : public RegistryTest {};

TEST_F(Settling, OfADeviceInOrderChangesNothing) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(registry().installPlaceholder(placeholder("org.example.waiting")));
    open();
    faults->forget();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(faults->count(), 0U);
    EXPECT_EQ(registry().applications().size(), 2U);
}

TEST_F(Settling, RemovesStagingFoldersAndContainersOfNoApp) {
    ASSERT_TRUE(install());
    for (const std::string path :
         {"/var/containers/Bundle/.staging/A/Name.app", "/var/containers/Bundle/Application/B/Name.app"}) {
        ASSERT_TRUE(files().createDirectory(path, true, std::nullopt, nullptr));
        ASSERT_TRUE(files().createFile(path + "/Info.plist", "half", {}));
    }
    open();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(staged(), std::vector<std::string>());
    EXPECT_EQ(containers().size(), 1U);
    EXPECT_TRUE(files().fileExists(registry().application(identifier)->bundlePath));
}

TEST_F(Settling, KeepsAnAppWhoseBundleCannotBeLookedAt) {
    ASSERT_TRUE(install());
    const std::string info = device->root->hostPath(registry().application(identifier)->bundlePath + "/Info.plist");
    std::filesystem::remove(info);
    std::filesystem::create_symlink("Info.plist",
                                    info); // a link to itself: there is something, and it cannot be opened
    open();
    faults->forget();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(faults->count(), 0U);
    EXPECT_TRUE(registry().isInstalled(identifier));
}

TEST_F(Settling, KeepsTheRecordsOfAppsThatAreAllAway) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(registry().installPlaceholder(placeholder("org.example.waiting")));
    const std::filesystem::path apps = device->root->hostPath("/var/containers/Bundle/Application");
    const std::filesystem::path away = apps.string() + ".away";
    std::filesystem::rename(apps, away);
    std::filesystem::create_directory(apps); // where a disk is to be mounted
    open();
    const auto settled = registry().settle();
    ASSERT_FALSE(settled);
    EXPECT_NE(errorText(settled.error()).find("/var/containers/Bundle/Application of the device is empty"),
              std::string::npos);
    std::filesystem::remove(apps);
    std::filesystem::rename(away, apps);
    open();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(registry().applications().size(), 2U);
    EXPECT_EQ(content(registry().application(identifier)->bundlePath + "/Name"), "executable of org.example.app 1.0");
}

TEST_F(Settling, DropsRecordsWhoseBundleIsGone) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(registry().installPlaceholder(placeholder("org.example.waiting")));
    ASSERT_TRUE(install("org.example.whole"));
    ASSERT_TRUE(files().removeItem(registry().application(identifier)->containerPath, nullptr));
    ASSERT_TRUE(files().removeItem(registry().application("org.example.waiting")->bundlePath + "/Info.plist", nullptr));
    open();
    ASSERT_TRUE(registry().settle());
    ASSERT_EQ(registry().applications().size(), 1U);
    EXPECT_EQ(containers().size(), 1U);
    open();
    EXPECT_EQ(registry().applications().size(), 1U);
    EXPECT_EQ(registry().applications()[0].identifier, "org.example.whole");
    EXPECT_TRUE(removedApps()->empty());
}

} // namespace
} // namespace appsync::device
