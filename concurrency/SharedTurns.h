// Work that several threads ask for and that one of them does for all.
#pragma once

#include "concurrency/Mutex.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace appsync {

/// Those who come while a turn is under way share the next one. `Request` says what one of them wants. Any thread, but
/// not from within a turn.
template <class Request> class SharedTurns {
  public:
    SharedTurns() = default;
    SharedTurns(const SharedTurns&) = delete;
    SharedTurns& operator=(const SharedTurns&) = delete;

    /// Returns when a turn with the request is over. `work` does a turn: it gets the requests in the order in which
    /// they came, and runs on the thread of one of them, without a lock, while no other turn runs.
    template <class Work> void join(Request& own, const Work& work) EXCLUDES(_mutex) {
        const std::vector<Request*> turn = _takeTurn(own);
        if (!turn.empty()) {
            work(turn);
            _endTurn();
        }
    }

  private:
    /// Empty when another's turn has served the request.
    [[nodiscard]] std::vector<Request*> _takeTurn(Request& own) EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        _waiting.push_back(&own);
        const std::uint64_t turn = _begun + 1;
        while (_isBusy) {
            _changed.wait(_mutex);
            if (_ended >= turn) {
                return {};
            }
        }
        // The first who finds no turn under way works for all who wait by then.
        _isBusy = true;
        _begun = turn;
        return std::exchange(_waiting, {});
    }
    void _endTurn() EXCLUDES(_mutex) {
        {
            const Lock lock(_mutex);
            _ended = _begun;
            _isBusy = false;
        }
        _changed.notifyAll(); // whoever wakes needs the lock
    }

    Mutex _mutex;
    Condition _changed;
    std::vector<Request*> _waiting GUARDED_BY(_mutex);
    std::uint64_t _begun GUARDED_BY(_mutex) = 0; // turns
    std::uint64_t _ended GUARDED_BY(_mutex) = 0;
    bool _isBusy GUARDED_BY(_mutex) = false;
};

} // namespace appsync
