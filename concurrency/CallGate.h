// Through which one is called until one is removed.
#pragma once

#include "concurrency/Mutex.h"

#include <algorithm>
#include <concepts>
#include <thread>
#include <utility>
#include <vector>

namespace appsync {

/// Each that is called back has one; all its calls go through it. Closing it is the last step of a removal, which so
/// returns only when no call runs and none will. Any thread.
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
    /// Lets no further call pass, and returns when none runs but one that it is called from. Whoever closes it holds no
    /// lock that a call takes.
    void close() EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        _isClosed = true;
        while (std::ranges::any_of(_runners, [](auto runner) { return runner != std::this_thread::get_id(); })) {
            _changed.wait(_mutex);
        }
    }

  private:
    bool _enter() EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        if (_isClosed) {
            return false;
        }
        _runners.push_back(std::this_thread::get_id());
        return true;
    }
    void _leave() EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        _runners.erase(std::ranges::find(_runners, std::this_thread::get_id()));
        _changed.notifyAll();
    }

    Mutex _mutex;
    Condition _changed;
    std::vector<std::thread::id> _runners GUARDED_BY(_mutex); // of the calls, and of those within them
    bool _isClosed GUARDED_BY(_mutex) = false;
};

} // namespace appsync
