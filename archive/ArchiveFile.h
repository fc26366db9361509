// The bytes of an open archive.
#pragma once

#include "archive/InstallerError.h"
#include "values/Result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace appsync {

/// Reads where it is asked to and leaves the file's offset alone. Used on one thread at a time.
class ArchiveFile {
  public:
    /// The descriptor must stay open and `refuse` be there as long as the object is used. Refused is what is no
    /// regular file.
    [[nodiscard]] static Result<ArchiveFile> open(int file, const Refusal& refuse);

    /// The same file, for another thread.
    [[nodiscard]] ArchiveFile another() const { return {_file, _size, *_refuse}; }

    /// In bytes, when it was opened.
    [[nodiscard]] std::uint64_t size() const noexcept { return _size; }
    /// `size` bytes from `offset` on, which do not go beyond the file's size. Valid until the next call. Refused when
    /// the file does not have them any more.
    [[nodiscard]] Result<std::string_view> read(std::uint64_t offset, std::size_t size);
    /// The same into a place of the caller's, for what is large or stays.
    [[nodiscard]] Result<void> read(std::uint64_t offset, std::span<char> into);

  private:
    ArchiveFile(int file, std::uint64_t size, const Refusal& refuse) : _file(file), _size(size), _refuse(&refuse) {}
    [[nodiscard]] bool _has(std::uint64_t offset, std::size_t size) const noexcept;
    [[nodiscard]] Result<void> _readFile(std::uint64_t offset, std::span<char> into) const;

    int _file;
    std::uint64_t _size;
    const Refusal* _refuse;
    // What was read last: `_length` bytes from `_start` on.
    std::unique_ptr<char[]> _bytes;
    std::size_t _capacity = 0;
    std::uint64_t _start = 0;
    std::size_t _length = 0;
};

} // namespace appsync
