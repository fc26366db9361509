// Runs tasks one at a time, each on its caller's thread.
#pragma once

#include "concurrency/Mutex.h"

#include <concepts>
#include <string>
#include <utility>

namespace appsync {

class CAPABILITY("serial queue") SerialQueue {
  public:
    explicit SerialQueue(std::string label) : _label(std::move(label)) {}
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Runs the task when no other runs, and returns its result. Not to be called from within a task of this queue. A
    /// task that uses what the queue guards says so: `[&]() REQUIRES(queue) { … }`.
    template <std::invocable Task> auto sync(Task&& task) NOT_CHECKED_FOR_LOCKS {
        const Lock lock(_mutex);
        return std::forward<Task>(task)();
    }
    [[nodiscard]] const std::string& label() const noexcept { return _label; }

  private:
    const std::string _label;
    Mutex _mutex;
};

} // namespace appsync
