#include "text/Printable.h"

#include "propertylist/Utf.h"

#include <utf8proc.h>

#include <cassert>

namespace appsync {

namespace {

using propertylist::characterLength;
using propertylist::replacementCharacter;

constexpr std::string_view ellipsis = "\xE2\x80\xA6";

bool isNoCharacter(char32_t c) {
    return (c & 0xFFFE) == 0xFFFE || (c >= 0xFDD0 && c <= 0xFDEF);
}

/// What stands between words or lines, or their ends.
bool isSeparator(char32_t c) {
    return (c >= '\t' && c <= '\r') || c == 0x85 || c == 0x2028 || c == 0x2029;
}

/// On a terminal.
std::size_t columnsOf(char32_t c) {
    const auto character = static_cast<utf8proc_int32_t>(c);
    const bool isUnknown = utf8proc_category(character) == UTF8PROC_CATEGORY_CN;
    return isUnknown ? 1 : static_cast<std::size_t>(utf8proc_charwidth(character));
}

} // namespace

bool isPrintable(char32_t c) noexcept {
    constexpr char32_t nonJoiner = 0x200C;
    constexpr char32_t joiner = 0x200D;
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(c))) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP: return false;
    case UTF8PROC_CATEGORY_CF: return c == nonJoiner || c == joiner;
    case UTF8PROC_CATEGORY_CN: return !isNoCharacter(c); // a later standard may have it
    default: return true;
    }
}

char32_t takeCharacter(std::string_view& text) noexcept {
    assert(!text.empty());
    constexpr char32_t replacement = 0xFFFD;
    const std::size_t length = characterLength(text);
    utf8proc_int32_t character = replacement;
    if (length != 0) {
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(length),
                         &character);
    }
    text.remove_prefix(length == 0 ? 1 : length);
    return static_cast<char32_t>(character);
}

std::string printable(std::string_view text, std::size_t limit) {
    assert(limit != 0);
    std::string out;
    for (std::size_t count = 0; !text.empty(); ++count) {
        if (count == limit) {
            return out.append(ellipsis);
        }
        const std::string_view from = text;
        const std::size_t length = characterLength(from);
        const char32_t character = takeCharacter(text);
        if (isSeparator(character)) {
            out += ' ';
        } else {
            out += length != 0 && isPrintable(character) ? from.substr(0, length) : replacementCharacter;
        }
    }
    return out;
}

std::size_t displayWidth(std::string_view text) noexcept {
    std::size_t width = 0;
    while (!text.empty()) {
        width += columnsOf(takeCharacter(text));
    }
    return width;
}

std::string_view frontOf(std::string_view text, std::size_t columns) noexcept {
    std::size_t kept = 0; // bytes
    std::size_t width = 0;
    utf8proc_int32_t state = 0;
    char32_t before = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t place = text.size() - rest.size();
        const char32_t character = takeCharacter(rest);
        const bool beginsAnew = utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(before),
                                                                 static_cast<utf8proc_int32_t>(character), &state);
        kept = place == 0 || beginsAnew ? place : kept;
        width += columnsOf(character);
        if (width > columns) {
            return text.substr(0, kept);
        }
        before = character;
    }
    return text;
}

std::string fitted(std::string_view text, std::size_t columns) {
    if (displayWidth(text) <= columns) {
        return std::string(text);
    }
    return columns == 0 ? std::string() : std::string(frontOf(text, columns - 1)).append(ellipsis);
}

} // namespace appsync
