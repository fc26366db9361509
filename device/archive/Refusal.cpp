#include "device/archive/Refusal.h"

#include "device/archive/EntryPath.h"

namespace appsync::device {

ErrorPtr Refusal::operator()(InstallerError code, std::string_view reason) const {
    return makeInstallerError(code, "the archive " + _archive + " was refused: " + std::string(reason), _archive);
}

ErrorPtr Refusal::operator()(InstallerError code, std::string_view entry, std::string_view reason) const {
    return (*this)(code, "its entry \"" + printable(entry) + "\" " + std::string(reason));
}

std::string printable(std::string_view text) {
    constexpr std::size_t shown = 200;
    const bool isValid = isUtf8(text);
    std::string out;
    for (const char byte : text.substr(0, shown)) {
        const auto value = static_cast<unsigned char>(byte);
        const bool isPlain = value >= 0x20 && value != 0x7f && (value < 0x80 || isValid);
        out += isPlain ? byte : '?';
    }
    if (text.size() > shown) {
        while (!out.empty() && !isUtf8(out)) { // the cut may have gone through a character
            out.pop_back();
        }
        out += "...";
    }
    return out;
}

} // namespace appsync::device
