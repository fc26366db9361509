// A device with its registry, for tests.
#pragma once

#include "archive/InstallerError.h"
#include "device/database/Database.h"
#include "device/registry/ApplicationWorkspace.h"
#include "device/registry/Registry.h"
#include "device/root/Root.h"
#include "propertylist/Codec.h"

#include "../archive/ArchiveBuilder.h"
#include "../root/Faults.h"
#include "../root/TemporaryFolder.h"

#include <memory>
#include <string>
#include <vector>

namespace appsync::device {

/// What belongs to an open device; made anew to open it again.
class OpenDevice {
  public:
    explicit OpenDevice(const std::string& folder, std::shared_ptr<FaultPoint> faults = nullptr,
                        ArchiveLimits limits = {}) {
        root = take(Root::create(folder, {faults}));
        database = take(Database::open(*root));
        registry = take(Registry::open(*root, *database, codec, limits));
        workspace = std::make_unique<ApplicationWorkspace>(*registry);
    }
    DeviceFileSystem& files() const { return root->files(); }

    PropertyListCodec codec;
    std::unique_ptr<Root> root;
    std::unique_ptr<Database> database;
    std::unique_ptr<Registry> registry;
    std::unique_ptr<ApplicationWorkspace> workspace;

  private:
    template <class T> static T take(Result<T> result) {
        if (!result) {
            throw std::runtime_error(errorText(result.error()));
        }
        return std::move(*result);
    }
};

class RegistryTest : public testing::Test {
  protected:
    static constexpr const char* identifier = "org.example.app";

    void SetUp() override { open(); }
    void TearDown() override { device.reset(); }
    void open() {
        device.reset();
        device = std::make_unique<OpenDevice>(folder.path(), faults, limits);
    }
    Registry& registry() { return *device->registry; }
    ApplicationWorkspace& workspace() { return *device->workspace; }
    DeviceFileSystem& files() { return device->files(); }

    static ArchiveBuilder app(const std::string& app = identifier, const std::string& version = "1.0") {
        return ArchiveBuilder().app("Name", app, version).file("Name.app/Icon.png", "icon " + version);
    }
    /// Puts an archive on the device and answers a request to install it.
    ArchiveRequest request(const std::string& bytes, const std::string& app = identifier) {
        const std::string path = "/var/mobile/Media/" + app + ".zip";
        EXPECT_TRUE(files().createFile(path, bytes, {}));
        ArchiveRequest made;
        made.archivePath = path;
        made.identifier = app;
        return made;
    }
    Result<void> install(const std::string& app = identifier, const std::string& version = "1.0") {
        return registry().installArchive(request(RegistryTest::app(app, version).bytes(), app));
    }
    /// A placeholder bundle as the plug-in builds it, and a request to install it.
    PlaceholderRequest placeholder(const std::string& app = identifier, std::uint64_t installType = PDInstallTypeSync) {
        PlaceholderRequest made;
        made.identifier = app;
        made.bundlePath = "/tmp/com.zuvex.qrd.Apps/" + app + ".app";
        made.installType = installType;
        EXPECT_TRUE(files().createDirectory(made.bundlePath, true, std::nullopt, nullptr));
        EXPECT_TRUE(files().createFile(made.bundlePath + "/Info.plist", infoList(app, "0.9", "Waiting"), {}));
        EXPECT_TRUE(files().createFile(made.bundlePath + "/Icon.png", "waiting icon", {}));
        return made;
    }
    std::vector<std::string> containers() { return *files().list("/var/containers/Bundle/Application"); }
    std::vector<std::string> staged() { return *files().list("/var/containers/Bundle/.staging"); }
    std::string content(const std::string& path) {
        const auto data = files().readFile(path, nullptr);
        return data ? std::string(data->bytes()) : "(missing)";
    }
    /// Puts something in a file's place that is there and cannot be read, whoever asks.
    void makeUnreadable(const std::string& path) {
        files().removeItem(path, nullptr);
        ASSERT_TRUE(files().createDirectory(path, false, std::nullopt, nullptr));
    }
    std::optional<Dictionary> removedApps() { return registry().TevrinLookupUninstalled(nullptr); }
    static std::int64_t code(InstallerError error) { return static_cast<std::int64_t>(error); }

    TemporaryFolder folder;
    std::shared_ptr<RecordingFaults> faults = std::make_shared<RecordingFaults>();
    ArchiveLimits limits;
    std::unique_ptr<OpenDevice> device;
};

} // namespace appsync::device
