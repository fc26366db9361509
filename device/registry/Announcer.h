// Calls those who follow the registry, on one thread of its own.
#pragma once

#include "concurrency/CallGate.h"
#include "concurrency/OperationQueue.h"
#include "platform/ApplicationRegistry.h"
#include "values/Result.h"

#include <chrono>
#include <functional>
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
    /// To be called first. Fails when the system has no thread for it.
    [[nodiscard]] Result<void> start();

    void addObserver(PDApplicationWorkspaceObserverProtocol* observer);
    /// Returns after a running call of the observer has ended; at once when it runs on this very thread.
    void removeObserver(PDApplicationWorkspaceObserverProtocol* observer);

    void announceChange();
    void announceCancellation(PDApplicationProxies applications);

  private:
    using Identifiers = std::vector<std::string>;
    struct Observer {
        PDApplicationWorkspaceObserverProtocol* observer = nullptr;
        CallGate gate;
        std::optional<std::pair<Identifiers, Identifiers>> told; // the lists; for the announcer's thread alone
    };
    using Observers = std::vector<std::shared_ptr<Observer>>;

    void _schedule() REQUIRES(_mutex);
    void _hurry() REQUIRES(_mutex);
    void _waitForTurn() REQUIRES(_mutex);
    void _announce() EXCLUDES(_mutex);
    static void _tell(Observer& observer, const Lists& lists, const std::vector<PDApplicationProxies>& cancellations);

    const std::function<Lists()> _currentLists;
    Mutex _mutex;
    Observers _observers GUARDED_BY(_mutex);
    Condition _hurried;
    std::chrono::steady_clock::time_point _nextTurn GUARDED_BY(_mutex);
    bool _isScheduled GUARDED_BY(_mutex) = false;
    bool _isHurried GUARDED_BY(_mutex) = false;
    std::vector<PDApplicationProxies> _cancellations GUARDED_BY(_mutex);
    OperationQueue _thread{1};
};

} // namespace appsync::device
