// What a person can do on the device while a sync runs.
#pragma once

#include "values/Result.h"

#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

class BusyApps;
class DeviceService;
class InstallOutcomes;
class ObservedWorkspace;

/// Any thread. The error of an operation says why it did nothing.
class PersonOnDevice {
  public:
    /// All must outlive it.
    PersonOnDevice(device::Device& device, DeviceService& deviceService, ObservedWorkspace& workspace,
                   BusyApps& busyApps, InstallOutcomes& outcomes)
        : _device(device), _deviceService(deviceService), _workspace(workspace), _busyApps(busyApps),
          _outcomes(outcomes) {}

    /// Asks for an app to come first.
    [[nodiscard]] Result<void> prioritize(const std::string& app);
    /// Takes an app's install back, be it waiting, under way, or about to be tried again. An installed version stays.
    [[nodiscard]] Result<void> cancel(const std::string& app);

  private:
    [[nodiscard]] bool _cancelWithoutCoordination(const std::string& app);

    device::Device& _device;
    DeviceService& _deviceService;
    ObservedWorkspace& _workspace;
    BusyApps& _busyApps;
    InstallOutcomes& _outcomes;
};

} // namespace appsync::host
