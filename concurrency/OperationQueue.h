// Runs operations in the background, in the order in which they were added, at most so many at once.
#pragma once

#include "concurrency/Mutex.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace appsync {

class OperationQueue {
  public:
    explicit OperationQueue(std::size_t maxConcurrentOperationCount) : _maxConcurrent(maxConcurrentOperationCount) {}
    /// As `stop`.
    virtual ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    /// Starts a thread unless there is one; from then on there always is one. False: the system has none to give.
    [[nodiscard]] bool start() EXCLUDES(_mutex);
    /// Threads are started when they are needed. Where the system has not one to give, the operation runs before this
    /// returns: unless the queue was started, whoever adds one holds no lock that it takes. False: the queue has been
    /// stopped, and the operation will not run.
    virtual bool addOperation(std::function<void()> operation) EXCLUDES(_mutex);
    /// Waits for running operations and drops those that have not begun. Not to be called from an operation.
    virtual void stop() EXCLUDES(_mutex);
    [[nodiscard]] std::size_t maxConcurrentOperationCount() const noexcept { return _maxConcurrent; }

  private:
    void _work() EXCLUDES(_mutex);
    [[nodiscard]] bool _startThread() REQUIRES(_mutex);
    [[nodiscard]] std::function<void()> _takeNext() EXCLUDES(_mutex);

    const std::size_t _maxConcurrent;
    Mutex _mutex;
    Condition _changed;
    std::deque<std::function<void()>> _waiting GUARDED_BY(_mutex);
    std::vector<std::thread> _threads GUARDED_BY(_mutex);
    std::size_t _idle GUARDED_BY(_mutex) = 0;
    bool _stopped GUARDED_BY(_mutex) = false;
};

} // namespace appsync
