#include "concurrency/OperationQueue.h"

namespace appsync {

OperationQueue::OperationQueue(std::size_t maxConcurrentOperationCount) : _maxConcurrent(maxConcurrentOperationCount) {}

OperationQueue::~OperationQueue() {
    stop();
}

bool OperationQueue::addOperation(std::function<void()> operation) {
    const std::lock_guard lock(_mutex);
    if (_stopped) {
        return false;
    }
    _waiting.push_back(std::move(operation));
    if (_idle < _waiting.size() && _threads.size() < _maxConcurrent) {
        _threads.emplace_back([this] { _work(); });
    }
    _changed.notify_one();
    return true;
}

void OperationQueue::stop() {
    std::deque<std::function<void()>> dropped;
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(_mutex);
        _stopped = true;
        dropped.swap(_waiting);
        threads.swap(_threads);
        _changed.notify_all();
    }
    dropped.clear(); // what they hold is released before running operations are waited for
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void OperationQueue::_work() {
    std::unique_lock lock(_mutex);
    for (;;) {
        ++_idle;
        _changed.wait(lock, [this] { return _stopped || !_waiting.empty(); });
        --_idle;
        if (_waiting.empty()) {
            return;
        }
        auto operation = std::move(_waiting.front());
        _waiting.pop_front();
        lock.unlock();
        operation();
        operation = nullptr; // what it holds is released before the next one is taken
        lock.lock();
    }
}

} // namespace appsync
