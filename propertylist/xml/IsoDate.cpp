#include "propertylist/xml/IsoDate.h"

#include <chrono>
#include <cmath>

namespace appsync::propertylist {

namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;
using namespace std::chrono_literals;

constexpr sys_days referenceDay = 2001y / 1 / 1;
constexpr std::int64_t daySeconds = 86400;
constexpr std::int64_t firstSecond = (sys_days(1y / 1 / 1) - referenceDay).count() * daySeconds;
constexpr std::int64_t endSecond = (sys_days(10000y / 1 / 1) - referenceDay).count() * daySeconds;

void appendDigits(std::string& out, std::int64_t number, int width) {
    std::string digits = std::to_string(number);
    out.append(static_cast<std::size_t>(width) - digits.size(), '0');
    out += digits;
}

/// The number written in `text[from, from + width)`, or -1 when it is not all digits.
int digitsAt(std::string_view text, std::size_t from, std::size_t width) noexcept {
    int number = 0;
    for (const char c : text.substr(from, width)) {
        if (c < '0' || c > '9') {
            return -1;
        }
        number = number * 10 + (c - '0');
    }
    return number;
}

} // namespace

std::optional<std::string> textFromDate(Date date) {
    const double whole = std::floor(date.secondsSinceReference);
    if (!(whole >= static_cast<double>(firstSecond) && whole < static_cast<double>(endSecond))) {
        return std::nullopt;
    }
    const auto seconds = static_cast<std::int64_t>(whole) - firstSecond; // not negative, so that division rounds down
    const year_month_day day(sys_days(1y / 1 / 1) + std::chrono::days(seconds / daySeconds));
    const std::int64_t time = seconds % daySeconds;
    std::string out;
    appendDigits(out, static_cast<int>(day.year()), 4);
    out += '-';
    appendDigits(out, static_cast<unsigned>(day.month()), 2);
    out += '-';
    appendDigits(out, static_cast<unsigned>(day.day()), 2);
    out += 'T';
    appendDigits(out, time / 3600, 2);
    out += ':';
    appendDigits(out, time / 60 % 60, 2);
    out += ':';
    appendDigits(out, time % 60, 2);
    out += 'Z';
    return out;
}

std::optional<Date> dateFromText(std::string_view text) noexcept {
    if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
        text[16] != ':' || text[19] != 'Z') {
        return std::nullopt;
    }
    const int year = digitsAt(text, 0, 4);
    const int month = digitsAt(text, 5, 2);
    const int day = digitsAt(text, 8, 2);
    const int hour = digitsAt(text, 11, 2);
    const int minute = digitsAt(text, 14, 2);
    const int second = digitsAt(text, 17, 2);
    if (year < 1 || month < 1 || day < 1 || hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 ||
        second > 59) {
        return std::nullopt;
    }
    const year_month_day date(std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day)));
    if (!date.ok()) {
        return std::nullopt;
    }
    const std::int64_t days = (sys_days(date) - referenceDay).count();
    return Date{static_cast<double>(days * daySeconds + hour * 3600L + minute * 60L + second)};
}

} // namespace appsync::propertylist
