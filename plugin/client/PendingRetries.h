// Delayed tasks that are dropped together when their owner goes.
#pragma once

#include "concurrency/Mutex.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace appsync {

class ScheduledTask;
class Scheduler;

/// Any thread.
class PendingRetries {
  public:
    explicit PendingRetries(Scheduler& scheduler) noexcept : _scheduler(scheduler) {}
    /// As `dropAll`.
    ~PendingRetries();
    PendingRetries(const PendingRetries&) = delete;
    PendingRetries& operator=(const PendingRetries&) = delete;

    /// Runs the task once the delay has passed, unless all are dropped first.
    void runAfter(std::chrono::milliseconds delay, std::function<void()> task);
    /// Waits for tasks that are running; none runs afterwards. Nothing may be added meanwhile.
    void dropAll();

  private:
    /// The number of the task that comes next.
    std::uint64_t _expect();
    void _forget(std::uint64_t number);

    Scheduler& _scheduler;
    Mutex _mutex;
    std::uint64_t _lastNumber GUARDED_BY(_mutex){};
    std::map<std::uint64_t, std::shared_ptr<ScheduledTask>>
        _tasks GUARDED_BY(_mutex); // null until the scheduler has answered
};

} // namespace appsync
