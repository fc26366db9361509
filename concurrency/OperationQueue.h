// Runs operations in the background, in the order in which they were added, at most so many at once.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace appsync {

class OperationQueue {
  public:
    explicit OperationQueue(std::size_t maxConcurrentOperationCount);
    /// As `stop`.
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    /// Returns at once. Threads are started when they are needed. False: the queue has been stopped, and the operation
    /// will not run.
    bool addOperation(std::function<void()> operation);
    /// Waits for running operations and drops those that have not begun. Not to be called from an operation.
    void stop();
    [[nodiscard]] std::size_t maxConcurrentOperationCount() const noexcept { return _maxConcurrent; }

  private:
    void _work();

    const std::size_t _maxConcurrent;
    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<std::function<void()>> _waiting;
    std::vector<std::thread> _threads;
    std::size_t _idle = 0;
    bool _stopped = false;
};

} // namespace appsync
