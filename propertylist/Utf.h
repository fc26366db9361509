// Checks of UTF-8 and conversions from and to UTF-16 in big-endian order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace appsync::propertylist {

inline constexpr std::size_t allValid = static_cast<std::size_t>(-1);

/// U+FFFD, which stands for what is no character or cannot be held.
inline constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

/// How many bytes the character at the front of a text that is not empty takes; 0 when the first byte is not part of
/// one.
[[nodiscard]] std::size_t characterLength(std::string_view text) noexcept;

[[nodiscard]] bool isAscii(std::string_view text) noexcept;

/// Where the first byte stands that is not part of a character: overlong forms, surrogates, values above U+10FFFF and
/// characters that are cut off count as wrong from their first byte on. `allValid` when there is none.
[[nodiscard]] std::size_t invalidUtf8(std::string_view text) noexcept;
[[nodiscard]] inline bool isUtf8(std::string_view text) noexcept {
    return invalidUtf8(text) == allValid;
}

/// The number of 16-bit units of valid UTF-8.
[[nodiscard]] std::size_t utf16Length(std::string_view utf8) noexcept;
/// Writes valid UTF-8 as UTF-16, two bytes for each unit. Where the next byte goes.
char* writeUtf16(char* at, std::string_view utf8) noexcept;

/// Appends a character, which is no surrogate and at most U+10FFFF.
void appendCharacter(std::string& out, std::uint32_t character);

/// Appends UTF-16 (an even number of bytes) as UTF-8. Where the first unpaired surrogate stands, in bytes, or
/// `allValid`.
[[nodiscard]] std::size_t appendUtf8(std::string& out, std::string_view utf16);

} // namespace appsync::propertylist
