// Which characters XML can hold.
#pragma once

#include <string_view>

namespace appsync::propertylist {

/// True at the beginning of a character that XML has no way to write: most control characters, U+FFFE and U+FFFF.
/// The text is valid UTF-8.
[[nodiscard]] inline bool isForbiddenInXml(std::string_view text, std::size_t i) noexcept {
    const char c = text[i];
    if (static_cast<unsigned char>(c) < 0x20) {
        return c != '\t' && c != '\n' && c != '\r';
    }
    return c == '\xEF' && (text.substr(i, 3) == "\xEF\xBF\xBE" || text.substr(i, 3) == "\xEF\xBF\xBF");
}

} // namespace appsync::propertylist
