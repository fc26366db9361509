// A device that claims to lack nothing, and is made of stubs: null for almost every object, and what it owes a call
// back never comes. Each rule that it breaks must say so; `broken_test.py` listens.
#include "platform/stubs/Stubs.h"
#include "tests/contract/Contract.h"

namespace appsync::contract {
namespace {

class SilentRegistry final : public StubApplicationWorkspace {
  public:
    void addObserver(PDApplicationWorkspaceObserverProtocol* /*observer*/) noexcept override {}
};

class SilentStore final : public StubSoftwareLibraryClass {
  public:
    std::shared_ptr<MWSoftwareLibrary> init() noexcept override { return std::make_shared<Library>(); }

  private:
    struct Library final : MWSoftwareLibrary {
        void refreshReceiptsWithCompletionBlock(std::function<void(const ErrorPtr&)> /*completion*/) noexcept override {
        }
    };
};

class NullProfileConnectionClass final : public OLProfileConnectionClass {
  public:
    std::shared_ptr<OLProfileConnection> sharedConnection() noexcept override { return nullptr; }
};

class NullManagerClass final : public HVManagerClass {
  public:
    std::shared_ptr<HVManager> init() noexcept override { return nullptr; }
};

class SilentInstallationService final : public StubInstallationService {
  public:
    std::optional<Dictionary> TevrinLookupUninstalled(const Dictionary* /*options*/) noexcept override {
        return std::nullopt;
    }
};

class BrokenDevice final : public DeviceUnderTest {
  public:
    Platform platform() override {
        return {.log = _stubs.log,
                .transactionLog = _stubs.transactionLog,
                .deviceService = _stubs.deviceService,
                .errorClassification = _stubs.errorClassification,
                .process = _stubs.process,
                .scheduler = _stubs.scheduler,
                .files = _stubs.files,
                .propertyLists = _stubs.propertyLists,
                .workspaces = _registry,
                .applicationProxies = _registry,
                .installationService = _installationService,
                .coordinators = _stubs.coordinators,
                .initiatingCoordinators = _stubs.initiatingCoordinators,
                .updatingCoordinators = _stubs.updatingCoordinators,
                .restoringCoordinators = _stubs.restoringCoordinators,
                .restoringDemotedCoordinators = _stubs.restoringDemotedCoordinators,
                .placeholders = _stubs.factories,
                .transferPromises = _stubs.factories,
                .outOfBandPromises = _stubs.outOfBandPromises,
                .installObservers = _stubs.factories,
                .profileConnections = _profileConnections,
                .backupManagers = _backupManagers,
                .softwareLibraries = _store,
                .homeScreen = _stubs.homeScreen,
                .notifications = _stubs.notifications,
                .notificationCenter = _stubs.notificationCenter,
                .bundles = _stubs.icons,
                .iconRenderer = _stubs.icons,
                .imageDestinations = _stubs.icons};
    }
    bool can(Ability /*ability*/) const override { return true; }

    FileURL putArchive(const AppDescription& app) override {
        return *FileURL::fileURLWithPath("/tmp/" + app.identifier, false);
    }
    void install(const AppDescription& /*app*/) override {}
    bool start(const std::string& /*identifier*/, bool /*busy*/) override { return false; }
    bool isRunning(const std::string& /*identifier*/) override { return false; }
    void removeByPerson(const std::string& /*identifier*/) override {}
    void cancelByPerson(const std::string& /*identifier*/) override {}
    void setPolicy(std::string_view /*setting*/, OLBoolValue /*value*/) override {}
    void putRestoreData(const std::string& /*identifier*/, std::size_t /*bytes*/) override {}
    void postNotification(const std::string& /*name*/, const void* /*object*/,
                          const Dictionary& /*userInfo*/) override {}
    std::uint64_t noticeState(const std::string& /*name*/) override { return 0; }
    std::uint64_t noticePosts(const std::string& /*name*/) override { return 0; }
    bool hasLogged(const std::string& /*text*/) override { return false; }
    std::size_t transactionsOf(const std::string& /*bundleID*/) override { return 0; }
    std::chrono::milliseconds now() override { return {}; }

  private:
    StubServices _stubs;
    SilentRegistry _registry;
    SilentStore _store;
    SilentInstallationService _installationService;
    NullProfileConnectionClass _profileConnections;
    NullManagerClass _backupManagers;
};

std::unique_ptr<DeviceUnderTest> makeBrokenDevice(const Conditions& /*conditions*/) {
    return std::make_unique<BrokenDevice>();
}

} // namespace

APPSYNC_INSTANTIATE_CONTRACT(Broken, &makeBrokenDevice);

} // namespace appsync::contract
