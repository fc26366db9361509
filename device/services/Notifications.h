// The notification services of the device, for the one process that owns it.
#pragma once

#include "concurrency/CallGate.h"
#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "platform/Notifications.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace appsync::device {

/// Statuses of the notification service.
enum NotificationStatus : std::uint32_t {
    notificationStatusOK = 0,
    notificationStatusInvalidName = 1,  // empty, or with a zero byte
    notificationStatusInvalidToken = 2, // never given out
};

/// Names with a state. Names live as long as the service; registering one again gives the token that it has.
class NotificationNames final : public NotificationService {
  public:
    std::uint32_t notify_register_check(std::string_view name, int* token) noexcept override;
    std::uint32_t notify_set_state(int token, std::uint64_t state) noexcept override;
    std::uint32_t notify_post(std::string_view name) noexcept override;

    /// The present state; 0 for a name that nobody has registered or set.
    [[nodiscard]] std::uint64_t state(std::string_view name) const;
    /// How often the name was posted.
    [[nodiscard]] std::uint64_t postCount(std::string_view name) const;

  private:
    struct Name {
        std::string name;
        std::uint64_t state = 0;
        std::uint64_t posts = 0;
    };

    /// Adds the name when it is new.
    [[nodiscard]] Name& _named(std::string_view name) REQUIRES(_mutex);
    [[nodiscard]] std::uint64_t _read(std::string_view name, std::uint64_t Name::*number) const EXCLUDES(_mutex);

    mutable Mutex _mutex;
    std::vector<Name> _names GUARDED_BY(_mutex); // a token is an index + 1
};

/// Delivers posts to observers on a thread of its own, in the order of the posts; where the system has no thread for
/// it, before `post` returns.
class DeviceNotificationCenter final : public NotificationCenter {
  public:
    DeviceNotificationCenter() = default;
    /// Waits for a running call; posts that are not delivered yet are dropped.
    ~DeviceNotificationCenter() override;

    /// An observer that is added again for the same name and object is still called once per post.
    void addObserver(void* observer, NotificationCallback callback, std::string_view name, const void* object,
                     NotificationSuspensionBehavior suspensionBehavior) noexcept override;
    /// From within the observer's own call it returns at once; no call follows that one.
    void removeObserver(void* observer, std::string_view name) noexcept override;

    /// Calls those who observe the name now. Returns at once; `object` is passed on and compared, never read.
    void post(std::string_view name, const void* object = nullptr, std::optional<Dictionary> userInfo = std::nullopt);
    /// Returns when everything posted before has been delivered. Not to be called from an observer.
    void waitUntilDelivered();

  private:
    struct Observation {
        void* observer;
        std::string name;
        const void* object;
        std::atomic<NotificationCallback> callback;
        CallGate gate;
    };
    using Observations = std::vector<std::shared_ptr<Observation>>;

    void _deliver(const Observations& observations, const std::string& name, const void* object,
                  const Dictionary* userInfo) EXCLUDES(_mutex);

    Mutex _mutex;
    Observations _observations GUARDED_BY(_mutex);
    Group _undelivered;
    OperationQueue _thread{1};
};

} // namespace appsync::device
