// Points in time as a person writes and reads them, in the time zone of this machine.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace appsync::host {

using TimePoint = std::chrono::system_clock::time_point;

[[nodiscard]] TimePoint presentTime();

/// "14:03:27", or without seconds "14:03"; of another day than `now` with its date before it, "2026-11-21 14:03:27".
[[nodiscard]] std::string localTime(TimePoint time, TimePoint now, bool withSeconds);

/// A clock time (14:05 or 14:05:30: when it last was that), a date, a date and a time in ISO form (2026-11-21T14:05:30,
/// with a blank in place of the T, with a Z for UTC), or an age (90s, 10m, 2h, 1d); nullopt for anything else.
[[nodiscard]] std::optional<TimePoint> parseTime(std::string_view text, TimePoint now);

} // namespace appsync::host
