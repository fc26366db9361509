// The application registry: apps, placeholders, progress and what is found of them.
#include "platform/InstallationService.h"
#include "tests/contract/Apps.h"

#include <thread>

namespace appsync::contract {

using Names = std::vector<std::string>;

TEST_P(RegistryContract, TheWorkspaceIsOne) {
    EXPECT_EQ(&platform().workspaces.defaultWorkspace(), &platform().workspaces.defaultWorkspace());
}

TEST_P(RegistryContract, AnInstalledAppIsFoundAsOne) {
    const Apps apps(device(), platform());
    EXPECT_FALSE(apps.workspace().applicationIsInstalled(A));
    EXPECT_EQ(apps.app(A), nullptr);
    ErrorPtr error;
    ASSERT_TRUE(apps.install(A, "1.0", &error)) << textOf(error);
    EXPECT_EQ(error, nullptr);
    EXPECT_TRUE(apps.workspace().applicationIsInstalled(A));
    const auto proxy = apps.app(A);
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->bundleIdentifier(), A);
    EXPECT_EQ(proxy->applicationIdentifier(), A);
    EXPECT_EQ(proxy->bundleVersion(), "1.0");
    EXPECT_EQ(proxy->applicationType(), "User");
    EXPECT_TRUE(proxy->isInstalled());
    EXPECT_FALSE(proxy->isPlaceholder());
    EXPECT_TRUE(proxy->appState().isInstalled);
    EXPECT_FALSE(proxy->appState().isPlaceholder);
    EXPECT_FALSE(proxy->hasMIDBasedSINF());
    EXPECT_EQ(proxy->installProgressSync(), nullptr) << "no install is under way";
    EXPECT_NE(proxy->description(), "");
    EXPECT_NE(apps.appOrPlaceholder(A), nullptr) << "also when a placeholder would do";
}

TEST_P(RegistryContract, ThePlacesOfAnAppAreFolders) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A));
    const auto bundle = apps.app(A)->bundleURL();
    const auto container = apps.app(A)->bundleContainerURL();
    ASSERT_TRUE(bundle && container);
    EXPECT_TRUE(bundle->isDirectory());
    EXPECT_TRUE(bundle->path().starts_with(container->path() + "/"));
    APPSYNC_NEEDS(unpacksApps);
    EXPECT_TRUE(platform().files.fileExists(bundle->path() + "/Info.plist"));
    EXPECT_GT(apps.app(A)->diskUsage().staticUsage, 0U);
}

TEST_P(RegistryContract, APlaceholderIsFoundAsOneWhenPlaceholdersAreAskedFor) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A, PDInstallTypeAutomaticUpdate));
    EXPECT_TRUE(apps.workspace().applicationIsInstalled(A)) << "the registry has it";
    EXPECT_EQ(apps.app(A), nullptr);
    const auto proxy = apps.appOrPlaceholder(A);
    ASSERT_NE(proxy, nullptr);
    EXPECT_TRUE(proxy->isPlaceholder());
    EXPECT_FALSE(proxy->isInstalled());
    EXPECT_TRUE(proxy->appState().isPlaceholder);
    EXPECT_FALSE(proxy->appState().isInstalled);
    EXPECT_EQ(proxy->installType(), PDInstallTypeAutomaticUpdate);
    EXPECT_EQ(proxy->bundleIdentifier(), A);
    EXPECT_EQ(proxy->applicationIdentifier(), A);
}

TEST_P(RegistryContract, InstallTypesMayBeAnyNumber) {
    const Apps apps(device(), platform());
    for (const std::uint64_t type : {std::uint64_t{PDInstallTypeNone}, std::uint64_t{PDInstallTypeRestore},
                                     std::uint64_t{PDInstallTypeIntentionalDowngrade}, std::uint64_t{77}}) {
        ASSERT_TRUE(apps.installPlaceholder(A, type));
        EXPECT_EQ(apps.appOrPlaceholder(A)->installType(), type);
    }
}

TEST_P(RegistryContract, AnAppUnderUpdateHasAPlaceholderBesideIt) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A));
    ASSERT_TRUE(apps.installPlaceholder(A));
    ASSERT_NE(apps.app(A), nullptr);
    EXPECT_FALSE(apps.app(A)->isPlaceholder());
    EXPECT_TRUE(apps.appOrPlaceholder(A)->isPlaceholder());
}

TEST_P(RegistryContract, AnInstallTakesThePlaceOfItsPlaceholder) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    ASSERT_TRUE(apps.install(A));
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder());
    EXPECT_EQ(apps.visited(PDBundleTypeAll), Names{A});
}

TEST_P(RegistryContract, AProxyTellsWhatWasKnownWhenItWasMade) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    const auto before = apps.appOrPlaceholder(A);
    ASSERT_TRUE(apps.install(A));
    EXPECT_TRUE(before->isPlaceholder());
    EXPECT_FALSE(before->isInstalled());
}

TEST_P(RegistryContract, AnInstallNeedsAPackageTypeAndAnIdentifier) {
    const Apps apps(device(), platform());
    const FileURL archive = device().putArchive({A});
    for (const Dictionary& options :
         {Dictionary{}, Dictionary{{PDBundleIdentifierKey, A}}, Dictionary{{PDPackageTypeKey, PDPackageTypeCustomer}},
          Dictionary{{PDPackageTypeKey, "Other"}, {PDBundleIdentifierKey, A}}, Apps::customer("")}) {
        ErrorPtr error;
        EXPECT_FALSE(apps.workspace().installApplication_withOptions_error(archive, options, &error));
        ASSERT_NE(error, nullptr) << Value(options).description();
        EXPECT_EQ(error->domain(), TVInstallerErrorDomain);
        EXPECT_FALSE(apps.workspace().installApplication_withOptions(archive, options));
    }
    EXPECT_EQ(apps.visited(PDBundleTypeAll), Names{});
}

TEST_P(RegistryContract, AnArchiveThatCannotBeInstalledIsTheInstallersErrorAndChangesNothing) {
    APPSYNC_NEEDS(unpacksApps);
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A, "1.0"));
    ASSERT_TRUE(platform().files.createFile("/tmp/damaged", "no archive", {}));
    for (const FileURL& url : {fileAt("/tmp/damaged"), fileAt("/tmp/missing"), device().putArchive({B})}) {
        ErrorPtr error;
        EXPECT_FALSE(apps.workspace().installApplication_withOptions_error(url, Apps::customer(A), &error));
        ASSERT_NE(error, nullptr) << url.description();
        EXPECT_EQ(error->domain(), TVInstallerErrorDomain);
    }
    EXPECT_EQ(apps.app(A)->bundleVersion(), "1.0");
    EXPECT_EQ(apps.app(B), nullptr) << "the archive of another app";
}

TEST_P(RegistryContract, AnUpdateBringsTheNewVersion) {
    APPSYNC_NEEDS(unpacksApps);
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A, "1.0"));
    const auto before = apps.app(A);
    ASSERT_TRUE(apps.install(A, "2.0"));
    EXPECT_EQ(apps.app(A)->bundleVersion(), "2.0");
    EXPECT_EQ(before->bundleVersion(), "1.0");
}

TEST_P(RegistryContract, WhatTheOptionsBringStandsInTheAppsContainer) {
    APPSYNC_NEEDS(unpacksApps);
    const Apps apps(device(), platform());
    Dictionary options = Apps::placeholder(A, PDInstallTypeSync);
    options.set(PDTamblinMetadataKey, Data("metadata"));
    ASSERT_TRUE(apps.workspace().installApplication_withOptions(apps.putPlaceholderBundle(A, "0.9"), options));
    const auto proxy = apps.appOrPlaceholder(A);
    EXPECT_EQ(proxy->bundleVersion(), "0.9");
    const std::string container = given(proxy->bundleContainerURL(), "the folder around the app's")->path();
    EXPECT_EQ(platform().files.readFile(container + "/TamblinMetadata.plist", nullptr), Data("metadata"));
    const std::string bundle = given(proxy->bundleURL(), "the folder of the app")->path();
    EXPECT_TRUE(platform().files.fileExists(bundle + "/Info.plist"));
}

TEST_P(RegistryContract, AnUninstallTakesThePlaceholderFirst) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A));
    ASSERT_TRUE(apps.installPlaceholder(A));
    EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(A, nullptr));
    ASSERT_NE(apps.app(A), nullptr) << "an update that failed costs no installed version";
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder());
    EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(A, nullptr));
    EXPECT_EQ(apps.app(A), nullptr);
    EXPECT_FALSE(apps.workspace().uninstallApplication_withOptions(A, nullptr)) << "nothing is there to remove";
}

/// An update that ended badly after it had begun so: the uninstall that follows finds no placeholder of it.
void expectUninstallLeavesApp(const Apps& apps, const std::string& beginning) {
    EXPECT_FALSE(apps.workspace().uninstallApplication_withOptions(A, nullptr)) << beginning;
    ASSERT_NE(apps.app(A), nullptr) << beginning;
    EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(A, nullptr)) << "nothing is under way any more";
    EXPECT_EQ(apps.app(A), nullptr);
}

TEST_P(RegistryContract, AnUninstallLeavesAnAppWhoseUpdateHasNoPlaceholder) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A));
    (void)apps.progress(A);
    expectUninstallLeavesApp(apps, "its progress was asked for");
    ASSERT_TRUE(apps.install(A));
    ASSERT_TRUE(apps.installPlaceholder(A));
    device().cancelByPerson(A);
    expectUninstallLeavesApp(apps, "its placeholder was cancelled");
}

TEST_P(RegistryContract, AnUninstallLeavesAnAppWhoseArchiveOrPlaceholderWasRefused) {
    APPSYNC_NEEDS(unpacksApps);
    const Apps apps(device(), platform());
    const auto nothing = *FileURL::fileURLWithPath("/var/mobile/Media/nothing", false);
    for (const Dictionary& options : {Apps::customer(A), Apps::placeholder(A, PDInstallTypeSync)}) {
        ASSERT_TRUE(apps.install(A));
        ASSERT_FALSE(apps.workspace().installApplication_withOptions_error(nothing, options, nullptr));
        expectUninstallLeavesApp(apps, Value(options).description());
    }
}

TEST_P(RegistryContract, AnUninstallOfPlaceholdersOnlyNeverTakesTheApp) {
    const Apps apps(device(), platform());
    const Dictionary placeholdersOnly{{PDUninstallPlaceholdersOnlyKey, true}};
    ASSERT_TRUE(apps.install(A));
    EXPECT_FALSE(apps.workspace().uninstallApplication_withOptions(A, &placeholdersOnly));
    ASSERT_TRUE(apps.installPlaceholder(A));
    EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(A, &placeholdersOnly));
    EXPECT_NE(apps.app(A), nullptr);
    const Dictionary anything{{PDUninstallPlaceholdersOnlyKey, false}};
    EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(A, &anything));
    EXPECT_EQ(apps.app(A), nullptr);
}

TEST_P(RegistryContract, EnumerationsSelectByType) {
    const Apps apps(device(), platform());
    device().install({.identifier = "com.system.a", .isSystem = true});
    ASSERT_TRUE(apps.install(A));
    ASSERT_TRUE(apps.install(B));
    ASSERT_TRUE(apps.installPlaceholder(B));
    ASSERT_TRUE(apps.installPlaceholder(C));
    EXPECT_EQ(apps.visited(PDBundleTypeAll), (Names{A, B, B + "?", C + "?", "com.system.a"}));
    EXPECT_EQ(apps.visited(PDBundleTypeInstalled), (Names{A, B, C + "?"})) << "an app has one icon";
    EXPECT_EQ(apps.visited(PDBundleTypeSystem), Names{"com.system.a"});
    EXPECT_EQ(apps.visited(99), Names{}) << "no such type";
    EXPECT_EQ(apps.app("com.system.a")->applicationType(), "System");
}

TEST_P(RegistryContract, AnEnumerationStopsWhenItIsToldAndRunsOnTheCallersThread) {
    const Apps apps(device(), platform());
    for (const std::string& app : {A, B, C}) {
        ASSERT_TRUE(apps.installPlaceholder(app));
    }
    int calls = 0;
    apps.workspace().enumerateBundlesOfType_block(PDBundleTypeAll,
                                                  [&, caller = std::this_thread::get_id()](const auto&, bool& stop) {
                                                      EXPECT_EQ(std::this_thread::get_id(), caller);
                                                      stop = ++calls == 2;
                                                  });
    EXPECT_EQ(calls, 2);
}

TEST_P(RegistryContract, AppsMayBeRemovedWhileTheyAreEnumerated) {
    const Apps apps(device(), platform());
    for (const std::string& app : {A, B, C}) {
        ASSERT_TRUE(apps.installPlaceholder(app));
    }
    apps.workspace().enumerateBundlesOfType_block(PDBundleTypeAll, [&](const PDApplicationProxyPtr& app, bool&) {
        EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(app->bundleIdentifier(), nullptr));
    });
    EXPECT_EQ(apps.visited(PDBundleTypeAll), Names{});
}

TEST_P(RegistryContract, WithoutCoordinationARestoresPlaceholderIsListedUnderAnIdentifierOfItsOwn) {
    makeDevice({.coordination = false});
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A, PDInstallTypeRestore));
    ASSERT_TRUE(apps.installPlaceholder(B, PDInstallTypeSync));
    apps.workspace().enumerateBundlesOfType_block(PDBundleTypeAll, [&](const PDApplicationProxyPtr& app, bool&) {
        EXPECT_EQ(app->applicationIdentifier() == app->bundleIdentifier(), app->bundleIdentifier() == B);
    });
    EXPECT_EQ(apps.visited(PDBundleTypeInstalled), (Names{A + "?", B + "?"}));
    EXPECT_EQ(apps.appOrPlaceholder(A)->applicationIdentifier(), A) << "everywhere else the two are the same";
}

TEST_P(RegistryContract, WithCoordinationBothIdentifiersOfARestoresPlaceholderAreTheSame) {
    APPSYNC_NEEDS(hasCoordinators);
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A, PDInstallTypeRestore));
    apps.workspace().enumerateBundlesOfType_block(PDBundleTypeAll, [&](const PDApplicationProxyPtr& app, bool&) {
        EXPECT_EQ(app->applicationIdentifier(), A);
        EXPECT_EQ(app->bundleIdentifier(), A);
    });
}

TEST_P(RegistryContract, ProgressIsMadeForAPlaceholderInThePhaseAskedForAndIsOne) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    EXPECT_EQ(apps.appOrPlaceholder(A)->installProgressSync(), nullptr);
    const auto progress =
        apps.workspace().installProgressForApplication_withPhase(apps.appOrPlaceholder(A), PDInstallPhaseRestoringData);
    ASSERT_NE(progress, nullptr);
    EXPECT_EQ(progress->installPhase(), PDInstallPhaseRestoringData);
    EXPECT_EQ(progress->installState(), PDInstallStateWaiting);
    EXPECT_EQ(progress->totalUnitCount(), 0);
    EXPECT_EQ(apps.progress(A), progress) << "whatever phase is asked for";
    EXPECT_EQ(apps.appOrPlaceholder(A)->installProgressSync(), progress);
}

TEST_P(RegistryContract, ThereIsNoProgressWhereNothingIsUnderWay) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A));
    EXPECT_EQ(apps.workspace().installProgressForApplication_withPhase(apps.app(A), PDInstallPhaseLoading), nullptr);
    EXPECT_EQ(apps.workspace().installProgressForApplication_withPhase(nullptr, PDInstallPhaseLoading), nullptr);
    apps.workspace().installPhaseFinishedForProgress(nullptr);
}

TEST_P(RegistryContract, ProgressKeepsWhatIsSetOnIt) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    const auto progress = apps.progress(A);
    ASSERT_NE(progress, nullptr);
    progress->setInstallState(PDInstallStateActive);
    progress->setInstallPhase(PDInstallPhaseInstalling);
    progress->setTotalUnitCount(1'000);
    progress->setCompletedUnitCount(250);
    progress->setCompletedUnitCount(2'000); // more than all, as a bad report may say
    EXPECT_EQ(progress->installState(), PDInstallStateActive);
    EXPECT_EQ(progress->installPhase(), PDInstallPhaseInstalling);
    EXPECT_EQ(progress->totalUnitCount(), 1'000);
    EXPECT_NE(progress->description(), "");
    progress->cancel();
    EXPECT_EQ(progress->installState(), PDInstallStateCanceled);
}

TEST_P(RegistryContract, LoadingIsFollowedByInstallingAndThatByTheEndOfTheInstall) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    const auto progress = apps.progress(A);
    ASSERT_NE(progress, nullptr);
    apps.workspace().installPhaseFinishedForProgress(progress);
    EXPECT_EQ(progress->installPhase(), PDInstallPhaseInstalling);
    EXPECT_EQ(apps.appOrPlaceholder(A)->installProgressSync(), progress);
    apps.workspace().installPhaseFinishedForProgress(progress);
    EXPECT_EQ(apps.appOrPlaceholder(A)->installProgressSync(), nullptr);
}

TEST_P(RegistryContract, AFinalStateEndsTheInstallInAnyPhase) {
    const Apps apps(device(), platform());
    for (const std::uint64_t state : {PDInstallStateCanceled, PDInstallStateFailed, PDInstallStateFinished}) {
        ASSERT_TRUE(apps.installPlaceholder(A));
        const auto progress = apps.progress(A);
        ASSERT_NE(progress, nullptr);
        progress->setInstallState(state);
        apps.workspace().installPhaseFinishedForProgress(progress);
        EXPECT_EQ(apps.appOrPlaceholder(A)->installProgressSync(), nullptr) << state;
    }
}

TEST_P(RegistryContract, SeveralThreadsMayInstallRemoveAndLookAtOnce) {
    const Apps apps(device(), platform());
    std::vector<std::thread> threads;
    for (const std::string& app : {A, B, C}) {
        threads.emplace_back([&apps, app] {
            for (int i = 0; i < 3; ++i) {
                EXPECT_TRUE(apps.installPlaceholder(app));
                EXPECT_TRUE(apps.install(app));
                EXPECT_NE(apps.app(app), nullptr);
                EXPECT_TRUE(apps.workspace().uninstallApplication_withOptions(app, nullptr));
                EXPECT_EQ(apps.appOrPlaceholder(app), nullptr);
            }
        });
    }
    threads.emplace_back([&apps] {
        for (int i = 0; i < 20; ++i) {
            EXPECT_LE(apps.visited(PDBundleTypeInstalled).size(), 3U);
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(apps.visited(PDBundleTypeAll), Names{});
}

TEST_P(RegistryContract, AppsAndPlaceholdersAreThereForTheNextProcess) {
    APPSYNC_NEEDS(outlivesItsProcess);
    {
        const Apps apps(device(), platform());
        ASSERT_TRUE(apps.install(A));
        ASSERT_TRUE(apps.installPlaceholder(B, PDInstallTypeRestore));
    }
    restart();
    const Apps apps(device(), platform());
    EXPECT_NE(apps.app(A), nullptr);
    ASSERT_NE(apps.appOrPlaceholder(B), nullptr);
    EXPECT_EQ(apps.appOrPlaceholder(B)->installType(), PDInstallTypeRestore);
}

} // namespace appsync::contract
