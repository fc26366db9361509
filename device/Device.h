// The reference device: a root folder with every service of the platform.
//
//   auto device = Device::open("/path/of/the/device");
//   ...
//   Platform platform = (*device)->platform(deviceService, errorClassification);
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
class HostProcess;
struct Platform;
} // namespace appsync

namespace appsync::device {

class AppBundles;
class ApplicationWorkspace;
class BackupService;
class DemotedApps;
class DeviceHomeScreen;
class DeviceIconRenderer;
class DeviceNotificationCenter;
class DevicePolicy;
class InstallCoordinator;
class NotificationNames;
class PNGDestinations;
class ProcessTable;
class StoreClient;
class TimerScheduler;
class TransactionLog;
struct CoordinatorServices;

inline constexpr std::string_view deviceErrorDomain = "Device";
enum class DeviceError : std::int64_t {
    existsAlready = 1, // `create`: the folder is a device already
    notFinished = 2,   // `open`: the making of the device was interrupted; create it again
    databaseLost = 3,  // `create`, `open`: the device has apps of which its database knows nothing
};

/// What a device is like; fixed when it is made, except for the policy.
struct DeviceOptions {
    bool coordinationIsEnabled = true; // installs go through coordinators
    bool forbidsInstalling = false;    // policy settings at first
    bool forbidsRemoving = false;
};

/// How this process runs it.
struct DeviceEnvironment {
    std::shared_ptr<FaultPoint> faultPoint = nullptr; // may be null
    std::string purpose = "another command";          // what others are told who find the device in use
    LogLimits log = {};
    Timeline* timeline = nullptr; // of what it does; may be null, and must outlive the device
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
    /// Opens a device to look at it, also while another process has it, and where nothing can be written. It is as it
    /// was at the moment of this call, but for its files; of what runs in another process alone, such as the progress
    /// of installs, it knows nothing. Nothing is settled, nothing logged, and every change is refused, without one to
    /// the disk.
    [[nodiscard]] static Result<std::unique_ptr<Device>> look(const std::string& folder);
    /// Interrupts running installs, which go on when the device is opened again, and closes everything in order.
    ~Device();

    /// The device's services for a plug-in, beside the two of the host.
    [[nodiscard]] Platform platform(QRDeviceServiceClass& deviceService, QRErrorClassification& errorClassification);

    // Its services (their headers say more), in the order in which they are opened; they are closed in the reverse
    // order.

    [[nodiscard]] Root& root() noexcept { return *_root; }
    [[nodiscard]] DeviceFileSystem& files() noexcept { return _root->files(); }
    [[nodiscard]] Database& database() noexcept { return *_database; }
    [[nodiscard]] PropertyListSerialization& propertyLists() noexcept { return *_propertyLists; }
    [[nodiscard]] LogFile& log() noexcept { return *_log; }
    [[nodiscard]] TransactionLog& transactionLog() noexcept { return *_transactionLog; }
    [[nodiscard]] DevicePolicy& policy() noexcept { return *_policy; }
    [[nodiscard]] BackupService& backup() noexcept { return *_backup; }
    [[nodiscard]] DemotedApps& demotedApps() noexcept { return *_demotedApps; }
    [[nodiscard]] Registry& registry() noexcept { return *_registry; }
    [[nodiscard]] StoreClient& store() noexcept { return *_store; }
    [[nodiscard]] NotificationNames& notifications() noexcept { return *_notifications; }
    [[nodiscard]] DeviceNotificationCenter& notificationCenter() noexcept { return *_notificationCenter; }
    [[nodiscard]] ProcessTable& processes() noexcept { return *_processes; }
    [[nodiscard]] DeviceHomeScreen& homeScreen() noexcept { return *_homeScreen; }
    [[nodiscard]] InstallCoordinator& coordinator() noexcept { return *_coordinator; }
    [[nodiscard]] TimerScheduler& scheduler() noexcept { return *_scheduler; }

    /// Starts an installed app, as a tap on its icon would; the number of its process. `busy`: it begins busy. Errors
    /// are of `processErrorDomain`.
    [[nodiscard]] Result<pid_t> launch(std::string_view identifier, bool busy = false);
    /// Lets go of an installed app's bundle. Its data stays, and a placeholder that knows its name, version, icon and
    /// store metadata; a person demotes intentionally, the system automatically. Demoting a demoted app again changes
    /// the list that it is on. Errors are of `processErrorDomain` when the app is in use, of `TVInstallerErrorDomain`
    /// otherwise.
    [[nodiscard]] Result<void> demote(const std::string& identifier, bool isAutomatic);
    /// A sync may bring a demoted app back: until the device is closed its placeholder is hidden from the sync's
    /// plug-in, which asks for no app that has one. The app stays demoted unless it is installed.
    void letReturn(const std::string& identifier);
    [[nodiscard]] bool coordinationIsEnabled() const noexcept { return _coordinationIsEnabled; }

  private:
    Device();
    [[nodiscard]] Result<void> _checkForLostApps(const std::string& folder);
    [[nodiscard]] Result<std::optional<bool>> _openDatabase(Result<std::unique_ptr<Root>> root, Timeline* timeline,
                                                            bool looks = false);
    [[nodiscard]] static Result<std::unique_ptr<Device>> _open(Result<std::unique_ptr<Root>> root,
                                                               const std::string& folder,
                                                               const DeviceEnvironment& environment, bool looks);
    [[nodiscard]] Result<void> _openServices(const DeviceEnvironment& environment, bool coordinationIsEnabled);
    [[nodiscard]] CoordinatorServices _coordinatorServices();
    void _followRegistry();
    void _settleApps();
    void _passOver(const Result<void>& done);
    void _giveUpData(std::string_view identifier);

    bool _coordinationIsEnabled = true;
    std::unique_ptr<Root> _root;
    std::unique_ptr<Database> _database;
    std::unique_ptr<PropertyListSerialization> _propertyLists;
    std::unique_ptr<LogFile> _log;
    std::unique_ptr<TransactionLog> _transactionLog;
    std::unique_ptr<DevicePolicy> _policy;
    std::unique_ptr<BackupService> _backup;
    std::unique_ptr<DemotedApps> _demotedApps;
    std::unique_ptr<Registry> _registry;
    std::unique_ptr<ApplicationWorkspace> _workspace;
    std::unique_ptr<StoreClient> _store;
    std::unique_ptr<NotificationNames> _notifications;
    std::unique_ptr<DeviceNotificationCenter> _notificationCenter;
    std::unique_ptr<HostProcess> _process;
    std::unique_ptr<ProcessTable> _processes;
    std::unique_ptr<AppBundles> _bundles;
    std::unique_ptr<DeviceIconRenderer> _iconRenderer;
    std::unique_ptr<PNGDestinations> _imageDestinations;
    std::unique_ptr<DeviceHomeScreen> _homeScreen;
    std::unique_ptr<InstallCoordinator> _coordinator;
    std::unique_ptr<TimerScheduler> _scheduler;
};

} // namespace appsync::device
