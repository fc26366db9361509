// Which of two versions of an app is the older one.
#pragma once

#include <compare>
#include <string_view>

namespace appsync::desktop {

/// Compares component by component, as the dots part them: numbers by their value, a missing one as 0. The first pair
/// that differs decides; where one of it is no number there is no order. Never throws, whatever the texts.
[[nodiscard]] std::partial_ordering compareVersions(std::string_view a, std::string_view b) noexcept;

} // namespace appsync::desktop
