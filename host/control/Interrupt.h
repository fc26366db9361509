// Ctrl-C, and what else asks a process to end, as a request to end cleanly.
#pragma once

#include "host/ExitCode.h"

#include <array>
#include <chrono>

namespace appsync::host {

/// While one lives, none of SIGINT, SIGTERM, SIGHUP and SIGPIPE ends the process; the first is remembered. A second
/// SIGINT or SIGTERM ends it at once, but not the others: they come in numbers when a terminal or a reader goes away.
/// What the process ignored before it goes on ignoring, but for SIGPIPE. At most one lives at a time.
class Interrupt {
  public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    /// Whether one lives and one of the signals has come.
    [[nodiscard]] static bool requested() noexcept;
    /// The exit code for the signal that has come; `done` when none has.
    [[nodiscard]] static ExitCode exitCode() noexcept;
    /// Returns after that time, or as soon as a signal has come.
    void waitFor(std::chrono::nanoseconds time) const noexcept;
    /// Becomes readable, and stays so, when one of the signals has come.
    [[nodiscard]] int descriptor() const noexcept { return _event; }

  private:
    int _event;
    std::array<void (*)(int), 4> _before{}; // what became of each signal
};

} // namespace appsync::host
