// The client object: construction, start-up, teardown and the host's simple questions.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

class ClientObject : public inmemory::ClientTest {};

const std::string startupComplete = "com.zuvex.qrd.QRStartupCompleteNotification";

TEST_F(ClientObject, IsMadeInTheOrderThatItsServicesPresuppose) {
    const auto client = AppsClient::init(world.platform());
    EXPECT_EQ(journal(), (Lines{"backup.init()", "registry.addObserver()",
                                "transactions.initializeWithLog(com.zuvex.appinstallation, qrd.appsync)",
                                "coordinators.coordinationIsEnabled()",
                                "center.addObserver(" + startupComplete + ", no object, suspension 1)"}));
}

TEST_F(ClientObject, ListensToNoStartupOutsideTheDaemon) {
    world.process.bundleIdentifier = "com.example.other";
    auto client = AppsClient::init(world.platform());
    EXPECT_EQ(world.journal.linesWith("center."), Lines{});
    journal();
    client = nullptr;
    EXPECT_EQ(journal(), Lines{"registry.removeObserver()"});
}

TEST_F(ClientObject, ConnectsOnceHoweverOftenStartupIsAnnounced) {
    start();
    world.center.post(startupComplete);
    world.center.post(startupComplete);
    EXPECT_EQ(journal(), Lines{"observers.init(com.zuvex.qrd.kpc.icappobserverdelegate, clients 3, delegate)"});
    stop();
    EXPECT_EQ(journal(), (Lines{"registry.removeObserver()", "center.removeObserver(" + startupComplete + ")",
                                "observers.close()"}));
}

TEST_F(ClientObject, IgnoresAStartupCallWithoutObserver) {
    start();
    _handleQRDStartupCompletedNotification(&world.center, nullptr, startupComplete, nullptr, nullptr);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(ClientObject, SaysAtTeardownWhichTransfersAreOutstanding) {
    start(false);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    client().assetTransfer_updatedProgress(makeAsset("b"), 0.5);
    journal();
    stop();
    EXPECT_EQ(journal(), (Lines{"error: <AppsClient> getting dealloc'd with 2 outstanding RFX transfers!",
                                "registry.removeObserver()", "center.removeObserver(" + startupComplete + ")"}));
}

TEST_F(ClientObject, HandlesTheOneDataClass) {
    EXPECT_EQ(start().supportedDataclasses(), std::vector<std::string>{"Application"});
    EXPECT_EQ(client().currentSyncAnchor(), "NO_APP_SYNC_ANCHOR");
}

TEST_F(ClientObject, PreparesForASyncWithoutAskingAnybody) {
    ErrorPtr error;
    EXPECT_TRUE(start().prepareForSyncWithHostAnchor_progressCallback_error("anchor", {}, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(ClientObject, IsDisabledOnlyWhenPolicyForbidsInstallingAndRemoving) {
    using enum OLBoolValue;
    const struct {
        OLBoolValue install, remove;
        bool disabled;
    } cases[] = {
        {explicitlyNo, unset, false},          {unset, explicitlyNo, false}, {explicitlyNo, explicitlyNo, true},
        {explicitlyYes, explicitlyYes, false}, {unset, unset, false},        {explicitlyNo, explicitlyYes, false}};
    start();
    for (const auto& [install, remove, disabled] : cases) {
        world.policy.settings["allowAppInstallation"] = install;
        world.policy.settings["allowAppRemoval"] = remove;
        const auto types = client().disabledAssetTypes();
        EXPECT_EQ(types.has_value(), disabled);
        EXPECT_TRUE(!types || *types == std::set<std::string>{"Application"});
    }
}

TEST_F(ClientObject, CountsInstallAttemptsFromZeroAfterEachReading) {
    start(false);
    auto asset = makeAsset("a");
    asset->path = "/staged/a";
    client()._performAssetInstall(asset);
    client()._performAssetInstall(asset);
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 2u);
    EXPECT_EQ(client()._getAndResetNumAppInstallsAttempted(), 0u);
}

} // namespace
} // namespace appsync
