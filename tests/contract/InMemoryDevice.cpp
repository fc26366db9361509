// The rules on the services in memory, which the plug-in's tests run against.
#include "tests/contract/Contract.h"
#include "tests/inmemory/World.h"

#include <algorithm>
#include <functional>
#include <thread>
#include <vector>

namespace appsync::contract {
namespace {

class InMemoryDevice final : public DeviceUnderTest {
  public:
    explicit InMemoryDevice(const Conditions& conditions) {
        _world.coordinators.any.enabled = conditions.coordination;
        _world.registry.listsRestoresApart = !conditions.coordination;
        _world.registry.makesProgress = true;
        _world.registry.reportsChanges = true;
        _world.screen.runningApps.emplace();
        _world.store.completesAtOnce = false;
    }

    Platform platform() override { return _world.platform(); }
    /// Its services record what they are told: coordinators install nothing, icons have no pixels.
    bool can(Ability ability) const override { return ability == Ability::hasCoordinators; }

    FileURL putArchive(const AppDescription& app) override {
        const std::string path = "/var/mobile/Media/" + app.identifier + "-" + app.version + ".archive";
        _world.files.put(path, "archive");
        return *FileURL::fileURLWithPath(path, false);
    }
    void install(const AppDescription& app) override {
        const auto application = _world.registry.addInstalled(app.identifier, app.version);
        application->kind = app.isSystem ? "System" : "User";
        _world.files.putPlist(application->bundlePath + "/Info.plist",
                              Dictionary{{"BXBundleIdentifier", app.identifier}});
    }
    bool start(const std::string& identifier, bool busy) override { return _world.screen.start(identifier, busy); }
    bool isRunning(const std::string& identifier) override { return _world.screen.isRunning(identifier); }

    void removeByPerson(const std::string& identifier) override {
        _world.registry.remove(identifier);
        _world.lowLevelInstaller.uninstalled->set(identifier, Date{1});
    }
    void cancelByPerson(const std::string& identifier) override { _world.registry.cancelInstall(identifier); }

    void setPolicy(std::string_view setting, OLBoolValue value) override {
        _world.policy.settings[std::string(setting)] = value;
    }
    void putRestoreData(const std::string& identifier, std::size_t bytes) override {
        _world.backup.withRestoreData[identifier] = bytes;
    }
    void postNotification(const std::string& name, const void* object, const Dictionary& userInfo) override {
        inBackground([this, name, object, userInfo] { _world.center.post(name, object, &userInfo); });
    }
    std::uint64_t noticeState(const std::string& name) override { return _world.notices.stateOf(name); }
    std::uint64_t noticePosts(const std::string& name) override { return _world.notices.postsOf(name); }
    bool hasLogged(const std::string& text) override {
        return std::ranges::any_of(_world.journal.lines(),
                                   [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }
    std::size_t transactionsOf(const std::string& bundleID) override {
        return static_cast<std::size_t>(
            std::ranges::count_if(_world.journal.linesWith("transactions."), [&](const std::string& line) {
                return line.find(", " + bundleID + ", ") != std::string::npos;
            }));
    }

    std::chrono::milliseconds now() override { return _world.clock.now(); }
    /// On several threads, as many as may be needed at once.
    void letPass(std::chrono::milliseconds time) override {
        const std::chrono::milliseconds until = now() + time;
        for (int thread = 0; thread < 4; ++thread) {
            inBackground([this, until] { _world.clock.advanceTo(until); });
        }
    }
    /// Calls the completions that services owe.
    void proceed() override {
        for (auto* completions :
             {&_world.coordinators.any.completions, &_world.store.completions, &_world.deviceService.completions}) {
            for (auto& completion : *completions) {
                inBackground([completion = std::move(completion)] { completion(nullptr); });
            }
            completions->clear();
        }
    }

  private:
    void inBackground(std::function<void()> work) { _threads.emplace_back(std::move(work)); }

    inmemory::World _world;
    std::vector<std::jthread> _threads; // joined before the world goes
};

std::unique_ptr<DeviceUnderTest> makeInMemoryDevice(const Conditions& conditions) {
    return std::make_unique<InMemoryDevice>(conditions);
}

} // namespace

APPSYNC_INSTANTIATE_CONTRACT(InMemory, &makeInMemoryDevice);

} // namespace appsync::contract
