#include "device/services/TimerScheduler.h"

#include <algorithm>

namespace appsync::device {

/// A task and how far it has come. The handle that the caller holds and the queue's entry are the same object.
class TimerScheduler::Entry final : public ScheduledTask {
  public:
    explicit Entry(std::function<void()> task) : _task(std::move(task)) {}

    bool cancel() noexcept override {
        std::function<void()> dropped; // released after the lock, since that may run anything
        std::unique_lock lock(_mutex);
        if (_state == State::running && _runner != std::this_thread::get_id()) {
            _ended.wait(lock, [this] { return _state == State::ended; });
        }
        if (_state == State::waiting) {
            _state = State::cancelled;
            dropped.swap(_task);
        }
        return _state == State::cancelled;
    }

    void run() {
        std::function<void()> task;
        {
            const std::lock_guard lock(_mutex);
            if (_state != State::waiting) {
                return;
            }
            _state = State::running;
            _runner = std::this_thread::get_id();
            task.swap(_task);
        }
        task();
        task = nullptr; // what it holds is gone when `cancel` returns
        const std::lock_guard lock(_mutex);
        _state = State::ended;
        _ended.notify_all();
    }

  private:
    enum class State { waiting, running, ended, cancelled };

    std::mutex _mutex;
    std::condition_variable _ended;
    std::function<void()> _task;
    std::thread::id _runner;
    State _state = State::waiting;
};

TimerScheduler::TimerScheduler(std::size_t workers) : _workers(workers), _timer([this] { _keepTime(); }) {}

TimerScheduler::~TimerScheduler() {
    {
        const std::lock_guard lock(_mutex);
        _stopped = true;
        _changed.notify_one();
    }
    _timer.join();
    _workers.stop();
    for (const auto& [due, entry] : _waiting) {
        entry->cancel();
    }
}

std::shared_ptr<ScheduledTask> TimerScheduler::runAfter(std::chrono::milliseconds delay,
                                                        std::function<void()> task) noexcept {
    auto entry = std::make_shared<Entry>(std::move(task));
    const auto now = Clock::now();
    // A delay that the clock cannot express never comes due.
    const auto longest = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now);
    const std::lock_guard lock(_mutex);
    const auto place = _waiting.emplace(now + std::clamp(delay, std::chrono::milliseconds(0), longest), entry);
    if (place == _waiting.begin()) {
        _changed.notify_one();
    }
    return entry;
}

void TimerScheduler::_keepTime() {
    std::unique_lock lock(_mutex);
    while (!_stopped) {
        if (_waiting.empty()) {
            _changed.wait(lock);
            continue;
        }
        const auto first = _waiting.begin();
        if (first->first > Clock::now()) {
            const auto due = first->first;
            _changed.wait_until(lock, due);
            continue;
        }
        _workers.addOperation([entry = first->second] { entry->run(); });
        _waiting.erase(first);
    }
}

} // namespace appsync::device
