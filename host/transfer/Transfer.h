// Fetches one archive from the desktop into the device's public staging area.
#pragma once

#include "values/Result.h"

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
inline constexpr std::string_view receivedFolderName = "Received";

struct TransferRequest {
    const desktop::AppArchive& app;
    /// Called after each piece; `fraction` is 0 to 1.
    std::function<void(double fraction)> progress;
    /// Asked before each piece; an error ends the transfer with it.
    std::function<Result<void>()> mayGoOn;
    Bandwidth* bandwidth = nullptr; // as fast as it goes when null
};

/// The folder of received files on the device.
[[nodiscard]] std::string receivedFolder();
/// The received file's path relative to the public staging area.
[[nodiscard]] std::string receivedPath(const std::string& identifier);

/// The name, in the folder of received files, under which an interrupted transfer leaves what has arrived of an
/// archive. It tells this state of the archive's file from any other, so that a later transfer of the same can go on
/// from there.
[[nodiscard]] std::string begunName(const desktop::AppArchive& app);

/// Afterwards the archive stands at a path of the device, whole; after an error, nothing of it is left, but for
/// `begunName` beside that path when the error is `TransferError::interrupted`.
[[nodiscard]] Result<void> copyToDevice(device::DeviceFileSystem& files, const TransferRequest& request,
                                        const std::string& path);

/// Copies to `receivedPath`.
[[nodiscard]] Result<void> transfer(device::DeviceFileSystem& files, const TransferRequest& request);

} // namespace appsync::host
