// A transfer that was interrupted goes on where it ended, as long as the archive is the same.
#include "host/transfer/Bandwidth.h"
#include "tests/host/SyncFixture.h"

namespace appsync::host {
namespace {

constexpr std::uint64_t pieceSize = 100;

class InterruptedTransfer : public SyncOnBothPaths {
  protected:
    void SetUp() override {
        SyncOnBothPaths::SetUp();
        addApp("a");
        pieces = static_cast<int>((fs::file_size(archiveOf("a")) + pieceSize - 1) / pieceSize);
        ASSERT_GT(pieces, 5);
    }
    /// A sync that is interrupted at a piece, if that is ever sent; how many there were.
    int piecesUntil(int last) {
        const auto device = device::Device::open(deviceFolder());
        const auto library = desktop::readAppLibrary((folder / "library").string(), (*device)->propertyLists());
        const SyncPlan plan = planSync(*library, stateOf(**device), {});
        clearLeftovers(**device, plan.goingOn, plan.takenBack);
        const Interrupt interrupt;
        int sent = 0;
        Bandwidth bandwidth(20 * pieceSize, [&](std::chrono::nanoseconds) {
            if (++sent == last) {
                std::raise(SIGINT);
            }
        });
        std::ostringstream shown;
        SyncView view(shown, SyncView::Style::quiet);
        report = runSync(**device, plan, {.plugInPath = APPSYNC_BUNDLE, .bandwidth = &bandwidth}, view);
        return sent;
    }
    std::set<std::string> received() const { return filesBelow("var/mobile/Media/PublicStaging/Received"); }

    int pieces = 0;
    SyncReport report;
};
INSTANTIATE_TEST_SUITE_P(Paths, InterruptedTransfer, testing::Values(false, true), [](const auto& path) {
    return path.param ? std::string("OwnInstalls") : std::string("Coordinated");
});

TEST_P(InterruptedTransfer, GoesOnWhereItEnded) {
    EXPECT_EQ(piecesUntil(2), 2);
    ASSERT_EQ(received().size(), 1U);
    EXPECT_TRUE(received().begin()->ends_with(".begun")) << *received().begin();
    EXPECT_EQ(piecesUntil(1), 1) << "it can be interrupted once more";
    EXPECT_EQ(piecesUntil(-1), pieces - 3);
    EXPECT_EQ(report.apps[0].result, AppResult::installed) << report.apps[0].reason;
    EXPECT_TRUE(received().empty());
    EXPECT_EQ(filesBelow("var/containers/Bundle/Application").size(), 5U);
}

TEST_P(InterruptedTransfer, BeginsAnewWhenTheArchiveIsAnother) {
    EXPECT_EQ(piecesUntil(2), 2);
    addApp("a"); // the same bytes in another file
    EXPECT_EQ(piecesUntil(-1), pieces);
    EXPECT_EQ(report.apps[0].result, AppResult::installed) << report.apps[0].reason;
    EXPECT_TRUE(received().empty());
}

TEST_P(InterruptedTransfer, BeginsAnewAfterWhatHadArrivedTurnedOutToBeDamaged) {
    EXPECT_EQ(piecesUntil(pieces - 1), pieces - 1);
    const fs::path begun = folder / "device/var/mobile/Media/PublicStaging/Received" / *received().begin();
    std::fstream(begun, std::ios::in | std::ios::out | std::ios::binary).seekp(100) << "damage";
    EXPECT_EQ(piecesUntil(-1), 1);
    EXPECT_EQ(report.apps[0].result, AppResult::failed);
    EXPECT_EQ(piecesUntil(-1), pieces);
    EXPECT_EQ(report.apps[0].result, AppResult::installed) << report.apps[0].reason;
}

TEST_P(InterruptedTransfer, WaitsWhileASyncBringsOtherApps) {
    EXPECT_EQ(piecesUntil(2), 2);
    addApp("b");
    EXPECT_EQ(results(sync(ExitCode::done, {.install = {"com.example.b"}})),
              (Results{{"com.example.a", "waiting"}, {"com.example.b", "installed"}}));
    EXPECT_EQ(piecesUntil(-1), pieces - 2);
    EXPECT_EQ(report.apps[0].result, AppResult::installed) << report.apps[0].reason;
}

TEST_P(InterruptedTransfer, LeavesNothingWhenTheLibraryHasNoSuchAppAnyMore) {
    EXPECT_EQ(piecesUntil(2), 2);
    fs::remove(archiveOf("a"));
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "cancelled"}}));
    EXPECT_TRUE(received().empty());
    EXPECT_EQ(apps(), Results{});
}

} // namespace
} // namespace appsync::host
