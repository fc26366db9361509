// Says why an archive is refused, or a folder that is to become one: which, which entry of it, and what is wrong.
#pragma once

#include "archive/InstallerError.h"

#include <string>
#include <string_view>

namespace appsync {

class Refusal {
  public:
    /// `path` must outlive the object; `what` is there, such as "the archive".
    explicit Refusal(const std::string& path, std::string_view what = "the archive") : _path(path), _what(what) {}

    [[nodiscard]] ErrorPtr operator()(InstallerError code, std::string_view reason) const;
    [[nodiscard]] ErrorPtr operator()(InstallerError code, std::string_view entry, std::string_view reason) const;

  private:
    const std::string& _path;
    const std::string_view _what;
};

} // namespace appsync
