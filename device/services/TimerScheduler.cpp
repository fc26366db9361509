#include "device/services/TimerScheduler.h"

#include "concurrency/CallGate.h"
#include "device/root/PosixError.h"

#include <algorithm>

namespace appsync::device {

/// The handle that the caller holds and the queue's entry are the same object.
class TimerScheduler::Entry final : public ScheduledTask {
  public:
    explicit Entry(std::function<void()> task) : _task(std::move(task)) {}

    bool cancel() noexcept override {
        _gate.close();
        if (!_hasBegun) {
            std::call_once(_dropped, [this] { _task = nullptr; });
        }
        return !_hasBegun;
    }

    void run() {
        _gate.pass([this] {
            _hasBegun = true;
            _task();
            _task = nullptr; // what it holds is gone when `cancel` returns
        });
    }

  private:
    CallGate _gate; // only behind it does any of the rest change
    std::once_flag _dropped;
    std::function<void()> _task;
    bool _hasBegun = false;
};

TimerScheduler::~TimerScheduler() {
    {
        const Lock lock(_mutex);
        _stopped = true;
        _changed.notifyOne();
    }
    _timer.stop();
    _workers.stop();
    const Lock lock(_mutex);
    for (const auto& [due, entry] : _waiting) {
        entry->cancel();
    }
}

Result<void> TimerScheduler::start() {
    if (!_timer.start()) {
        return makeNoThreadError("the scheduler");
    }
    _timer.addOperation([this] { _keepTime(); });
    return {};
}

std::shared_ptr<ScheduledTask> TimerScheduler::runAfter(std::chrono::milliseconds delay,
                                                        std::function<void()> task) noexcept {
    auto entry = std::make_shared<Entry>(std::move(task));
    const auto now = Clock::now();
    // A delay that the clock cannot express never comes due.
    const auto maxDelay = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now);
    const Lock lock(_mutex);
    const auto place = _waiting.emplace(now + std::clamp(delay, std::chrono::milliseconds(0), maxDelay), entry);
    if (place == _waiting.begin()) {
        _changed.notifyOne();
    }
    return entry;
}

void TimerScheduler::_keepTime() {
    while (const auto entry = _waitForNext()) {
        _workers.addOperation([entry] { entry->run(); });
    }
}

/// The entry that is due; null when the scheduler ends.
std::shared_ptr<TimerScheduler::Entry> TimerScheduler::_waitForNext() {
    const Lock lock(_mutex);
    while (!_stopped) {
        if (_waiting.empty()) {
            _changed.wait(_mutex);
            continue;
        }
        const auto first = _waiting.begin();
        if (first->first <= Clock::now()) {
            return _waiting.extract(first).mapped();
        }
        const auto due = first->first;
        _changed.waitUntil(_mutex, due);
    }
    return nullptr;
}

} // namespace appsync::device
