#include "device/archive/EntryPath.h"

#include <cstdint>

namespace appsync::device {

namespace {

/// Length of the UTF-8 sequence that a text begins with; 0 when it is none, an overlong one, or no character's.
std::size_t sequenceLength(std::string_view text) noexcept {
    const auto byte = [&](std::size_t place) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(text[place]));
    };
    const std::uint32_t first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) {
        return 0;
    }
    std::uint32_t character = first & (0x7fU >> length);
    for (std::size_t place = 1; place < length; ++place) {
        if ((byte(place) & 0xc0) != 0x80) {
            return 0;
        }
        character = character << 6 | (byte(place) & 0x3f);
    }
    const bool isOverlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
    const bool isSurrogate = character >= 0xd800 && character < 0xe000;
    return isOverlong || isSurrogate || character > 0x10ffff ? 0 : length;
}

std::optional<std::string_view> findUnsafeName(std::string_view name) noexcept {
    constexpr std::size_t maximumNameBytes = 255;
    if (name.empty()) {
        return "has an empty name in its path";
    }
    if (name == "." || name == "..") {
        return "has \".\" or \"..\" in its path";
    }
    if (name.size() > maximumNameBytes) {
        return "has a name of more than 255 bytes";
    }
    return std::nullopt;
}

} // namespace

bool isUtf8(std::string_view text) noexcept {
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::optional<std::string_view> findUnsafe(std::string_view path, const ArchiveLimits& limits) noexcept {
    if (path.starts_with('/')) {
        return "has an absolute path";
    }
    if (path.size() > limits.pathBytes) {
        return "has too long a path";
    }
    for (const char byte : path) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x20 || value == 0x7f || byte == '\\') {
            return "has a control character or a backslash in its path";
        }
    }
    if (!isUtf8(path)) {
        return "has a path that is not valid UTF-8";
    }
    std::uint64_t depth = 0;
    for (std::string_view rest = path;;) {
        const std::size_t slash = rest.find('/');
        if (const auto unsafe = findUnsafeName(rest.substr(0, slash))) {
            return unsafe;
        }
        if (slash == std::string_view::npos) {
            return std::nullopt;
        }
        if (++depth > limits.pathDepth) {
            return "lies too many folders deep";
        }
        rest.remove_prefix(slash + 1);
    }
}

} // namespace appsync::device
