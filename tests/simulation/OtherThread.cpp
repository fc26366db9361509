#include "tests/simulation/OtherThread.h"

#include <utility>

namespace appsync::simulation {

OtherThread::OtherThread() : _thread([this] { _work(); }) {}

OtherThread::~OtherThread() {
    {
        const std::lock_guard lock(_mutex);
        _stopped = true;
        _changed.notify_all();
    }
    _thread.join();
}

void OtherThread::run(std::function<void()> task) {
    start(std::move(task));
    join();
}

void OtherThread::start(std::function<void()> task) {
    const std::lock_guard lock(_mutex);
    _task = std::move(task);
    _busy = true;
    _changed.notify_all();
}

void OtherThread::startWhenTold(std::function<void()> task) {
    const std::lock_guard lock(_mutex);
    _task = std::move(task);
    _busy = true;
    _told = false;
}

void OtherThread::tell() {
    const std::lock_guard lock(_mutex);
    if (!_told) {
        _told = true;
        _changed.notify_all();
    }
}

void OtherThread::join() {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [this] { return !_busy; });
}

void OtherThread::_work() {
    std::unique_lock lock(_mutex);
    for (;;) {
        _changed.wait(lock, [this] { return _stopped || (_told && _task); });
        if (!_task || !_told) {
            return;
        }
        auto task = std::exchange(_task, nullptr);
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
        _busy = false;
        _changed.notify_all();
    }
}

} // namespace appsync::simulation
