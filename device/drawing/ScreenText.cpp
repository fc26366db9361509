#include "device/drawing/ScreenText.h"

#include "text/Printable.h"

namespace appsync::device {

namespace {

constexpr std::string_view ellipsis = "\xE2\x80\xA6";
/// No name that fits on a screen has more characters.
constexpr std::size_t maxNameLength = 80;

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
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

std::string firstLetter(std::string_view text) {
    std::string_view rest = text;
    if (!rest.empty()) {
        (void)takeCharacter(rest);
    }
    std::string letter = printable(text.substr(0, text.size() - rest.size()));
    if (letter.empty() || letter == " ") {
        return "?";
    }
    if (letter[0] >= 'a' && letter[0] <= 'z') {
        letter[0] = static_cast<char>(letter[0] - 'a' + 'A');
    }
    return letter;
}

std::string shortened(cairo_t* context, std::string_view text, double width) {
    std::string whole = printable(text, maxNameLength);
    if (widthOf(context, whole) <= width) {
        return whole;
    }
    const double room = width - widthOf(context, std::string(ellipsis));
    while (!whole.empty() && widthOf(context, whole) > room) {
        dropLastCharacter(whole);
    }
    while (whole.ends_with(' ')) {
        whole.pop_back();
    }
    return whole.append(ellipsis);
}

void showCentred(cairo_t* context, const std::string& text, double x, double y) {
    cairo_move_to(context, x - widthOf(context, text) / 2, y);
    cairo_show_text(context, text.c_str());
}

} // namespace appsync::device
