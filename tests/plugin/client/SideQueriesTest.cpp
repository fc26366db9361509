// The host's side queries: metrics, account identifiers, preparation of a backup.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::ApplicationPtr;
using inmemory::Lines;

const std::string enumerated = "registry.enumerateBundlesOfType(1)";

class SideQueries : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }

    static std::string pathOf(const std::string& identifier) {
        return "/var/containers/" + identifier + "/TamblinMetadata.plist";
    }
    ApplicationPtr addApp(const std::string& identifier, const std::optional<Value>& metadata) {
        if (metadata) {
            world.files.putPlist(pathOf(identifier), *metadata);
        }
        return world.registry.addInstalled(identifier);
    }
    static Lines readings(const std::string& identifier) {
        return {"files.readFile(" + pathOf(identifier) + ")", "plist.parse()"};
    }
};

// Metrics.

class InstalledAssetMetrics : public SideQueries {
  protected:
    static Dictionary metrics(std::uint64_t count, std::uint64_t bytes) {
        return {{"_Count", count}, {"_PhysicalSize", bytes}, {"_PurgeableSize", std::uint64_t{0}}};
    }
};

TEST_F(InstalledAssetMetrics, AreZeroWithoutUserApps) {
    const Dictionary result = client().installedAssetMetrics();
    EXPECT_EQ(result, metrics(0, 0));
    for (const auto& [key, number] : result) {
        EXPECT_EQ(number.kind(), Value::Kind::unsignedInteger) << key.view();
    }
    EXPECT_EQ(journal(), (Lines{enumerated, "log: found 0 apps using 0 bytes (0 purgeable)"}));
}

TEST_F(InstalledAssetMetrics, CountAndSizeUserApps) {
    world.registry.addInstalled("a")->size = 5'000'000'000;
    world.registry.addInstalled("b")->size = 7;
    EXPECT_EQ(client().installedAssetMetrics(), metrics(2, 5'000'000'007));
    EXPECT_EQ(journal(), (Lines{enumerated, "log: found 2 apps using 5000000007 bytes (0 purgeable)"}));
}

TEST_F(InstalledAssetMetrics, NeitherCountNorSizeSystemApps) {
    const std::pair<std::string, std::string> kinds[] = {{"s", "System"}, {"i", "Internal"}, {"u", "user"}, {"e", ""}};
    for (const auto& [identifier, kind] : kinds) {
        const auto app = world.registry.addInstalled(identifier);
        app->kind = kind;
        app->size = 100;
    }
    world.registry.addInstalled("a")->size = 7;
    EXPECT_EQ(client().installedAssetMetrics(), metrics(1, 7));
}

TEST_F(InstalledAssetMetrics, NeitherCountNorSizeSystemAppsOfTheHomeScreen) {
    world.registry.listsSystemApps = true;
    const auto app = world.registry.addInstalled("s");
    app->kind = "System";
    app->size = 100;
    world.registry.addInstalled("a")->size = 7;
    EXPECT_EQ(client().installedAssetMetrics(), metrics(1, 7));
}

TEST_F(InstalledAssetMetrics, CountAppsWithoutSize) {
    world.registry.addInstalled("a");
    EXPECT_EQ(client().installedAssetMetrics(), metrics(1, 0));
}

// Account identifiers.

class ZuvexIDs : public SideQueries {
  protected:
    using Set = std::set<std::string>;
    static Dictionary newLayout(const Value& account) {
        return {{"com.zuvex.TamblinStore.downloadInfo", Dictionary{{"accountInfo", Dictionary{{"ZuvexID", account}}}}}};
    }
    static Dictionary bothLayouts(const Value& old, const Value& account) {
        Dictionary metadata = newLayout(account);
        metadata.set("zuvexId", old);
        return metadata;
    }
    /// The journal of a query: the lines between its first and its last.
    static Lines whole(const Lines& middle, const std::string& accounts) {
        return join(
            {{"log: getting id's for assets", enumerated}, middle, {"log: Returning zuvex ID set: " + accounts}});
    }
    static Lines unknown(const std::string& identifier) {
        return {"log: unknown ZuvexID for " + identifier + " (plist at " + pathOf(identifier) + ")"};
    }
    static Lines wrongType(const std::string& label) { return {"framework error: unexpected type for " + label}; }
};

TEST_F(ZuvexIDs, AreNoneWithoutApps) {
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{});
    EXPECT_EQ(journal(), whole({}, "()"));
}

TEST_F(ZuvexIDs, ComeFromEitherLayout) {
    addApp("a", Dictionary{{"zuvexId", "old@x"}});
    addApp("b", newLayout("new@x"));
    EXPECT_EQ(client().zuvexIDsForAssets(), (Set{"new@x", "old@x"}));
    EXPECT_EQ(journal(), whole(join({readings("a"), readings("b")}), "(new@x, old@x)"));
}

TEST_F(ZuvexIDs, AreOneWhereTheLayoutsAgree) {
    addApp("a", bothLayouts("me@x", "me@x"));
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{"me@x"});
    EXPECT_EQ(journal(), whole(readings("a"), "(me@x)"));
}

TEST_F(ZuvexIDs, AreBothWhereTheLayoutsDiffer) {
    addApp("a", bothLayouts("old@x", "new@x"))->registeredAs = "registered.a";
    EXPECT_EQ(client().zuvexIDsForAssets(), (Set{"new@x", "old@x"}));
    EXPECT_EQ(journal(), whole(join({readings("a"), {"log: mismatched ZuvexID keys for registered.a: old@x vs new@x"}}),
                               "(new@x, old@x)"));
}

TEST_F(ZuvexIDs, AreOneForAppsOfTheSameAccount) {
    addApp("a", Dictionary{{"zuvexId", "me@x"}});
    addApp("b", newLayout("me@x"));
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{"me@x"});
}

TEST_F(ZuvexIDs, AreUnknownWithoutMetadata) {
    addApp("a", std::nullopt)->registeredAs = "registered.a";
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{});
    EXPECT_EQ(journal(), whole({"files.readFile(" + pathOf("a") + ")",
                                "log: unknown ZuvexID for registered.a (plist at " + pathOf("a") + ")"},
                               "()"));
}

TEST_F(ZuvexIDs, AreUnknownWhenMetadataCannotBeUnderstood) {
    world.files.put(pathOf("a"), "no property list");
    addApp("a", std::nullopt);
    addApp("b", Array{"zuvexId"});
    addApp("c", Dictionary{{"name", "C"}});
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{});
    EXPECT_EQ(
        journal(),
        whole(join({readings("a"), unknown("a"), readings("b"), unknown("b"), readings("c"), unknown("c")}), "()"));
}

TEST_F(ZuvexIDs, AreUnknownForAnAppWithoutContainer) {
    world.registry.addInstalled("a")->containerPath = "";
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{});
    EXPECT_EQ(journal(), whole({"log: unknown ZuvexID for a (plist at (null))"}, "()"));
}

TEST_F(ZuvexIDs, ComeFromTheAccountInfoAloneWhenTheOldOneIsANumber) {
    addApp("a", bothLayouts(5, "new@x"));
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{"new@x"});
    EXPECT_EQ(journal(), whole(join({readings("a"), wrongType("zuvexID")}), "(new@x)"));
}

TEST_F(ZuvexIDs, ComeFromTheOldLayoutAloneWhenALevelOfTheNewOneIsOfAnotherKind) {
    const std::string info = "com.zuvex.TamblinStore.downloadInfo";
    addApp("a", Dictionary{{"zuvexId", "a@x"}, {info, "text"}});
    addApp("b", Dictionary{{"zuvexId", "b@x"}, {info, Dictionary{{"accountInfo", Array{}}}}});
    addApp("c", bothLayouts("c@x", true));
    EXPECT_EQ(client().zuvexIDsForAssets(), (Set{"a@x", "b@x", "c@x"}));
    EXPECT_EQ(journal(), whole(join({readings("a"), wrongType("downloadInfo"), readings("b"), wrongType("accountInfo"),
                                     readings("c"), wrongType("ZuvexID")}),
                               "(a@x, b@x, c@x)"));
}

TEST_F(ZuvexIDs, AreUnknownWhenNoValueIsOfItsKind) {
    addApp("a", bothLayouts(5, Dictionary{}));
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{});
    EXPECT_EQ(journal(), whole(join({readings("a"), wrongType("zuvexID"), wrongType("ZuvexID"), unknown("a")}), "()"));
}

TEST_F(ZuvexIDs, OfTheNewLayoutMayStopAtAnyLevel) {
    const std::string info = "com.zuvex.TamblinStore.downloadInfo";
    addApp("a", Dictionary{{info, Dictionary{}}});
    addApp("b", Dictionary{{info, Dictionary{{"accountInfo", Dictionary{}}}}});
    EXPECT_EQ(client().zuvexIDsForAssets(), Set{});
    EXPECT_EQ(journal(), whole(join({readings("a"), unknown("a"), readings("b"), unknown("b")}), "()"));
}

// Preparation of a backup.

class BackupPreparation : public SideQueries {
  protected:
    static Lines whole(const Lines& middle) {
        return join({{"log: preparing for backup", enumerated}, middle, {"log: finished preparing for backup"}});
    }
    static Lines updated(const std::string& identifier, bool flag) {
        return {"log: Updated DeviceBasedKPL state for : " + identifier + " to " + (flag ? "1" : "0")};
    }
    static Lines cleared(const std::string& identifier) {
        return {"log: clearing is-auto-download value for " + identifier};
    }
    static Lines written(const std::string& identifier) {
        return {"plist.serialise(xml)", "files.writeFileAtomically(" + pathOf(identifier) + ")"};
    }
    Value metadataOf(const std::string& identifier) {
        return world.files.plistAt(pathOf(identifier)).value_or(Value());
    }
};

TEST_F(BackupPreparation, HasNothingToDoWithoutApps) {
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole({}));
}

TEST_F(BackupPreparation, MarksADeviceLicensedAppThatHasNoKey) {
    const auto app = addApp("a", Dictionary{{"name", "A"}});
    app->boundToDevice = true;
    app->registeredAs = "registered.a";
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({readings("a"), updated("a", true), written("a")})));
    EXPECT_EQ(metadataOf("a"), Value(Dictionary{{"name", "A"}, {"DeviceBasedKPL", true}}));
    EXPECT_EQ(metadataOf("a").dictionary()->find("DeviceBasedKPL")->kind(), Value::Kind::boolean);
}

TEST_F(BackupPreparation, SetsTheKeyWhereItIsThereEvenWhenItStays) {
    addApp("a", Dictionary{{"DeviceBasedKPL", true}, {"name", "A"}});
    addApp("b", Dictionary{{"DeviceBasedKPL", false}});
    addApp("c", Dictionary{{"DeviceBasedKPL", true}})->boundToDevice = true;
    addApp("d", Dictionary{{"DeviceBasedKPL", "text"}});
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({readings("a"), updated("a", false), written("a"), readings("b"),
                                     updated("b", false), written("b"), readings("c"), updated("c", true), written("c"),
                                     readings("d"), updated("d", false), written("d")})));
    EXPECT_EQ(metadataOf("a"), Value(Dictionary{{"DeviceBasedKPL", false}, {"name", "A"}}));
    EXPECT_EQ(metadataOf("c"), Value(Dictionary{{"DeviceBasedKPL", true}}));
    EXPECT_EQ(metadataOf("d"), Value(Dictionary{{"DeviceBasedKPL", false}}));
}

TEST_F(BackupPreparation, RemovesTheMarkOfAnAutomaticDownload) {
    addApp("a", Dictionary{{"is-auto-download", true}, {"name", "A"}})->registeredAs = "registered.a";
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({readings("a"), cleared("a"), written("a")})));
    EXPECT_EQ(metadataOf("a"), Value(Dictionary{{"name", "A"}}));
}

TEST_F(BackupPreparation, WritesBothChangesAtOnce) {
    addApp("a", Dictionary{{"is-auto-download", 1}})->boundToDevice = true;
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({readings("a"), updated("a", true), cleared("a"), written("a")})));
    EXPECT_EQ(metadataOf("a"), Value(Dictionary{{"DeviceBasedKPL", true}}));
}

TEST_F(BackupPreparation, LeavesAFileThatNeedsNoChange) {
    addApp("a", Dictionary{{"is-auto-download", false}, {"name", "A"}});
    addApp("b", Dictionary{{"is-auto-download", "text"}});
    addApp("c", Dictionary{});
    const auto before = world.files.bytesAt(pathOf("a"));
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({readings("a"), readings("b"), readings("c")})));
    EXPECT_EQ(world.files.bytesAt(pathOf("a")), before);
}

TEST_F(BackupPreparation, KeepsTheMarkThatIsFalseInAFileThatChanges) {
    addApp("a", Dictionary{{"is-auto-download", false}})->boundToDevice = true;
    client().prepareForBackup();
    EXPECT_EQ(metadataOf("a"), Value(Dictionary{{"is-auto-download", false}, {"DeviceBasedKPL", true}}));
}

TEST_F(BackupPreparation, SkipsAppsWhoseMetadataCannotBeRead) {
    addApp("a", std::nullopt)->boundToDevice = true;
    world.files.put(pathOf("b"), "no property list");
    addApp("b", std::nullopt)->boundToDevice = true;
    addApp("c", Array{"DeviceBasedKPL"})->boundToDevice = true;
    world.registry.addInstalled("d")->containerPath = "";
    world.registry.find("d", false)->boundToDevice = true;
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({{"files.readFile(" + pathOf("a") + ")"}, readings("b"), readings("c")})));
}

TEST_F(BackupPreparation, GoesOnSilentlyWhenAFileCannotBeWritten) {
    addApp("a", Dictionary{})->boundToDevice = true;
    addApp("b", Dictionary{})->boundToDevice = true;
    addApp("c", Dictionary{})->boundToDevice = true;
    world.faults.fail("files.writeFileAtomically");
    world.faults.fail("plist.serialise", 1, 1);
    client().prepareForBackup();
    EXPECT_EQ(journal(), whole(join({readings("a"),
                                     updated("a", true),
                                     written("a"),
                                     readings("b"),
                                     updated("b", true),
                                     {"plist.serialise(xml)"},
                                     readings("c"),
                                     updated("c", true),
                                     written("c")})));
    EXPECT_EQ(metadataOf("a"), Value(Dictionary{}));
    EXPECT_EQ(metadataOf("b"), Value(Dictionary{}));
    EXPECT_EQ(metadataOf("c"), Value(Dictionary{{"DeviceBasedKPL", true}}));
}

} // namespace
} // namespace appsync
