// Slows a transfer down as a cable would.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace appsync::host {

/// Of a text like "10MB/s" or "500 kB/s": bytes a second, at least 1; the units B, kB, MB, GB are powers of 1,000, "/s"
/// may be left out. Nullopt when it is none.
[[nodiscard]] std::optional<std::uint64_t> parseBandwidth(std::string_view text);

/// Keeps what is sent through it within a bandwidth. Used by one thread.
class Bandwidth {
  public:
    using Clock = std::chrono::steady_clock;

    /// `wait` returns when that much time has passed, or earlier when the transfer is to end.
    Bandwidth(std::uint64_t bytesPerSecond, std::function<void(std::chrono::nanoseconds)> wait,
              std::function<Clock::time_point()> now = Clock::now)
        : _bytesPerSecond(bytesPerSecond), _wait(std::move(wait)), _now(std::move(now)) {}

    /// How many bytes to send at once, so that pieces come about twenty times a second.
    [[nodiscard]] std::size_t pieceSize(std::size_t largest) const;
    /// To be called when bytes have been sent: waits until more may follow.
    void sent(std::size_t bytes);

  private:
    const std::uint64_t _bytesPerSecond;
    const std::function<void(std::chrono::nanoseconds)> _wait;
    const std::function<Clock::time_point()> _now;
    std::optional<Clock::time_point> _free; // when the cable has carried everything so far
};

} // namespace appsync::host
