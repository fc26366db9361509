// Through which one is called until one is removed.
#pragma once

#include "concurrency/Mutex.h"

#include <cassert>
#include <concepts>
#include <thread>
#include <utility>

namespace appsync {

/// Each that is called back has one; all its calls go through it, one at a time. Closing it is the last step of a
/// removal, which so returns only when no call runs and none will. Any thread.
class CallGate {
  public:
    CallGate() = default;
    CallGate(const CallGate&) = delete;
    CallGate& operator=(const CallGate&) = delete;

    /// Runs the call on this thread. False, without running it, when the gate is closed. A call may pass again from
    /// within itself.
    template <std::invocable Call> bool pass(Call&& call) EXCLUDES(_mutex) {
        if (!_enter()) {
            return false;
        }
        std::forward<Call>(call)();
        _leave();
        return true;
    }
    /// Lets no further call pass, and returns when none runs; at once from within the running call itself. Whoever
    /// closes it holds no lock that a call takes.
    void close() EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        _isClosed = true;
        while (_running > 0 && _runner != std::this_thread::get_id()) {
            _changed.wait(_mutex);
        }
    }

  private:
    bool _enter() EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        if (_isClosed) {
            return false;
        }
        assert(_running == 0 || _runner == std::this_thread::get_id());
        ++_running;
        _runner = std::this_thread::get_id();
        return true;
    }
    void _leave() EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        --_running;
        _changed.notifyAll();
    }

    Mutex _mutex;
    Condition _changed;
    unsigned _running GUARDED_BY(_mutex) = 0; // the call, and those within it
    std::thread::id _runner GUARDED_BY(_mutex);
    bool _isClosed GUARDED_BY(_mutex) = false;
};

} // namespace appsync
