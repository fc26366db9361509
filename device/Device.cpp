#include "device/Device.h"

#include "device/coordinator/InstallCoordinator.h"
#include "device/database/Database.h"
#include "device/drawing/CairoImage.h"
#include "device/log/TransactionLog.h"
#include "device/processes/ProcessTable.h"
#include "device/registry/ApplicationWorkspace.h"
#include "device/registry/UninstalledList.h"
#include "device/screen/AppBundles.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/screen/DeviceIconRenderer.h"
#include "device/services/BackupService.h"
#include "device/services/DemotedApps.h"
#include "device/services/DevicePolicy.h"
#include "device/services/DeviceProcess.h"
#include "device/services/Notifications.h"
#include "device/services/StoreClient.h"
#include "device/services/TimerScheduler.h"
#include "platform/Platform.h"
#include "propertylist/Codec.h"

#include <algorithm>
#include <iterator>

namespace appsync::device {

namespace {

constexpr std::string_view Schema[] = {
    "CREATE TABLE device (setting TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"};

/// The device's own settings; nothing when it has not been made completely.
Result<std::optional<bool>> readCoordination(Database& database) {
    if (const auto registered = database.registerSchema("device", Schema); !registered) {
        return registered.error();
    }
    std::optional<bool> isEnabled;
    Database::Transaction transaction(database);
    {
        auto rows = transaction.query("SELECT value FROM device WHERE setting = 'coordination'");
        if (rows.next()) {
            isEnabled = rows.integer(0) != 0;
        }
    }
    if (const auto read = transaction.commit(); !read) {
        return read.error();
    }
    return isEnabled;
}

Result<void> writeCoordination(Database& database, bool isEnabled) {
    Database::Transaction transaction(database, Durability::durable);
    transaction.run("INSERT INTO device VALUES ('coordination', ?1)", isEnabled);
    return transaction.commit();
}

ErrorPtr deviceError(DeviceError code, const std::string& folder, const std::string& description) {
    return makeError(DeviceErrorDomain, static_cast<std::int64_t>(code), description, folder);
}

} // namespace

namespace {

/// The backup service as the install coordinator uses it.
class WaitingData final : public UserDataRestorer {
  public:
    explicit WaitingData(BackupService& backup) : _backup(backup) {}
    Result<void> restore(std::string_view bundleID) override {
        auto restored = _backup.restoreApplicationData(bundleID);
        const bool isNone = isError(restored.error(), BackupErrorDomain, BackupError::nothingToRestore);
        return isNone ? Result<void>() : restored;
    }
    void giveUp(std::string_view bundleID) override { (void)_backup.cancelRestore(bundleID); }

  private:
    BackupService& _backup;
};

} // namespace

/// In the order in which they are opened; closed in the reverse order.
struct Device::Services {
    std::unique_ptr<Root> root;
    std::unique_ptr<Database> database;
    bool coordinationIsEnabled = true;
    PropertyListCodec propertyLists;
    std::unique_ptr<LogFile> log;
    std::unique_ptr<TransactionLog> transactionLog;
    std::unique_ptr<DevicePolicy> policy;
    std::unique_ptr<BackupService> backup;
    std::unique_ptr<WaitingData> waitingData;
    std::unique_ptr<DemotedApps> demotedApps;

    std::unique_ptr<UninstalledList> uninstalledList;
    std::unique_ptr<Registry> registry;
    Settlement settlement;
    std::unique_ptr<ApplicationWorkspace> workspace;
    std::unique_ptr<StoreClient> store;

    NotificationNames notifications;
    DeviceNotificationCenter notificationCenter;
    DeviceProcess process;
    std::unique_ptr<ProcessTable> processes;
    std::unique_ptr<AppBundles> bundles;
    std::unique_ptr<DeviceIconRenderer> iconRenderer;
    PNGDestinations imageDestinations;
    std::unique_ptr<DeviceHomeScreen> homeScreen;

    std::unique_ptr<InstallCoordinator> coordinator;
    TimerScheduler scheduler;

    [[nodiscard]] Result<void> openRoot(Result<std::unique_ptr<Root>> opened,
                                        const std::shared_ptr<FaultPoint>& faultPoint);
    [[nodiscard]] Result<void> openRecords(const DeviceEnvironment& environment);
    [[nodiscard]] Result<void> openApps(const DeviceEnvironment& environment);
    void followRegistry();
    [[nodiscard]] std::set<std::string> expectedApps();
    void settleDemotedApps(const std::set<std::string>& expected);
    void giveAppsTheirData();
    [[nodiscard]] Result<void> openScreen();
    [[nodiscard]] Result<void> openCoordinator();
    [[nodiscard]] Result<void> openAll(const DeviceEnvironment& environment);
};

namespace {

/// Moves a service that could be opened to its place.
template <class Service> ErrorPtr place(std::unique_ptr<Service>& place, Result<std::unique_ptr<Service>> opened) {
    if (opened) {
        place = std::move(*opened);
    }
    return opened.error();
}

} // namespace

Result<void> Device::Services::openRoot(Result<std::unique_ptr<Root>> opened,
                                        const std::shared_ptr<FaultPoint>& faultPoint) {
    if (const ErrorPtr error = place(root, std::move(opened))) {
        return error;
    }
    auto folder = root->openDatabaseFolder();
    return folder ? place(database, Database::open(std::move(*folder), root->databasePath(), faultPoint))
                  : folder.error();
}

Result<void> Device::Services::openRecords(const DeviceEnvironment& environment) {
    if (const ErrorPtr error = place(log, LogFile::open(root->files(), environment.log))) {
        return error;
    }
    if (const ErrorPtr error = place(transactionLog, TransactionLog::open(*database, log.get()))) {
        return error;
    }
    if (const ErrorPtr error = place(policy, DevicePolicy::open(*database))) {
        return error;
    }
    if (const ErrorPtr error = place(backup, BackupService::open(*database, root->files()))) {
        return error;
    }
    waitingData = std::make_unique<WaitingData>(*backup);
    demotedApps = std::make_unique<DemotedApps>(root->files(), propertyLists);
    return {};
}

Result<void> Device::Services::openApps(const DeviceEnvironment& environment) {
    if (const ErrorPtr error = place(uninstalledList, UninstalledList::open(*database))) {
        return error;
    }
    if (const ErrorPtr error = place(registry, Registry::open(*root, *database, propertyLists, environment.registry))) {
        return error;
    }
    const auto settled = registry->settle();
    if (!settled) {
        return settled.error();
    }
    settlement = *settled;
    followRegistry();
    workspace = std::make_unique<ApplicationWorkspace>(*registry, log.get(), coordinationIsEnabled);
    store = std::make_unique<StoreClient>(root->files(), *registry, propertyLists);
    return {};
}

/// What is kept for an app goes with it. A list that cannot be written now is put right when the device is next opened.
void Device::Services::followRegistry() {
    registry->follow(
        {.demotion =
             [this](std::string_view identifier) { return demotedApps->installTypeOf(std::string(identifier)); },
         .wasInstalled = [this](std::string_view identifier) { (void)demotedApps->remove(std::string(identifier)); },
         .isGone =
             [this](std::string_view identifier) {
                 (void)demotedApps->remove(std::string(identifier));
                 (void)backup->cancelRestore(identifier);
             }});
}

/// Those that the device has or that are on their way.
std::set<std::string> Device::Services::expectedApps() {
    std::set<std::string> expected;
    for (const Application& app : registry->applications()) {
        expected.insert(app.identifier);
    }
    for (const OpenCoordinator& open : coordinator->openCoordinators()) {
        expected.insert(open.bundleID);
    }
    return expected;
}

/// The list may not have been written when an app came, went or was demoted, or may have been damaged. Where that fails
/// again, it is put right at the next opening.
void Device::Services::settleDemotedApps(const std::set<std::string>& expected) {
    const DemotionLists before = demotedApps->lists();
    DemotionLists lists;
    std::ranges::set_intersection(before.automatic, expected, std::inserter(lists.automatic, lists.automatic.end()));
    std::ranges::set_intersection(before.intentional, expected,
                                  std::inserter(lists.intentional, lists.intentional.end()));
    for (const Application& app : registry->applications()) {
        if (app.isInstalled) {
            lists.take(app.identifier);
        } else if (app.isDemoted() && !lists.contains(app.identifier)) {
            lists.put(app.identifier, app.installType == PDInstallTypeDowngrade);
        }
    }
    if (lists != before) {
        (void)demotedApps->set(lists);
    }
}

/// An app may have come, or come back demoted, whose data could not be put in place then. Where that fails again, it
/// waits on.
void Device::Services::giveAppsTheirData() {
    std::set<std::string> onTheirWay;
    for (const OpenCoordinator& open : coordinator->openCoordinators()) {
        onTheirWay.insert(open.bundleID);
    }
    const auto waiting = backup->restoreData();
    for (const RestoreData& data : waiting ? *waiting : std::vector<RestoreData>()) {
        const auto app = registry->application(data.bundleID);
        const bool isThere = app && ((app->isInstalled && !app->isPlaceholder) || app->isDemoted());
        if (isThere && !onTheirWay.contains(data.bundleID) && !processes->isRunning(data.bundleID)) {
            (void)backup->restoreApplicationData(data.bundleID);
        }
    }
}

Result<void> Device::Services::openScreen() {
    processes = std::make_unique<ProcessTable>(*root);
    bundles = std::make_unique<AppBundles>(root->files(), propertyLists);
    iconRenderer = std::make_unique<DeviceIconRenderer>(root->files());
    return place(homeScreen, DeviceHomeScreen::open({*database, *registry, propertyLists, notifications, *iconRenderer,
                                                     *processes, *log}));
}

Result<void> Device::Services::openCoordinator() {
    const CoordinatorServices services{root->files(), *registry,         *database,
                                       propertyLists, waitingData.get(), log.get()};
    if (const ErrorPtr error = place(coordinator, InstallCoordinator::open(services, coordinationIsEnabled))) {
        return error;
    }
    const auto expected = expectedApps();
    settleDemotedApps(expected);
    backup->cancelAllBut(expected); // data that was to be restored for apps that will not come
    giveAppsTheirData();
    coordinator->resume();
    return {};
}

Result<void> Device::Services::openAll(const DeviceEnvironment& environment) {
    if (auto opened = openRecords(environment); !opened) {
        return opened;
    }
    if (auto opened = openApps(environment); !opened) {
        return opened;
    }
    if (auto opened = openScreen(); !opened) {
        return opened;
    }
    if (auto started = scheduler.start(); !started) {
        return started;
    }
    return openCoordinator();
}

Device::Device(std::unique_ptr<Services> services) : _services(std::move(services)) {}

Device::~Device() = default;

Result<std::unique_ptr<Device>> Device::create(const std::string& folder, const DeviceOptions& options,
                                               const DeviceEnvironment& environment) {
    auto services = std::make_unique<Services>();
    if (const auto opened = services->openRoot(Root::create(folder, {environment.faultPoint}), environment.faultPoint);
        !opened) {
        return opened.error();
    }
    const auto known = readCoordination(*services->database);
    if (!known) {
        return known.error();
    }
    if (known->has_value()) {
        return deviceError(DeviceError::existsAlready, folder,
                           folder + " is a device already; open it, or create one in another folder");
    }
    services->coordinationIsEnabled = options.coordinationIsEnabled;
    if (const auto opened = services->openAll(environment); !opened) {
        return opened.error();
    }
    const auto allowed = [](bool isForbidden) { return isForbidden ? OLBoolValue::explicitlyNo : OLBoolValue::unset; };
    DevicePolicy& policy = *services->policy;
    if (const auto set = policy.set(OLFeatureAppInstallationAllowed, allowed(options.forbidsInstalling)); !set) {
        return set.error();
    }
    if (const auto set = policy.set(OLFeatureAppRemovalAllowed, allowed(options.forbidsRemoving)); !set) {
        return set.error();
    }
    // The last step: until it is done the device counts as not made.
    if (const auto written = writeCoordination(*services->database, options.coordinationIsEnabled); !written) {
        return written.error();
    }
    return std::unique_ptr<Device>(new Device(std::move(services)));
}

Result<std::unique_ptr<Device>> Device::open(const std::string& folder, const DeviceEnvironment& environment) {
    auto services = std::make_unique<Services>();
    if (const auto opened = services->openRoot(Root::open(folder, {environment.faultPoint}), environment.faultPoint);
        !opened) {
        return opened.error();
    }
    const auto known = readCoordination(*services->database);
    if (!known) {
        return known.error();
    }
    if (!known->has_value()) {
        return deviceError(DeviceError::notFinished, folder,
                           "the making of the device " + folder + " was interrupted; create it again");
    }
    services->coordinationIsEnabled = **known;
    if (const auto opened = services->openAll(environment); !opened) {
        return opened.error();
    }
    return std::unique_ptr<Device>(new Device(std::move(services)));
}

void Device::letReturn(const std::string& identifier) {
    _services->workspace->letReturn(identifier);
}

Platform Device::platform(QRDeviceServiceClass& deviceService, QRErrorClassification& errorClassification) {
    Services& s = *_services;
    const CoordinatorClasses installs = s.coordinator->classes();
    return Platform{
        .log = *s.log,
        .transactionLog = *s.transactionLog,
        .deviceService = deviceService,
        .errorClassification = errorClassification,
        .process = s.process,
        .scheduler = s.scheduler,
        .files = s.root->files(),
        .propertyLists = s.propertyLists,
        .workspaces = *s.workspace,
        .applicationProxies = *s.workspace,
        .installationService = *s.uninstalledList,
        .coordinators = installs.coordinators,
        .initiatingCoordinators = installs.initiatingCoordinators,
        .updatingCoordinators = installs.updatingCoordinators,
        .restoringCoordinators = installs.restoringCoordinators,
        .restoringDemotedCoordinators = installs.restoringDemotedCoordinators,
        .placeholders = installs.placeholders,
        .transferPromises = installs.transferPromises,
        .outOfBandPromises = installs.outOfBandPromises,
        .installObservers = installs.observers,
        .profileConnections = *s.policy,
        .backupManagers = *s.backup,
        .softwareLibraries = *s.store,
        .homeScreen = *s.homeScreen,
        .notifications = s.notifications,
        .notificationCenter = s.notificationCenter,
        .bundles = *s.bundles,
        .iconRenderer = *s.iconRenderer,
        .imageDestinations = s.imageDestinations,
    };
}

Root& Device::root() noexcept {
    return *_services->root;
}
DeviceFileSystem& Device::files() noexcept {
    return _services->root->files();
}
PropertyListSerialization& Device::propertyLists() noexcept {
    return _services->propertyLists;
}
Database& Device::database() noexcept {
    return *_services->database;
}
LogFile& Device::log() noexcept {
    return *_services->log;
}
TransactionLog& Device::transactionLog() noexcept {
    return *_services->transactionLog;
}
Registry& Device::registry() noexcept {
    return *_services->registry;
}
UninstalledList& Device::uninstalledList() noexcept {
    return *_services->uninstalledList;
}
InstallCoordinator& Device::coordinator() noexcept {
    return *_services->coordinator;
}
ProcessTable& Device::processes() noexcept {
    return *_services->processes;
}
DeviceHomeScreen& Device::homeScreen() noexcept {
    return *_services->homeScreen;
}
DevicePolicy& Device::policy() noexcept {
    return *_services->policy;
}
BackupService& Device::backup() noexcept {
    return *_services->backup;
}
DemotedApps& Device::demotedApps() noexcept {
    return *_services->demotedApps;
}
StoreClient& Device::store() noexcept {
    return *_services->store;
}
NotificationNames& Device::notifications() noexcept {
    return _services->notifications;
}
DeviceNotificationCenter& Device::notificationCenter() noexcept {
    return _services->notificationCenter;
}
TimerScheduler& Device::scheduler() noexcept {
    return _services->scheduler;
}

Result<pid_t> Device::launch(std::string_view identifier, bool busy) {
    const auto refuse = [&](ProcessError code, const std::string& reason) {
        return makeError(ProcessErrorDomain, static_cast<std::int64_t>(code),
                         std::string(identifier) + " cannot be launched: " + reason);
    };
    Services& s = *_services;
    const auto app = s.registry->application(identifier);
    if (!app || !app->isInstalled) {
        return refuse(ProcessError::notInstalled, "the device has no such app");
    }
    AppBundle bundle(s.root->files(), s.propertyLists, app->bundlePath);
    if (const auto prohibited = bundle.objectForInfoDictionaryKey("PDApplicationLaunchProhibited");
        prohibited && prohibited->truth().value_or(false)) {
        return refuse(ProcessError::prohibited, "its Info.plist prohibits that");
    }
    const auto name = bundle.objectForInfoDictionaryKey("BXBundleExecutable");
    const std::string executable(name ? name->string().value_or("") : "");
    if (executable.empty() || executable.find('/') != std::string::npos) {
        return refuse(ProcessError::noExecutable, "its Info.plist names no executable");
    }
    ErrorPtr error;
    if (!s.root->files().createDirectory(app->dataContainerPath, true, std::nullopt, &error)) {
        return error;
    }
    const auto program = s.root->realPath(app->bundlePath + "/" + executable);
    const auto data = s.root->realPath(app->dataContainerPath);
    if (!program || !data) {
        return refuse(ProcessError::cannotBeStarted, errorText(program ? data.error() : program.error()));
    }
    return s.processes->launch(
        {.identifier = app->identifier, .executable = *program, .dataFolder = *data, .busy = busy});
}

bool Device::coordinationIsEnabled() const noexcept {
    return _services->coordinationIsEnabled;
}
const Settlement& Device::settlement() const noexcept {
    return _services->settlement;
}

} // namespace appsync::device
