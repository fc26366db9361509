// Calls those who follow the registry, on one thread of its own.
#pragma once

#include "concurrency/CallGate.h"
#include "concurrency/OperationQueue.h"
#include "platform/ApplicationRegistry.h"
#include "values/Result.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace appsync::device {

/// Any thread. Calls are made one at a time, without a lock held; changes that come close together give one call.
class Announcer {
  public:
    /// Telling of a change takes longer the more installs are under way, and each of them changes many times: changes
    /// are told this long after those before at the earliest. A new observer and a cancellation do not wait.
    static constexpr std::chrono::milliseconds pause{50};

    /// The installs that go first and those that are paused.
    using Lists = std::pair<PDApplicationProxies, PDApplicationProxies>;

    /// `currentLists` is called on the announcer's thread.
    explicit Announcer(std::function<Lists()> currentLists) : _currentLists(std::move(currentLists)) {}
    /// Waits for a running call; none follows.
    ~Announcer();
    Announcer(const Announcer&) = delete;
    Announcer& operator=(const Announcer&) = delete;
    /// To be called first. Fails when the system has no thread for it.
    [[nodiscard]] Result<void> start();

    void addObserver(PDApplicationWorkspaceObserverProtocol* observer);
    /// Returns after a running call of the observer has ended; at once when it runs on this very thread.
    void removeObserver(PDApplicationWorkspaceObserverProtocol* observer);
    /// Calls `changed` after changes, until the number that this returns is handed to `unsubscribe`, which waits
    /// likewise.
    [[nodiscard]] std::uint64_t subscribe(std::function<void()> changed);
    void unsubscribe(std::uint64_t number);

    void announceChange();
    void announceCancellation(PDApplicationProxies applications);

  private:
    using Identifiers = std::vector<std::string>;
    struct Listener {
        PDApplicationWorkspaceObserverProtocol* observer = nullptr; // null for a subscription
        std::function<void()> changed;                              // of a subscription
        CallGate gate;
        std::optional<std::pair<Identifiers, Identifiers>> told; // the lists; for the announcer's thread alone
    };
    using ListenerPtr = std::shared_ptr<Listener>;

    std::uint64_t _add(ListenerPtr listener) EXCLUDES(_mutex);
    void _remove(const std::function<bool(std::uint64_t number, const Listener& listener)>& isMeant) EXCLUDES(_mutex);
    void _schedule() REQUIRES(_mutex);
    void _hurry() REQUIRES(_mutex);
    void _waitForTurn() REQUIRES(_mutex);
    void _announce() EXCLUDES(_mutex);
    static void _tell(Listener& listener, const Lists& lists, const std::vector<PDApplicationProxies>& cancellations);

    const std::function<Lists()> _currentLists;
    Mutex _mutex;
    std::map<std::uint64_t, ListenerPtr> _all GUARDED_BY(_mutex); // in the order in which they came
    std::uint64_t _lastNumber GUARDED_BY(_mutex) = 0;
    Condition _hurried;
    std::chrono::steady_clock::time_point _nextTurn GUARDED_BY(_mutex);
    bool _isScheduled GUARDED_BY(_mutex) = false;
    bool _isHurried GUARDED_BY(_mutex) = false;
    bool _hasChange GUARDED_BY(_mutex) = false;
    std::vector<PDApplicationProxies> _cancellations GUARDED_BY(_mutex);
    OperationQueue _thread{1};
};

} // namespace appsync::device
