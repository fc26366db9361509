// Runs tasks later: one thread keeps the time, a few workers run what is due.
#pragma once

#include "concurrency/OperationQueue.h"
#include "platform/Scheduler.h"
#include "values/Result.h"

#include <map>

namespace appsync::device {

class TimerScheduler final : public Scheduler {
  public:
    /// At most `workers` tasks run at once; one that is due while all are busy waits for the first that is free.
    explicit TimerScheduler(std::size_t workers = 4) : _workers(workers) {}
    /// Drops the tasks that have not begun and waits for those that run. Handles may outlive the scheduler.
    ~TimerScheduler() override;
    /// To be called first. Fails when the system has no thread for it.
    [[nodiscard]] Result<void> start();

    [[nodiscard]] std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds delay,
                                                          std::function<void()> task) noexcept override;

  private:
    class Entry;
    using Clock = std::chrono::steady_clock;

    void _keepTime() EXCLUDES(_mutex);
    [[nodiscard]] std::shared_ptr<Entry> _waitForNext() EXCLUDES(_mutex);

    Mutex _mutex;
    Condition _changed;
    std::multimap<Clock::time_point, std::shared_ptr<Entry>> _waiting GUARDED_BY(_mutex);
    bool _stopped GUARDED_BY(_mutex) = false;
    OperationQueue _workers;
    OperationQueue _timer{1};
};

} // namespace appsync::device
