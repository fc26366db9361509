// The apps whose install waits because they are in use.
//
// The plug-in asks the home screen to end an app before it replaces it, and when that is denied has the scheduler try
// again later. This stands between the plug-in and both services, and so knows who waits and until when.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/HomeScreen.h"
#include "platform/Scheduler.h"

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace appsync::host {

/// Any thread.
class BusyApps final : public HomeScreen, public Scheduler {
  public:
    using Time = std::chrono::system_clock::time_point;
    /// Called on an install's thread when an app begins to wait, also when it does so once more.
    using Listener = std::function<void(const std::string& identifier, Time nextTry)>;

    /// Both services must outlive it.
    BusyApps(HomeScreen& homeScreen, Scheduler& scheduler, Listener listener)
        : _homeScreen(homeScreen), _scheduler(scheduler), _listener(std::move(listener)) {}

    /// A person takes an app's install back: if it waits it is tried now, and the app is not asked to end.
    void cancel(std::string_view identifier);
    /// The sync ends: who waits is tried now, and every request to end an app is answered with an unknown error, so
    /// that nothing waits any more.
    void giveUp();

    [[nodiscard]] SKPort SKSSkellanBlockableServerPort() noexcept override;
    void SKSetIconState(SKPort port, std::string_view iconState) noexcept override;
    void SKGetFlattenedIconState(SKPort port, std::uint32_t format, const char** buffer,
                                 std::size_t* length) noexcept override;
    void SKDeallocate(const char* buffer, std::size_t length) noexcept override;
    [[nodiscard]] std::shared_ptr<SKSApplicationTerminationAssertion>
    SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                      std::uint8_t* errorCode) noexcept override;
    [[nodiscard]] std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds delay,
                                                          std::function<void()> task) noexcept override;

  private:
    class Retry;

    [[nodiscard]] bool _isGivingUp() const;
    [[nodiscard]] bool _isCancelled(std::string_view identifier) const;
    void _tryNow(const std::function<bool(const std::string& identifier)>& isMeant);
    void _wait(const std::shared_ptr<Retry>& retry, std::chrono::milliseconds delay);
    void _forget(const Retry& retry);

    HomeScreen& _homeScreen;
    Scheduler& _scheduler;
    const Listener _listener;
    mutable Mutex _mutex;
    bool _hasGivenUp GUARDED_BY(_mutex) = false;
    std::set<std::string, std::less<>> _cancelled GUARDED_BY(_mutex);
    std::map<std::thread::id, std::string>
        _justDenied GUARDED_BY(_mutex); // the app whose retry a thread is about to ask for
    std::vector<std::shared_ptr<Retry>> _retries GUARDED_BY(_mutex);
};

} // namespace appsync::host
