#include "archive/TextLocale.h"

namespace appsync {

namespace {

/// Made once, since that reads a large file.
locale_t utf8Locale() noexcept {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return utf8;
}

} // namespace

TextLocale::TextLocale() noexcept {
    if (const locale_t utf8 = utf8Locale()) {
        _previous = ::uselocale(utf8);
    }
}

TextLocale::~TextLocale() {
    if (_previous) {
        ::uselocale(_previous);
    }
}

} // namespace appsync
