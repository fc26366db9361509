// The sync host's process as the device names it.
#pragma once

#include "platform/Process.h"

namespace appsync::device {

inline constexpr std::string_view HostBundleIdentifier = "com.zuvex.qrd";
inline constexpr std::string_view TemporaryDirectory = "/tmp"; // a path of the device

class DeviceProcess final : public HostProcess {
  public:
    [[nodiscard]] std::optional<std::string> mainBundleIdentifier() noexcept override {
        return std::string(HostBundleIdentifier);
    }
    [[nodiscard]] std::string temporaryDirectory() noexcept override { return std::string(TemporaryDirectory); }
};

} // namespace appsync::device
