// Fetches one archive from the desktop into the device's public staging area.
#pragma once

#include "values/Error.h"

#include <functional>
#include <string>

namespace appsync::device {
class DeviceFileSystem;
}

namespace appsync::desktop {
struct AppArchive;
}

namespace appsync::host {

class Bandwidth;

/// The folder of received files, relative to the public staging area.
inline constexpr std::string_view ReceivedFolder = "Received";

struct TransferRequest {
    const desktop::AppArchive& app;
    /// Called after each piece; `fraction` is 0 to 1.
    std::function<void(double fraction)> progress;
    /// Asked before each piece: an error ends the transfer with it, null goes on.
    std::function<ErrorPtr()> stopReason;
    Bandwidth* bandwidth = nullptr; // as fast as it goes when null
};

/// The folder of received files on the device.
[[nodiscard]] std::string receivedFolder();
/// The received file's path relative to the public staging area.
[[nodiscard]] std::string receivedPath(const std::string& identifier);

/// Null when the archive stands at a path of the device, whole; otherwise the reason, and nothing of it is left.
[[nodiscard]] ErrorPtr copyToDevice(device::DeviceFileSystem& files, const TransferRequest& request,
                                    const std::string& path);

/// Null when the file stands at `receivedPath`, whole; otherwise the reason, and nothing of the file is left.
[[nodiscard]] ErrorPtr transfer(device::DeviceFileSystem& files, const TransferRequest& request);

} // namespace appsync::host
