// Promises for files whose path is missing, or is none that a URL could have.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

class PathsThatNoURLNames : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }
    const std::string path{"/files\0/a", 9};
};

TEST_F(PathsThatNoURLNames, MakeNoIconPromise) {
    const auto placeholder = std::make_shared<inmemory::Placeholder>(world.context, "a");
    for (const std::string& icon : {std::string(), path}) {
        EXPECT_EQ(
            client()
                ._createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
                    "a", icon, 99, placeholder, true),
            nullptr);
    }
    EXPECT_EQ(journal(), Lines{});
}

TEST_F(PathsThatNoURLNames, TakeThePathFromASatisfiedPromise) {
    auto asset = makeAsset("a");
    for (const std::optional<std::string>& arrivedAt : {std::optional<std::string>(), std::optional(path)}) {
        const auto promise = std::make_shared<inmemory::TransferPromise>(world.context, "a-Asset");
        world.coordinators.add("a")->assetPromise = promise;
        asset->path = arrivedAt;
        EXPECT_TRUE(client().transferCompleteForApp_existingApp(asset, false));
        EXPECT_EQ(world.journal.linesWith("promise("),
                  (Lines{"promise(a-Asset).setTransferPath((null))", "promise(a-Asset).setPercentComplete(1.000000)",
                         "promise(a-Asset).setComplete(1)"}));
        journal();
    }
}

TEST_F(PathsThatNoURLNames, MakeAnAppAssetPromiseWithoutPath) {
    const auto state = world.coordinators.add("a");
    const auto coordinator = std::make_shared<inmemory::Coordinator<KXAppInstallCoordinator>>(world.context, state);
    EXPECT_NE(client()._createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator("a", path, coordinator),
              nullptr);
    EXPECT_EQ(journal(), (Lines{"promises.transfer(a-Asset, client 3, no path, 0)",
                                "coordinator(a).setAppAssetPromise(<promise a-Asset>)",
                                "log: Added app asset promise to coordinator for 'a'"}));
}

} // namespace
} // namespace appsync
