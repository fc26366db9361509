#include "host/control/PersonOnDevice.h"

#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"
#include "host/session/BusyApps.h"
#include "host/session/InstallOutcomes.h"
#include "host/transfer/TransferQueue.h"

namespace appsync::host {

namespace {

std::string notUnderWay(const std::string& app) {
    return "'" + app + "' is not being installed; `qrd status` shows what is.";
}

} // namespace

std::string PersonOnDevice::prioritize(const std::string& app) {
    if (_device.coordinationIsEnabled()) {
        return _device.coordinator().prioritizeByUser(app) ? "" : notUnderWay(app);
    }
    _device.registry().prioritize(app);
    return _deviceService.prioritize(app) ? "" : "'" + app + "' does not wait for its transfer.";
}

std::string PersonOnDevice::cancel(const std::string& app) {
    _outcomes.expectCancel(app); // before the first report of it can arrive
    if (_device.coordinationIsEnabled() ? _device.coordinator().cancelByUser(app) : _cancelWithoutCoordination(app)) {
        return "";
    }
    _outcomes.withdrawCancel(app);
    return notUnderWay(app);
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
