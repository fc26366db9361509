#include "desktop/Version.h"

#include <algorithm>

namespace appsync::desktop {

namespace {

/// Takes the first component off.
std::string_view takeComponent(std::string_view& version) noexcept {
    const std::size_t dot = std::min(version.find('.'), version.size());
    const std::string_view component = version.substr(0, dot);
    version.remove_prefix(std::min(dot + 1, version.size()));
    return component;
}

bool isNumber(std::string_view component) noexcept {
    return std::ranges::all_of(component, [](char c) { return c >= '0' && c <= '9'; });
}

/// The digits may be too many for any number.
std::strong_ordering compareNumbers(std::string_view a, std::string_view b) noexcept {
    a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
    b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
    return a.size() != b.size() ? a.size() <=> b.size() : a <=> b;
}

} // namespace

std::partial_ordering compareVersions(std::string_view a, std::string_view b) noexcept {
    while (!a.empty() || !b.empty()) {
        const std::string_view one = takeComponent(a);
        const std::string_view other = takeComponent(b);
        if (one == other) {
            continue;
        }
        if (!isNumber(one) || !isNumber(other)) {
            return std::partial_ordering::unordered;
        }
        if (const auto order = compareNumbers(one, other); std::is_neq(order)) {
            return order;
        }
    }
    return std::partial_ordering::equivalent;
}

} // namespace appsync::desktop
