#include "values/BundleIdentifier.h"

#include <algorithm>

namespace appsync {

bool isBundleIdentifier(std::string_view text) noexcept {
    constexpr std::size_t maxSize = 200; // with an extension it is still a file name
    const auto isPlain = [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
               byte == '.' || byte == '-' || byte == '_';
    };
    return !text.empty() && text.size() <= maxSize && text.front() != '.' && std::ranges::all_of(text, isPlain);
}

} // namespace appsync
