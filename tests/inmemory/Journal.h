// What happened, in order: every platform call and every message of the code under test, one line each.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::inmemory {

/// Any thread.
class Journal {
  public:
    void add(std::string line);
    /// The lines so far; the journal is empty afterwards.
    std::vector<std::string> take();
    [[nodiscard]] std::vector<std::string> lines() const;
    /// The lines so far that begin with a prefix.
    [[nodiscard]] std::vector<std::string> linesWith(std::string_view prefix) const;
    [[nodiscard]] std::size_t count(std::string_view line) const;
    /// Returns when a line that begins with the prefix has been added `times` times.
    void waitFor(std::string_view prefix, std::size_t times = 1) const;

  private:
    mutable std::mutex _mutex;
    mutable std::condition_variable _added;
    std::vector<std::string> _lines;
};

} // namespace appsync::inmemory
