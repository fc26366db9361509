// Notifications between the processes of the device.
#pragma once

#include "values/PropertyList.h"

#include <cstdint>
#include <string_view>

namespace appsync {

class NotificationCenter;

/// Posted by the host, once, when it is ready for the install coordinator's reports.
inline constexpr std::string_view startupCompleteName = "com.zuvex.qrd.QRStartupCompleteNotification";
/// Posted for the home screen when a sync or a restore starts (state 1) and when a sync's transfers end (state 0).
inline constexpr std::string_view syncNoticeName = "com.zuvex.skellan.qrd.wsyncnotify";

/// `object` is the sender's, `userInfo` its facts; either may be null. Runs on a thread of the center.
using NotificationCallback = void (*)(NotificationCenter* center, void* observer, std::string_view name,
                                      const void* object, const Dictionary* userInfo);

enum class NotificationSuspensionBehavior : std::uint32_t { drop = 1 };

/// The center for notifications from other processes. Every operation may be called on any thread.
class NotificationCenter {
  public:
    virtual ~NotificationCenter() = default;
    /// Calls `callback` with `observer` each time `name` is posted; a null `object` means by whomever.
    virtual void addObserver(void* observer, NotificationCallback callback, std::string_view name, const void* object,
                             NotificationSuspensionBehavior suspensionBehavior) noexcept = 0;
    /// Ends the observer's calls for `name`; returns after a running one has ended.
    virtual void removeObserver(void* observer, std::string_view name) noexcept = 0;
};

/// The system-wide notification service: names that carry a 64-bit state. Every operation may be called on any thread.
class NotificationService {
  public:
    virtual ~NotificationService() = default;
    /// Zero and a token, or the status of the failure.
    virtual std::uint32_t notify_register_check(std::string_view name, int* token) noexcept = 0;
    virtual std::uint32_t notify_set_state(int token, std::uint64_t state) noexcept = 0;
    virtual std::uint32_t notify_post(std::string_view name) noexcept = 0;
};

} // namespace appsync
