// The process that the plug-in runs in.
#pragma once

#include <optional>
#include <string>

namespace appsync {

/// Every operation may be called on any thread at any time.
class HostProcess {
  public:
    virtual ~HostProcess() = default;
    /// The bundle identifier of the process's main bundle, if it has one. A client waits for the host's start-up, and
    /// so hears of coordinators, only in the daemon's process, "com.zuvex.qrd".
    [[nodiscard]] virtual std::optional<std::string> mainBundleIdentifier() noexcept = 0;
    /// The process's temporary folder, a path of the device without a trailing slash. It is there.
    [[nodiscard]] virtual std::string temporaryDirectory() noexcept = 0;
};

} // namespace appsync
