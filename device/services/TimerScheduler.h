// Runs tasks later: one thread keeps the time, a few workers run what is due.
#pragma once

#include "concurrency/OperationQueue.h"
#include "platform/Scheduler.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace appsync::device {

class TimerScheduler final : public Scheduler {
  public:
    /// At most `workers` tasks run at once; one that is due while all are busy waits for the first that is free.
    explicit TimerScheduler(std::size_t workers = 4);
    /// Drops the tasks that have not begun and waits for those that run. Handles may outlive the scheduler.
    ~TimerScheduler() override;

    [[nodiscard]] std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds delay,
                                                          std::function<void()> task) noexcept override;

  private:
    class Entry;
    using Clock = std::chrono::steady_clock;

    void _keepTime();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::multimap<Clock::time_point, std::shared_ptr<Entry>> _waiting;
    bool _stopped = false;
    OperationQueue _workers;
    std::thread _timer; // last, so that it starts when everything else is there
};

} // namespace appsync::device
