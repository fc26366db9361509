#include "host/control/PersonOnDevice.h"

#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"
#include "host/control/RunControl.h"
#include "host/session/BusyApps.h"
#include "host/session/InstallOutcomes.h"
#include "host/transfer/TransferQueue.h"

namespace appsync::host {

namespace {

Result<void> doneIf(bool isDone, const ErrorPtr& otherwise) {
    return isDone ? Result<void>() : otherwise;
}

} // namespace

Result<void> PersonOnDevice::prioritize(const std::string& app) {
    if (_device.coordinationIsEnabled()) {
        return doneIf(_device.coordinator().prioritizeByUser(app), notUnderWayError(app));
    }
    _device.registry().prioritize(app);
    return doneIf(_deviceService.prioritize(app), notWaitingError(app));
}

Result<void> PersonOnDevice::cancel(const std::string& app) {
    _outcomes.expectCancel(app); // before the first report of it can arrive
    const bool isCancelled =
        _device.coordinationIsEnabled() ? _device.coordinator().cancelByUser(app) : _cancelWithoutCoordination(app);
    if (!isCancelled) {
        _outcomes.withdrawCancel(app);
    }
    return doneIf(isCancelled, notUnderWayError(app));
}

/// The plug-in takes the placeholder away when the transfer or the install fails. Only of a restore is it told through
/// the registry.
bool PersonOnDevice::_cancelWithoutCoordination(const std::string& app) {
    const auto application = _device.registry().application(app);
    if (!application || !application->isPlaceholder) {
        return false;
    }
    _workspace.refuse(app);
    _deviceService.cancel(app);
    _busyApps.cancel(app);
    if (application->installType == PDInstallTypeRestore) {
        return _device.registry().cancelInstall(app);
    }
    if (const auto progress = _device.registry().existingProgress(app)) {
        progress->cancel();
    }
    return true;
}

} // namespace appsync::host
