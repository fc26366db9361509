// Ctrl-C as a request to end cleanly.
#pragma once

namespace appsync::host {

/// While one lives, SIGINT and SIGTERM do not end the process; the first is remembered, a second ends it at once. At
/// most one lives at a time.
class Interrupt {
  public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    /// Whether one of the signals has come.
    [[nodiscard]] static bool requested() noexcept;
};

} // namespace appsync::host
