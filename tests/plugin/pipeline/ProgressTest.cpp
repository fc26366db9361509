// The progress of a transfer.
#include "tests/inmemory/ClientTest.h"

#include <cstdint>
#include <limits>

namespace appsync {
namespace {

using inmemory::Lines;

class TransferProgress : public inmemory::ClientTest {
  protected:
    std::shared_ptr<inmemory::Progress> addProgress(std::int64_t total = 1000) {
        const auto progress = world.registry.addProgress(world.registry.addPlaceholder("a"), 0, 0);
        progress->total = total;
        return progress;
    }
    const Lines lookedUp{"registry.applicationProxyForIdentifier(a, placeholder 1)",
                         "registry.installProgressForApplication(a, phase 0)",
                         "error: Returning <progress a> progress for a"};
};

TEST_F(TransferProgress, ShowsOnThePlaceholder) {
    start(false);
    addProgress();
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.4567);
    EXPECT_EQ(journal(), (Lines{"log: finished transferring 0.456700 for a", lookedUp[0], lookedUp[1], lookedUp[2],
                                "progress(a).setInstallState(1)", "progress(a).setCompletedUnitCount(456)"}));
}

TEST_F(TransferProgress, SetsTheTotalOnceOnly) {
    start(false);
    addProgress(100);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(world.journal.linesWith("progress("),
              (Lines{"progress(a).setInstallState(1)", "progress(a).setTotalUnitCount(1000)",
                     "progress(a).setCompletedUnitCount(0)", "progress(a).setInstallState(1)",
                     "progress(a).setCompletedUnitCount(500)"}));
}

TEST_F(TransferProgress, TruncatesAndClampsOnlyWhatNoCountCanHold) {
    start(false);
    const auto progress = addProgress();
    const struct {
        double fraction;
        std::int64_t units;
    } cases[] = {{0, 0},
                 {0.0019, 1},
                 {0.9999, 999},
                 {1.0, 1000},
                 {1.2, 1200},
                 {-0.0015, -1},
                 {1e300, 9'223'372'036'854'774'784},
                 {-1e300, std::numeric_limits<std::int64_t>::min()},
                 {std::numeric_limits<double>::infinity(), 9'223'372'036'854'774'784},
                 {std::numeric_limits<double>::quiet_NaN(), 0}};
    for (const auto& [fraction, units] : cases) {
        client().assetTransfer_updatedProgress(makeAsset("a"), fraction);
        EXPECT_EQ(progress->completed, units);
    }
}

TEST_F(TransferProgress, CountsAnAssetWithoutPlaceholderAsOutstanding) {
    start(false);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(journal(), (Lines{"log: finished transferring 0.500000 for a",
                                "registry.applicationProxyForIdentifier(a, placeholder 1)",
                                "error: Returning (null) progress for a"}));
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.count("error: Called with success == YES but with 1 outstanding RFX transfers!"), 1u);
}

TEST_F(TransferProgress, CountsAnAssetAsOutstandingOnceItsProgressIsShown) {
    start(true);
    world.journal.whenAdded("coordinators.initiating(a", [this] { client().assetTransferEndedWithSuccess(true); });
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(world.journal.linesWith("error: Called with success"), Lines{});
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("error: Called with success").size(), 1u);
}

TEST_F(TransferProgress, GoesToTheCoordinator) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(journal(), (Lines{"log: finished transferring 0.500000 for a",
                                "transactions.logStep(3, party 1, phase 1, success 1, a, \"Create coordinator\")",
                                "coordinators.initiating(a, client 3, create 0)",
                                "transactions.logStep(3, party 1, phase 2, success 0, a, \"Finished creating "
                                "coordinator\")"}));
    client().assetTransferEndedWithSuccess(true);
    EXPECT_EQ(world.journal.linesWith("coordinators.any"), Lines{"coordinators.any(a, client 3, create 0)"});
}

TEST_F(TransferProgress, FillsThePromiseOfTheAppsCoordinator) {
    start(true);
    world.coordinators.add("a");
    const QRAssetPtr asset = makeAsset("a");
    asset->downloadProgress = 0.25;
    client().assetTransfer_updatedProgress(asset, 0.5);
    EXPECT_EQ(journal().back(), "promise(a-Asset).setPercentComplete(0.250000)");
}

TEST_F(TransferProgress, GoesToTheCoordinatorWithoutHoldingUpCancels) {
    start(true);
    const auto cancelled =
        std::make_shared<inmemory::Coordinator<KXAppInstallCoordinator>>(world.context, world.coordinators.add("b"));
    world.journal.whenAdded("coordinators.initiating(a",
                            [&] { client().coordinator_canceledWithReason_client(cancelled, nullptr, 1); });
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    EXPECT_EQ(world.journal.count("log: Cancelling asset sync for b"), 1u);
}

TEST_F(TransferProgress, FindsNoProgressObjectWithTheCoordinator) {
    start(true);
    addProgress();
    EXPECT_EQ(client()._progressForAssetIdentifier("a"), nullptr);
    EXPECT_EQ(journal(), Lines{"log: Not returning FNProgress * for a as kestrow is enabled"});
}

} // namespace
} // namespace appsync
