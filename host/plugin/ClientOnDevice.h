// The plug-in's client on a device, for what the host asks of it outside of a sync.
#pragma once

#include "host/plugin/PlugIn.h"
#include "host/transfer/TransferQueue.h"
#include "platform/host/Client.h"

#include <memory>
#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

/// One thread.
class ClientOnDevice {
  public:
    /// Loads the bundle, makes a client and announces that the host is ready. The device must outlive
    /// it. Without a path it is the bundle beside this program.
    [[nodiscard]] static Result<std::unique_ptr<ClientOnDevice>> start(device::Device& device,
                                                                       const std::string& plugInPath);

    [[nodiscard]] QRClient& client() noexcept { return *_client; }

  private:
    explicit ClientOnDevice(PlugIn plugIn) : _plugIn(std::move(plugIn)) {}

    PlugIn _plugIn;
    DeviceService _deviceService;
    ErrorClassification _errorClassification;
    std::unique_ptr<QRClient> _client; // last: it uses the rest
};

} // namespace appsync::host
