// Says why an archive is refused: which archive, which entry of it, and what is wrong.
#pragma once

#include "device/archive/InstallerError.h"

#include <string>
#include <string_view>

namespace appsync::device {

class Refusal {
  public:
    /// `archive` is the archive's path on the device; it must outlive the object.
    explicit Refusal(const std::string& archive) : _archive(archive) {}

    [[nodiscard]] const std::string& archive() const noexcept { return _archive; }
    [[nodiscard]] ErrorPtr operator()(InstallerError code, std::string_view reason) const;
    [[nodiscard]] ErrorPtr operator()(InstallerError code, std::string_view entry, std::string_view reason) const;

  private:
    const std::string& _archive;
};

} // namespace appsync::device
