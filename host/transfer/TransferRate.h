// How fast a transfer goes, for a person: a figure that does not jump about.
#pragma once

#include <chrono>
#include <optional>

namespace appsync::host {

/// One thread.
class TransferRate {
  public:
    using Clock = std::chrono::steady_clock;

    /// So many bytes have been sent in all by then.
    void sent(double bytes, Clock::time_point now);
    /// Of the last seconds, of which the latest count most; nullopt until there is something to tell it by.
    [[nodiscard]] std::optional<double> bytesPerSecond() const noexcept { return _rate; }

  private:
    std::optional<Clock::time_point> _time; // of what was counted last
    double _bytes = 0;
    std::optional<double> _rate;
};

} // namespace appsync::host
