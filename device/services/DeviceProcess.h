// The sync host's process as the device names it.
#pragma once

#include "device/root/Paths.h"
#include "platform/Process.h"

namespace appsync::device {

inline constexpr std::string_view hostBundleIdentifier = "com.zuvex.qrd";

class DeviceProcess final : public HostProcess {
  public:
    [[nodiscard]] std::optional<std::string> mainBundleIdentifier() noexcept override {
        return std::string(hostBundleIdentifier);
    }
    [[nodiscard]] std::string temporaryDirectory() noexcept override { return std::string(temporaryFolder); }
};

} // namespace appsync::device
