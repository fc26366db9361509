#include "host/RunSync.h"

#include "desktop/Staging.h"
#include "device/Device.h"
#include "device/coordinator/InstallObservers.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/Notifications.h"
#include "host/HostPlatform.h"
#include "host/InstallOutcomes.h"
#include "host/PlugIn.h"
#include "host/SyncSession.h"
#include "host/TransferQueue.h"
#include "platform/Client.h"

namespace appsync::host {

SyncReport runSync(device::Device& device, const desktop::SyncList& list, const std::string& plugInPath,
                   SyncView& view) {
    SyncReport report;
    const auto layout = desktop::iconLayout(device.homeScreen().flattenedOrder(), list);
    if (!desktop::writeStagingArea(device.files(), device.propertyLists(), list, layout, &report.failure)) {
        return report;
    }
    const auto plugIn = PlugIn::load(plugInPath, device.propertyLists(), &report.failure);
    if (!plugIn) {
        return report;
    }
    InstallOutcomes outcomes(
        [&view](std::string_view identifier, const ErrorPtr& error) { view.installEnded(identifier, error); });
    DeviceService deviceService;
    ErrorClassification errorClassification;
    const Platform devicePlatform = device.platform(deviceService, errorClassification);
    ObservedWorkspace workspace(devicePlatform.workspaces.defaultWorkspace(), outcomes);
    const auto client = plugIn->createClient(withWorkspace(devicePlatform, workspace));
    if (client == nullptr) {
        report.failure = hostError("The plug-in '" + plugIn->identifier() + "' did not start.");
        return report;
    }
    device.notificationCenter().post(device::StartupCompleteName);
    device.notificationCenter().waitUntilDelivered();
    // After the plug-in's own connection, which gets the reports that waited for one.
    const auto observer = devicePlatform.installObservers.initWithMachServiceName_forClients_delegate(
        device::ObserverServiceName, {KXClientSyncHost}, &outcomes);
    return SyncSession({device, *client, deviceService, outcomes, view}, list).run();
}

} // namespace appsync::host
