// The rules on the reference device, with the host's two services.
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/log/LogFile.h"
#include "device/log/TransactionLog.h"
#include "device/processes/ProcessTable.h"
#include "device/services/BackupService.h"
#include "device/services/DevicePolicy.h"
#include "device/services/Notifications.h"
#include "host/transfer/TransferQueue.h"
#include "tests/contract/Contract.h"
#include "tests/device/archive/ArchiveBuilder.h"
#include "tests/device/log/Records.h"
#include "tests/device/root/TemporaryFolder.h"

#include <csignal>
#include <filesystem>
#include <set>

namespace appsync::contract {
namespace {

using device::ArchiveBuilder;
using device::Device;
using device::RemovalReason;
using device::RemovalScope;

/// A picture of two pixels by two.
constexpr unsigned char iconBytes[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00,
    0x02, 0x00, 0x00, 0x00, 0x02, 0x08, 0x06, 0x00, 0x00, 0x00, 0x72, 0xb6, 0x0d, 0x24, 0x00, 0x00, 0x00, 0x11, 0x49,
    0x44, 0x41, 0x54, 0x78, 0xda, 0x63, 0xf8, 0xcf, 0xc0, 0xf0, 0x1f, 0x84, 0x19, 0x60, 0x0c, 0x00, 0x47, 0xca, 0x07,
    0xf9, 0x1a, 0xb6, 0xf1, 0xa9, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

/// Throws when the device cannot do what a rule presupposes.
template <class T> T must(Result<T> result) {
    if (!result) {
        throw std::runtime_error(errorText(result.error()));
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*result);
    }
}

class ReferenceDevice final : public DeviceUnderTest {
  public:
    explicit ReferenceDevice(const Conditions& conditions) {
        std::filesystem::create_directory(_folder / "outside");
        device::writeHostFile(_folder / "outside/secret", "secret");
        device::DeviceOptions options;
        options.coordinationIsEnabled = conditions.coordination;
        _device = must(Device::create(_folder / "device", options));
    }
    ~ReferenceDevice() override {
        for (const pid_t process : _started) {
            ::kill(-process, SIGKILL);
        }
    }

    Platform platform() override { return _device->platform(_deviceService, _errors); }
    bool can(Ability /*ability*/) const override { return true; }
    void restart() override {
        _device.reset();
        _device = must(Device::open(_folder / "device"));
    }

    FileURL putArchive(const AppDescription& app) override {
        const std::string bytes = ArchiveBuilder()
                                      .list("App.app/Info.plist", {{"BXBundleIdentifier", app.identifier},
                                                                   {"BXBundleVersion", app.version},
                                                                   {"BXBundleExecutable", "main"},
                                                                   {"BXBundleIconFile", "Icon.png"}})
                                      .file("App.app/main", "#!/bin/sh\nexec sleep 1000\n", 0755)
                                      .file("App.app/Icon.png", {std::begin(iconBytes), std::end(iconBytes)})
                                      .bytes();
        const std::string path = "/var/mobile/Media/" + app.identifier + "-" + app.version + ".archive";
        must<void>(_device->files().createFile(path, bytes, {}) ? ErrorPtr() : Error::make(posixErrorDomain, EIO));
        return *FileURL::fileURLWithPath(path, false);
    }
    void install(const AppDescription& app) override {
        device::ArchiveRequest request;
        request.archivePath = putArchive(app).path();
        request.identifier = app.identifier;
        request.isSystem = app.isSystem;
        must(_device->registry().installArchive(request));
    }
    bool start(const std::string& identifier, bool busy) override {
        const auto launched = _device->launch(identifier, busy);
        if (launched) {
            _started.insert(*launched);
        }
        return bool(launched);
    }
    bool isRunning(const std::string& identifier) override { return _device->processes().isRunning(identifier); }

    void removeByPerson(const std::string& identifier) override {
        must(_device->registry().uninstall(identifier, RemovalReason::person, RemovalScope::everything));
    }
    void cancelByPerson(const std::string& identifier) override {
        if (!_device->coordinator().cancelByUser(identifier)) {
            _device->registry().cancelInstall(identifier);
        }
    }
    void prioritizeByPerson(const std::string& identifier) override {
        _device->coordinator().prioritizeByUser(identifier);
    }

    void setPolicy(std::string_view setting, OLBoolValue value) override {
        must(_device->policy().set(setting, value));
    }
    void putRestoreData(const std::string& identifier, std::size_t bytes) override {
        ErrorPtr error;
        _device->files().createDirectory("/tmp/data", true, std::nullopt, &error);
        _device->files().createFile("/tmp/data/file", std::string(bytes, 'x'), {});
        must(_device->backup().addRestoreData(identifier, "/tmp/data"));
    }
    void postNotification(const std::string& name, const void* object, const Dictionary& userInfo) override {
        _device->notificationCenter().post(name, object, userInfo);
    }
    std::uint64_t noticeState(const std::string& name) override { return _device->notifications().state(name); }
    std::uint64_t noticePosts(const std::string& name) override { return _device->notifications().postCount(name); }
    bool hasLogged(const std::string& text) override {
        _device->log().flush();
        bool isThere = false;
        must(device::LogCursor(_device->files()).readOn([&](const device::LogEntry& entry) {
            isThere = isThere || entry.text.find(text) != std::string::npos;
            return !isThere;
        }));
        return isThere;
    }
    std::size_t transactionsOf(const std::string& bundleID) override {
        return device::recordsOf(_device->transactionLog(), bundleID).size();
    }

    void putLink(const std::string& path, const std::string& target) override {
        std::filesystem::create_symlink(target, _folder / ("device" + path));
    }
    void putWayOut(const std::string& path) override { putLink(path, _folder / "outside"); }
    bool isOutsideUntouched() override {
        return namesIn(_folder.path()) == std::set<std::string>{"device", "outside"} &&
               namesIn(_folder / "outside") == std::set<std::string>{"secret"} &&
               device::readHostFile(_folder / "outside/secret") == "secret";
    }

    std::chrono::milliseconds now() override {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now().time_since_epoch());
    }

  private:
    static std::set<std::string> namesIn(const std::string& folder) {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            names.insert(entry.path().filename());
        }
        return names;
    }

    device::TemporaryFolder _folder;
    host::DeviceService _deviceService;
    host::ErrorClassification _errors;
    std::unique_ptr<Device> _device;
    std::set<pid_t> _started;
};

std::unique_ptr<DeviceUnderTest> makeReferenceDevice(const Conditions& conditions) {
    return std::make_unique<ReferenceDevice>(conditions);
}

} // namespace

APPSYNC_INSTANTIATE_CONTRACT(Reference, &makeReferenceDevice);

} // namespace appsync::contract
