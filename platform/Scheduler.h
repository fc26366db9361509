// Work that is to be done later.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace appsync {

/// A task that waits for its time.
class ScheduledTask {
  public:
    virtual ~ScheduledTask() = default;
    /// Takes the task back. True: it will never run, also when this is asked again. False: it has run or is running;
    /// then this call returns only after it has ended, unless the task itself makes the call.
    virtual bool cancel() noexcept = 0;
};

/// Every operation may be called on any thread at any time.
class Scheduler {
  public:
    virtual ~Scheduler() = default;
    /// Runs `task` once on a concurrent background queue of default priority, not before `delay` has passed.
    /// The task runs also when the returned handle is dropped.
    [[nodiscard]] virtual std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds delay,
                                                                  std::function<void()> task) noexcept = 0;
};

} // namespace appsync
