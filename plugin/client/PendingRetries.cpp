#include "plugin/client/PendingRetries.h"

#include "platform/Scheduler.h"

#include <utility>

namespace appsync {

PendingRetries::~PendingRetries() {
    dropAll();
}

void PendingRetries::runAfter(std::chrono::milliseconds delay, std::function<void()> task) {
    const std::uint64_t number = _expect();
    auto handle = _scheduler.runAfter(delay, [this, number, task = std::move(task)] {
        task();
        _forget(number);
    });
    const Lock lock(_mutex);
    if (const auto entry = _tasks.find(number); entry != _tasks.end()) {
        entry->second = std::move(handle);
    }
}

void PendingRetries::dropAll() {
    std::map<std::uint64_t, std::shared_ptr<ScheduledTask>> tasks;
    {
        const Lock lock(_mutex);
        tasks.swap(_tasks);
    }
    for (const auto& [number, task] : tasks) {
        if (task) {
            task->cancel();
        }
    }
}

std::uint64_t PendingRetries::_expect() {
    const Lock lock(_mutex);
    _tasks[++_lastNumber] = nullptr;
    return _lastNumber;
}

void PendingRetries::_forget(std::uint64_t number) {
    const Lock lock(_mutex);
    _tasks.erase(number);
}

} // namespace appsync
