#include "propertylist/xml/Base64.h"

#include <array>
#include <cstdint>

namespace appsync::propertylist {

namespace {

constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t space = 64;
constexpr std::uint8_t padding = 65;
constexpr std::uint8_t wrong = 66;

constexpr std::array<std::uint8_t, 256> makeMeanings() {
    std::array<std::uint8_t, 256> meanings{};
    meanings.fill(wrong);
    for (std::size_t i = 0; i < digits.size(); ++i) {
        meanings[static_cast<unsigned char>(digits[i])] = static_cast<std::uint8_t>(i);
    }
    for (const char c : {' ', '\t', '\n', '\r'}) {
        meanings[static_cast<unsigned char>(c)] = space;
    }
    meanings[static_cast<unsigned char>('=')] = padding;
    return meanings;
}

constexpr auto meanings = makeMeanings();

} // namespace

void appendBase64(std::string& out, std::string_view bytes) {
    const auto byteOrZero = [&](std::size_t i) -> std::uint32_t {
        return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0;
    };
    out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::uint32_t group = byteOrZero(i) << 16 | byteOrZero(i + 1) << 8 | byteOrZero(i + 2);
        out += digits[group >> 18];
        out += digits[group >> 12 & 63];
        out += i + 1 < bytes.size() ? digits[group >> 6 & 63] : '=';
        out += i + 2 < bytes.size() ? digits[group & 63] : '=';
    }
}

std::optional<std::string> bytesFromBase64(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    std::size_t held = 0;
    std::size_t padded = 0;
    for (const char c : text) {
        const std::uint8_t meaning = meanings[static_cast<unsigned char>(c)];
        if (meaning == space) {
            continue;
        }
        if (meaning == padding) {
            ++padded;
            continue;
        }
        if (meaning == wrong || padded != 0) {
            return std::nullopt;
        }
        group = group << 6 | meaning;
        if (++held == 4) {
            bytes += static_cast<char>(group >> 16);
            bytes += static_cast<char>(group >> 8 & 0xFF);
            bytes += static_cast<char>(group & 0xFF);
            group = 0;
            held = 0;
        }
    }
    if (held == 1 || padded != (held == 0 ? 0 : 4 - held)) {
        return std::nullopt;
    }
    if (held >= 2) {
        group <<= 6 * (4 - held);
        bytes += static_cast<char>(group >> 16);
    }
    if (held == 3) {
        bytes += static_cast<char>(group >> 8 & 0xFF);
    }
    return bytes;
}

} // namespace appsync::propertylist
