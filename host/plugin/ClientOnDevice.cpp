#include "host/plugin/ClientOnDevice.h"

#include "device/Device.h"
#include "device/services/Notifications.h"
#include "platform/Platform.h"

namespace appsync::host {

Result<std::unique_ptr<ClientOnDevice>> ClientOnDevice::start(device::Device& device, const std::string& plugInPath) {
    auto plugIn = PlugIn::load(plugInPath.empty() ? PlugIn::defaultPath() : plugInPath, device.propertyLists());
    if (!plugIn) {
        return plugIn.error();
    }
    std::unique_ptr<ClientOnDevice> started(new ClientOnDevice(std::move(*plugIn)));
    auto client =
        started->_plugIn.createClient(device.platform(started->_deviceService, started->_errorClassification));
    if (!client) {
        return client.error();
    }
    started->_client = std::move(*client);
    device.notificationCenter().post(startupCompleteName);
    device.notificationCenter().waitUntilDelivered();
    return started;
}

} // namespace appsync::host
