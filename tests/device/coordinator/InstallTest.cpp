// How coordinators install: placeholder, app, reports, and what is left afterwards.
#include "archive/InstallerError.h"
#include "device/root/Paths.h"
#include "tests/concurrency/NoMoreThreads.h"
#include "tests/device/coordinator/CoordinatorTest.h"
#include "tests/device/root/Faults.h"

#include <filesystem>

namespace appsync::device {
namespace {

TEST_F(CoordinatorTest, InstallsAlsoWhereTheSystemHasNoFurtherThreadForIt) {
    const NoMoreThreads noMore;
    install(A);
}

TEST_F(CoordinatorTest, SaysThatTheSystemHasNoThreadForIt) {
    connection.reset();
    coordinator.reset();
    const NoMoreThreads noMore;
    const auto opened = InstallCoordinator::open({device.files(), *registry, *device.database, propertyLists}, true);
    EXPECT_TRUE(isError(opened.error(), posixErrorDomain, EAGAIN));
}

TEST_F(CoordinatorTest, InstallsThePlaceholderOnceItIsAttachedAndConfigured) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), Lines{"placeholder " + A});
    const auto shown = registry->application(A);
    ASSERT_TRUE(shown);
    EXPECT_TRUE(shown->isPlaceholder);
    EXPECT_FALSE(shown->isInstalled);
    EXPECT_EQ(shown->name, "Name of " + A);
    EXPECT_EQ(shown->version, "0.9");
    EXPECT_EQ(shown->installType, PDInstallTypeSync);
    EXPECT_EQ(device.files().readFile(*shown->iconPath, nullptr)->bytes(), "an icon");
    EXPECT_TRUE(exists(shown->containerPath + "/TamblinMetadata.plist"));
    EXPECT_FALSE(exists(app.icon)) << "the icon file belongs to the coordinator";
    EXPECT_FALSE(exists(iconFolder(A)));
    EXPECT_TRUE(exists("/tmp"));
}

TEST_F(CoordinatorTest, ThePlaceholdersInfoIsThatOfTheAppWithItsOwnFacts) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "Shown", A, PDInstallTypeRestore, KXClientSyncHost);
    auto attributes = KXPlaceholderAttributes::initWithInfoPlistDictionary(
        Dictionary{{"BXBundleDisplayName", "Other"}, {"BXBundleIconFile", "Own.png"}, {"UIWendralApp", true}});
    attributes.setLaunchProhibited(true);
    ASSERT_TRUE(placeholder->setPlaceholderAttributes_error(attributes, nullptr));
    ASSERT_TRUE(placeholder->setSinfData_error(Data("sinf"), nullptr));
    ASSERT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    coordinator->waitUntilIdle();
    const auto shown = registry->application(A);
    ASSERT_TRUE(shown);
    const auto bytes = device.files().readFile(shown->bundlePath + "/Info.plist", nullptr);
    const auto info = propertyLists.propertyListWithData(bytes->bytes(), nullptr);
    EXPECT_EQ(*info->dictionary(), (Dictionary{{"BXBundleIdentifier", A},
                                               {"BXBundleDisplayName", "Shown"},
                                               {"UIWendralApp", true},
                                               {"PDApplicationLaunchProhibited", true}}));
    EXPECT_EQ(device.files().readFile(shown->containerPath + "/ApplicationSINF", nullptr)->bytes(), "sinf");
}

TEST_F(CoordinatorTest, AnUnnamedPlaceholderShowsItsIdentifier) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto placeholder =
        classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client("", A, 4, KXClientSyncHost);
    ASSERT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->application(A)->name, A);
}

TEST_F(CoordinatorTest, APlaceholderWaitsForItsConfigurationAndItsIcon) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "N", A, 4, KXClientSyncHost);
    ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    const auto icon = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
        "i", KXClientSyncHost, *FileURL::fileURLWithPath(makeFile("/tmp/icons/i.png", "x"), false), 1);
    ASSERT_TRUE(placeholder->setIconPromise_error(icon, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->hasPlaceholder(A));
    ASSERT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->hasPlaceholder(A));
    icon->setComplete(true);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->hasPlaceholder(A));
    EXPECT_FALSE(exists("/tmp/icons"));
}

TEST_F(CoordinatorTest, InstallsTheAppWhenItsFileIsThere) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    deliver(app, makeArchive(A));
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), (Lines{"placeholder " + A, "promise 1", "completed " + A}));
    const auto installed = registry->application(A);
    ASSERT_TRUE(installed);
    EXPECT_TRUE(installed->isInstalled);
    EXPECT_FALSE(installed->isPlaceholder);
    EXPECT_EQ(installed->version, "1.0");
    EXPECT_EQ(installed->installType, PDInstallTypeSync);
    EXPECT_TRUE(exists(installed->containerPath + "/TamblinMetadata.plist"));
    EXPECT_EQ(app.coordinator->error(), nullptr);
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, AnAppWithoutAPlaceholderIsInstalledAsWell) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto promise = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
        "x", KXClientSyncHost, *FileURL::fileURLWithPath(makeArchive(A), false), 0);
    promise->setComplete(true);
    ASSERT_TRUE(made->setAppAssetPromise_error(promise, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->isInstalled(A)) << "install options are missing";
    ASSERT_TRUE(made->setInstallOptions_error(TVInstallOptions{}, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
    EXPECT_EQ(reports.lines(), Lines{"completed " + A});
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, TheOptionsSayWhatStandsBesideTheAppAndWhyItIsInstalled) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    TVInstallOptions options;
    options.setSinfData(Data("sinf"));
    options.setTamblinMetadata(TVStoreMetadata{Dictionary{{"title", "Of the options"}}});
    options.setRegistryInstallType(PDInstallTypeMigration);
    ASSERT_TRUE(made->setInstallOptions_error(options, nullptr));
    const auto promise = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
        "x", KXClientSyncHost, *FileURL::fileURLWithPath(makeArchive(A), false), 0);
    ASSERT_TRUE(made->setAppAssetPromise_error(promise, nullptr));
    promise->setComplete(true);
    coordinator->waitUntilIdle();
    const auto installed = registry->application(A);
    ASSERT_TRUE(installed);
    EXPECT_EQ(installed->installType, PDInstallTypeMigration);
    EXPECT_EQ(device.files().readFile(installed->containerPath + "/ApplicationSINF", nullptr)->bytes(), "sinf");
    const auto metadata = device.files().readFile(installed->containerPath + "/TamblinMetadata.plist", nullptr);
    EXPECT_EQ(propertyLists.propertyListWithData(metadata->bytes(), nullptr),
              Value(Dictionary{{"title", "Of the options"}}));
}

TEST_F(CoordinatorTest, ASystemAppStaysOneWhenItsPlaceholderIsReplaced) {
    PlaceholderRequest system;
    system.identifier = A;
    system.isSystem = true;
    ASSERT_TRUE(registry->installPlaceholder(system));
    (void)prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->application(A)->name, "Name of " + A);
    EXPECT_TRUE(registry->application(A)->isSystem);
}

TEST_F(CoordinatorTest, ThePathOfACompletePromiseStays) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto promise = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    ASSERT_TRUE(made->setAppAssetPromise_error(promise, nullptr));
    promise->setTransferPath(FileURL::fileURLWithPath(makeArchive(A), false));
    promise->setComplete(true);
    promise->setTransferPath(FileURL::fileURLWithPath("/var/mobile/other", false));
    ASSERT_TRUE(made->setInstallOptions_error(TVInstallOptions{}, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
}

TEST_F(CoordinatorTest, AnUpdateReplacesTheInstalledVersion) {
    install(A, "1.0");
    deliver(prepare(A, true), makeArchive(A, "2.0"));
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->application(A)->version, "2.0");
    EXPECT_EQ(reports.lines().back(), "completed " + A);
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, ARefusedArchiveEndsTheCoordinatorWithItsError) {
    const auto app = prepare(A);
    deliver(app, makeFile("/var/mobile/Media/PublicStaging/" + A + ".ipa", "no archive"));
    coordinator->waitUntilIdle();
    ASSERT_TRUE(app.coordinator->error());
    EXPECT_EQ(app.coordinator->error()->domain(), TVInstallerErrorDomain);
    EXPECT_EQ(reports.lines().back(),
              "completed " + A + " with TVInstallerErrorDomain " + std::to_string(app.coordinator->error()->code()));
    EXPECT_FALSE(registry->application(A));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, AFailedUpdateLeavesTheInstalledVersion) {
    install(A, "1.0");
    const auto app = prepare(A, true);
    deliver(app, makeArchive(B));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(isError(app.coordinator->error(), TVInstallerErrorDomain, InstallerError::identifierMismatch));
    EXPECT_TRUE(registry->isInstalled(A));
    EXPECT_EQ(registry->application(A)->version, "1.0");
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, AFileThatIsNotThereIsAFailure) {
    const auto gone = prepare(A);
    deliver(gone, "/var/mobile/Media/PublicStaging/none.ipa");
    const auto unnamed = prepare(B);
    unnamed.asset->setComplete(true);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(isError(gone.coordinator->error(), coordinatorErrorDomain, CoordinatorError::fileMissing));
    EXPECT_TRUE(isError(unnamed.coordinator->error(), coordinatorErrorDomain, CoordinatorError::fileMissing));
}

TEST_F(CoordinatorTest, APlaceholderThatCannotBeInstalledIsAFailure) {
    const auto faults = std::make_shared<RecordingFaults>();
    faults->failBelow = {"/var/containers"};
    faults->failure = ENOSPC;
    reopen(faults);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(isError(app.coordinator->error(), TVInstallerErrorDomain, InstallerError::notEnoughSpace));
    expectNothingLeftOf(A);
}

TEST_F(CoordinatorTest, OnlyFilesInReceivingFoldersAreRemoved) {
    const auto elsewhere = prepare(A);
    const std::string kept = makeFile("/var/log/file.ipa", "x");
    deliver(elsewhere, kept);
    const auto folder = prepare(B);
    makeFile("/var/mobile/Media/Photos/photo", "x");
    deliver(folder, "/var/mobile/Media/Photos");
    coordinator->waitUntilIdle();
    EXPECT_TRUE(elsewhere.coordinator->error());
    EXPECT_TRUE(exists(kept));
    EXPECT_TRUE(folder.coordinator->error());
    EXPECT_TRUE(exists("/var/mobile/Media/Photos/photo")) << "a folder is never a received file";
}

TEST_F(CoordinatorTest, AFolderThatHoldsMoreThanTheIconStays) {
    makeFile(iconFolder(A) + "/Info.plist", "x");
    (void)prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_FALSE(exists(iconFolder(A) + "/Icon.png"));
    EXPECT_TRUE(exists(iconFolder(A) + "/Info.plist"));
}

TEST_F(CoordinatorTest, APlaceholderSharesItsIconWithoutACopy) {
    class NoCopies final : public FaultPoint {
      public:
        int before(std::string_view operation, std::string_view path) noexcept override {
            return operation == "create" && path.starts_with(stagingFolder) ? EIO : 0;
        }
    };
    reopen(std::make_shared<NoCopies>());
    (void)prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->application(A)->iconPath);
}

TEST_F(CoordinatorTest, AnIconThatCannotBeSharedIsCopied) {
    class NoLinks final : public FaultPoint {
      public:
        int before(std::string_view operation, std::string_view /*path*/) noexcept override {
            return operation == "link" ? EPERM : 0;
        }
    };
    reopen(std::make_shared<NoLinks>());
    (void)prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->application(A)->iconPath);
    EXPECT_FALSE(exists(iconFolder(A)));
}

TEST_F(CoordinatorTest, AnIconThatStandsElsewhereIsCopied) {
    const std::string elsewhere = makeFile("/System/Icon.png", "of the system");
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "A", A, PDInstallTypeSync, KXClientSyncHost);
    const auto icon = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
        "icon", KXClientSyncHost, *FileURL::fileURLWithPath(elsewhere, false), 13);
    icon->setComplete(true);
    ASSERT_TRUE(placeholder->setIconPromise_error(icon, nullptr));
    ASSERT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(device.files().readFile(registry->application(A)->iconPath.value_or(""), nullptr), Data("of the system"));
    EXPECT_EQ(device.files().readFile(elsewhere, nullptr), Data("of the system"));
}

TEST_F(CoordinatorTest, AnIconThatIsALinkIsCopied) {
    const std::string elsewhere = makeFile("/System/Icon.png", "of the system");
    const auto linked = makePlaceholder(A);
    const std::string link = iconFolder(A) + "/Icon.png";
    ASSERT_TRUE(device.files().removeItem(link, nullptr));
    std::filesystem::create_symlink(elsewhere, device.root->hostPath(link));
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    ASSERT_TRUE(made->setPlaceholderPromise_error(linked, nullptr));
    coordinator->waitUntilIdle();
    const std::string icon = registry->application(A)->iconPath.value_or("");
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(device.root->hostPath(icon))));
    EXPECT_EQ(device.files().readFile(icon, nullptr), Data("of the system"));
    EXPECT_FALSE(exists(iconFolder(A)));
    EXPECT_EQ(device.files().readFile(elsewhere, nullptr), Data("of the system"));
}

TEST_F(CoordinatorTest, TransferProgressShowsOnTheHomeScreen) {
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->application(A)->installState, PDInstallStateWaiting);
    app.asset->setPercentComplete(0.4567);
    auto shown = registry->application(A);
    EXPECT_EQ(shown->installPhase, PDInstallPhaseLoading);
    EXPECT_EQ(shown->installState, PDInstallStateActive);
    EXPECT_DOUBLE_EQ(shown->progress.value_or(-1), 0.456);
    app.asset->setPercentComplete(17);
    EXPECT_DOUBLE_EQ(registry->application(A)->progress.value_or(-1), 1);
    app.asset->setPercentComplete(-1);
    EXPECT_DOUBLE_EQ(registry->application(A)->progress.value_or(-1), 0);
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), (Lines{"placeholder " + A, "promise 1"})) << "only the first progress is reported";
}

TEST_F(CoordinatorTest, ProgressBeforeThePlaceholderShowsOnceItIsThere) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto asset = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    ASSERT_TRUE(made->setAppAssetPromise_error(asset, nullptr));
    asset->setPercentComplete(0.25);
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    coordinator->waitUntilIdle();
    EXPECT_DOUBLE_EQ(registry->application(A)->progress.value_or(-1), 0.25);
}

TEST_F(CoordinatorTest, ProgressWritesNothingToTheDatabase) {
    class Commits final : public FaultPoint {
      public:
        int before(std::string_view operation, std::string_view) noexcept override {
            count += operation == "commit" ? 1 : 0;
            return 0;
        }
        std::atomic<int> count = 0;
    };
    const auto commits = std::make_shared<Commits>();
    reopen(commits);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    const int before = commits->count;
    for (int i = 0; i < 100; ++i) {
        app.asset->setPercentComplete(i / 100.0);
    }
    EXPECT_EQ(commits->count, before);
}

TEST_F(CoordinatorTest, ExtractionShowsAsInstalling) {
    const auto gate = std::make_shared<Gate>("create", "App");
    reopen(gate);
    const auto app = prepare(A);
    coordinator->waitUntilIdle();
    gate->close();
    deliver(app, makeArchive(A));
    gate->waitForArrival();
    EXPECT_EQ(registry->application(A)->installPhase, PDInstallPhaseInstalling);
    EXPECT_EQ(registry->application(A)->installState, PDInstallStateActive);
    EXPECT_TRUE(coordinator->openCoordinators().at(0).isInstalling);
    app.asset->setPercentComplete(0.3);
    EXPECT_EQ(registry->application(A)->installPhase, PDInstallPhaseInstalling) << "the transfer is over";
    EXPECT_EQ(registry->application(A)->installState, PDInstallStateActive);
    EXPECT_EQ(registry->application(A)->progress, 0);
    gate->open();
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
}

TEST_F(CoordinatorTest, ManyAppsAreInstalledEachOnce) {
    std::vector<Preparation> apps;
    constexpr int count = 40;
    for (int i = 0; i < count; ++i) {
        apps.push_back(prepare("com.example.n" + std::to_string(i)));
    }
    for (int i = 0; i < count; ++i) {
        deliver(apps[static_cast<std::size_t>(i)], makeArchive("com.example.n" + std::to_string(i)));
    }
    coordinator->waitUntilIdle();
    EXPECT_EQ(registry->applications().size(), static_cast<std::size_t>(count));
    Lines lines = reports.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("completed"); }),
              count);
    EXPECT_EQ(std::unique(lines.begin(), lines.end()), lines.end());
    EXPECT_EQ(allRows(), 0);
}

TEST_F(CoordinatorTest, ADemotedAppIsRestoredByItsPlaceholderAlone) {
    const auto made = lookUp(classes().restoringDemotedCoordinators, A, true);
    const auto data = classes().outOfBandPromises.initWithName_client_diskSpaceNeeded("d", KXClientSyncHost, 0);
    EXPECT_FALSE(made->hasUserDataPromise());
    ASSERT_TRUE(made->setUserDataPromise_error(data, nullptr));
    EXPECT_TRUE(made->hasUserDataPromise());
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    coordinator->waitUntilIdle();
    EXPECT_NE(find(A), nullptr) << "its data is not there yet";
    data->setComplete(true);
    coordinator->waitUntilIdle();
    EXPECT_EQ(reports.lines(), (Lines{"placeholder " + A, "completed " + A}));
    EXPECT_EQ(find(A), nullptr);
    EXPECT_TRUE(registry->hasPlaceholder(A));
    EXPECT_FALSE(registry->application(A)->installState) << "an offloaded app is not being installed";
}

TEST_F(CoordinatorTest, ARestoredAppWaitsForTheClientThatIsToBringIt) {
    const auto made = lookUp(classes().restoringCoordinators, A, true);
    EXPECT_EQ(made->appAssetPromiseResponsibleClientWithError(nullptr), 0U);
    ASSERT_TRUE(made->setInstallOptions_error(TVInstallOptions{}, nullptr));
    const auto data = classes().outOfBandPromises.initWithName_client_diskSpaceNeeded("d", KXClientSyncHost, 0);
    ASSERT_TRUE(made->setUserDataPromise_error(data, nullptr));
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    ASSERT_TRUE(made->setAppAssetPromiseResponsibleClient_error(KXClientCorbin, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(coordinator->openCoordinators().at(0).responsibleClient, KXClientCorbin);

    // The store client finds the coordinator and brings the app.
    const auto found = find(A);
    const auto asset = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
        "x", KXClientCorbin, *FileURL::fileURLWithPath(makeArchive(A), false), 0);
    ASSERT_TRUE(found->setAppAssetPromise_error(asset, nullptr));
    asset->setComplete(true);
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->isInstalled(A)) << "its data is not there yet";
    data->setComplete(true);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A));
    expectNothingLeftOf(A);
}

} // namespace
} // namespace appsync::device
