// Calls those who follow the registry, on one thread of its own.
#pragma once

#include "platform/ApplicationRegistry.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace appsync::device {

/// Any thread. Calls are made one at a time, without a lock held; changes that come close together give one call.
class Announcer {
  public:
    /// The installs that go first and those that are paused.
    using Lists = std::pair<PDApplicationProxies, PDApplicationProxies>;

    /// `currentLists` is called on the announcer's thread.
    explicit Announcer(std::function<Lists()> currentLists);
    /// Waits for a running call; none follows.
    ~Announcer();
    Announcer(const Announcer&) = delete;
    Announcer& operator=(const Announcer&) = delete;

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
    struct Listener {
        PDApplicationWorkspaceObserverProtocol* observer = nullptr; // null for a subscription
        std::function<void()> changed;
        bool hasLists = false;
        std::vector<std::string> prioritized; // identifiers, as last told
        std::vector<std::string> paused;
    };

    void _run();
    void _tellLists(std::uint64_t number, const Lists& lists);
    void _tell(std::uint64_t number, const std::function<void(const Listener&)>& call);
    [[nodiscard]] std::vector<std::uint64_t> _listeners();
    std::uint64_t _add(Listener listener);
    void _remove(std::uint64_t number);

    const std::function<Lists()> _currentLists;
    std::mutex _mutex; // guards the rest, except for the thread
    std::condition_variable _wakened;
    std::condition_variable _callEnded;
    std::map<std::uint64_t, Listener> _all; // in the order in which they came
    std::uint64_t _lastNumber = 0;
    std::uint64_t _called = 0; // number of the listener that is being called, or 0
    bool _hasNews = false;
    bool _hasChange = false;
    bool _stopped = false;
    std::vector<PDApplicationProxies> _cancellations;
    std::thread _thread;
};

} // namespace appsync::device
