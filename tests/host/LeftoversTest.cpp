// What an interrupted sync leaves, and what becomes of it when the next one begins.
#include "host/session/Leftovers.h"
#include "device/log/LogFile.h"
#include "device/registry/Registry.h"
#include "host/transfer/Transfer.h"

#include "../device/root/Faults.h"
#include "SyncFixture.h"

namespace appsync::host {
namespace {

class Leftovers : public Sync {
  protected:
    void SetUp() override {
        Sync::SetUp();
        createDevice({.noCoordination = true});
    }
    std::unique_ptr<device::Device> open() {
        auto opened = device::Device::open(deviceFolder(), {.faultPoint = faults, .log = {}});
        EXPECT_TRUE(opened) << errorText(opened.error());
        return std::move(*opened);
    }
    /// As the plug-in makes it for an app that it requests.
    static void addPlaceholder(device::Device& device, const std::string& identifier) {
        device::PlaceholderRequest request;
        request.identifier = identifier;
        request.installType = PDInstallTypeSync;
        ASSERT_TRUE(device.registry().installPlaceholder(request));
    }
    std::shared_ptr<device::RecordingFaults> faults = std::make_shared<device::RecordingFaults>();
};

TEST_F(Leftovers, PlaceholdersOfInstallsThatWillNotGoOnAreRemoved) {
    const auto device = open();
    addPlaceholder(*device, "com.example.a");
    addPlaceholder(*device, "com.example.b");
    clearLeftovers(*device, {.waiting = {"com.example.b"}, .archives = {}}, {});
    EXPECT_FALSE(device->registry().hasPlaceholder("com.example.a"));
    EXPECT_TRUE(device->registry().hasPlaceholder("com.example.b")) << "it waits";
}

TEST_F(Leftovers, TheLogTellsWhyAPlaceholderCouldNotBeRemoved) {
    const auto device = open();
    addPlaceholder(*device, "com.example.a");
    faults->forget();
    faults->failAt = 0; // the removal's commit
    faults->failure = EIO;
    clearLeftovers(*device, {}, {});
    faults->failAt = -1;
    EXPECT_TRUE(device->registry().hasPlaceholder("com.example.a"));
    std::vector<std::string> errors;
    const auto read = device::LogCursor(device->files()).readOn([&errors](const device::LogEntry& entry) {
        if (entry.level == LogLevel::error) {
            errors.push_back(entry.text);
        }
        return true;
    });
    ASSERT_TRUE(read);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("cannot remove com.example.a: "), std::string::npos) << errors[0];
}

TEST_F(Leftovers, AReceivedFileStaysAsLongAsItsAppIsToBeRestored) {
    const auto device = open();
    const fs::path received = folder / "device/var/mobile/Media/PublicStaging/Received/com.example.a.archive";
    write(received, "a package");
    PropertyListCodec codec;
    const Dictionary state{
        {"com.example.a",
         Dictionary{{"1.0", Dictionary{{"path", receivedFolder() + "/" + received.filename().string()}}}}}};
    write(folder / "device/var/mobile/Library/ApplicationSync/RestoreState.plist",
          std::string(codec.dataWithPropertyList(state, PropertyListFormat::xml, nullptr)->bytes()));
    device::PlaceholderRequest request;
    request.identifier = "com.example.a";
    request.installType = PDInstallTypeRestore;
    ASSERT_TRUE(device->registry().installPlaceholder(request));
    clearReceivedFiles(*device, {});
    EXPECT_TRUE(fs::exists(received));
    ASSERT_TRUE(device->registry().uninstall("com.example.a", device::RemovalReason::sync,
                                             device::RemovalScope::placeholderOnly));
    clearReceivedFiles(*device, {});
    EXPECT_FALSE(fs::exists(received)) << "the plug-in has not forgotten it, and nobody will install it";
}

TEST_F(Leftovers, ReceiptsAreBroughtUpToDate) {
    addApp("a");
    addApp("b");
    sync(ExitCode::done);
    const std::set<std::string> receipts{"com.example.a.plist", "com.example.b.plist"};
    const fs::path receiptFolder = folder / "device/var/mobile/Library/StoreReceipts";
    ASSERT_EQ(filesBelow("var/mobile/Library/StoreReceipts"), receipts);
    fs::rename(receiptFolder / "com.example.a.plist", receiptFolder / "com.example.gone.plist");
    sync(ExitCode::done); // has nothing to install
    EXPECT_EQ(filesBelow("var/mobile/Library/StoreReceipts"), receipts);
}

} // namespace
} // namespace appsync::host
