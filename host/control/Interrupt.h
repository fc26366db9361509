// Ctrl-C as a request to end cleanly.
#pragma once

#include <chrono>

namespace appsync::host {

/// While one lives, SIGINT and SIGTERM do not end the process; the first is remembered, a second ends it at once. At
/// most one lives at a time.
class Interrupt {
  public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    /// Whether one lives and one of the signals has come.
    [[nodiscard]] static bool requested() noexcept;
    /// Returns after that time, or as soon as a signal has come.
    void waitFor(std::chrono::nanoseconds time) const noexcept;
    /// Becomes readable, and stays so, when one of the signals has come.
    [[nodiscard]] int descriptor() const noexcept { return _event; }

  private:
    int _event;
};

} // namespace appsync::host
