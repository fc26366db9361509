// Coordinators, placeholders and promises as they are made, found, configured and cancelled.
#include "platform/InstallCoordinator.h"
#include "tests/contract/Apps.h"

#include <atomic>
#include <thread>

namespace appsync::contract {
namespace {

/// What a lookup answers.
struct LookedUp {
    Answer<KXAppInstallCoordinator> coordinator;
    bool created = false;
    ErrorPtr error;
};

template <class Coordinator>
LookedUp lookUp(KXCoordinatorClass<Coordinator>& kind, const std::string& identifier, bool create,
                KXClientIdentifier client = KXClientSyncHost) {
    LookedUp found;
    found.created = !create; // must be set, whatever the answer
    auto coordinator = kind.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        identifier, client, create, &found.created, &found.error);
    found.coordinator = {std::move(coordinator),
                         (create ? "a coordinator made for " : "the coordinator of ") + identifier};
    return found;
}

Answer<KXPromisedTransferToPath> makePromise(const Platform& platform, const std::string& name = "promise") {
    return {platform.transferPromises.initWithName_client_diskSpaceNeeded(name, KXClientSyncHost, 1'000),
            "a promise of a transfer"};
}

Answer<KXPlaceholder> makePlaceholder(const Platform& platform, const std::string& identifier) {
    return {platform.placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
                "Name", identifier, PDInstallTypeSync, KXClientSyncHost),
            "a placeholder of " + identifier};
}

Answer<KXPromisedTransferToPath> assetPromiseOf(const Answer<KXAppInstallCoordinator>& coordinator) {
    return {coordinator->appAssetPromiseWithError(nullptr), "the coordinator's app asset promise"};
}

} // namespace

TEST_P(CoordinationContract, WhetherInstallsAreCoordinatedIsTheDevicesChoice) {
    EXPECT_EQ(platform().coordinators.coordinationIsEnabled(), device().can(Ability::hasCoordinators));
    makeDevice({.coordination = false});
    EXPECT_FALSE(platform().coordinators.coordinationIsEnabled());
    EXPECT_EQ(lookUp(platform().coordinators, A, false).coordinator, nullptr);
}

TEST_P(CoordinationContract, ALookupThatFindsNothingAnswersNullWithoutAnError) {
    const auto expectNothing = [](const LookedUp& found) {
        EXPECT_EQ(found.coordinator, nullptr);
        EXPECT_EQ(found.error, nullptr) << textOf(found.error);
        EXPECT_FALSE(found.created);
    };
    expectNothing(lookUp(platform().coordinators, A, false));
    expectNothing(lookUp(platform().initiatingCoordinators, A, false));
    expectNothing(lookUp(platform().updatingCoordinators, A, false));
    expectNothing(lookUp(platform().restoringCoordinators, A, false));
    expectNothing(lookUp(platform().restoringDemotedCoordinators, A, false));
}

TEST_P(CoordinatorContract, ANewCoordinatorBelongsToTheClientThatAskedForItAndIsFoundByAll) {
    const LookedUp made = lookUp(platform().initiatingCoordinators, A, true, KXClientCorbin);
    ASSERT_NE(made.coordinator, nullptr) << textOf(made.error);
    EXPECT_TRUE(made.created);
    EXPECT_EQ(made.coordinator->bundleID(), A);
    EXPECT_EQ(made.coordinator->creatorIdentifier(), KXClientCorbin);
    EXPECT_EQ(made.coordinator->error(), nullptr);
    EXPECT_NE(made.coordinator->description(), "");
    const LookedUp again = lookUp(platform().initiatingCoordinators, A, true, KXClientSyncHost);
    ASSERT_NE(again.coordinator, nullptr);
    EXPECT_FALSE(again.created);
    EXPECT_EQ(again.coordinator->creatorIdentifier(), KXClientCorbin);
    EXPECT_NE(lookUp(platform().initiatingCoordinators, A, false).coordinator, nullptr);
    EXPECT_EQ(lookUp(platform().initiatingCoordinators, B, false).coordinator, nullptr);
}

TEST_P(CoordinatorContract, AnAppHasOneCoordinatorWhichOnlyItsOwnKindAndTheBaseClassFind) {
    ASSERT_NE(lookUp(platform().updatingCoordinators, A, true).coordinator, nullptr);
    EXPECT_NE(lookUp(platform().coordinators, A, false).coordinator, nullptr);
    const LookedUp other = lookUp(platform().initiatingCoordinators, A, false);
    EXPECT_EQ(other.coordinator, nullptr);
    EXPECT_EQ(other.error, nullptr);
    for (const LookedUp& second :
         {lookUp(platform().initiatingCoordinators, A, true), lookUp(platform().restoringCoordinators, A, true),
          lookUp(platform().restoringDemotedCoordinators, A, true)}) {
        EXPECT_EQ(second.coordinator, nullptr);
        EXPECT_FALSE(second.created);
        EXPECT_NE(second.error, nullptr);
    }
}

TEST_P(CoordinationContract, TheBaseClassMakesNone) {
    const LookedUp made = lookUp(platform().coordinators, A, true);
    EXPECT_EQ(made.coordinator, nullptr);
    EXPECT_FALSE(made.created);
    EXPECT_NE(made.error, nullptr);
}

TEST_P(CoordinatorContract, WhoDoesNotAskNeedNotBeToldWhetherOneWasMadeOrWhyNot) {
    const auto lookUpWithoutAnswers = [](auto& kind) {
        return kind.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            A, KXClientSyncHost, true, nullptr, nullptr);
    };
    EXPECT_NE(lookUpWithoutAnswers(platform().initiatingCoordinators), nullptr);
    EXPECT_EQ(lookUpWithoutAnswers(platform().updatingCoordinators), nullptr);
}

TEST_P(CoordinatorContract, WhatIsSetIsThere) {
    const auto coordinator = lookUp(platform().initiatingCoordinators, A, true).coordinator;
    EXPECT_FALSE(coordinator->hasInstallOptions());
    EXPECT_FALSE(coordinator->hasInitialODRAssetPromises());
    EXPECT_FALSE(coordinator->hasAppAssetPromise());
    EXPECT_FALSE(coordinator->hasPlaceholderPromise());
    EXPECT_EQ(coordinator->appAssetPromiseWithError(nullptr), nullptr);

    TVInstallOptions options;
    options.setTamblinMetadata(TVStoreMetadata{Dictionary{{"title", "T"}}});
    options.setSinfData(Data("sinf"));
    options.setRegistryInstallType(PDInstallTypeSync);
    options.setInstallTargetType(1);
    ErrorPtr error;
    EXPECT_TRUE(coordinator->setInstallOptions_error(options, &error)) << textOf(error);
    EXPECT_TRUE(coordinator->setInstallOptions_error({}, &error)) << "others may replace them: " << textOf(error);
    EXPECT_TRUE(coordinator->setInitialODRAssetPromises_error({}, &error)) << textOf(error);
    EXPECT_TRUE(coordinator->setAppAssetPromise_error(makePromise(platform()), &error)) << textOf(error);
    EXPECT_TRUE(coordinator->setPlaceholderPromise_error(makePlaceholder(platform(), A), &error)) << textOf(error);
    EXPECT_EQ(error, nullptr);

    const auto found = lookUp(platform().coordinators, A, false).coordinator;
    ASSERT_NE(found, nullptr);
    EXPECT_TRUE(found->hasInstallOptions());
    EXPECT_TRUE(found->hasInitialODRAssetPromises());
    EXPECT_TRUE(found->hasAppAssetPromise());
    EXPECT_TRUE(found->hasPlaceholderPromise());
}

TEST_P(CoordinatorContract, TheAppAssetPromiseIsHandedOutAgain) {
    const auto coordinator = lookUp(platform().initiatingCoordinators, A, true).coordinator;
    const auto promise = makePromise(platform());
    ASSERT_TRUE(coordinator->setAppAssetPromise_error(promise, nullptr));
    const auto found = assetPromiseOf(lookUp(platform().coordinators, A, false).coordinator);
    EXPECT_FALSE(found->isComplete());
    promise->setComplete(true);
    EXPECT_TRUE(found->isComplete());
}

TEST_P(CoordinatorContract, ThereIsOneAppAssetPromise) {
    const auto coordinator = lookUp(platform().initiatingCoordinators, A, true).coordinator;
    ErrorPtr error;
    EXPECT_FALSE(coordinator->setAppAssetPromise_error(nullptr, &error));
    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(coordinator->hasAppAssetPromise());
    const auto first = makePromise(platform(), "first");
    ASSERT_TRUE(coordinator->setAppAssetPromise_error(first, nullptr));
    error = nullptr;
    EXPECT_FALSE(coordinator->setAppAssetPromise_error(makePromise(platform(), "second"), &error));
    EXPECT_NE(error, nullptr);
    first->setComplete(true);
    EXPECT_TRUE(assetPromiseOf(coordinator)->isComplete()) << "the first one stays";
}

TEST_P(CoordinatorContract, ANullPlaceholderIsTakenOrRefusedButNeverThere) {
    const auto coordinator = lookUp(platform().initiatingCoordinators, A, true).coordinator;
    ErrorPtr error;
    const bool isTaken = coordinator->setPlaceholderPromise_error(nullptr, &error);
    EXPECT_EQ(isTaken, !error);
    EXPECT_FALSE(coordinator->hasPlaceholderPromise());
}

TEST_P(CoordinatorContract, TheRestoringKindsTakeAUserDataPromiseAndAResponsibleClient) {
    const auto promise =
        platform().outOfBandPromises.initWithName_client_diskSpaceNeeded("data", KXClientSyncHost, 5'000);
    ASSERT_NE(promise, nullptr);
    const auto restoring =
        platform().restoringCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            A, KXClientSyncHost, true, nullptr, nullptr);
    ASSERT_NE(restoring, nullptr);
    ErrorPtr error;
    EXPECT_FALSE(restoring->hasUserDataPromise());
    EXPECT_TRUE(restoring->setUserDataPromise_error(promise, &error)) << textOf(error);
    EXPECT_TRUE(restoring->hasUserDataPromise());
    EXPECT_EQ(restoring->appAssetPromiseResponsibleClientWithError(&error), 0U) << "none is named";
    EXPECT_TRUE(restoring->setAppAssetPromiseResponsibleClient_error(KXClientCorbin, &error)) << textOf(error);
    EXPECT_EQ(restoring->appAssetPromiseResponsibleClientWithError(&error), KXClientCorbin);
    EXPECT_EQ(error, nullptr);

    const auto demoted =
        platform()
            .restoringDemotedCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                B, KXClientSyncHost, true, nullptr, nullptr);
    ASSERT_NE(demoted, nullptr);
    EXPECT_FALSE(demoted->hasUserDataPromise());
    EXPECT_FALSE(demoted->setUserDataPromise_error(nullptr, &error));
    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(demoted->hasUserDataPromise());
}

TEST_P(CoordinatorContract, APromiseIsCompleteOnceItHasBeenSaidToBe) {
    const auto transfer = platform().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
        "name", KXClientSyncHost, fileAt("/tmp/file"), 0);
    const auto outOfBand =
        platform().outOfBandPromises.initWithName_client_diskSpaceNeeded("name", KXClientSyncHost, 0);
    ASSERT_TRUE(transfer && outOfBand);
    transfer->setTransferPath(fileAt("/tmp/other"));
    transfer->setTransferPath(std::nullopt);
    for (const std::shared_ptr<KXPromise>& promise :
         {std::shared_ptr<KXPromise>(transfer), std::shared_ptr<KXPromise>(outOfBand)}) {
        EXPECT_NE(promise->description(), "");
        promise->setPercentComplete(0.5);
        promise->setPercentComplete(1.0);
        EXPECT_FALSE(promise->isComplete()) << "all of it has come, but nobody has said so";
        promise->setComplete(true);
        EXPECT_TRUE(promise->isComplete());
    }
}

TEST_P(CoordinatorContract, AnUnattachedPromiseOrPlaceholderCanBeCancelled) {
    const ErrorPtr reason = Error::make(QRErrorDomain, 30);
    ErrorPtr error;
    EXPECT_TRUE(makePromise(platform())->cancelForReason_client_error(reason, KXClientSyncHost, &error));
    EXPECT_TRUE(makePlaceholder(platform(), A)->cancelForReason_client_error(reason, KXClientSyncHost, nullptr));
    EXPECT_EQ(error, nullptr);
}

TEST_P(CoordinatorContract, APlaceholderTakesWhatIsKnownOfItsApp) {
    const auto placeholder = makePlaceholder(platform(), A);
    ASSERT_NE(placeholder, nullptr);
    EXPECT_NE(placeholder->description(), "");
    auto attributes = KXPlaceholderAttributes::initWithInfoPlistDictionary(Dictionary{{"UIWendralApp", true}});
    attributes.setBundleVersion("1.0");
    attributes.setLaunchProhibited(true);
    ErrorPtr error;
    EXPECT_TRUE(placeholder->setPlaceholderAttributes_error(attributes, &error)) << textOf(error);
    EXPECT_TRUE(placeholder->setMetadata_error(TVStoreMetadata{Dictionary{{"title", "T"}}}, &error)) << textOf(error);
    EXPECT_TRUE(placeholder->setMetadata_error(std::nullopt, &error)) << textOf(error);
    EXPECT_TRUE(placeholder->setSinfData_error(Data("sinf"), &error)) << textOf(error);
    EXPECT_TRUE(placeholder->setIconPromise_error(makePromise(platform(), "icon"), &error)) << textOf(error);
    EXPECT_TRUE(placeholder->setConfigurationCompleteWithError(&error)) << textOf(error);
    EXPECT_EQ(error, nullptr);
}

TEST_P(CoordinatorContract, ACancelledCoordinatorHasItsReasonIsNotFoundAndTakesNothingMore) {
    const auto coordinator = lookUp(platform().initiatingCoordinators, A, true).coordinator;
    const ErrorPtr reason = Error::make(QRErrorDomain, 2);
    ErrorPtr error;
    ASSERT_TRUE(coordinator->cancelForReason_client_error(reason, KXClientSyncHost, &error)) << textOf(error);
    EXPECT_EQ(error, nullptr);
    ASSERT_NE(coordinator->error(), nullptr);
    EXPECT_EQ(coordinator->error()->domain(), QRErrorDomain);
    EXPECT_EQ(coordinator->error()->code(), 2);
    EXPECT_EQ(lookUp(platform().coordinators, A, false).coordinator, nullptr);
    EXPECT_FALSE(coordinator->setInstallOptions_error({}, &error));
    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(coordinator->setAppAssetPromise_error(makePromise(platform()), nullptr));
    error = nullptr;
    EXPECT_FALSE(coordinator->cancelForReason_client_error(reason, KXClientSyncHost, &error)) << "it has ended";
    EXPECT_NE(error, nullptr);
}

TEST_P(CoordinatorContract, AfterACancelAnotherCoordinatorOfAnyKindCanBeMade) {
    const auto first = lookUp(platform().initiatingCoordinators, A, true).coordinator;
    ASSERT_TRUE(first->cancelForReason_client_error(Error::make(QRErrorDomain, 2), KXClientSyncHost, nullptr));
    const LookedUp second = lookUp(platform().restoringCoordinators, A, true);
    ASSERT_NE(second.coordinator, nullptr) << textOf(second.error);
    EXPECT_TRUE(second.created);
    EXPECT_EQ(second.coordinator->error(), nullptr);
    EXPECT_FALSE(second.coordinator->hasInstallOptions());
}

TEST_P(CoordinatorContract, OfSeveralThreadsThatWantACoordinatorOneMakesIt) {
    std::atomic<int> made = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (const std::string& app : {A, B, C}) {
                const LookedUp found = lookUp(platform().initiatingCoordinators, app, true);
                EXPECT_NE(found.coordinator, nullptr) << textOf(found.error);
                made += found.created ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(made, 3);
}

TEST_P(CoordinatorContract, AnUninstallReturnsAtOnceAndCompletesOnceOnAnotherThread) {
    device().install({A});
    Signal completed("the completion of the uninstall");
    std::atomic<int> completions = 0;
    std::thread::id thread;
    platform().coordinators.uninstallAppWithBundleID_requestUserConfirmation_completion(
        A, false, [&](const ErrorPtr& error) {
            EXPECT_EQ(error, nullptr) << textOf(error);
            thread = std::this_thread::get_id();
            ++completions;
            completed.raise();
        });
    device().proceed();
    ASSERT_TRUE(completed.wait());
    EXPECT_EQ(completions, 1);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_P(CoordinatorContract, CoordinatorsAndWhatWasSetOnThemOutliveTheirProcess) {
    APPSYNC_NEEDS(outlivesItsProcess);
    {
        const auto coordinator = lookUp(platform().initiatingCoordinators, A, true).coordinator;
        TVInstallOptions options;
        options.setRegistryInstallType(PDInstallTypeSync);
        ASSERT_TRUE(coordinator->setInstallOptions_error(options, nullptr));
        ASSERT_TRUE(coordinator->setAppAssetPromise_error(makePromise(platform()), nullptr));
    }
    restart();
    const auto found = lookUp(platform().initiatingCoordinators, A, false).coordinator;
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->creatorIdentifier(), KXClientSyncHost);
    EXPECT_TRUE(found->hasInstallOptions());
    EXPECT_FALSE(assetPromiseOf(found)->isComplete());
}

} // namespace appsync::contract
