// The messages of download planning as the host's log gets them: with their conversions, before they are filled in.
#include "plugin/planning/RequestFilter.h"

#include "plugin/client/IdentifierSet.h"
#include "tests/inmemory/ClientTest.h"

#include <algorithm>

namespace appsync {
namespace {

using inmemory::Lines;

const std::string demotedButRequested = "%{public}@ is currenlty demoted (manual:%d, auto:%d) - but will be installed "
                                        "as it's requested by client";
const std::string prepped = "Asset %{public}@ (pretty=%{public}@, version=%{public}@) prepped with icon %{public}@, at "
                            "%{public}@, meta at %{public}@, info at %{public}@, storePid=%lld, isRestore=%c";

class PlanningFormats : public inmemory::ClientTest {
  protected:
    /// Those of the given texts that no message had.
    Lines missing(Lines texts) {
        const Lines all = world.log.formats();
        std::erase_if(texts,
                      [&](const std::string& text) { return std::ranges::find(all, "%s|" + text) != all.end(); });
        return texts;
    }
};

TEST_F(PlanningFormats, OfACoordinatedSync) {
    start(true);
    world.registry.addPlaceholder("restored", PDInstallTypeRestore);
    world.registry.addPlaceholder("system")->kind = "System";
    world.registry.addPlaceholder("offloaded", PDInstallTypeDowngrade);
    world.registry.addPlaceholder("wanted", PDInstallTypeDowngrade);
    world.registry.addInstalled("update");
    Array records{Dictionary{{"identifier", "a/../b"}, {"operation", "install"}}};
    for (const char* identifier : {"wanted", "update", "kept", "gone"}) {
        records.emplace_back(Dictionary{{"identifier", identifier}, {"operation", "install"}, {"version", "1.0"}});
    }
    world.files.putPlist(paths::toDoList, records);
    world.files.put("/kept", "archive");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/kept", "path", "kept", "1.0");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/gone", "path", "gone", "1.0");
    world.faults.fail("files.createDirectory");
    world.faults.fail("coordinators.updating");
    EXPECT_EQ(client().outstandingAssetTransfers().size(), 3u);
    EXPECT_EQ(missing({"outstandingAssetTransfers starting with todoList %{public}@",
                       "outstandingAssetTransfers preExistingPlaceHolders %{public}@, idsWeWant %{public}@",
                       "Ignoring invalid path: %{public}@", "%{public}@ already has a placeholder - skipping",
                       "Assets already in progress (not returning these): %{public}@",
                       "Assets currently restoring: %{public}@", "Can't create icon scratch dir! %{public}@",
                       "%{public}@ is currenlty marked to be restored and will be handled by corbind - skipping",
                       "%{public}@ is auto demoted: %d, manual demoted: %d, system app:%d - skipping",
                       "%{public}@ is currenlty demoted (manual:%d, auto:%d) - skipping", demotedButRequested,
                       "Recovered download path for %{public}@ at %{public}@",
                       "Download path recovered for %{public}@ but the file is missing: %{public}@", prepped,
                       "App %{public}@ is already installed and will be updated.",
                       "Not requesting app asset for %{public}@"}),
              Lines{});
}

TEST_F(PlanningFormats, OfASyncWithoutTheCoordinator) {
    start(false);
    world.registry.addPlaceholder("waiting");
    world.registry.addPlaceholder("system")->kind = "System";
    EXPECT_TRUE(client().outstandingAssetTransfers().empty());
    EXPECT_EQ(missing({"Not creating a placeholder app for %{public}@ because we already have one",
                       "%{public}@ is system app placeholder - skipping"}),
              Lines{});
}

TEST_F(PlanningFormats, OfASyncThatMayNotInstall) {
    start(false);
    world.registry.addPlaceholder("waiting");
    world.policy.settings["allowAppInstallation"] = OLBoolValue::explicitlyNo;
    EXPECT_TRUE(client().outstandingAssetTransfers().empty());
    EXPECT_EQ(missing({"skipping %{public}@ - its not a restore and app installation is disabled"}), Lines{});
}

TEST_F(PlanningFormats, OfAnAppToIgnore) {
    const PlugInLog log{world.log};
    IdentifierSet ignored;
    ignored.add("a");
    const std::set<std::string> none;
    const RequestFilter filter{log, true, true, ignored, none, none};
    EXPECT_FALSE(filter.admits(Candidate({{"BXBundleIdentifier", "a"}, {"IsRestore", 1}})));
    EXPECT_EQ(missing({"%{public}@ is currenlty marked as to be ignored for download - skipping"}), Lines{});
}

} // namespace
} // namespace appsync
