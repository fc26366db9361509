// Policy, backup service, store client and the list of uninstalled apps.
#include "platform/ApplicationRegistry.h"
#include "platform/Backup.h"
#include "platform/InstallationService.h"
#include "platform/Store.h"
#include "tests/contract/Apps.h"

#include <atomic>
#include <thread>

namespace appsync::contract {

TEST_P(PolicyContract, ASettingIsUnsetUntilItIsSetAndIsAnsweredAsItIsNow) {
    const auto connection = platform().profileConnections.sharedConnection();
    ASSERT_NE(connection, nullptr);
    const auto value = [&](std::string_view setting) { return connection->effectiveBoolValueForSetting(setting); };
    EXPECT_EQ(value(OLFeatureAppInstallationAllowed), OLBoolValue::unset);
    EXPECT_EQ(value("a setting that nobody knows"), OLBoolValue::unset);
    device().setPolicy(OLFeatureAppInstallationAllowed, OLBoolValue::explicitlyNo);
    device().setPolicy(OLFeatureAppRemovalAllowed, OLBoolValue::explicitlyYes);
    EXPECT_EQ(value(OLFeatureAppInstallationAllowed), OLBoolValue::explicitlyNo);
    EXPECT_EQ(value(OLFeatureAppRemovalAllowed), OLBoolValue::explicitlyYes);
    device().setPolicy(OLFeatureAppInstallationAllowed, OLBoolValue::unset);
    EXPECT_EQ(value(OLFeatureAppInstallationAllowed), OLBoolValue::unset);
}

TEST_P(PolicyContract, AnyThreadMayAsk) {
    device().setPolicy(OLFeatureAppRemovalAllowed, OLBoolValue::explicitlyNo);
    ASSERT_NE(platform().profileConnections.sharedConnection(), nullptr);
    const auto ask = [this] {
        for (int i = 0; i < 50; ++i) {
            const auto connection = platform().profileConnections.sharedConnection();
            EXPECT_EQ(connection->effectiveBoolValueForSetting(OLFeatureAppRemovalAllowed), OLBoolValue::explicitlyNo);
        }
    };
    std::thread other(ask);
    ask();
    other.join();
}

TEST_P(BackupContract, DataThatWaitsIsFoundWithItsSize) {
    const auto manager = platform().backupManagers.init();
    ASSERT_NE(manager, nullptr);
    std::uint64_t size = 7;
    EXPECT_FALSE(manager->restoreDataExistsForApplicationWithBundleID_size(A, &size));
    device().putRestoreData(A, 12'345);
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size(A, &size));
    EXPECT_EQ(size, 12'345U);
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size(A, nullptr));
    EXPECT_FALSE(manager->restoreDataExistsForApplicationWithBundleID_size(B, nullptr));
}

TEST_P(BackupContract, ARestoreThatIsGivenUpIsOverAndCannotBeGivenUpAgain) {
    const auto manager = platform().backupManagers.init();
    ASSERT_NE(manager, nullptr);
    device().putRestoreData(A, 5);
    device().putRestoreData(B, 5);
    ErrorPtr error;
    EXPECT_TRUE(manager->cancelApplicationRestoreWithBundleID_error(A, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(platform().backupManagers.init()->restoreDataExistsForApplicationWithBundleID_size(A, nullptr));
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size(B, nullptr));
    EXPECT_FALSE(manager->cancelApplicationRestoreWithBundleID_error(A, &error));
    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(manager->cancelApplicationRestoreWithBundleID_error(A, nullptr));
}

TEST_P(StoreContract, ARefreshEndsOnceOnAThreadOfItsOwnAlsoWhenItsLibraryIsDropped) {
    device().install({A});
    auto library = platform().softwareLibraries.init();
    ASSERT_NE(library, nullptr);
    Signal completed("the completion of the refresh");
    std::atomic<int> completions = 0;
    std::thread::id thread;
    library->refreshReceiptsWithCompletionBlock([&](const ErrorPtr& error) {
        EXPECT_EQ(error, nullptr) << textOf(error);
        thread = std::this_thread::get_id();
        ++completions;
        completed.raise();
    });
    library = nullptr;
    device().proceed();
    ASSERT_TRUE(completed.wait());
    EXPECT_EQ(completions, 1);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_P(StoreContract, SeveralRefreshesEachEnd) {
    const auto library = platform().softwareLibraries.init();
    ASSERT_NE(library, nullptr);
    Signal completed("the completion of the refresh");
    for (int refresh = 0; refresh < 3; ++refresh) {
        library->refreshReceiptsWithCompletionBlock([&](const ErrorPtr&) { completed.raise(); });
    }
    device().proceed();
    for (int refresh = 0; refresh < 3; ++refresh) {
        EXPECT_TRUE(completed.wait());
    }
}

TEST_P(UninstalledListContract, HoldsWhatAPersonHasRemovedUntilItIsCleared) {
    device().install({A});
    device().install({B});
    device().install({"com.example.c"});
    TevrinInstallationService& service = platform().installationService;
    auto uninstalled = service.TevrinLookupUninstalled(nullptr);
    ASSERT_TRUE(uninstalled) << "nothing would say that the service cannot answer";
    EXPECT_TRUE(uninstalled->empty());
    device().removeByPerson(A);
    device().removeByPerson(B);
    uninstalled = service.TevrinLookupUninstalled(nullptr);
    ASSERT_TRUE(uninstalled);
    EXPECT_EQ(uninstalled->size(), 2U);
    EXPECT_TRUE(uninstalled->contains(A));
    EXPECT_TRUE(uninstalled->contains(B));
    EXPECT_EQ(service.TevrinClearUninstalled(Array{A, "com.example.unknown"}, nullptr), 0);
    uninstalled = service.TevrinLookupUninstalled(nullptr);
    ASSERT_TRUE(uninstalled);
    EXPECT_FALSE(uninstalled->contains(A));
    EXPECT_TRUE(uninstalled->contains(B));
    EXPECT_EQ(service.TevrinClearUninstalled(Array{}, nullptr), 0);
    EXPECT_TRUE(given(service.TevrinLookupUninstalled(nullptr), "the list of uninstalled apps")->contains(B));
}

TEST_P(UninstalledListContract, DoesNotHoldWhatTheSyncItselfRemoves) {
    device().install({A});
    EXPECT_TRUE(platform().workspaces.defaultWorkspace().uninstallApplication_withOptions(A, nullptr));
    const auto uninstalled = platform().installationService.TevrinLookupUninstalled(nullptr);
    ASSERT_TRUE(uninstalled);
    EXPECT_FALSE(uninstalled->contains(A));
}

TEST_P(UninstalledListContract, IsKeptForTheNextProcess) {
    APPSYNC_NEEDS(outlivesItsProcess);
    device().install({A});
    device().removeByPerson(A);
    restart();
    const auto uninstalled = platform().installationService.TevrinLookupUninstalled(nullptr);
    EXPECT_TRUE(given(uninstalled, "the list of uninstalled apps")->contains(A));
}

} // namespace appsync::contract
