// Dates as text: "2001-02-03T04:05:06Z", in UTC, years 0001 to 9999.
#pragma once

#include "values/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>

namespace appsync::propertylist {

/// Rounded down to the second. Nullopt when the year has not four digits.
[[nodiscard]] std::optional<std::string> textFromDate(Date date);

/// Nullopt when the text has another form or names a day or time that does not exist.
[[nodiscard]] std::optional<Date> dateFromText(std::string_view text) noexcept;

} // namespace appsync::propertylist
