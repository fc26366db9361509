// Coordinators of restores give their apps the data that waits for them.
#include "archive/InstallerError.h"
#include "tests/device/coordinator/CoordinatorTest.h"

namespace appsync::device {
namespace {

class Restorer final {
  public:
    Result<void> restore(std::string_view bundleID) {
        calls.push_back("restore " + std::string(bundleID) + (isThere && isThere() ? " of an app" : ""));
        return failure;
    }
    void giveUp(std::string_view bundleID) { calls.push_back("give up " + std::string(bundleID)); }

    Lines calls;
    ErrorPtr failure;
    std::function<bool()> isThere;
};

class UserData : public CoordinatorTest {
  protected:
    UserData() {
        connection.reset();
        coordinator.reset();
        openCoordinator();
        coordinator->resume();
        restorer.isThere = [this] { return registry->isInstalled(A); };
    }
    void openCoordinator() {
        coordinator = std::move(*InstallCoordinator::open(
            {.files = device.files(),
             .registry = *registry,
             .database = *device.database,
             .propertyLists = propertyLists,
             .restoreUserData = [this](std::string_view bundleID) { return restorer.restore(bundleID); },
             .giveUpUserData = [this](std::string_view bundleID) { restorer.giveUp(bundleID); }},
            true));
        connect();
    }
    /// All that a restore needs but the app's file.
    KXAppInstallCoordinatorPtr beginRestore() {
        const auto made = lookUp(classes().restoringCoordinators, A, true);
        TVInstallOptions options;
        options.setRegistryInstallType(PDInstallTypeRestore);
        EXPECT_TRUE(made->setInstallOptions_error(options, nullptr));
        EXPECT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
        return made;
    }
    void deliverTo(const KXAppInstallCoordinatorPtr& made, const std::string& path) {
        const auto asset = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
            A, KXClientCorbin, *FileURL::fileURLWithPath(path, false), 1);
        ASSERT_TRUE(made->setAppAssetPromise_error(asset, nullptr));
        asset->setComplete(true);
        coordinator->waitUntilIdle();
    }
    static ErrorPtr noRoom() { return makeError("Test", 7, "no room"); }

    Restorer restorer;
};

TEST_F(UserData, IsRestoredAfterTheAppAndBeforeTheReport) {
    const auto made = beginRestore();
    coordinator->waitUntilIdle();
    EXPECT_EQ(restorer.calls, Lines());
    (void)reports.take();
    reports.during = [this](const std::string&) { restorer.calls.emplace_back("report"); };
    deliverTo(made, makeArchive(A));
    EXPECT_EQ(restorer.calls, (Lines{"restore " + A + " of an app", "report"}));
    EXPECT_EQ(made->error(), nullptr);
}

TEST_F(UserData, ThatCannotBeRestoredIsTheCoordinatorsError) {
    restorer.failure = noRoom();
    const auto made = beginRestore();
    deliverTo(made, makeArchive(A));
    ASSERT_NE(made->error(), nullptr);
    EXPECT_EQ(made->error()->code(), 7);
    EXPECT_TRUE(registry->isInstalled(A));
    EXPECT_EQ(restorer.calls, Lines{"restore " + A + " of an app"}) << "the app is there: its data waits on";
    expectNothingLeftOf(A);
}

TEST_F(UserData, OfAnAppThatWillNotComeIsGivenUp) {
    const auto made = beginRestore();
    deliverTo(made, makeFile("/var/mobile/Media/PublicStaging/" + A + ".ipa", "damaged"));
    EXPECT_NE(made->error(), nullptr);
    EXPECT_EQ(restorer.calls, Lines{"give up " + A});
}

/// A restore whose file the store owes.
class UserDataOfTheStoresApp : public UserData {
  protected:
    KXAppInstallCoordinatorPtr beginRestore() {
        const auto made = std::static_pointer_cast<KXRestoringAppInstallCoordinator>(UserData::beginRestore());
        EXPECT_TRUE(made->setAppAssetPromiseResponsibleClient_error(KXClientCorbin, nullptr));
        return made;
    }
    std::string makeDamagedArchive() { return makeFile("/var/mobile/Media/PublicStaging/" + A + ".ipa", "damaged"); }
    void expectToWait() {
        ASSERT_NE(find(A), nullptr);
        EXPECT_FALSE(find(A)->hasAppAssetPromise());
        EXPECT_TRUE(registry->hasPlaceholder(A));
        EXPECT_EQ(restorer.calls, Lines());
    }
    /// As a kill leaves it: the file has arrived, and is gone.
    void reopenWithoutTheFileThatArrived() {
        coordinator->waitUntilIdle();
        connection.reset();
        coordinator.reset();
        openCoordinator();
        const std::string path = makeArchive(A);
        const auto promise = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
            A, KXClientCorbin, *FileURL::fileURLWithPath(path, false), 1);
        ASSERT_TRUE(find(A)->setAppAssetPromise_error(promise, nullptr));
        promise->setComplete(true);
        device.files().removeItem(path, nullptr);
    }
};

TEST_F(UserDataOfTheStoresApp, WaitsForABetterFileWhenOneWasRefused) {
    const auto made = beginRestore();
    const std::string damaged = makeDamagedArchive();
    deliverTo(made, damaged);
    ASSERT_NO_FATAL_FAILURE(expectToWait());
    EXPECT_TRUE(isError(find(A)->error(), TVInstallerErrorDomain, InstallerError::archiveDamaged));
    EXPECT_EQ(reports.take(), Lines{"placeholder " + A}) << "it has not ended";
    EXPECT_FALSE(exists(damaged));
    deliverTo(made, makeArchive(A));
    EXPECT_EQ(restorer.calls, Lines{"restore " + A + " of an app"});
    EXPECT_EQ(made->error(), nullptr);
    EXPECT_EQ(reports.take(), Lines{"completed " + A});
    expectNothingLeftOf(A);
}

TEST_F(UserDataOfTheStoresApp, WaitsForAnotherFileWhenTheOneThatHadArrivedIsGone) {
    (void)beginRestore();
    ASSERT_NO_FATAL_FAILURE(reopenWithoutTheFileThatArrived());
    coordinator->resume();
    coordinator->waitUntilIdle();
    ASSERT_NO_FATAL_FAILURE(expectToWait());
    EXPECT_TRUE(isError(find(A)->error(), coordinatorErrorDomain, CoordinatorError::fileMissing));
}

TEST_F(UserDataOfTheStoresApp, IsRestoredWhenAnEarlierProcessCouldNotWriteDownThatItCame) {
    (void)beginRestore();
    ASSERT_NO_FATAL_FAILURE(reopenWithoutTheFileThatArrived());
    ArchiveRequest request;
    request.identifier = A;
    request.archivePath = makeArchive(A);
    ASSERT_TRUE(registry->installArchive(request));
    device.files().removeItem(request.archivePath, nullptr);
    coordinator->resume();
    coordinator->waitUntilIdle();
    EXPECT_EQ(restorer.calls, Lines{"restore " + A + " of an app"});
    EXPECT_TRUE(registry->isInstalled(A));
    EXPECT_EQ(find(A), nullptr);
}

TEST_F(UserDataOfTheStoresApp, IsGivenUpWhenAPersonCancelsTheAppThatWaits) {
    deliverTo(beginRestore(), makeDamagedArchive());
    EXPECT_TRUE(coordinator->cancelByUser(A));
    EXPECT_EQ(restorer.calls, Lines{"give up " + A});
    coordinator->waitUntilIdle();
    expectNothingLeftOf(A);
    EXPECT_FALSE(registry->hasPlaceholder(A));
}

TEST_F(UserData, OfADemotedAppIsRestoredWithItsPlaceholder) {
    const auto made = lookUp(classes().restoringDemotedCoordinators, A, true);
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(restorer.calls, Lines{"restore " + A});
    EXPECT_EQ(made->error(), nullptr);
    EXPECT_TRUE(registry->hasPlaceholder(A));
}

TEST_F(UserData, OfADemotedAppThatCannotBeRestoredTakesThePlaceholderBack) {
    restorer.failure = noRoom();
    const auto made = lookUp(classes().restoringDemotedCoordinators, A, true);
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(restorer.calls, (Lines{"restore " + A, "give up " + A}));
    EXPECT_NE(made->error(), nullptr);
    EXPECT_FALSE(registry->hasPlaceholder(A));
}

TEST_F(UserData, IsNoMatterOfOtherInstalls) {
    install(A);
    EXPECT_EQ(restorer.calls, Lines());
}

} // namespace
} // namespace appsync::device
