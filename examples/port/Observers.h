// Third: who observes the registry. Calls come on a thread of the registry, in their order, and none comes any more
// once an observer was removed.
#pragma once

#include "platform/ApplicationRegistry.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace port {

using namespace appsync;

class Observers {
  public:
    using Observer = PDApplicationWorkspaceObserverProtocol;
    using Call = std::function<void(Observer&)>;

    ~Observers() {
        {
            const std::lock_guard lock(_mutex);
            _isStopped = true;
        }
        _changed.notify_all();
        _thread.join();
    }
    /// `first` is the call that every new observer gets.
    void add(Observer* observer, Call first) {
        const std::lock_guard lock(_mutex);
        _observers.push_back(observer);
        _calls.emplace_back(observer, std::move(first));
        _changed.notify_all();
    }
    void remove(Observer* observer) {
        std::unique_lock lock(_mutex);
        std::erase(_observers, observer);
        std::erase_if(_calls, [&](const auto& call) { return call.first == observer; });
        _changed.wait(lock, [&] { return _called != observer; });
    }
    void callAll(const Call& call) {
        const std::lock_guard lock(_mutex);
        for (Observer* observer : _observers) {
            _calls.emplace_back(observer, call);
        }
        _changed.notify_all();
    }

  private:
    void _run() {
        std::unique_lock lock(_mutex);
        while (true) {
            _changed.wait(lock, [&] { return _isStopped || !_calls.empty(); });
            if (_isStopped) {
                return;
            }
            const auto [observer, call] = std::move(_calls.front());
            _calls.pop_front();
            _called = observer;
            lock.unlock(); // the observer may use the registry
            call(*observer);
            lock.lock();
            _called = nullptr;
            _changed.notify_all();
        }
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<Observer*> _observers;
    std::deque<std::pair<Observer*, Call>> _calls;
    Observer* _called = nullptr;
    bool _isStopped = false;
    std::thread _thread{[this] { _run(); }}; // last, since it uses the others
};

} // namespace port
