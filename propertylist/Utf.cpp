#include "propertylist/Utf.h"

#include <cstring>

namespace appsync::propertylist {

namespace {

constexpr std::uint64_t highBits = 0x8080808080808080;

unsigned byteAt(std::string_view text, std::size_t i) noexcept {
    return static_cast<unsigned char>(text[i]);
}

std::size_t asciiPrefix(std::string_view text, std::size_t from) noexcept {
    while (text.size() - from >= 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + from, 8);
        if ((word & highBits) != 0) {
            break;
        }
        from += 8;
    }
    while (from < text.size() && byteAt(text, from) < 0x80) {
        ++from;
    }
    return from;
}

/// The length of the well-formed character that starts with a byte above 0x7F; 0 when there is none.
std::size_t longCharacterLength(std::string_view text, std::size_t i) noexcept {
    const unsigned lead = byteAt(text, i);
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() - i < length) {
        return 0;
    }
    // The second byte rules out overlong forms, surrogates and what lies above U+10FFFF.
    const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    const unsigned second = byteAt(text, i + 1);
    if (second < lowest || second > highest) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if ((byteAt(text, i + k) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

char* writeUnit(char* at, std::uint32_t unit) noexcept {
    at[0] = static_cast<char>(unit >> 8);
    at[1] = static_cast<char>(unit & 0xFF);
    return at + 2;
}

} // namespace

std::size_t characterLength(std::string_view text) noexcept {
    return byteAt(text, 0) < 0x80 ? 1 : longCharacterLength(text, 0);
}

bool isAscii(std::string_view text) noexcept {
    return asciiPrefix(text, 0) == text.size();
}

std::size_t invalidUtf8(std::string_view text) noexcept {
    for (std::size_t i = asciiPrefix(text, 0); i < text.size(); i = asciiPrefix(text, i)) {
        const std::size_t length = longCharacterLength(text, i);
        if (length == 0) {
            return i;
        }
        i += length;
    }
    return allValid;
}

std::size_t utf16Length(std::string_view utf8) noexcept {
    std::size_t units = 0;
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        units += static_cast<std::size_t>((byte & 0xC0) != 0x80) + static_cast<std::size_t>(byte >= 0xF0);
    }
    return units;
}

char* writeUtf16(char* at, std::string_view utf8) noexcept {
    for (std::size_t i = 0; i < utf8.size();) {
        const unsigned lead = byteAt(utf8, i);
        const std::size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
        std::uint32_t c = length == 1 ? lead : lead & (0x7FU >> length);
        for (std::size_t k = 1; k < length; ++k) {
            c = (c << 6) | (byteAt(utf8, i + k) & 0x3F);
        }
        if (c >= 0x10000) {
            at = writeUnit(at, 0xD800 + ((c - 0x10000) >> 10));
            at = writeUnit(at, 0xDC00 + ((c - 0x10000) & 0x3FF));
        } else {
            at = writeUnit(at, c);
        }
        i += length;
    }
    return at;
}

void appendCharacter(std::string& out, std::uint32_t c) {
    const auto tail = [&](unsigned shift) { out += static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        tail(0);
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        tail(6);
        tail(0);
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        tail(12);
        tail(6);
        tail(0);
    }
}

std::size_t appendUtf8(std::string& out, std::string_view utf16) {
    for (std::size_t i = 0; i < utf16.size(); i += 2) {
        std::uint32_t c = (byteAt(utf16, i) << 8) | byteAt(utf16, i + 1);
        if (c >= 0xD800 && c < 0xE000) {
            if (c >= 0xDC00 || utf16.size() - i < 4) {
                return i;
            }
            const std::uint32_t low = (byteAt(utf16, i + 2) << 8) | byteAt(utf16, i + 3);
            if (low < 0xDC00 || low >= 0xE000) {
                return i;
            }
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            i += 2;
        }
        appendCharacter(out, c);
    }
    return allValid;
}

} // namespace appsync::propertylist
