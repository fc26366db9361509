// Which characters XML can hold.
#pragma once

#include <string>
#include <string_view>

namespace appsync::propertylist {

/// True at the beginning of a character that XML has no way to write: most control characters, U+FFFE and U+FFFF.
/// The text is valid UTF-8.
[[nodiscard]] bool isForbiddenInXml(std::string_view text, std::size_t i) noexcept;

/// True when XML can hold the text as it is: valid UTF-8 without forbidden characters.
[[nodiscard]] bool isXmlText(std::string_view text) noexcept;

/// The text with U+FFFD, the replacement character, for each forbidden character and each byte that is not UTF-8.
[[nodiscard]] std::string xmlTextFrom(std::string_view text);

} // namespace appsync::propertylist
