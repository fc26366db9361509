// Counts work that is under way, so that somebody can wait for all of it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace appsync {

class Group {
  public:
    Group() = default;
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    void enter();
    /// Each `leave` answers one `enter`.
    void leave();
    /// Returns when every `enter` has been answered; at once when there is none.
    void wait();
    [[nodiscard]] std::size_t count() const;

  private:
    mutable std::mutex _mutex;
    std::condition_variable _empty;
    std::size_t _count = 0;
};

} // namespace appsync
