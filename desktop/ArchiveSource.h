// Hands an archive over in pieces, as it goes down the cable.
#pragma once

#include "platform/Error.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace appsync::desktop {

class ArchiveSource {
  public:
    /// Nothing, and the reason in `error`, when the archive cannot be opened.
    [[nodiscard]] static std::optional<ArchiveSource> open(const std::string& path, ErrorPtr* error);
    ~ArchiveSource();
    ArchiveSource(ArchiveSource&& other) noexcept;
    ArchiveSource& operator=(ArchiveSource&& other) noexcept;

    /// In bytes.
    [[nodiscard]] std::uint64_t size() const noexcept { return _size; }
    /// Fills the buffer with the next piece; its length, 0 at the end. Nothing, and the reason in `error`, when the
    /// archive cannot be read or has become shorter.
    [[nodiscard]] std::optional<std::size_t> read(std::span<char> buffer, ErrorPtr* error);

  private:
    ArchiveSource(std::string path, int descriptor, std::uint64_t size);

    std::string _path;
    int _descriptor;
    std::uint64_t _size;
    std::uint64_t _read = 0;
};

} // namespace appsync::desktop
