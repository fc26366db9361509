#include "concurrency/OperationQueue.h"

#include <system_error>

namespace appsync {

OperationQueue::~OperationQueue() {
    OperationQueue::stop();
}

bool OperationQueue::start() {
    const Lock lock(_mutex);
    return !_threads.empty() || _startThread();
}

bool OperationQueue::addOperation(std::function<void()> operation) {
    std::function<void()> left; // has no thread
    {
        const Lock lock(_mutex);
        if (_stopped) {
            return false;
        }
        const bool needsThread = _idle <= _waiting.size() && _threads.size() < _maxConcurrent;
        if (!needsThread || _startThread() || !_threads.empty()) {
            _waiting.push_back(std::move(operation));
        } else {
            left = std::move(operation);
        }
    }
    if (left) {
        left();
    } else {
        _changed.notifyOne(); // whoever wakes needs the lock
    }
    return true;
}

/// False: the system has no thread to give.
bool OperationQueue::_startThread() {
    try {
        _threads.emplace_back([this] { _work(); });
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

void OperationQueue::stop() {
    std::deque<std::function<void()>> dropped;
    std::vector<std::thread> threads;
    {
        const Lock lock(_mutex);
        _stopped = true;
        dropped.swap(_waiting);
        threads.swap(_threads);
        _changed.notifyAll();
    }
    dropped.clear(); // what they hold is released before running operations are waited for
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void OperationQueue::_work() {
    while (auto operation = _takeNext()) {
        operation();
    }
}

/// Waits for the next operation; none when the queue has been stopped.
std::function<void()> OperationQueue::_takeNext() {
    const Lock lock(_mutex);
    ++_idle;
    while (!_stopped && _waiting.empty()) {
        _changed.wait(_mutex);
    }
    --_idle;
    if (_waiting.empty()) {
        return nullptr;
    }
    auto operation = std::move(_waiting.front());
    _waiting.pop_front();
    return operation;
}

} // namespace appsync
