// Counts work that is under way, so that somebody can wait for all of it.
#pragma once

#include "concurrency/Mutex.h"

#include <cstddef>

namespace appsync {

class Group {
  public:
    Group() = default;
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    void enter() EXCLUDES(_mutex);
    /// To be called once for each `enter`.
    void leave() EXCLUDES(_mutex);
    /// Returns when every `enter` has had its `leave`; at once when there was none.
    void wait() EXCLUDES(_mutex);
    [[nodiscard]] std::size_t count() const EXCLUDES(_mutex);

  private:
    mutable Mutex _mutex;
    Condition _empty;
    std::size_t _count GUARDED_BY(_mutex) = 0;
};

} // namespace appsync
