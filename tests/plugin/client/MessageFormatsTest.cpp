// The messages of the client object as the host's log gets them: with their conversions, before they are filled in.
#include "tests/inmemory/ClientTest.h"

#include <set>

namespace appsync {
namespace {

class MessageFormats : public inmemory::ClientTest {
  protected:
    using Formats = std::set<std::string>;

    /// The formats since the last look that have something to fill in, without the plug-in's identifier.
    Formats formats() {
        const std::string prefix = "%s|";
        Formats found;
        const auto all = world.log.formats();
        for (; _seen < all.size(); ++_seen) {
            const std::string& format = all[_seen];
            const std::string text = format.starts_with(prefix) ? format.substr(prefix.size()) : format;
            if (text.find('%') != std::string::npos) {
                found.insert(text);
            }
        }
        return found;
    }
    void reconcile() { client().reconcileSync_withNewAnchor_progressCallback_error(nullptr, "ANCHOR", {}, nullptr); }

  private:
    std::size_t _seen = 0;
};

TEST_F(MessageFormats, OfTheTeardown) {
    start(true);
    client().assetTransfer_updatedProgress(makeAsset("a"), 0.5);
    formats();
    stop();
    EXPECT_EQ(formats(), Formats{"%{public}@ getting dealloc'd with %lu outstanding RFX transfers!"});
}

TEST_F(MessageFormats, OfAChangedRecord) {
    start();
    putToDoList({{"a", "install"}});
    client().changeAssetID_toDo("a", "SENT");
    EXPECT_EQ(formats(), Formats{"Changing %{public}@ from %{public}@ to %{public}@"});
}

TEST_F(MessageFormats, OfAReconciliation) {
    start(false);
    world.files.putPlist(std::string(paths::stagingArea) + "/ApplicationsSync.plist",
                         Array{Dictionary{{"identifier", "a"}, {"operation", "remove"}}});
    reconcile();
    EXPECT_EQ(formats(), (Formats{"starting to reconcile sync with new anchor %{public}@",
                                  "%{public}@ targeted for termination", "performing %llu deletions",
                                  "Uninstall of %{public}@ failed.", "Notifying SK we are %s syncing"}));
}

TEST_F(MessageFormats, OfTheEndOfASync) {
    start();
    world.lowLevelInstaller.uninstalled = Dictionary{{"a", true}};
    static_cast<void>(client().installedAssets());
    formats();
    world.faults.fail("files.utimes", 1, 0, Error::make(PosixErrorDomain, 13));
    client().syncEndedWithSuccess(true);
    EXPECT_EQ(formats(), (Formats{"sync ended with success: %c", "Failed to update utimes of \"%s\": %s",
                                  "clearing uninstalled apps: %{public}@"}));
}

TEST_F(MessageFormats, OfClearing) {
    start();
    world.registry.addPlaceholder("a");
    client().clearSyncData();
    EXPECT_EQ(formats(), Formats{"Uninstall %{public}@ = %c"});
}

TEST_F(MessageFormats, OfTheInventory) {
    start();
    putToDoList({{"a", "install"}});
    world.lowLevelInstaller.uninstalled = Dictionary{{"a", true}, {"b", true}};
    static_cast<void>(client().installedAssets());
    EXPECT_EQ(formats(),
              (Formats{"%{public}@ not installed, but is in our todo list. Not marking deleted",
                       "%{public}@ not installed, and no todo (found=%d pi=%d failed=%d) Marking as deleted",
                       "finished getting installed assets toDoList:%{public}@, uninstalled apps %{public}@, last "
                       "synced apps%{public}@"}));
}

TEST_F(MessageFormats, OfTheSideQueries) {
    start();
    for (const char* app : {"a", "b"}) {
        world.registry.addInstalled(app)->boundToDevice = true;
    }
    const Dictionary accountInfo{{"accountInfo", Dictionary{{"ZuvexID", "new@x"}}}};
    world.files.putPlist("/var/containers/a/TamblinMetadata.plist",
                         Dictionary{{"zuvexId", "old@x"},
                                    {"com.zuvex.TamblinStore.downloadInfo", accountInfo},
                                    {"is-auto-download", true}});
    world.files.putPlist("/var/containers/b/TamblinMetadata.plist", Dictionary{{"zuvexId", 5}});
    static_cast<void>(client().installedAssetMetrics());
    EXPECT_EQ(formats(), Formats{"found %ld apps using %lld bytes (%lld purgeable)"});
    static_cast<void>(client().zuvexIDsForAssets());
    EXPECT_EQ(formats(), (Formats{"mismatched ZuvexID keys for %{public}@: %{public}@ vs %{public}@",
                                  "unexpected type for %{public}@",
                                  "unknown ZuvexID for %{public}@ (plist at "
                                  "%{public}@)",
                                  "Returning zuvex ID set: %{public}@"}));
    client().prepareForBackup();
    EXPECT_EQ(formats(), (Formats{"Updated DeviceBasedKPL state for : %{public}@ to %d",
                                  "clearing is-auto-download value for %{public}@"}));
}

} // namespace
} // namespace appsync
