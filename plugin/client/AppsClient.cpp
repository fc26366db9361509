// The client object: construction, the start-up of the daemon, teardown.
#include "plugin/client/AppsClient.h"

#include "platform/Backup.h"
#include "platform/Notifications.h"
#include "platform/Process.h"
#include "platform/TransactionLog.h"

#include <new>

namespace appsync {

namespace {

constexpr std::string_view daemonIdentifier = "com.zuvex.qrd";
constexpr std::size_t concurrentInstalls = 10;

bool runsInDaemon(const Platform& platform) {
    return platform.process.mainBundleIdentifier() == daemonIdentifier;
}

} // namespace

std::unique_ptr<AppsClient> AppsClient::init(const Platform& platform) {
    return init(platform, std::make_unique<OperationQueue>(concurrentInstalls));
}

std::unique_ptr<AppsClient> AppsClient::init(const Platform& platform,
                                             std::unique_ptr<OperationQueue> installOperationQueue) {
    return std::unique_ptr<AppsClient>(new (std::nothrow) AppsClient(platform, std::move(installOperationQueue)));
}

AppsClient::AppsClient(const Platform& platform, std::unique_ptr<OperationQueue> installOperationQueue) noexcept
    : _platform(platform), _log(platform.log), _pendingRetries(platform.scheduler),
      _installOperationQueue(std::move(installOperationQueue)), _backupManager(platform.backupManagers.init()),
      _accessQueue(std::string(plugInIdentifier)) {
    _platform.workspaces.defaultWorkspace().addObserver(this);
    _platform.transactionLog.initializeWithLog(
        std::make_shared<const SystemLog>(SystemLog{"com.zuvex.appinstallation", "qrd.appsync"}));
    _useInstallCoordinator = _platform.coordinators.coordinationIsEnabled();
    if (runsInDaemon(_platform)) {
        _platform.notificationCenter.addObserver(this, _handleQRDStartupCompletedNotification, startupCompleteName,
                                                 nullptr, NotificationSuspensionBehavior::drop);
    }
}

AppsClient::~AppsClient() {
    _installOperationQueue->stop();
    _pendingRetries.dropAll();
    if (const std::size_t outstanding = _outstandingRFXTransfers.count(); outstanding > 0) {
        _log.error("%{public}@ getting dealloc'd with %lu outstanding RFX transfers!", *this, outstanding);
    }
    _platform.workspaces.defaultWorkspace().removeObserver(this);
    if (runsInDaemon(_platform)) {
        _platform.notificationCenter.removeObserver(this, startupCompleteName);
        _appInstallObserver = nullptr;
    }
}

void AppsClient::setupInstallCoordinatorObserver() {
    if (!_appInstallObserver) {
        _appInstallObserver = _platform.installObservers.initWithMachServiceName_forClients_delegate(
            observerServiceName, {KXClientSyncHost}, this);
    }
}

void _handleQRDStartupCompletedNotification(NotificationCenter* /*center*/, void* observer, std::string_view /*name*/,
                                            const void* /*object*/, const Dictionary* /*userInfo*/) {
    if (observer) {
        static_cast<AppsClient*>(observer)->setupInstallCoordinatorObserver();
    }
}

std::string AppsClient::description() const {
    return "<AppsClient>";
}

} // namespace appsync
