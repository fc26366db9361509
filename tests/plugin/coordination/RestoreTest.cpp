// Readying a coordinator for an app that a desktop restore brings back.
#include "propertylist/Codec.h"
#include "tests/plugin/coordination/RestoreFixture.h"

namespace appsync {
namespace {

class Restore : public RestoreFixture {
  protected:
    static Data serialized(const Value& value) {
        return *PropertyListCodec().dataWithPropertyList(value, PropertyListFormat::binary, nullptr);
    }
    bool restore(std::uint64_t demotionStatus, const Data& metadataBytes) {
        return client().prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
            "a", metadataBytes, sinfData, iconData, demotionStatus);
    }
    bool restore(std::uint64_t demotionStatus = 0) { return restore(demotionStatus, serialized(metadata)); }

    static Lines failedUserData() {
        return {"promises.outOfBand(a-UserData, client 3, 0)",
                "promise(a-UserData).setPercentComplete(1.000000)",
                "promise(a-UserData).setComplete(1)",
                "coordinator(a).setUserDataPromise(<promise a-UserData>)",
                "error: Error TestDomain 7 adding out of band data promise for 'a'",
                "promise(a-UserData).cancel(QRError 29, client 3)"};
    }
    /// The same when there is no coordinator to attach it to.
    static Lines orphanedUserData() {
        Lines lines = failedUserData();
        lines.erase(lines.begin() + 3);
        return lines;
    }
    /// The values of metadata that no dictionary can be taken from, with the error that each gives.
    static std::vector<std::pair<Data, bool>> unusableMetadata() {
        return {{Data("no property list"), true}, {Data(""), true},          {serialized(Array{"title"}), false},
                {serialized("title"), false},     {serialized(true), false}, {serialized(7), false}};
    }

    const Lines userData{"promises.outOfBand(a-UserData, client 3, 0)",
                         "promise(a-UserData).setPercentComplete(1.000000)", "promise(a-UserData).setComplete(1)",
                         "coordinator(a).setUserDataPromise(<promise a-UserData>)",
                         "log: Added out of band user data promise for for a"};
    const std::string hasUserData = "log: Coordinator for a has a valid user data promise";
    const std::string setPlaceholder = "coordinator(a).setPlaceholderPromise(<placeholder a>)";
    const Lines attached{setPlaceholder, "log: added placeholder promise for a"};
    const std::string hasPlaceholder = "log: Coordinator for a has a valid placeholder promise";
    const Lines cancelledCoordinator{"log: Cancelling coordinator for appBundleIdentifier:a",
                                     "coordinator(a).cancel(QRError 29, client 3)"};
    const Lines cancelledPlaceholder{"log: Cancelling placeholder for appBundleIdentifier:a",
                                     "placeholder(a).cancel(QRError 29, client 3)"};
    const Lines noDirectory{
        createDirectory,
        "transactions.logScenario(\"Tamblin App Restore\", step 0, success 0, a, \"Failed to create app directory\")",
        "log: Created app directory for 'a' at " + directoryPath + " with err=TestDomain 7"};
};

// An app that was offloaded.

class RestoreOfADemotedApp : public Restore {
  protected:
    static Lines finished(bool success, const std::string& error = "(null)") {
        return {std::string("log: processing app restore for demoted app a finished with status ") +
                    (success ? "1" : "0") + " error " + error,
                step(2, 2, success, "Restore demoted app")};
    }
    const Lines begun{"log: processing app restore for demoted bundle 'a' with install coordination",
                      step(2, 1, true, "Restore demoted app"), "plist.parse()"};
    const Lines coordinator{"coordinators.restoringDemoted(a, client 3, create 1)"};
};

TEST_F(RestoreOfADemotedApp, SetsUpUserDataAndAPlaceholderOfItsKind) {
    const struct {
        std::uint64_t demotionStatus;
        int installType;
    } cases[] = {{1, 8}, {2, 7}, {3, 2}};
    for (const auto& [demotionStatus, installType] : cases) {
        start();
        world.coordinators.add("a", "restoringDemoted");
        EXPECT_TRUE(restore(demotionStatus));
        EXPECT_EQ(journal(),
                  join({begun, coordinator, userData, wholePlaceholder(installType), attached, finished(true)}))
            << demotionStatus;
    }
}

TEST_F(RestoreOfADemotedApp, CreatesItsCoordinator) {
    EXPECT_TRUE(restore(1));
    ASSERT_NE(world.coordinators.find("a"), nullptr);
    EXPECT_EQ(world.coordinators.find("a")->kind, "restoringDemoted");
    EXPECT_EQ(world.coordinators.find("a")->creator, 3u);
    EXPECT_EQ(world.coordinators.find("a")->observer, nullptr);
    EXPECT_FALSE(world.coordinators.find("a")->hasInstallOptions);
}

TEST_F(RestoreOfADemotedApp, FailsBeforeAnyCoordinatorOnMetadataThatIsNoDictionary) {
    for (const auto& [bytes, hasError] : unusableMetadata()) {
        ErrorPtr error;
        (void)PropertyListCodec().propertyListWithData(bytes.bytes(), &error);
        EXPECT_EQ(error != nullptr, hasError);
        const std::string reason = error ? error->description() : "(null)";
        EXPECT_FALSE(restore(1, bytes));
        EXPECT_EQ(
            journal(),
            join({begun, {"error: failed to parse tamblin metadata for 'a'. err=" + reason}, finished(false, reason)}));
    }
}

TEST_F(RestoreOfADemotedApp, FailsWithoutCoordinatorAndSaysNoMore) {
    world.faults.fail("coordinators.restoringDemoted");
    EXPECT_FALSE(restore(1));
    EXPECT_EQ(journal(), join({begun, coordinator, finished(false)}));
}

TEST_F(RestoreOfADemotedApp, KeepsPromisesThatAreThere) {
    const auto state = world.coordinators.add("a", "restoringDemoted");
    state->hasUserDataPromise = true;
    state->hasPlaceholderPromise = true;
    EXPECT_TRUE(restore(1));
    EXPECT_EQ(journal(), join({begun, coordinator, {hasUserData, hasPlaceholder}, finished(true)}));
}

TEST_F(RestoreOfADemotedApp, AddsThePromiseThatIsMissing) {
    const auto state = world.coordinators.add("a", "restoringDemoted");
    state->hasUserDataPromise = true;
    EXPECT_TRUE(restore(1));
    EXPECT_EQ(journal(), join({begun, coordinator, {hasUserData}, wholePlaceholder(8), attached, finished(true)}));
    state->hasUserDataPromise = false;
    EXPECT_TRUE(restore(1));
    EXPECT_EQ(journal(), join({begun, coordinator, userData, {hasPlaceholder}, finished(true)}));
}

TEST_F(RestoreOfADemotedApp, TakesACoordinatorWhoeverCreatedIt) {
    world.coordinators.add("a", "restoringDemoted")->creator = 1;
    EXPECT_TRUE(restore(1));
    EXPECT_TRUE(world.coordinators.find("a")->hasPlaceholderPromise);
}

TEST_F(RestoreOfADemotedApp, FailsBeforeItsPlaceholderWhenUserDataIsRefused) {
    world.faults.fail("coordinator.setUserDataPromise");
    EXPECT_FALSE(restore(1));
    EXPECT_EQ(journal(),
              join({begun, coordinator, failedUserData(), finished(false, "TestDomain 7"), cancelledCoordinator}));
}

TEST_F(RestoreOfADemotedApp, GoesOnWithoutUserDataThatCannotBePromised) {
    world.faults.fail("promises.outOfBand");
    EXPECT_TRUE(restore(2));
    EXPECT_EQ(journal(), join({begun, coordinator, {userData[0]}, wholePlaceholder(7), attached, finished(true)}));
}

TEST_F(RestoreOfADemotedApp, CancelsTheCoordinatorWithoutPlaceholder) {
    world.faults.fail("files.createDirectory");
    EXPECT_FALSE(restore(1));
    EXPECT_EQ(journal(), join({begun, coordinator, userData, noDirectory, finished(false), cancelledCoordinator}));
}

TEST_F(RestoreOfADemotedApp, CancelsCoordinatorThenPlaceholderWhenTheyDoNotFit) {
    world.faults.fail("coordinator.setPlaceholderPromise");
    EXPECT_FALSE(restore(1));
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               userData,
                               wholePlaceholder(8),
                               {setPlaceholder, "error: Error TestDomain 7 setting placeholder promise for 'a'"},
                               finished(false, "TestDomain 7"),
                               cancelledCoordinator,
                               cancelledPlaceholder}));
}

TEST_F(RestoreOfADemotedApp, DoesNotMindThatACancelFails) {
    world.faults.fail("coordinator.setPlaceholderPromise");
    world.faults.fail("coordinator.cancel");
    world.faults.fail("placeholder.cancel");
    EXPECT_FALSE(restore(1));
    const Lines lines = journal();
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()), join({cancelledCoordinator, cancelledPlaceholder}));
}

// An app that was not.

class RestoreOfAnApp : public Restore {
  protected:
    static Lines finished(bool success, const std::string& error = "(null)") {
        return {std::string("log: processing app restore for a finished with status ") + (success ? "1" : "0") +
                    " error " + error,
                step(2, 2, success, "Restore app")};
    }
    const Lines begun{"log: processing app restore for non demoted bundle 'a' with install coordination",
                      step(2, 1, true, "Restore app"), "plist.parse()"};
    const Lines coordinator{"coordinators.restoring(a, client 3, create 1)"};
    const Lines withoutCoordinator{coordinator[0], "error: Error 'TestDomain 7' creating restore coordinator for a"};
    const std::string setOptions = "coordinator(a).setInstallOptions(metadata " + metadataText +
                                   ", sinf <seven!!>, install type 2, target type 1)";
    const Lines options{setOptions, "log: added install options for a"};
    const Lines failedOptions{setOptions, "error: Error TestDomain 7 setting install options for 'a'"};
    const std::string hasOptions = "log: Coordinator for a has a valid install options";
    const std::string setResponsible = "coordinator(a).setAppAssetPromiseResponsibleClient(1)";
    const Lines handedOver{setResponsible, "log: set KXClientCorbin to satisfy app asset promise for a"};
};

TEST_F(RestoreOfAnApp, SetsUpEverythingAndLeavesTheAppToTheStoreClient) {
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(),
              join({begun, coordinator, userData, options, wholePlaceholder(2), attached, handedOver, finished(true)}));
    ASSERT_NE(world.coordinators.find("a"), nullptr);
    EXPECT_EQ(world.coordinators.find("a")->creator, 3u);
    EXPECT_EQ(world.coordinators.find("a")->responsibleClient, 1u);
    EXPECT_EQ(world.coordinators.find("a")->observer, nullptr);
}

TEST_F(RestoreOfAnApp, FailsBeforeAnyCoordinatorOnMetadataThatIsNoDictionary) {
    for (const auto& [bytes, hasError] : unusableMetadata()) {
        ErrorPtr error;
        (void)PropertyListCodec().propertyListWithData(bytes.bytes(), &error);
        const std::string reason = error ? error->description() : "(null)";
        EXPECT_FALSE(restore(0, bytes));
        EXPECT_EQ(
            journal(),
            join({begun, {"error: failed to parse tamblin metadata for 'a'. err=" + reason}, finished(false, reason)}));
    }
}

TEST_F(RestoreOfAnApp, TriesUserDataAndOptionsWithoutCoordinatorAndFails) {
    world.faults.fail("coordinators.restoring");
    EXPECT_FALSE(restore());
    EXPECT_EQ(
        journal(),
        join({begun, withoutCoordinator, orphanedUserData(), {failedOptions[1]}, finished(false, "TestDomain 7")}));
}

TEST_F(RestoreOfAnApp, FailsOnItsOptionsWithoutCoordinatorAndUserData) {
    world.faults.fail("coordinators.restoring");
    world.faults.fail("promises.outOfBand");
    EXPECT_FALSE(restore());
    EXPECT_EQ(journal(),
              join({begun, withoutCoordinator, {userData[0], failedOptions[1]}, finished(false, "TestDomain 7")}));
}

TEST_F(RestoreOfAnApp, TakesACoordinatorWhoeverCreatedIt) {
    world.coordinators.add("a", "restoring")->creator = 1;
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(),
              join({begun, coordinator, userData, options, wholePlaceholder(2), attached, handedOver, finished(true)}));
}

TEST_F(RestoreOfAnApp, TouchesNothingThatTheStoreClientHasTakenOver) {
    const auto state = world.coordinators.add("a", "restoring");
    state->responsibleClient = 1;
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               {"log: App asset DRI for a is set to 1 - nothing more for qrd to do",
                                step(2, 2, true, "Restore app")}}));
}

TEST_F(RestoreOfAnApp, TakesOverWhatAnotherClientWasResponsibleFor) {
    world.coordinators.add("a", "restoring")->responsibleClient = 3;
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(),
              join({begun, coordinator, userData, options, wholePlaceholder(2), attached, handedOver, finished(true)}));
}

TEST_F(RestoreOfAnApp, KeepsPromisesAndOptionsThatAreThere) {
    const auto state = world.coordinators.add("a", "restoring");
    state->hasUserDataPromise = true;
    state->hasInstallOptions = true;
    state->hasPlaceholderPromise = true;
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(),
              join({begun, coordinator, {hasUserData, hasOptions, hasPlaceholder}, handedOver, finished(true)}));
}

TEST_F(RestoreOfAnApp, AddsThePromiseThatIsMissing) {
    const auto state = world.coordinators.add("a", "restoring");
    state->hasUserDataPromise = true;
    EXPECT_TRUE(restore());
    EXPECT_EQ(
        journal(),
        join({begun, coordinator, {hasUserData}, options, wholePlaceholder(2), attached, handedOver, finished(true)}));
    state->hasUserDataPromise = false;
    state->responsibleClient = 0;
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(),
              join({begun, coordinator, userData, {hasOptions, hasPlaceholder}, handedOver, finished(true)}));
}

TEST_F(RestoreOfAnApp, WorksWithoutProtectionRecordAndIcon) {
    sinfData = std::nullopt;
    iconData = std::nullopt;
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               userData,
                               {"coordinator(a).setInstallOptions(metadata " + metadataText +
                                    ", sinf (null), install type 2, target type 1)",
                                options[1]},
                               directory,
                               {"error: no icon data for 'a'"},
                               madePlaceholder(2),
                               attributes,
                               storeMetadata,
                               configured,
                               attached,
                               handedOver,
                               finished(true)}));
}

// Refused user data counts only where the options are there already.

TEST_F(RestoreOfAnApp, DisregardsRefusedUserDataWhenItSetsTheOptions) {
    world.faults.fail("coordinator.setUserDataPromise");
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(), join({begun, coordinator, failedUserData(), options, wholePlaceholder(2), attached, handedOver,
                               finished(true, "TestDomain 7")}));
}

TEST_F(RestoreOfAnApp, FailsWhenUserDataIsRefusedAndTheOptionsAreThere) {
    world.coordinators.add("a", "restoring")->hasInstallOptions = true;
    world.faults.fail("coordinator.setUserDataPromise");
    EXPECT_FALSE(restore());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               failedUserData(),
                               {hasOptions},
                               finished(false, "TestDomain 7"),
                               cancelledCoordinator}));
}

TEST_F(RestoreOfAnApp, GoesOnWithoutUserDataThatCannotBePromised) {
    world.coordinators.add("a", "restoring")->hasInstallOptions = true;
    world.faults.fail("promises.outOfBand");
    EXPECT_TRUE(restore());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               {userData[0], hasOptions},
                               wholePlaceholder(2),
                               attached,
                               handedOver,
                               finished(true)}));
}

TEST_F(RestoreOfAnApp, FailsBeforeItsPlaceholderWhenTheOptionsAreRefused) {
    world.faults.fail("coordinator.setInstallOptions");
    EXPECT_FALSE(restore());
    EXPECT_EQ(journal(), join({begun, coordinator, userData, failedOptions, finished(false, "TestDomain 7"),
                               cancelledCoordinator}));
}

TEST_F(RestoreOfAnApp, CancelsTheCoordinatorWithoutPlaceholder) {
    world.faults.fail("files.createDirectory");
    EXPECT_FALSE(restore());
    EXPECT_EQ(journal(),
              join({begun, coordinator, userData, options, noDirectory, finished(false), cancelledCoordinator}));
}

TEST_F(RestoreOfAnApp, CancelsCoordinatorThenPlaceholderWhenTheyDoNotFit) {
    world.faults.fail("coordinator.setPlaceholderPromise");
    EXPECT_FALSE(restore());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               userData,
                               options,
                               wholePlaceholder(2),
                               {setPlaceholder, "error: Error TestDomain 7 setting placeholder promise for 'a'"},
                               finished(false, "TestDomain 7"),
                               cancelledCoordinator,
                               cancelledPlaceholder}));
}

TEST_F(RestoreOfAnApp, CancelsTheCoordinatorAloneWhenTheAppCannotBeHandedOver) {
    world.faults.fail("coordinator.setAppAssetPromiseResponsibleClient");
    EXPECT_FALSE(restore());
    EXPECT_EQ(journal(), join({begun,
                               coordinator,
                               userData,
                               options,
                               wholePlaceholder(2),
                               attached,
                               {setResponsible,
                                "error: Error TestDomain 7 setting KXClientCorbin to satisfy app data promise for 'a'"},
                               finished(false, "TestDomain 7"),
                               cancelledCoordinator}));
}

TEST_F(RestoreOfAnApp, TakesItsPathByTheDemotionStatusAlone) {
    const std::string demoted = "log: processing app restore for demoted bundle 'a' with install coordination";
    for (const std::uint64_t demotionStatus : {0U, 1U, 2U, 9U}) {
        restore(demotionStatus);
        EXPECT_EQ(journal().front(), demotionStatus == 0 ? begun[0] : demoted) << demotionStatus;
    }
}

} // namespace
} // namespace appsync
