#include "values/Description.h"

namespace appsync {

void Description::cut(std::string_view piece) {
    std::size_t end = _left;
    while (end > 0 && (static_cast<unsigned char>(piece[end]) & 0xC0U) == 0x80) { // within a character
        --end;
    }
    _out.append(piece.substr(0, end)).append("... (cut after ").append(std::to_string(_limit)).append(" bytes)");
    _left = 0;
    _isFull = true;
}

} // namespace appsync
