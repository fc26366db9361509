#include "values/Description.h"

namespace appsync {

std::string_view cutText(std::string_view text, std::size_t limit) noexcept {
    if (text.size() <= limit) {
        return text;
    }
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xC0U) == 0x80) { // within a character
        --limit;
    }
    return text.substr(0, limit);
}

void Description::cut(std::string_view piece) {
    _out.append(cutText(piece, _left)).append("... (cut after ").append(std::to_string(_limit)).append(" bytes)");
    _left = 0;
    _isFull = true;
}

} // namespace appsync
