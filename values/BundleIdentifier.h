// What names an app.
#pragma once

#include <string_view>

namespace appsync {

/// Whether a text can be a bundle identifier, and so the name of an app's folders and files; the rule says when.
[[nodiscard]] bool isBundleIdentifier(std::string_view text) noexcept;
inline constexpr std::string_view bundleIdentifierRule =
    "it must have 1 to 200 letters, digits, \".\", \"-\" or \"_\", and not begin with \".\"";

} // namespace appsync
