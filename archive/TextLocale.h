// The archive library renders names in the thread's locale.
#pragma once

#include <locale.h>

namespace appsync {

/// While it lives, texts of its thread are UTF-8, whatever the process has chosen.
class TextLocale {
  public:
    TextLocale() noexcept;
    ~TextLocale();
    TextLocale(const TextLocale&) = delete;
    TextLocale& operator=(const TextLocale&) = delete;

  private:
    locale_t _previous = nullptr; // null when nothing was changed
};

} // namespace appsync
