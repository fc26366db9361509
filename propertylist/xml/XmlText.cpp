#include "propertylist/xml/XmlText.h"

#include "propertylist/Utf.h"

namespace appsync::propertylist {

bool isForbiddenInXml(std::string_view text, std::size_t i) noexcept {
    const char c = text[i];
    if (static_cast<unsigned char>(c) < 0x20) {
        return c != '\t' && c != '\n' && c != '\r';
    }
    return c == '\xEF' && (text.substr(i, 3) == "\xEF\xBF\xBE" || text.substr(i, 3) == "\xEF\xBF\xBF");
}

bool isXmlText(std::string_view text) noexcept {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isForbiddenInXml(text, i)) {
            return false;
        }
    }
    return isUtf8(text);
}

std::string xmlTextFrom(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        std::size_t length = characterLength(text);
        const bool isHeld = length != 0 && !isForbiddenInXml(text, 0);
        length = length == 0 ? 1 : length;
        out += isHeld ? text.substr(0, length) : replacementCharacter;
        text.remove_prefix(length);
    }
    return out;
}

} // namespace appsync::propertylist
