// A counting semaphore whose wait can be bounded.
#pragma once

#include "concurrency/Mutex.h"

#include <chrono>
#include <optional>

namespace appsync {

class Semaphore {
  public:
    explicit Semaphore(unsigned count = 0) : _count(count) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void signal() EXCLUDES(_mutex);
    /// Takes one count, waiting for it, without a bound for as long as it takes. False: the bound passed first.
    bool wait(std::optional<std::chrono::milliseconds> bound = std::nullopt) EXCLUDES(_mutex);

  private:
    Mutex _mutex;
    Condition _signalled;
    unsigned _count GUARDED_BY(_mutex);
};

} // namespace appsync
