// Lookups of coordinators, and what may be set on coordinators, placeholders and promises.
#include "tests/device/coordinator/CoordinatorTest.h"

namespace appsync::device {
namespace {

TEST_F(CoordinatorTest, IsFoundByItsKindAndByTheBaseClassOnly) {
    ASSERT_TRUE(lookUp(classes().initiatingCoordinators, A, true));
    ErrorPtr error;
    EXPECT_TRUE(lookUp(classes().initiatingCoordinators, A, false));
    EXPECT_TRUE(find(A));
    EXPECT_FALSE(lookUp(classes().updatingCoordinators, A, false, KXClientSyncHost, &error));
    EXPECT_FALSE(lookUp(classes().restoringCoordinators, A, false, KXClientSyncHost, &error));
    EXPECT_FALSE(lookUp(classes().restoringDemotedCoordinators, A, false, KXClientSyncHost, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(find(B));
}

TEST_F(CoordinatorTest, AnAppHasOneCoordinatorOfOneKind) {
    ASSERT_TRUE(lookUp(classes().restoringCoordinators, A, true));
    ErrorPtr error;
    EXPECT_FALSE(lookUp(classes().initiatingCoordinators, A, true, KXClientSyncHost, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::otherKind));
    EXPECT_EQ(rowsIn("coordinator"), 1);
}

TEST_F(CoordinatorTest, IsMadeForABundleIdentifierOnly) {
    for (const std::string& odd : {std::string(), std::string(".."), std::string("a/b"), std::string("a b"),
                                   std::string(201, 'a'), std::string("a\0b", 3)}) {
        ErrorPtr error;
        EXPECT_FALSE(lookUp(classes().initiatingCoordinators, odd, true, KXClientSyncHost, &error));
        EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::invalidArgument)) << odd;
    }
}

TEST_F(CoordinatorTest, TheBaseClassFindsButDoesNotCreate) {
    ErrorPtr error;
    EXPECT_FALSE(lookUp(classes().coordinators, A, true, KXClientSyncHost, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::noKind));
    ASSERT_TRUE(lookUp(classes().updatingCoordinators, A, true));
    error = nullptr;
    EXPECT_TRUE(lookUp(classes().coordinators, A, true, KXClientSyncHost, &error));
    EXPECT_EQ(error, nullptr);
}

TEST_F(CoordinatorTest, KeepsTheClientThatCreatedItWhoeverFindsIt) {
    bool created = false;
    auto& kind = classes().initiatingCoordinators;
    const auto first = kind.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        A, KXClientCorbin, true, &created, nullptr);
    EXPECT_TRUE(created);
    const auto second = kind.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        A, KXClientSyncHost, true, &created, nullptr);
    EXPECT_FALSE(created);
    EXPECT_EQ(second->creatorIdentifier(), KXClientCorbin);
    EXPECT_EQ(second->bundleID(), A);
    EXPECT_EQ(second->description(), "<initiating coordinator for " + A + ", client 1>");
}

TEST_F(CoordinatorTest, RefusesWhatCannotBeAnIdentifier) {
    for (const std::string& wrong :
         {std::string(), std::string("a/b"), std::string("a\0b", 3), std::string(300, 'a')}) {
        ErrorPtr error;
        EXPECT_FALSE(lookUp(classes().initiatingCoordinators, wrong, true, KXClientSyncHost, &error));
        EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::invalidArgument));
    }
    EXPECT_EQ(classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client("n", "", 4, 3),
              nullptr);
}

TEST_F(CoordinatorTest, SaysWhatIsSetOnIt) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    EXPECT_FALSE(made->hasInstallOptions());
    EXPECT_FALSE(made->hasInitialODRAssetPromises());
    EXPECT_FALSE(made->hasAppAssetPromise());
    EXPECT_FALSE(made->hasPlaceholderPromise());
    ErrorPtr error;
    EXPECT_EQ(made->appAssetPromiseWithError(&error), nullptr);
    EXPECT_EQ(error, nullptr);
    (void)prepare(A);
    EXPECT_TRUE(made->hasInstallOptions()) << "every handle stands for the same coordinator";
    EXPECT_TRUE(made->hasInitialODRAssetPromises());
    EXPECT_TRUE(made->hasAppAssetPromise());
    EXPECT_TRUE(made->hasPlaceholderPromise());
    EXPECT_EQ(made->error(), nullptr);
}

TEST_F(CoordinatorTest, TheAssetPromiseIsFoundThroughTheCoordinator) {
    const auto app = prepare(A);
    const auto found = find(A)->appAssetPromiseWithError(nullptr);
    ASSERT_TRUE(found);
    EXPECT_FALSE(found->isComplete());
    EXPECT_EQ(found->description(), app.asset->description());
    app.asset->setComplete(true);
    EXPECT_TRUE(found->isComplete());
    app.asset->setComplete(false);
    EXPECT_TRUE(found->isComplete()) << "a complete promise stays complete";
}

TEST_F(CoordinatorTest, WhatIsSetAlreadyIsNotSetAgain) {
    const auto app = prepare(A);
    ErrorPtr error;
    const auto other = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    EXPECT_FALSE(app.coordinator->setAppAssetPromise_error(other, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::alreadySet));
    error = nullptr;
    EXPECT_FALSE(app.coordinator->setPlaceholderPromise_error(makePlaceholder(A), &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::alreadySet));
}

TEST_F(CoordinatorTest, APromiseOrPlaceholderServesOneCoordinatorOnly) {
    const auto app = prepare(A);
    const auto other = lookUp(classes().initiatingCoordinators, B, true);
    ErrorPtr error;
    EXPECT_FALSE(other->setAppAssetPromise_error(app.asset, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::alreadySet));
    EXPECT_FALSE(other->setPlaceholderPromise_error(app.placeholder, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::invalidArgument)) << "it is for another app";
}

class ForeignPromise final : public KXPromisedTransferToPath {
  public:
    bool isComplete() noexcept override { return true; }
    void setPercentComplete(double) noexcept override {}
    void setComplete(bool) noexcept override {}
    bool cancelForReason_client_error(const ErrorPtr&, KXClientIdentifier, ErrorPtr*) noexcept override { return true; }
    std::string description() noexcept override { return {}; }
    void setTransferPath(const std::optional<FileURL>&) noexcept override {}
};

TEST_F(CoordinatorTest, NullAndObjectsOfOtherMakersAreRefused) {
    const auto made = lookUp(classes().restoringCoordinators, A, true);
    ErrorPtr error;
    EXPECT_FALSE(made->setPlaceholderPromise_error(nullptr, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::invalidArgument));
    EXPECT_FALSE(made->hasPlaceholderPromise());
    EXPECT_FALSE(made->setAppAssetPromise_error(nullptr, nullptr));
    EXPECT_FALSE(made->setUserDataPromise_error(nullptr, nullptr));
    EXPECT_FALSE(made->setAppAssetPromise_error(std::make_shared<ForeignPromise>(), nullptr));
    EXPECT_FALSE(makePlaceholder(A, false)->setIconPromise_error(std::make_shared<ForeignPromise>(), nullptr));
}

TEST_F(CoordinatorTest, OnDemandResourcesAreRefused) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto promise = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    ErrorPtr error;
    EXPECT_FALSE(made->setInitialODRAssetPromises_error({promise}, &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::unsupported));
    EXPECT_FALSE(made->hasInitialODRAssetPromises());
}

TEST_F(CoordinatorTest, MetadataThatNoFileCanHoldIsRefused) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    TVInstallOptions options;
    options.setTamblinMetadata(TVStoreMetadata{Dictionary{{"null", Value()}}});
    ErrorPtr error;
    EXPECT_FALSE(made->setInstallOptions_error(options, &error));
    EXPECT_TRUE(error);
    EXPECT_FALSE(made->hasInstallOptions());
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "n", A, 4, KXClientSyncHost);
    EXPECT_FALSE(placeholder->setMetadata_error(options.tamblinMetadata, nullptr));
    EXPECT_TRUE(placeholder->setMetadata_error(std::nullopt, nullptr));
}

TEST_F(CoordinatorTest, AConfiguredPlaceholderIsNotChanged) {
    const auto placeholder = makePlaceholder(A);
    ErrorPtr error;
    EXPECT_FALSE(placeholder->setPlaceholderAttributes_error(KXPlaceholderAttributes::init(), &error));
    EXPECT_TRUE(isError(error, coordinatorErrorDomain, CoordinatorError::ended));
    EXPECT_FALSE(placeholder->setConfigurationCompleteWithError(nullptr));
    EXPECT_EQ(placeholder->description(), "<placeholder \"Name of " + A + "\" for " + A + ">");
}

TEST_F(CoordinatorTest, APlaceholderHasOneIcon) {
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "n", A, 4, KXClientSyncHost);
    const auto icon = classes().transferPromises.initWithName_client_diskSpaceNeeded("i", KXClientSyncHost, 0);
    const auto other = classes().transferPromises.initWithName_client_diskSpaceNeeded("j", KXClientSyncHost, 0);
    EXPECT_TRUE(placeholder->setIconPromise_error(icon, nullptr));
    EXPECT_FALSE(placeholder->setIconPromise_error(other, nullptr));
    EXPECT_FALSE(makePlaceholder(B, false)->setIconPromise_error(icon, nullptr));
}

/// Takes no commits while it is full.
class FullDisk final : public FaultPoint {
  public:
    int before(std::string_view operation, std::string_view) noexcept override {
        return isFull && operation == "commit" ? ENOSPC : 0;
    }
    std::atomic<bool> isFull = false;
};

TEST_F(CoordinatorTest, AChangeThatCannotBeWrittenDownIsNotMade) {
    const auto disk = std::make_shared<FullDisk>();
    reopen(disk);
    const auto made = lookUp(classes().restoringCoordinators, A, true);
    const auto asset = classes().transferPromises.initWithName_client_diskSpaceNeeded("x", KXClientSyncHost, 0);
    const auto placeholder = makePlaceholder(A);
    disk->isFull = true;
    ErrorPtr error;
    EXPECT_FALSE(lookUp(classes().initiatingCoordinators, B, true, KXClientSyncHost, &error));
    EXPECT_TRUE(error);
    EXPECT_FALSE(made->setInstallOptions_error(TVInstallOptions{}, nullptr));
    EXPECT_FALSE(made->setInitialODRAssetPromises_error({}, nullptr));
    EXPECT_FALSE(made->setAppAssetPromise_error(asset, nullptr));
    EXPECT_FALSE(made->setPlaceholderPromise_error(placeholder, nullptr));
    EXPECT_FALSE(made->setAppAssetPromiseResponsibleClient_error(1, nullptr));
    EXPECT_FALSE(made->hasInstallOptions() || made->hasInitialODRAssetPromises() || made->hasAppAssetPromise() ||
                 made->hasPlaceholderPromise());
    EXPECT_EQ(made->appAssetPromiseResponsibleClientWithError(nullptr), 0U);
    EXPECT_FALSE(find(B));
    disk->isFull = false;
    EXPECT_TRUE(made->setInstallOptions_error(TVInstallOptions{}, nullptr)) << "it can be tried again";
    EXPECT_TRUE(made->setAppAssetPromise_error(asset, nullptr));
    EXPECT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->hasPlaceholder(A));
}

TEST_F(CoordinatorTest, AnAttachedPlaceholderWhoseConfigurationCannotBeWrittenDownIsNotConfigured) {
    const auto disk = std::make_shared<FullDisk>();
    reopen(disk);
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    const auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "n", A, 4, KXClientSyncHost);
    const auto icon = classes().transferPromises.initWithName_client_diskSpaceNeeded("i", KXClientSyncHost, 0);
    ASSERT_TRUE(made->setPlaceholderPromise_error(placeholder, nullptr));
    disk->isFull = true;
    EXPECT_FALSE(placeholder->setIconPromise_error(icon, nullptr));
    EXPECT_FALSE(placeholder->setConfigurationCompleteWithError(nullptr));
    disk->isFull = false;
    coordinator->waitUntilIdle();
    EXPECT_FALSE(registry->hasPlaceholder(A));
    EXPECT_TRUE(placeholder->setIconPromise_error(icon, nullptr)) << "it can be tried again";
    icon->setComplete(true);
    EXPECT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->hasPlaceholder(A));
}

TEST_F(CoordinatorTest, APlaceholderDoesNotServeALaterCoordinatorOfItsApp) {
    const auto app = prepare(A);
    ASSERT_TRUE(app.coordinator->cancelForReason_client_error(Error::make("x", 1), KXClientSyncHost, nullptr));
    const auto later = lookUp(classes().initiatingCoordinators, A, true);
    EXPECT_FALSE(later->setPlaceholderPromise_error(app.placeholder, nullptr));
    EXPECT_FALSE(later->setAppAssetPromise_error(app.asset, nullptr));
}

TEST_F(CoordinatorTest, OpenCoordinatorsAreListedInTheOrderOfTheirMaking) {
    (void)lookUp(classes().restoringCoordinators, B, true, KXClientCorbin);
    const auto app = prepare(A, true);
    app.asset->setPercentComplete(0.5);
    coordinator->waitUntilIdle();
    const auto open = coordinator->openCoordinators();
    ASSERT_EQ(open.size(), 2U);
    EXPECT_EQ(open[0].bundleID, B);
    EXPECT_EQ(open[0].kind, "restoring");
    EXPECT_EQ(open[0].creator, KXClientCorbin);
    EXPECT_FALSE(open[0].isPlaceholderInstalled);
    EXPECT_EQ(open[1].kind, "updating");
    EXPECT_TRUE(open[1].isPlaceholderInstalled);
    EXPECT_FALSE(open[1].isInstalling);
}

TEST_F(CoordinatorTest, SaysWhetherInstallsGoThroughCoordinators) {
    EXPECT_TRUE(classes().coordinators.coordinationIsEnabled());
    const auto other = InstallCoordinator::open({device.files(), *registry, *device.database, propertyLists}, false);
    EXPECT_FALSE((*other)->classes().coordinators.coordinationIsEnabled());
}

} // namespace
} // namespace appsync::device
