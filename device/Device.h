// The reference device: a root folder with every service of the platform.
//
//   auto device = Device::open("/path/of/the/device");
//   ...
//   Platform platform = (*device)->platform(deviceService, errorClassification);
//
//   root            the folder, its lock, its files              device/root/Root.h
//   database        what the services remember                   device/database/Database.h
//   log             the sync host's log                          device/log/LogFile.h
//   transactionLog  what was begun and ended for which app       device/log/TransactionLog.h
//   registry        apps, placeholders, installs under way       device/registry/Registry.h
//   uninstalledList what a person has removed                    device/registry/UninstalledList.h
//   coordinator     installs through coordinators and promises   device/coordinator/InstallCoordinator.h
//   processes       the apps that run                            device/processes/ProcessTable.h
//   homeScreen      icon layout, what there is to see            device/screen/DeviceHomeScreen.h
//   policy          what is allowed                              device/services/DevicePolicy.h
//   backup          data that waits to be restored               device/services/BackupService.h
//   demotedApps     apps without their bundle                    device/services/DemotedApps.h
//   store           receipts                                     device/services/StoreClient.h
//   notifications   names with a state                           device/services/Notifications.h
//   notificationCenter  notifications between processes          device/services/Notifications.h
//   scheduler       work for later                               device/services/TimerScheduler.h
#pragma once

#include "device/log/LogFile.h"
#include "device/registry/Registry.h"
#include "device/root/Root.h"

#include <sys/types.h>

#include <memory>
#include <string>

namespace appsync {
class QRDeviceServiceClass;
class QRErrorClassification;
struct Platform;
} // namespace appsync

namespace appsync::device {

class BackupService;
class Database;
class DemotedApps;
class DeviceHomeScreen;
class DeviceNotificationCenter;
class DevicePolicy;
class InstallCoordinator;
class NotificationNames;
class ProcessTable;
class StoreClient;
class TimerScheduler;
class TransactionLog;
class UninstalledList;

inline constexpr std::string_view DeviceErrorDomain = "Device";
enum class DeviceError : std::int64_t {
    existsAlready = 1, // `create`: the folder is a device already
    notFinished = 2,   // `open`: the making of the device was interrupted; create it again
};

/// What a device is like; fixed when it is made, except for the policy.
struct DeviceOptions {
    bool coordinationIsEnabled = true; // installs go through coordinators
    bool forbidsInstalling = false;    // policy settings at first
    bool forbidsRemoving = false;
};

/// How this process runs it.
struct DeviceEnvironment {
    std::shared_ptr<FaultPoint> faultPoint; // may be null
    RegistryOptions registry;
    LogLimits log;
};

/// Any thread. Objects that its services hand out, and clients made with its platform, must be gone before it.
class Device {
  public:
    /// Makes a device of a folder that is empty or does not exist yet, and opens it.
    [[nodiscard]] static Result<std::unique_ptr<Device>> create(const std::string& folder, const DeviceOptions& options,
                                                                const DeviceEnvironment& environment = {});
    /// Opens a device, settles what an interrupted run has left, and lets its coordinators go on. One process at a time
    /// has a device.
    [[nodiscard]] static Result<std::unique_ptr<Device>> open(const std::string& folder,
                                                              const DeviceEnvironment& environment = {});
    /// Interrupts running installs, which go on when the device is opened again, and closes everything in order.
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// The device's services for a plug-in, beside the two of the host.
    [[nodiscard]] Platform platform(QRDeviceServiceClass& deviceService, QRErrorClassification& errorClassification);

    [[nodiscard]] Root& root() noexcept;
    [[nodiscard]] DeviceFileSystem& files() noexcept;
    [[nodiscard]] PropertyListSerialization& propertyLists() noexcept;
    [[nodiscard]] Database& database() noexcept;
    [[nodiscard]] LogFile& log() noexcept;
    [[nodiscard]] TransactionLog& transactionLog() noexcept;
    [[nodiscard]] Registry& registry() noexcept;
    [[nodiscard]] UninstalledList& uninstalledList() noexcept;
    [[nodiscard]] InstallCoordinator& coordinator() noexcept;
    [[nodiscard]] ProcessTable& processes() noexcept;
    [[nodiscard]] DeviceHomeScreen& homeScreen() noexcept;
    [[nodiscard]] DevicePolicy& policy() noexcept;
    [[nodiscard]] BackupService& backup() noexcept;
    [[nodiscard]] DemotedApps& demotedApps() noexcept;
    [[nodiscard]] StoreClient& store() noexcept;
    [[nodiscard]] NotificationNames& notifications() noexcept;
    [[nodiscard]] DeviceNotificationCenter& notificationCenter() noexcept;
    [[nodiscard]] TimerScheduler& scheduler() noexcept;

    /// Starts an installed app, as a tap on its icon would; the number of its process. `busy`: it begins busy. Errors
    /// are of `ProcessErrorDomain`.
    [[nodiscard]] Result<pid_t> launch(std::string_view identifier, bool busy = false);
    /// Lets go of an installed app's bundle. Its data stays, and a placeholder that knows its name, version, icon and
    /// store metadata; a person demotes intentionally, the system automatically. Demoting a demoted app again changes
    /// the list that it is on. Errors are of `ProcessErrorDomain` when the app is in use, of `TVInstallerErrorDomain`
    /// otherwise.
    [[nodiscard]] Result<void> demote(const std::string& identifier, bool isAutomatic);
    /// A sync may bring a demoted app back: until the device is closed its placeholder is hidden from the sync's
    /// plug-in, which asks for no app that has one. The app stays demoted unless it is installed.
    void letReturn(const std::string& identifier);
    [[nodiscard]] bool coordinationIsEnabled() const noexcept;
    /// What the registry had to put in order when the device was opened.
    [[nodiscard]] const Settlement& settlement() const noexcept;

  private:
    struct Services;
    explicit Device(std::unique_ptr<Services> services);

    std::unique_ptr<Services> _services;
};

} // namespace appsync::device
