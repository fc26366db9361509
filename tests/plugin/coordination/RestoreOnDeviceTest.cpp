// Restores and lists on a real device: what stands there afterwards, and after its next start.
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "plugin/client/AppsClient.h"
#include "propertylist/Codec.h"
#include "tests/device/root/TemporaryFolder.h"
#include "tests/inmemory/World.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <set>

namespace appsync {
namespace {

class RestoreOnDevice : public testing::Test {
  protected:
    void SetUp() override {
        auto made = device::Device::create(folder.path(), {});
        ASSERT_TRUE(made);
        run(std::move(*made));
    }
    void TearDown() override { end(); }
    /// As when the daemon ends and starts again.
    void restart() {
        end();
        auto opened = device::Device::open(folder.path());
        ASSERT_TRUE(opened);
        run(std::move(*opened));
    }
    bool restore(std::string_view identifier, std::uint64_t demotionStatus, const Dictionary& storeMetadata,
                 const std::optional<Data>& sinf = Data("sinf"), const std::optional<Data>& icon = Data("png")) {
        const auto bytes = PropertyListCodec().dataWithPropertyList(storeMetadata, PropertyListFormat::xml, nullptr);
        return client->prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
            identifier, *bytes, sinf, icon, demotionStatus);
    }
    device::Application application(std::string_view identifier) {
        device->coordinator().waitUntilIdle();
        const auto found = device->registry().application(identifier);
        EXPECT_TRUE(found) << identifier;
        return found.value_or(device::Application{});
    }
    std::optional<std::string> content(const std::string& path) {
        const auto bytes = device->files().readFile(path, nullptr);
        return bytes ? std::optional<std::string>(bytes->bytes()) : std::nullopt;
    }

    inmemory::World world; // for the two services that are the host's
    device::TemporaryFolder folder;
    std::unique_ptr<device::Device> device;
    std::unique_ptr<AppsClient> client;
    const Dictionary metadata{{"title", "App A"}, {"bundleVersion", "1.2"}, {"launchProhibited", true}};

  private:
    void run(std::unique_ptr<device::Device> opened) {
        device = std::move(opened);
        client = AppsClient::init(device->platform(world.deviceService, world.errors));
    }
    void end() {
        client = nullptr;
        device = nullptr;
    }
};

TEST_F(RestoreOnDevice, AnAppIsAPlaceholderThatWaitsForTheStoreClientAlsoAfterARestart) {
    ASSERT_TRUE(restore("com.example.a", 0, metadata));
    for (const bool restarted : {false, true}) {
        if (restarted) {
            restart();
        }
        const auto app = application("com.example.a");
        EXPECT_EQ(app.name, "App A");
        EXPECT_EQ(app.version, "1.2");
        EXPECT_TRUE(app.isPlaceholder);
        EXPECT_FALSE(app.isInstalled);
        EXPECT_EQ(app.installType, PDInstallTypeRestore);
        EXPECT_EQ(content(app.bundlePath + "/Icon.png"), "png");
        EXPECT_EQ(content(app.containerPath + "/ApplicationSINF"), "sinf");
        const auto info =
            PropertyListCodec().propertyListWithData(content(app.bundlePath + "/Info.plist").value_or(""), nullptr);
        ASSERT_TRUE(info && info->dictionary());
        EXPECT_TRUE(info->dictionary()->truth("PDApplicationLaunchProhibited"));
        const auto kept = PropertyListCodec().propertyListWithData(
            content(app.containerPath + "/TamblinMetadata.plist").value_or(""), nullptr);
        EXPECT_EQ(kept, Value(metadata));

        const auto open = device->coordinator().openCoordinators();
        ASSERT_EQ(open.size(), 1u);
        EXPECT_EQ(open[0].kind, "restoring");
        EXPECT_EQ(open[0].creator, KXClientSyncHost);
        EXPECT_EQ(open[0].responsibleClient, KXClientCorbin);
    }
}

TEST_F(RestoreOnDevice, ASecondRestoreLeavesAnAppToTheStoreClient) {
    ASSERT_TRUE(restore("com.example.a", 0, metadata));
    const auto before = application("com.example.a");
    restart();
    EXPECT_TRUE(restore("com.example.a", 0, {{"title", "Another name"}}));
    const auto after = application("com.example.a");
    EXPECT_EQ(after.name, "App A");
    EXPECT_EQ(after.containerPath, before.containerPath);
}

TEST_F(RestoreOnDevice, ADemotedAppIsAPlaceholderOfItsKindAndNothingElseIsToCome) {
    ASSERT_TRUE(restore("com.example.intentional", 1, metadata));
    ASSERT_TRUE(restore("com.example.automatic", 2, {}, std::nullopt, std::nullopt));
    for (const bool restarted : {false, true}) {
        if (restarted) {
            restart();
        }
        EXPECT_EQ(application("com.example.intentional").installType, PDInstallTypeIntentionalDowngrade);
        EXPECT_EQ(application("com.example.automatic").installType, PDInstallTypeDowngrade);
        EXPECT_EQ(application("com.example.automatic").name, "com.example.automatic");
        EXPECT_TRUE(device->coordinator().openCoordinators().empty());
    }
}

TEST_F(RestoreOnDevice, ARestoreThatFailsLeavesNothing) {
    // The app is being installed by other means.
    bool created = false;
    const auto platform = device->platform(world.deviceService, world.errors);
    const auto other =
        platform.initiatingCoordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            "com.example.a", KXClientSyncHost, true, &created, nullptr);
    ASSERT_TRUE(created);
    EXPECT_FALSE(restore("com.example.a", 0, metadata));
    EXPECT_FALSE(restore("com.example.a", 1, metadata));
    EXPECT_EQ(other->error(), nullptr);
    EXPECT_FALSE(restore("../../var/mobile/x", 0, metadata));
    EXPECT_FALSE(restore("", 1, metadata));
    device->coordinator().waitUntilIdle();
    EXPECT_TRUE(device->registry().applications().empty());
    EXPECT_FALSE(device->files().fileExists("/tmp/com.zuvex.qrd.Apps"));
    EXPECT_FALSE(device->files().fileExists("/var/mobile/x.app"));
}

/// Everything on a device that is none of the plug-in's and none of the device's own records.
std::set<std::string> othersFiles(const std::filesystem::path& device) {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(device)) {
        const std::string path = entry.path().lexically_relative(device).string();
        const bool isOwn = path.starts_with("var/mobile/Library/ApplicationSync") ||
                           path.starts_with("tmp/com.zuvex.qrd.Apps") || path.starts_with("var/db/");
        if (!isOwn) {
            found.insert(path);
        }
    }
    return found;
}

class ListOnDevice : public testing::TestWithParam<bool> {};

TEST_P(ListOnDevice, AnIdentifierThatClimbsLeadsNowhereOutsideOfThePlugInsFolders) {
    inmemory::World world;
    const device::TemporaryFolder folder;
    auto device = device::Device::create(folder.path(), {.coordinationIsEnabled = GetParam()});
    ASSERT_TRUE(device);
    const auto client = AppsClient::init((*device)->platform(world.deviceService, world.errors));
    Array records;
    for (const char* identifier : {"../x", "../../x", "..", "../TamblinStuff/../../x", "/x"}) {
        records.push_back(Dictionary{{"identifier", identifier}, {"operation", "install"}, {"name", "X"}});
        records.push_back(Dictionary{{"identifier", identifier}, {"operation", "remove"}});
    }
    const auto list = PropertyListCodec().dataWithPropertyList(records, PropertyListFormat::binary, nullptr);
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync";
    (*device)->files().createDirectory(staging, true, std::nullopt, nullptr);
    ASSERT_TRUE((*device)->files().createFile(staging + "/ApplicationsSync.plist", list->bytes(), {}));
    const auto before = othersFiles(folder.path());
    EXPECT_TRUE(client->reconcileSync_withNewAnchor_progressCallback_error(nullptr, "", {}, nullptr));
    (void)client->outstandingAssetTransfers();
    (*device)->coordinator().waitUntilIdle();
    auto after = othersFiles(folder.path());
    for (const std::string& path : before) {
        EXPECT_TRUE(after.erase(path) == 1 || path.starts_with(staging.substr(1))) << path << " is gone";
    }
    EXPECT_EQ(after, std::set<std::string>());
}
INSTANTIATE_TEST_SUITE_P(Paths, ListOnDevice, testing::Bool(), [](const auto& parameter) {
    return std::string(parameter.param ? "Coordinated" : "OwnInstalls");
});

} // namespace
} // namespace appsync
