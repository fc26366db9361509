// The factories of coordinators, placeholders and promises.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

class Factories : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }
    KXAppInstallCoordinatorPtr coordinator(bool existingApp, bool create) {
        error = nullptr;
        return client()
            ._initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
                "a", existingApp, create, &error);
    }
    KXPromisedTransferToPathPtr icon(const KXPlaceholderPtr& placeholder, bool forAppInstall) {
        return client()
            ._createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
                "a", "/icon.png", 99, placeholder, forAppInstall);
    }
    KXPromisedTransferToPathPtr assetPromise(const std::optional<std::string>& path,
                                             const KXAppInstallCoordinatorPtr& owner) {
        return client()._createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator("a", path, owner);
    }
    ErrorPtr error;
};

TEST_F(Factories, CreateAnInitiatingCoordinatorForANewApp) {
    EXPECT_NE(coordinator(false, true), nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(3, 1, true, "Create coordinator"), "coordinators.initiating(a, client 3, create 1)",
                     "log: Created initiating coordinator <initiating a> (createIfNotExisting:1, existingApp:0) for a "
                     "with error (null)",
                     step(3, 2, true, "Finished creating coordinator")}));
}

TEST_F(Factories, LookUpAnUpdatingCoordinatorForAnExistingApp) {
    world.coordinators.add("a", "updating");
    EXPECT_NE(coordinator(true, false), nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(3, 1, true, "Create coordinator"), "coordinators.updating(a, client 3, create 0)",
                     "log: Created updating coordinator <updating a> (createIfNotExisting:0, existingApp:1) for a with "
                     "error (null)",
                     step(3, 2, true, "Finished creating coordinator")}));
}

TEST_F(Factories, LogNothingWhenThereIsNoCoordinator) {
    EXPECT_EQ(coordinator(false, false), nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(3, 1, true, "Create coordinator"), "coordinators.initiating(a, client 3, create 0)",
                     step(3, 2, false, "Finished creating coordinator")}));
}

TEST_F(Factories, PassTheLookupsErrorOn) {
    world.faults.fail("coordinators.updating");
    EXPECT_EQ(coordinator(true, true), nullptr);
    EXPECT_EQ(error->domain(), "TestDomain");
}

TEST_F(Factories, ClearTheErrorOfAnEarlierLookup) {
    world.coordinators.add("a", "initiating")->creator = 1;
    ErrorPtr found = inmemory::injectedError();
    EXPECT_EQ(
        client()._initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
            "a", false, true, &found),
        nullptr);
    EXPECT_EQ(found, nullptr);
    found = inmemory::injectedError();
    EXPECT_NE(client()._restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error("b", true, &found),
              nullptr);
    EXPECT_EQ(found, nullptr);
}

TEST_F(Factories, RefuseAnothersCoordinatorWithoutAnError) {
    world.coordinators.add("a", "initiating")->creator = 1;
    EXPECT_EQ(coordinator(false, true), nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(3, 1, true, "Create coordinator"), "coordinators.initiating(a, client 3, create 1)",
                     "log: IC returned initiating coordinator <initiating a> (createIfNotExisting:1, existingApp:0, "
                     "creatorIdentifier=1) for a with error (null) - Will not perform install/update for this bundle",
                     step(3, 2, false, "Finished creating coordinator")}));
    world.coordinators.add("a", "updating")->creator = 4;
    EXPECT_EQ(coordinator(true, false), nullptr);
    EXPECT_EQ(journal().at(2),
              "log: IC returned updating coordinator <updating a> (createIfNotExisting:0, existingApp:1, "
              "creatorIdentifier=4) for a with error (null) - Will not perform install/update for this bundle");
}

TEST_F(Factories, PassOnAnErrorThatComesBesideACoordinator) {
    const auto state = world.coordinators.add("a", "initiating");
    state->errorBeside = Error::make("Lookup", 9, {{"fact", 1}});
    EXPECT_NE(coordinator(false, true), nullptr);
    EXPECT_EQ(error, state->errorBeside);
    const std::string said = state->errorBeside->description();
    EXPECT_EQ(journal().at(2), "log: Created initiating coordinator <initiating a> (createIfNotExisting:1, "
                               "existingApp:0) for a with error " +
                                   said);
    state->creator = 1;
    EXPECT_EQ(coordinator(false, true), nullptr);
    EXPECT_EQ(error, state->errorBeside);
    EXPECT_EQ(journal().at(2),
              "log: IC returned initiating coordinator <initiating a> (createIfNotExisting:1, existingApp:0, "
              "creatorIdentifier=1) for a with error " +
                  said + " - Will not perform install/update for this bundle");
    world.coordinators.add("a", "restoring")->errorBeside = state->errorBeside;
    EXPECT_NE(client()._restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error("a", true, &error),
              nullptr);
    EXPECT_EQ(error, state->errorBeside);
    EXPECT_EQ(journal().at(2),
              "log: Created restore coordinator <restoring a> (createIfNotExisting:1) for a with error " + said);
}

TEST_F(Factories, CreateARestoringCoordinator) {
    EXPECT_NE(client()._restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error("a", true, &error),
              nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(3, 1, true, "Create restore coordinator"), "coordinators.restoring(a, client 3, create 1)",
                     "log: Created restore coordinator <restoring a> (createIfNotExisting:1) for a with error (null)",
                     step(3, 2, true, "Finished creating restore coordinator")}));
}

TEST_F(Factories, LogARestoringCoordinatorThatThereIsNot) {
    world.faults.fail("coordinators.restoring");
    EXPECT_EQ(client()._restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error("a", false, &error),
              nullptr);
    EXPECT_EQ(error->domain(), "TestDomain");
    EXPECT_EQ(journal(),
              (Lines{step(3, 1, true, "Create restore coordinator"), "coordinators.restoring(a, client 3, create 0)",
                     "log: Created restore coordinator (null) (createIfNotExisting:0) for a with error TestDomain 7",
                     step(3, 2, false, "Finished creating restore coordinator")}));
}

TEST_F(Factories, TakeARestoringCoordinatorWhoeverCreatedIt) {
    world.coordinators.add("a", "restoring")->creator = 1;
    EXPECT_NE(
        client()._restoringAppInstallCoordinatorForBundleIdentifier_createIfNotExisting_error("a", false, nullptr),
        nullptr);
}

TEST_F(Factories, CreateAPlaceholder) {
    EXPECT_NE(client()._placeHolderForBundleIdentifier_name_installType("a", "Name", 7), nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(4, 1, true, "Create placeholder"), "placeholders.init(Name, a, install type 7, client 3)",
                     "log: Created placeholder <placeholder a> for 'a' of type 7",
                     step(4, 2, true, "Finished creating placeholder")}));
}

TEST_F(Factories, LogAPlaceholderThatCouldNotBeCreated) {
    world.faults.fail("placeholders.init");
    EXPECT_EQ(client()._placeHolderForBundleIdentifier_name_installType("a", "Name", 4), nullptr);
    EXPECT_EQ(journal(),
              (Lines{step(4, 1, true, "Create placeholder"), "placeholders.init(Name, a, install type 4, client 3)",
                     "log: Created placeholder (null) for 'a' of type 4",
                     step(4, 2, false, "Finished creating placeholder")}));
}

// The app asset promise.

TEST_F(Factories, AttachAnAssetPromiseWithAPath) {
    const auto owner = coordinator(false, true);
    journal();
    const auto promise = assetPromise("/file", owner);
    EXPECT_EQ(journal(), (Lines{"promises.transfer(a-Asset, client 3, file:///file, 0)",
                                "coordinator(a).setAppAssetPromise(<promise a-Asset>)",
                                "log: Added app asset promise to coordinator for 'a'"}));
    EXPECT_FALSE(promise->isComplete());
}

TEST_F(Factories, AttachAnAssetPromiseWithoutPath) {
    const auto owner = coordinator(false, true);
    journal();
    EXPECT_NE(assetPromise(std::nullopt, owner), nullptr);
    EXPECT_EQ(journal().front(), "promises.transfer(a-Asset, client 3, no path, 0)");
}

TEST_F(Factories, MakeNoAssetPromiseWithoutCoordinator) {
    EXPECT_EQ(assetPromise("/file", nullptr), nullptr);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(Factories, SayWhenAnAssetPromiseCannotBeMade) {
    const auto owner = coordinator(false, true);
    journal();
    world.faults.fail("promises.transfer");
    EXPECT_EQ(assetPromise("/file", owner), nullptr);
    EXPECT_EQ(journal(), (Lines{"promises.transfer(a-Asset, client 3, file:///file, 0)",
                                "error: Error creating asset promise for 'a'"}));
}

TEST_F(Factories, CancelAnAssetPromiseThatCannotBeAttached) {
    const auto owner = coordinator(false, true);
    journal();
    world.faults.fail("coordinator.setAppAssetPromise");
    EXPECT_EQ(assetPromise("/file", owner), nullptr);
    EXPECT_EQ(journal(),
              (Lines{"promises.transfer(a-Asset, client 3, file:///file, 0)",
                     "coordinator(a).setAppAssetPromise(<promise a-Asset>)",
                     "error: Error TestDomain 7 adding app asset promise at /file to 'a'",
                     "error: Cancelling asset promise for 'a'", "promise(a-Asset).cancel(QRError 30, client 3)"}));
}

// The icon promise.

TEST_F(Factories, AttachAnIconPromiseThatIsKept) {
    const auto placeholder = std::make_shared<inmemory::Placeholder>(world.context, "a");
    const auto promise = icon(placeholder, true);
    EXPECT_EQ(journal(), (Lines{"promises.transfer(a-Icon, client 3, file:///icon.png, 99)",
                                "promise(a-Icon).setPercentComplete(1.000000)", "promise(a-Icon).setComplete(1)",
                                "placeholder(a).setIconPromise(<promise a-Icon>)",
                                "log: Added icon promise to placeholder for 'a'"}));
    EXPECT_TRUE(promise->isComplete());
}

TEST_F(Factories, NeedAPlaceholderForAnIconPromise) {
    EXPECT_EQ(icon(nullptr, true), nullptr);
    EXPECT_EQ(journal(), Lines{"error: Placeholder to add icon promise is nil for 'a'"});
}

TEST_F(Factories, SayNothingWhenAnIconPromiseCannotBeMade) {
    world.faults.fail("promises.transfer");
    EXPECT_EQ(icon(std::make_shared<inmemory::Placeholder>(world.context, "a"), true), nullptr);
    EXPECT_EQ(journal(), Lines{"promises.transfer(a-Icon, client 3, file:///icon.png, 99)"});
}

TEST_F(Factories, CancelAnIconPromiseThatCannotBeAttached) {
    const auto placeholder = std::make_shared<inmemory::Placeholder>(world.context, "a");
    for (const auto& [forAppInstall, code] : {std::pair(true, "30"), std::pair(false, "29")}) {
        world.faults.fail("placeholder.setIconPromise");
        EXPECT_EQ(icon(placeholder, forAppInstall), nullptr);
        EXPECT_EQ(journal(), (Lines{"promises.transfer(a-Icon, client 3, file:///icon.png, 99)",
                                    "promise(a-Icon).setPercentComplete(1.000000)", "promise(a-Icon).setComplete(1)",
                                    "placeholder(a).setIconPromise(<promise a-Icon>)",
                                    "error: Error TestDomain 7 adding icon promise to placeholder for 'a'",
                                    std::string("promise(a-Icon).cancel(QRError ") + code + ", client 3)"}));
    }
}

TEST_F(Factories, DoNotMindThatACancelFails) {
    const auto owner = coordinator(false, true);
    const auto placeholder = std::make_shared<inmemory::Placeholder>(world.context, "a");
    world.faults.fail("promise.cancel", 2, 0, Error::make("Cancel", 1));
    for (const char* refused : {"coordinator.setAppAssetPromise", "placeholder.setIconPromise"}) {
        world.faults.fail(refused);
    }
    EXPECT_EQ(assetPromise("/file", owner), nullptr);
    EXPECT_EQ(journal().back(), "promise(a-Asset).cancel(QRError 30, client 3)");
    EXPECT_EQ(icon(placeholder, true), nullptr);
    EXPECT_EQ(journal().back(), "promise(a-Icon).cancel(QRError 30, client 3)");
    EXPECT_EQ(world.faults.take("promise.cancel"), nullptr);
}

// The user-data promise.

TEST_F(Factories, MakeAUserDataPromiseThatIsKept) {
    const auto promise = client()._userDataPromiseForBundleIdentifier("a");
    EXPECT_TRUE(promise->isComplete());
    EXPECT_EQ(journal(),
              (Lines{"promises.outOfBand(a-UserData, client 3, 0)", "promise(a-UserData).setPercentComplete(1.000000)",
                     "promise(a-UserData).setComplete(1)"}));
}

TEST_F(Factories, SayNothingWhenAUserDataPromiseCannotBeMade) {
    world.faults.fail("promises.outOfBand");
    EXPECT_EQ(client()._userDataPromiseForBundleIdentifier("a"), nullptr);
    EXPECT_EQ(journal(), Lines{"promises.outOfBand(a-UserData, client 3, 0)"});
}

} // namespace
} // namespace appsync
