#include "device/screen/ScreenText.h"

#include <cstdint>

namespace appsync::device {

namespace {

constexpr std::string_view Replacement = "\xEF\xBF\xBD";
constexpr std::string_view Ellipsis = "\xE2\x80\xA6";
/// No name that fits on a screen has more characters.
constexpr std::size_t LongestName = 80;

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
}

/// How many bytes the well-formed character at the front takes; 0 when there is none.
std::size_t characterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
        return 1;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    std::uint32_t point = first & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(text[i])) {
            return 0;
        }
        point = point << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
    return point >= smallest[length] && point <= 0x10FFFF && !isSurrogate ? length : 0;
}

double widthOf(cairo_t* context, const std::string& text) {
    cairo_text_extents_t extents;
    cairo_text_extents(context, text.c_str(), &extents);
    return extents.x_advance;
}

void dropLastCharacter(std::string& text) {
    while (!text.empty() && isContinuation(text.back())) {
        text.pop_back();
    }
    if (!text.empty()) {
        text.pop_back();
    }
}

} // namespace

std::string wellFormed(std::string_view text, std::size_t limit) {
    std::string out;
    for (std::size_t count = 0; count < limit && !text.empty(); ++count) {
        const std::size_t length = characterLength(text);
        const auto first = static_cast<unsigned char>(text.front());
        if (length == 1 && (first < 0x20 || first == 0x7F)) {
            out += ' ';
        } else {
            out += length == 0 ? Replacement : text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

std::string firstLetter(std::string_view text) {
    std::string letter = wellFormed(text, 1);
    if (letter.empty() || letter == " ") {
        return "?";
    }
    if (letter[0] >= 'a' && letter[0] <= 'z') {
        letter[0] = static_cast<char>(letter[0] - 'a' + 'A');
    }
    return letter;
}

std::string shortened(cairo_t* context, std::string_view text, double width) {
    std::string whole = wellFormed(text, LongestName);
    const bool isCut = wellFormed(text, LongestName + 1).size() > whole.size();
    if (!isCut && widthOf(context, whole) <= width) {
        return whole;
    }
    const double room = width - widthOf(context, std::string(Ellipsis));
    while (!whole.empty() && widthOf(context, whole) > room) {
        dropLastCharacter(whole);
    }
    while (whole.ends_with(' ')) {
        whole.pop_back();
    }
    return whole.append(Ellipsis);
}

void showCentred(cairo_t* context, const std::string& text, double x, double y) {
    cairo_move_to(context, x - widthOf(context, text) / 2, y);
    cairo_show_text(context, text.c_str());
}

} // namespace appsync::device
