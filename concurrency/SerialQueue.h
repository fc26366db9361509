// Runs tasks one at a time, each on its caller's thread.
#pragma once

#include <concepts>
#include <mutex>
#include <string>
#include <utility>

namespace appsync {

class SerialQueue {
  public:
    explicit SerialQueue(std::string label) : _label(std::move(label)) {}
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Runs the task when no other runs, and returns its result. Not to be called from within a task of this queue.
    template <std::invocable Task> auto sync(Task&& task) {
        const std::lock_guard lock(_mutex);
        return std::forward<Task>(task)();
    }
    [[nodiscard]] const std::string& label() const noexcept { return _label; }

  private:
    const std::string _label;
    std::mutex _mutex;
};

} // namespace appsync
