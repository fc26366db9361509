// Eighth, and from the first service on: the rules of the platform, on the services that are written.
#include "tests/contract/Contract.h"
#include "Device.h"

namespace appsync::contract {
namespace {

class PortUnderTest final : public DeviceUnderTest {
  public:
    Platform platform() override { return _device.platform(); }
    bool can(Ability ability) const override { return ability == Ability::unpacksApps; }

    FileURL putArchive(const AppDescription& app) override {
        const auto bytes = _device.propertyLists.dataWithPropertyList(
            Dictionary{{"BXBundleIdentifier", app.identifier}, {"BXBundleVersion", app.version}},
            PropertyListFormat::binary, nullptr);
        const std::string path = "/var/mobile/Media/" + app.identifier + "-" + app.version;
        _device.files.createFile(path, bytes->bytes(), {});
        return *FileURL::fileURLWithPath(path, false);
    }
    void install(const AppDescription& app) override {
        _device.registry.put({.identifier = app.identifier, .version = app.version, .isSystem = app.isSystem});
    }
    void cancelByPerson(const std::string& identifier) override { _device.registry.cancel(identifier); }
    bool hasLogged(const std::string& text) override {
        return std::ranges::any_of(_device.log.messages(),
                                   [&](const std::string& message) { return message.find(text) != std::string::npos; });
    }
    std::size_t transactionsOf(const std::string& bundleID) override { return _device.log.transactionsOf(bundleID); }

    // Of services that are stubs.
    bool start(const std::string& /*identifier*/, bool /*busy*/) override { return false; }
    bool isRunning(const std::string& /*identifier*/) override { return false; }
    void removeByPerson(const std::string& /*identifier*/) override {}
    void setPolicy(std::string_view /*setting*/, OLBoolValue /*value*/) override {}
    void putRestoreData(const std::string& /*identifier*/, std::size_t /*bytes*/) override {}
    void postNotification(const std::string& /*name*/, const void* /*object*/,
                          const Dictionary& /*userInfo*/) override {}
    std::uint64_t noticeState(const std::string& /*name*/) override { return 0; }
    std::uint64_t noticePosts(const std::string& /*name*/) override { return 0; }
    std::chrono::milliseconds now() override { return {}; }

  private:
    port::Device _device;
};

std::unique_ptr<DeviceUnderTest> makePort(const Conditions& /*conditions*/) {
    return std::make_unique<PortUnderTest>();
}

} // namespace

APPSYNC_INSTANTIATE_RULES(Port, FileSystemContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, PropertyListContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, LogContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, HostContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, RegistryContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, RegistryObserverContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, CoordinationContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, CoordinatorContract, &makePort);
APPSYNC_INSTANTIATE_RULES(Port, CoordinatorReportContract, &makePort);

APPSYNC_WITHOUT_RULES(BackupContract);
APPSYNC_WITHOUT_RULES(HomeScreenContract);
APPSYNC_WITHOUT_RULES(IconContract);
APPSYNC_WITHOUT_RULES(NotificationContract);
APPSYNC_WITHOUT_RULES(PolicyContract);
APPSYNC_WITHOUT_RULES(SchedulerContract);
APPSYNC_WITHOUT_RULES(StoreContract);
APPSYNC_WITHOUT_RULES(UninstalledListContract);

} // namespace appsync::contract
