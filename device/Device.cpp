#include "device/Device.h"

#include "device/coordinator/InstallCoordinator.h"
#include "device/drawing/CairoImage.h"
#include "device/log/TransactionLog.h"
#include "device/processes/ProcessTable.h"
#include "device/registry/ApplicationWorkspace.h"
#include "device/root/Paths.h"
#include "device/screen/AppBundles.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "device/services/DemotedApps.h"
#include "device/services/DevicePolicy.h"
#include "device/services/Notifications.h"
#include "device/services/StoreClient.h"
#include "device/services/TimerScheduler.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "propertylist/Codec.h"

#include <functional>
#include <utility>

namespace appsync::device {

namespace {

constexpr std::string_view schema[] = {
    "CREATE TABLE device (setting TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"};

/// The device's own settings; nullopt when it has not been made completely.
Result<std::optional<bool>> readCoordination(Database& database) {
    if (const auto registered = database.registerSchema("device", schema); !registered) {
        return registered.error();
    }
    std::optional<bool> isEnabled;
    const auto read = database.read([&](const Database::Rows& row) { isEnabled = row.first<bool>(); },
                                    "SELECT value FROM device WHERE setting = 'coordination'");
    return read ? Result(isEnabled) : read.error();
}

ErrorPtr deviceError(DeviceError code, const std::string& folder, const std::string& description) {
    return makeError(deviceErrorDomain, static_cast<std::int64_t>(code), description, folder);
}

/// The sync host's process.
class DeviceProcess final : public HostProcess {
  public:
    std::optional<std::string> mainBundleIdentifier() noexcept override { return "com.zuvex.qrd"; }
    std::string temporaryDirectory() noexcept override { return std::string(temporaryFolder); }
};

} // namespace

Device::Device()
    : _propertyLists(std::make_unique<PropertyListCodec>()), _notifications(std::make_unique<NotificationNames>()),
      _notificationCenter(std::make_unique<DeviceNotificationCenter>()), _process(std::make_unique<DeviceProcess>()),
      _imageDestinations(std::make_unique<PNGDestinations>()), _scheduler(std::make_unique<TimerScheduler>()) {}

Device::~Device() = default;

Result<std::unique_ptr<Device>> Device::create(const std::string& folder, const DeviceOptions& options,
                                               const DeviceEnvironment& environment) {
    std::unique_ptr<Device> device(new Device());
    const auto known =
        device->_openDatabase(Root::create(folder, environment.faultPoint, environment.purpose), environment.timeline);
    if (!known) {
        return known.error();
    }
    if (known->has_value()) {
        return deviceError(DeviceError::existsAlready, folder,
                           folder + " is a device already; open it, or create one in another folder");
    }
    auto made = device->_checkForLostApps(folder);
    if (made) {
        made = device->_openServices(environment, options.coordinationIsEnabled);
    }
    const auto set = [&](std::string_view setting, bool isForbidden) {
        if (made) {
            made = device->policy().set(setting, isForbidden ? OLBoolValue::explicitlyNo : OLBoolValue::unset);
        }
    };
    set(OLFeatureAppInstallationAllowed, options.forbidsInstalling);
    set(OLFeatureAppRemovalAllowed, options.forbidsRemoving);
    if (made) { // the last step: until it is done the device counts as not made
        made = device->database().run(Durability::durable, "INSERT INTO device VALUES ('coordination', ?1)",
                                      options.coordinationIsEnabled);
    }
    return made ? Result(std::move(device)) : made.error();
}

Result<std::unique_ptr<Device>> Device::open(const std::string& folder, const DeviceEnvironment& environment) {
    return _open(Root::open(folder, environment.faultPoint, environment.purpose), folder, environment, false);
}

Result<std::unique_ptr<Device>> Device::look(const std::string& folder) {
    return _open(Root::look(folder), folder, {}, true);
}

Result<std::unique_ptr<Device>> Device::_open(Result<std::unique_ptr<Root>> root, const std::string& folder,
                                              const DeviceEnvironment& environment, bool looks) {
    std::unique_ptr<Device> device(new Device());
    const auto known = device->_openDatabase(std::move(root), environment.timeline, looks);
    if (!known) {
        return known.error();
    }
    if (!known->has_value()) {
        const auto lost = device->_checkForLostApps(folder);
        return !lost ? lost.error()
                     : deviceError(DeviceError::notFinished, folder,
                                   "the making of the device " + folder + " was interrupted; create it again");
    }
    const auto opened = device->_openServices(environment, **known);
    return opened ? Result(std::move(device)) : opened.error();
}

/// Fails when a device that has not been made completely has apps: then its database has been lost, and to open the
/// services would clear the apps away.
Result<void> Device::_checkForLostApps(const std::string& folder) {
    const auto containers = files().list(containersFolder);
    if (!containers || containers->empty()) {
        return containers.error();
    }
    return deviceError(DeviceError::databaseLost, folder,
                       "the device " + folder + " has apps, but its database " + std::string(databaseFile) +
                           " is new or empty: put a copy of it back (apps that have changed since are given up), or "
                           "move " +
                           std::string(containersFolder) +
                           " away, which gives the apps up, and create the device again");
}

/// Whether installs go through coordinators; nullopt when the device has not been made completely.
Result<std::optional<bool>> Device::_openDatabase(Result<std::unique_ptr<Root>> root, Timeline* timeline, bool looks) {
    if (!root) {
        return root.error();
    }
    _root = std::move(*root);
    files().setTimeline(timeline);
    auto database = looks ? Database::look(*_root) : Database::open(*_root);
    if (!database) {
        return database.error();
    }
    _database = std::move(*database);
    return readCoordination(*_database);
}

Result<void> Device::_openServices(const DeviceEnvironment& environment, bool coordinationIsEnabled) {
    _coordinationIsEnabled = coordinationIsEnabled;
    ErrorPtr failure;
    const auto place = [&failure](auto& service, auto opened) {
        failure = opened.error();
        if (opened) {
            service = std::move(*opened);
        }
        return bool(opened);
    };
    const bool looks = _database->isReadOnly();
    if (!place(_log, looks ? LogFile::makeSilent(files()) : LogFile::open(files(), environment.log)) ||
        !place(_transactionLog, TransactionLog::open(*_database, _log.get())) ||
        !place(_policy, DevicePolicy::open(*_database)) || !place(_backup, BackupService::open(*_database, files())) ||
        !place(_demotedApps, DemotedApps::open(files(), *_propertyLists)) ||
        !place(_registry, Registry::open(*_root, *_database, *_propertyLists))) {
        return failure;
    }
    if (const auto settled = looks ? Result<void>() : _registry->settle(); !settled) {
        return settled.error();
    }
    _followRegistry();
    _workspace = std::make_unique<ApplicationWorkspace>(*_registry, _log.get(), _coordinationIsEnabled);
    _store = std::make_unique<StoreClient>(files(), *_registry, *_propertyLists);
    _processes = std::make_unique<ProcessTable>(*_root);
    _bundles = std::make_unique<AppBundles>(files(), *_propertyLists);
    _iconRenderer = std::make_unique<DeviceIconRenderer>(files());
    if (!place(_homeScreen, DeviceHomeScreen::open({*_database, *_registry, *_propertyLists, *_notifications,
                                                    *_iconRenderer, *_processes, *_log}))) {
        return failure;
    }
    if (auto started = _scheduler->start(); !started) {
        return started;
    }
    if (!place(_coordinator, InstallCoordinator::open(_coordinatorServices(), _coordinationIsEnabled))) {
        return failure;
    }
    if (!looks) {
        _settleApps();
        _coordinator->resume();
    }
    return {};
}

CoordinatorServices Device::_coordinatorServices() {
    return {.files = files(),
            .registry = *_registry,
            .database = *_database,
            .propertyLists = *_propertyLists,
            .log = _log.get(),
            .restoreUserData = [this](std::string_view bundleID) -> Result<void> {
                auto restored = _backup->restoreApplicationData(bundleID);
                const bool isNone = isError(restored.error(), backupErrorDomain, BackupError::nothingToRestore);
                return isNone ? Result<void>() : restored;
            },
            .giveUpUserData = [this](std::string_view bundleID) { _giveUpData(bundleID); }};
}

Platform Device::platform(QRDeviceServiceClass& deviceService, QRErrorClassification& errorClassification) {
    const CoordinatorClasses installs = _coordinator->classes();
    return Platform{
        .log = *_log,
        .transactionLog = *_transactionLog,
        .deviceService = deviceService,
        .errorClassification = errorClassification,
        .process = *_process,
        .scheduler = *_scheduler,
        .files = _root->files(),
        .propertyLists = *_propertyLists,
        .workspaces = *_workspace,
        .applicationProxies = *_workspace,
        .installationService = *_registry,
        .coordinators = installs.coordinators,
        .initiatingCoordinators = installs.initiatingCoordinators,
        .updatingCoordinators = installs.updatingCoordinators,
        .restoringCoordinators = installs.restoringCoordinators,
        .restoringDemotedCoordinators = installs.restoringDemotedCoordinators,
        .placeholders = installs.placeholders,
        .transferPromises = installs.transferPromises,
        .outOfBandPromises = installs.outOfBandPromises,
        .installObservers = installs.observers,
        .profileConnections = *_policy,
        .backupManagers = *_backup,
        .softwareLibraries = *_store,
        .homeScreen = *_homeScreen,
        .notifications = *_notifications,
        .notificationCenter = *_notificationCenter,
        .bundles = *_bundles,
        .iconRenderer = *_iconRenderer,
        .imageDestinations = *_imageDestinations,
    };
}

} // namespace appsync::device
