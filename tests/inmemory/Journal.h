// What happened, in order: every platform call and every message of the code under test, one line each.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace appsync::inmemory {

/// Any thread.
class Journal {
  public:
    void add(std::string line);
    /// While it does not record, what is added is dropped.
    void setRecording(bool records) { _records = records; }
    [[nodiscard]] bool isRecording() const { return _records; }
    /// The lines so far; the journal is empty afterwards.
    std::vector<std::string> take();
    [[nodiscard]] std::vector<std::string> lines() const;
    /// The lines so far that begin with a prefix.
    [[nodiscard]] std::vector<std::string> linesWith(std::string_view prefix) const;
    [[nodiscard]] std::size_t count(std::string_view line) const;
    /// Runs the task once, when the next line that begins with the prefix is added: on the adder's thread, after the
    /// line and before the call that it stands for.
    void whenAdded(std::string prefix, std::function<void()> task);
    /// Returns when a line that begins with the prefix has been added `times` times.
    void waitFor(std::string_view prefix, std::size_t times = 1) const;

  private:
    std::atomic<bool> _records = true;
    mutable std::mutex _mutex;
    mutable std::condition_variable _added;
    std::vector<std::string> _lines;
    std::vector<std::pair<std::string, std::function<void()>>> _tasks; // by prefix
};

} // namespace appsync::inmemory
