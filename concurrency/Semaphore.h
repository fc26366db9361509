// A counting semaphore whose wait can be bounded.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace appsync {

class Semaphore {
  public:
    explicit Semaphore(unsigned count = 0) : _count(count) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void signal();
    /// Takes one count, waiting for it, without a bound for as long as it takes. False: the bound passed first.
    bool wait(std::optional<std::chrono::milliseconds> bound = std::nullopt);

  private:
    std::mutex _mutex;
    std::condition_variable _signalled;
    unsigned _count;
};

} // namespace appsync
