// Hands an archive over in pieces, as it goes down the cable.
#pragma once

#include "desktop/AppArchive.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace appsync::desktop {

/// Hands over what the library's facts were read from and nothing else: an archive that has changed since, or changes
/// meanwhile, ends in an error.
class ArchiveSource {
  public:
    [[nodiscard]] static Result<ArchiveSource> open(const AppArchive& app);

    /// In bytes.
    [[nodiscard]] std::uint64_t size() const noexcept { return _file.stamp().size; }
    /// Leaves out what comes next. To be called before the first piece, with no more bytes than there are.
    [[nodiscard]] Result<void> skip(std::uint64_t bytes);
    /// Fills the buffer with the next piece; its length, 0 at the end, where the archive is known to be unchanged.
    [[nodiscard]] Result<std::size_t> read(std::span<char> buffer);

  private:
    ArchiveSource(std::string path, RegularFile file) : _path(std::move(path)), _file(std::move(file)) {}

    std::string _path;
    RegularFile _file;
    std::uint64_t _read = 0;
};

} // namespace appsync::desktop
