// The device as a whole: making, opening, closing, and the platform that a plug-in is given.
#include "device/Device.h"

#include "device/coordinator/InstallCoordinator.h"
#include "device/database/Database.h"
#include "device/log/TransactionLog.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "device/services/DemotedApps.h"
#include "device/services/DevicePolicy.h"
#include "device/services/Notifications.h"
#include "platform/ApplicationRegistry.h"
#include "platform/Backup.h"
#include "platform/Icons.h"
#include "platform/InstallCoordinator.h"
#include "platform/Process.h"
#include "platform/Scheduler.h"
#include "platform/Store.h"
#include "platform/host/Places.h"
#include "platform/stubs/Stubs.h"
#include "tests/concurrency/NoMoreThreads.h"
#include "tests/device/archive/ArchiveBuilder.h"
#include "tests/device/log/Records.h"
#include "tests/device/root/Faults.h"
#include "tests/device/root/TemporaryFolder.h"
#include "tests/device/root/Tree.h"

#include "concurrency/Semaphore.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>

namespace appsync::device {
namespace {

const std::string A = "com.example.a";

class DeviceTest : public testing::Test {
  protected:
    void create(const DeviceOptions& options = {}) {
        auto made = Device::create(folder.path(), options);
        ASSERT_TRUE(made) << errorText(made.error());
        device = std::move(*made);
    }
    void reopen() {
        device.reset();
        auto opened = Device::open(folder.path());
        ASSERT_TRUE(opened) << errorText(opened.error());
        device = std::move(*opened);
    }
    [[nodiscard]] Platform platform() { return device->platform(deviceService, errors); }

    TemporaryFolder folder;
    StubDeviceServiceClass deviceService;
    StubErrorClassification errors;
    std::unique_ptr<Device> device;
};

TEST_F(DeviceTest, TheFolderOfTheMediaServicesLogsIsThereAgainWhenItIsOpened) {
    constexpr std::string_view logs = "/var/mobile/Library/Logs/MediaServices";
    create();
    EXPECT_TRUE(device->files().fileExists(logs));
    device->files().removeItem(logs, nullptr);
    reopen();
    EXPECT_TRUE(device->files().fileExists(logs));
}

TEST_F(DeviceTest, DataOfAppsThatWillNotComeIsForgotten) {
    create();
    for (const std::string app : {"x", "y"}) {
        ASSERT_TRUE(device->files().createDirectory("/tmp/" + app, true, std::nullopt, nullptr));
        ASSERT_TRUE(device->backup().addRestoreData(app, "/tmp/" + app));
    }
    PlaceholderRequest request;
    request.identifier = "x";
    ASSERT_TRUE(device->registry().installPlaceholder(request));
    reopen();
    EXPECT_TRUE(device->backup().restoreDataSize("x"));
    EXPECT_FALSE(device->backup().restoreDataSize("y"));
}

TEST_F(DeviceTest, AnInstalledAppIsNotListedAsDemoted) {
    create();
    ASSERT_TRUE(device->files().createFile("/tmp/a.zip", ArchiveBuilder().app("App", A, "1").bytes(), {}));
    ArchiveRequest request;
    request.archivePath = "/tmp/a.zip";
    request.identifier = A;
    ASSERT_TRUE(device->demotedApps().change([&](DemotionLists& lists) { lists.put(A, false); }));
    ASSERT_TRUE(device->registry().installArchive(request));
    EXPECT_FALSE(device->demotedApps().lists().contains(A));
    ASSERT_TRUE(device->demotedApps().change(
        [&](DemotionLists& lists) { lists.put(A, false); })); // as a crash in the middle of demoting leaves it
    reopen();
    EXPECT_FALSE(device->demotedApps().lists().contains(A));
}

TEST_F(DeviceTest, AnAppWhoseStoreFilesCannotBeReadIsNotDemotedWithoutThem) {
    create();
    ASSERT_TRUE(device->files().createFile("/tmp/a.zip", ArchiveBuilder().app("App", A, "1").bytes(), {}));
    ArchiveRequest request;
    request.archivePath = "/tmp/a.zip";
    request.identifier = A;
    request.metadata = Data("metadata");
    request.sinf = Data("sinf");
    for (const std::string_view file : {"/TamblinMetadata.plist", "/ApplicationSINF"}) {
        ASSERT_TRUE(device->registry().installArchive(request));
        const std::string path = device->registry().application(A)->containerPath + std::string(file);
        device->files().removeItem(path, nullptr);
        ASSERT_TRUE(device->files().createDirectory(path, false, std::nullopt, nullptr));
        EXPECT_FALSE(device->demote(A, false));
        EXPECT_TRUE(device->registry().isInstalled(A));
        EXPECT_FALSE(device->demotedApps().lists().contains(A));
    }
}

TEST_F(DeviceTest, ItsProcessIsTheSyncHostWithTheDevicesTemporaryDirectory) {
    create();
    EXPECT_EQ(platform().process.mainBundleIdentifier(), "com.zuvex.qrd");
    EXPECT_EQ(platform().process.temporaryDirectory(), "/tmp");
}

TEST_F(DeviceTest, ANewDeviceIsEmptyAndAllowsEverything) {
    create();
    EXPECT_TRUE(device->coordinationIsEnabled());
    EXPECT_TRUE(platform().coordinators.coordinationIsEnabled());
    EXPECT_EQ(device->policy().value(OLFeatureAppInstallationAllowed), OLBoolValue::unset);
    EXPECT_EQ(device->policy().value(OLFeatureAppRemovalAllowed), OLBoolValue::unset);
    EXPECT_TRUE(device->registry().applications().empty());
}

TEST_F(DeviceTest, KeepsWhatItWasMadeWith) {
    create({false, true, true});
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(device->coordinationIsEnabled());
        EXPECT_FALSE(platform().coordinators.coordinationIsEnabled());
        const auto connection = platform().profileConnections.sharedConnection();
        EXPECT_EQ(connection->effectiveBoolValueForSetting(OLFeatureAppInstallationAllowed), OLBoolValue::explicitlyNo);
        EXPECT_EQ(connection->effectiveBoolValueForSetting(OLFeatureAppRemovalAllowed), OLBoolValue::explicitlyNo);
        reopen();
    }
}

TEST_F(DeviceTest, IsMadeOnce) {
    create();
    device.reset();
    const auto again = Device::create(folder.path(), {});
    EXPECT_TRUE(isError(again.error(), deviceErrorDomain, DeviceError::existsAlready));
    reopen();
}

TEST_F(DeviceTest, AFolderThatIsNoDeviceIsNotOpened) {
    EXPECT_TRUE(isError(Device::open(folder.path()).error(), rootErrorDomain, RootError::notADevice));
    EXPECT_TRUE(isError(Device::open(folder / "none").error(), rootErrorDomain, RootError::noSuchFolder));
    writeHostFile(folder / "file", "x");
    EXPECT_TRUE(isError(Device::create(folder.path(), {}).error(), rootErrorDomain, RootError::notEmpty));
}

TEST_F(DeviceTest, IsOpenOnceAtATime) {
    create();
    EXPECT_TRUE(isError(Device::open(folder.path()).error(), rootErrorDomain, RootError::inUse));
}

TEST_F(DeviceTest, SaysThatTheSystemHasNoThreadForIt) {
    create();
    device.reset();
    {
        const NoMoreThreads noMore;
        const auto opened = Device::open(folder.path());
        ASSERT_TRUE(isError(opened.error(), posixErrorDomain, EAGAIN));
        EXPECT_NE(errorText(opened.error()).find("no thread can be started for"), std::string::npos);
    }
    reopen();
}

TEST_F(DeviceTest, ThatHasLostItsDatabaseKeepsTheAppsUntilACopyOfItIsPutBack) {
    create();
    ASSERT_TRUE(device->files().createFile("/tmp/a.zip", ArchiveBuilder().app("App", A, "1").bytes(), {}));
    ArchiveRequest request;
    request.archivePath = "/tmp/a.zip";
    request.identifier = A;
    ASSERT_TRUE(device->registry().installArchive(request));
    const std::filesystem::path file = device->root().databasePath();
    const TemporaryFolder other;
    const auto copy = std::filesystem::path(other.path()) / "copy";
    device.reset();
    std::filesystem::rename(file, copy);
    std::filesystem::resize_file(file.string() + "-wal", 0);
    for (int time = 0; time < 2; ++time) { // the first one has made an empty database
        EXPECT_TRUE(isError(Device::open(folder.path()).error(), deviceErrorDomain, DeviceError::databaseLost));
        EXPECT_TRUE(isError(Device::create(folder.path(), {}).error(), deviceErrorDomain, DeviceError::databaseLost));
    }
    std::filesystem::copy_file(copy, file, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(file.string() + "-wal", 0);
    reopen();
    ASSERT_TRUE(device->registry().isInstalled(A));
    EXPECT_TRUE(device->files().fileExists(device->registry().application(A)->bundlePath + "/Info.plist"));
}

TEST_F(DeviceTest, WhoseListOfDemotedAppsCannotBeReadIsNotOpenedWithoutIt) {
    create();
    PlaceholderRequest request; // of a sync that brings a demoted app back, and was cut short
    request.identifier = A;
    request.installType = PDInstallTypeSync;
    ASSERT_TRUE(device->registry().installPlaceholder(request));
    ASSERT_TRUE(device->demotedApps().change([&](DemotionLists& lists) { lists.put(A, false); }));
    const std::string list(paths::demotedApps);
    ASSERT_TRUE(device->files().moveItem(list, list + ".aside", nullptr));
    ASSERT_TRUE(device->files().createDirectory(list, false, std::nullopt, nullptr)); // no file, whoever reads it
    const std::string onHost = device->root().hostPath(list);
    device.reset();
    const auto opened = Device::open(folder.path());
    ASSERT_FALSE(opened);
    EXPECT_NE(errorText(opened.error()).find(list), std::string::npos);
    std::filesystem::remove(onHost);
    std::filesystem::rename(onHost + ".aside", onHost);
    reopen();
    ASSERT_TRUE(device->registry().uninstall(A, RemovalReason::sync, RemovalScope::placeholderOnly));
    EXPECT_TRUE(device->registry().application(A)->isDemoted());
}

TEST_F(DeviceTest, WhoseListOfDemotedAppsIsDamagedKnowsThoseThatComeBack) {
    create();
    for (const bool isAutomatic : {true, false}) {
        const std::string app = isAutomatic ? "com.example.automatic" : "com.example.intentional";
        ASSERT_TRUE(device->demotedApps().change([&](DemotionLists& lists) { lists.put(app, isAutomatic); }));
        PlaceholderRequest request;
        request.identifier = app;
        request.installType = PDInstallTypeSync;
        ASSERT_TRUE(device->registry().installPlaceholder(request));
    }
    const auto before = device->demotedApps().lists();
    writeHostFile(device->root().hostPath(paths::demotedApps), "damaged");
    reopen();
    EXPECT_EQ(device->demotedApps().lists(), before);
    EXPECT_TRUE(device->registry().cancelInstall("com.example.automatic"));
    EXPECT_EQ(device->registry().application("com.example.automatic")->installType, PDInstallTypeDowngrade);
    EXPECT_EQ(device->registry().application("com.example.automatic")->demotion, std::nullopt);
    ASSERT_TRUE(device->demote("com.example.automatic", true));
    EXPECT_EQ(device->registry().application("com.example.automatic")->demotion, std::nullopt) << "it does not come";
    writeHostFile(device->root().hostPath(paths::demotedApps), "damaged");
    reopen();
    EXPECT_EQ(device->demotedApps().lists(), before);
}

TEST_F(DeviceTest, AMakingThatWasInterruptedIsSaidAndCanBeDoneAgain) {
    bool isThrough = false;
    int interrupted = 0;
    for (int change = 0; !isThrough; ++change) {
        SCOPED_TRACE("before change " + std::to_string(change));
        const TemporaryFolder own;
        const pid_t child = ::fork();
        if (child == 0) {
            (void)Device::create(own.path(), {false, false, false}, {std::make_shared<EndingFaults>(change), {}, {}});
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        isThrough = status == 0;
        const auto opened = Device::open(own.path());
        if (opened) {
            EXPECT_FALSE((*opened)->coordinationIsEnabled());
            continue;
        }
        EXPECT_FALSE(isThrough) << errorText(opened.error());
        interrupted += isError(opened.error(), deviceErrorDomain, DeviceError::notFinished) ? 1 : 0;
        EXPECT_TRUE(Device::create(own.path(), {false, false, false}));
    }
    EXPECT_GT(interrupted, 3);
}

TEST_F(DeviceTest, ADamagedDatabaseIsSaid) {
    create();
    const std::string database = device->root().databasePath();
    device.reset();
    writeHostFile(database, std::string(10'000, 'x'));
    EXPECT_TRUE(isError(Device::open(folder.path()).error(), databaseErrorDomain, DatabaseError::damaged));
}

TEST_F(DeviceTest, AnAppGoesThroughThePlatformsCoordinatorOntoTheHomeScreen) {
    create();
    {
        const Platform services = platform();
        const auto coordinator = services.initiatingCoordinators
                                     .coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                                         A, KXClientSyncHost, true, nullptr, nullptr);
        ASSERT_TRUE(coordinator);
        ASSERT_TRUE(coordinator->setInstallOptions_error({}, nullptr));
        const std::string path = "/var/mobile/Media/" + A + ".ipa";
        ASSERT_TRUE(services.files.createFile(path, ArchiveBuilder().app("App", A).bytes(), {}));
        const auto promise = services.transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
            "x", KXClientSyncHost, *FileURL::fileURLWithPath(path, false), 0);
        ASSERT_TRUE(coordinator->setAppAssetPromise_error(promise, nullptr));
        promise->setComplete(true);
        device->coordinator().waitUntilIdle();
        EXPECT_TRUE(services.workspaces.defaultWorkspace().applicationIsInstalled(A));
        EXPECT_TRUE(services.applicationProxies.applicationProxyForIdentifier_placeholder(A, false));
        EXPECT_EQ(device->homeScreen().flattenedOrder(), IdentifierList{A});
        const auto bundle = services.bundles.bundleWithURL(
            *FileURL::fileURLWithPath(device->registry().application(A)->bundlePath, true));
        ASSERT_TRUE(bundle);
        EXPECT_EQ(bundle->objectForInfoDictionaryKey("BXBundleDisplayName"), Value("App"));
        EXPECT_EQ(services.iconRenderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(bundle), nullptr);
        EXPECT_NE(services.imageDestinations.destinationWithType_count("public.png", 1), nullptr);
    }
    reopen();
    EXPECT_TRUE(device->registry().isInstalled(A));
}

TEST_F(DeviceTest, CoordinatorsOfAnEarlierProcessGoOnWhenItIsOpened) {
    create();
    {
        const Platform services = platform();
        const auto coordinator = services.initiatingCoordinators
                                     .coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                                         A, KXClientSyncHost, true, nullptr, nullptr);
        ASSERT_TRUE(coordinator->setInstallOptions_error({}, nullptr));
        const auto promise = services.transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
        ASSERT_TRUE(coordinator->setAppAssetPromise_error(promise, nullptr));
    }
    ASSERT_TRUE(device->files().createFile("/var/mobile/a.ipa", ArchiveBuilder().app("App", A).bytes(), {}));
    {
        // What the promise says when the process ends right after it was completed.
        Database::Transaction transaction(device->database());
        transaction.run("UPDATE coordinatorPromise SET path = '/var/mobile/a.ipa', complete = 1");
        ASSERT_TRUE(transaction.commit());
    }
    reopen();
    device->coordinator().waitUntilIdle();
    EXPECT_TRUE(device->registry().isInstalled(A));
}

TEST_F(DeviceTest, TheRestOfThePlatformAnswers) {
    create();
    const Platform services = platform();
    EXPECT_EQ(services.process.mainBundleIdentifier(), "com.zuvex.qrd");
    EXPECT_EQ(services.process.temporaryDirectory(), temporaryFolder);
    EXPECT_EQ(&services.deviceService, &deviceService);
    EXPECT_FALSE(services.backupManagers.init()->restoreDataExistsForApplicationWithBundleID_size(A, nullptr));
    EXPECT_TRUE(services.installationService.TevrinLookupUninstalled(nullptr));
    EXPECT_NE(services.homeScreen.SKSSkellanBlockableServerPort(), 0U);

    int token = 0;
    EXPECT_EQ(services.notifications.notify_register_check(syncNoticeName, &token), 0U);
    EXPECT_EQ(services.notifications.notify_set_state(token, 1), 0U);
    EXPECT_TRUE(device->homeScreen().isSyncing());

    Semaphore done;
    (void)services.scheduler.runAfter(std::chrono::milliseconds(0), [&] { done.signal(); });
    done.wait();
    services.softwareLibraries.init()->refreshReceiptsWithCompletionBlock([&](const ErrorPtr&) { done.signal(); });
    done.wait();
    services.notificationCenter.addObserver(
        &done,
        [](NotificationCenter*, void* observer, std::string_view, const void*, const Dictionary*) {
            static_cast<Semaphore*>(observer)->signal();
        },
        startupCompleteName, nullptr, NotificationSuspensionBehavior::drop);
    device->notificationCenter().post(startupCompleteName);
    done.wait();
    services.notificationCenter.removeObserver(&done, startupCompleteName);
}

TEST_F(DeviceTest, AFailureAfterWhichItGoesOnIsLogged) {
    const auto faults = std::make_shared<RecordingFaults>();
    faults->failure = EIO;
    auto made = Device::create(folder.path(), {}, {.faultPoint = faults, .log = {}});
    ASSERT_TRUE(made) << errorText(made.error());
    device = std::move(*made);
    PlaceholderRequest request;
    request.identifier = A;
    ASSERT_TRUE(device->registry().installPlaceholder(request));
    ASSERT_TRUE(device->demotedApps().change([&](DemotionLists& lists) { lists.put(A, false); }));
    faults->failBelow = {paths::demotedApps};
    EXPECT_TRUE(device->registry().uninstall(A, RemovalReason::person, RemovalScope::everything));
    const std::string path = device->root().hostPath(logFilePath);
    reopen();
    const std::string content = readHostFile(path);
    EXPECT_NE(content.find("com.zuvex.Halvane.DemotedApps.plist: Input/output error"), std::string::npos) << content;
    EXPECT_EQ(content.find("waits to be restored"), std::string::npos) << "it is no failure that no data waits";
    EXPECT_FALSE(device->demotedApps().lists().contains(A)) << "the opening puts it right";
}

TEST_F(DeviceTest, LogsAreWrittenWhenItCloses) {
    create();
    platform().log.write(QRLogCategorySyncBundle, LogLevel::standard, "", "hello");
    platform().transactionLog.initializeWithLog(std::make_shared<const SystemLog>(SystemLog{"s", "c"}));
    platform().transactionLog.logScenario_step_success_forBundleID_description("S", TransactionStep::none, true, A,
                                                                               "d");
    const std::string path = device->root().hostPath(logFilePath);
    reopen();
    const std::string content = readHostFile(path);
    EXPECT_NE(content.find(" standard SyncBundle hello\n"), std::string::npos) << content;
    EXPECT_NE(content.find(" standard s/c scenario \"S\" for com.example.a: d\n"), std::string::npos) << content;
    EXPECT_EQ(recordsOf(device->transactionLog()).size(), 1U);
}

TEST_F(DeviceTest, CanBeLookedAtWhileAnotherHasItAndIsNotChangedByThat) {
    create();
    PlaceholderRequest request;
    request.identifier = "x";
    ASSERT_TRUE(device->registry().installPlaceholder(request));
    device->log().flush();
    // The two share the memory beside the database, since they are one process.
    const Tree before(folder.path(), "-shm");
    {
        const auto looked = Device::look(folder.path());
        ASSERT_TRUE(looked) << errorText(looked.error());
        EXPECT_EQ((*looked)->registry().applications().size(), 1U);
        EXPECT_FALSE((*looked)->log().isEnabled(QRLogCategorySyncBundle, LogLevel::error));
        (*looked)->log().write(QRLogCategorySyncBundle, LogLevel::error, "", "not to be kept");
        (*looked)->transactionLog().logScenario_step_success_forBundleID_description("nothing", TransactionStep::none,
                                                                                     false, "x", "not to be kept");
        request.identifier = "y";
        EXPECT_FALSE((*looked)->registry().installPlaceholder(request));
        EXPECT_FALSE((*looked)->registry().uninstall("x", RemovalReason::person, RemovalScope::everything));
        EXPECT_FALSE((*looked)->policy().set(OLFeatureAppRemovalAllowed, OLBoolValue::explicitlyNo));
        EXPECT_FALSE((*looked)->homeScreen().arrange({}));
        EXPECT_NE((*looked)->registry().TevrinClearUninstalled({"x"}, nullptr), 0);
    }
    EXPECT_EQ(Tree(folder.path(), "-shm"), before);
    EXPECT_EQ(device->registry().applications().size(), 1U);
}

TEST_F(DeviceTest, LookingSettlesNothing) {
    create();
    ASSERT_TRUE(device->files().createDirectory(std::string(stagingFolder) + "/half", true, std::nullopt, nullptr));
    device.reset();
    const Tree before(folder.path());
    ASSERT_TRUE(Device::look(folder.path()));
    EXPECT_EQ(Tree(folder.path()), before);
    reopen();
    EXPECT_FALSE(device->files().fileExists(std::string(stagingFolder) + "/half"));
}

TEST_F(DeviceTest, WhatHasNotBeenMadeCompletelyCannotBeLookedAt) {
    ASSERT_TRUE(Root::create(folder.path()));
    EXPECT_FALSE(Device::look(folder.path()));
    ASSERT_TRUE(Database::open(**Root::open(folder.path())));
    EXPECT_TRUE(isError(Device::look(folder.path()).error(), databaseErrorDomain, DatabaseError::olderSchema));
}

} // namespace
} // namespace appsync::device
