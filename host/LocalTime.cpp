#include "host/LocalTime.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <ctime>

namespace appsync::host {

namespace {

using std::chrono::seconds;

std::tm localParts(TimePoint time) {
    const std::time_t number = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::localtime_r(&number, &parts);
    return parts;
}

std::string formatted(const char* format, const std::tm& parts) {
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

/// The text read whole by a format of `strptime`.
std::optional<std::tm> parsedBy(const char* format, const std::string& text, std::tm parts) {
    const char* end = ::strptime(text.c_str(), format, &parts);
    return end && end == text.c_str() + text.size() ? std::optional(parts) : std::nullopt;
}

/// The first of the formats that fits.
template <std::size_t Count>
std::optional<std::tm> parsedByOne(const std::array<const char*, Count>& formats, const std::string& text,
                                   const std::tm& parts) {
    for (const char* format : formats) {
        if (const auto parsed = parsedBy(format, text, parts)) {
            return parsed;
        }
    }
    return std::nullopt;
}

/// The nearest that can be told.
TimePoint timePointOf(std::time_t time) {
    const auto inSeconds = [](TimePoint point) { return std::chrono::system_clock::to_time_t(point); };
    return std::chrono::system_clock::from_time_t(
        std::clamp(time, inSeconds(TimePoint::min()) + 1, inSeconds(TimePoint::max()) - 1));
}

std::optional<TimePoint> parseAge(std::string_view text, TimePoint now) {
    constexpr std::uint64_t maxAge = 100ULL * 366 * 24 * 3600; // seconds
    std::uint64_t number = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), number);
    if (end.ec != std::errc() || end.ptr + 1 != text.data() + text.size()) {
        return std::nullopt;
    }
    const char unit = text.back();
    const std::uint64_t length = unit == 's' ? 1 : unit == 'm' ? 60 : unit == 'h' ? 3600 : unit == 'd' ? 86'400 : 0;
    if (length == 0 || number > maxAge / length) {
        return std::nullopt;
    }
    return now - seconds(number * length);
}

} // namespace

TimePoint presentTime() {
    return std::chrono::system_clock::now();
}

std::string localTime(TimePoint time, TimePoint now, bool withSeconds) {
    const std::tm parts = localParts(time);
    const std::tm today = localParts(now);
    const bool isToday = parts.tm_year == today.tm_year && parts.tm_yday == today.tm_yday;
    return formatted(isToday ? "" : "%Y-%m-%d ", parts) + formatted(withSeconds ? "%H:%M:%S" : "%H:%M", parts);
}

std::optional<TimePoint> parseTime(std::string_view given, TimePoint now) {
    constexpr std::array clockForms{"%H:%M:%S", "%H:%M"};
    constexpr std::array dateForms{"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M",
                                   "%Y-%m-%d"};
    if (const auto age = parseAge(given, now)) {
        return age;
    }
    std::string text(given);
    std::tm midnight = localParts(now);
    midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
    midnight.tm_isdst = -1; // as that day has it
    if (auto clock = parsedByOne(clockForms, text, midnight)) {
        std::tm yesterday = *clock;
        --yesterday.tm_mday;
        const auto today = timePointOf(::mktime(&*clock));
        return today <= now ? today : timePointOf(::mktime(&yesterday));
    }
    const bool isUtc = text.ends_with('Z');
    if (isUtc) {
        text.pop_back();
    }
    auto date = parsedByOne(dateForms, text, midnight);
    if (!date) {
        return std::nullopt;
    }
    return timePointOf(isUtc ? ::timegm(&*date) : ::mktime(&*date));
}

} // namespace appsync::host
