// The table of running apps, as far as the home screen needs it.
#pragma once

#include <string_view>

namespace appsync::device {

/// Any thread.
class RunningApps {
  public:
    enum class Answer {
        ended,      // it is not running and will not be started before `letGo`
        busy,       // it cannot be ended now
        notRunning, // no such app is running
    };

    virtual ~RunningApps() = default;
    /// Ends an app and keeps it from being started. Waits while it ends. Holds add up.
    [[nodiscard]] virtual Answer endAndHold(std::string_view bundleIdentifier) noexcept = 0;
    /// Undoes one `endAndHold` that returned `ended`.
    virtual void letGo(std::string_view bundleIdentifier) noexcept = 0;
};

} // namespace appsync::device
