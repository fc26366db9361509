// The bytes of an open archive.
#pragma once

#include "archive/ArchiveMemory.h"
#include "archive/InstallerError.h"
#include "values/Result.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

namespace appsync {

/// Reads where it is asked to and leaves the file's offset alone. Used on one thread at a time.
class ArchiveFile {
  public:
    /// The descriptor must stay open, and `refuse` and `memory` be there, as long as the object is used. Refused is
    /// what is no regular file.
    [[nodiscard]] static Result<ArchiveFile> open(int file, const Refusal& refuse, ArchiveMemory& memory);

    /// Not copied: two objects must not read with the same memory.
    ArchiveFile(ArchiveFile&& other) noexcept
        : _file(other._file), _size(other._size), _refuse(other._refuse),
          _memory(std::exchange(other._memory, nullptr)), _start(other._start), _length(other._length) {}
    ArchiveFile& operator=(ArchiveFile&&) = delete;

    /// The same file, for another thread.
    [[nodiscard]] ArchiveFile another(ArchiveMemory& memory) const { return {_file, _size, *_refuse, memory}; }
    /// What it is read with.
    [[nodiscard]] ArchiveMemory& memory() noexcept { return *_memory; }

    /// In bytes, when it was opened.
    [[nodiscard]] std::uint64_t size() const noexcept { return _size; }
    /// `size` bytes from `offset` on, which do not go beyond the file's size. Valid until the next call. Refused when
    /// the file does not have them any more.
    [[nodiscard]] Result<std::string_view> read(std::uint64_t offset, std::size_t size);
    /// The same into a place of the caller's, for what is large or stays.
    [[nodiscard]] Result<void> read(std::uint64_t offset, std::span<char> into);

  private:
    ArchiveFile(int file, std::uint64_t size, const Refusal& refuse, ArchiveMemory& memory)
        : _file(file), _size(size), _refuse(&refuse), _memory(&memory) {}
    [[nodiscard]] bool _has(std::uint64_t offset, std::size_t size) const noexcept;
    [[nodiscard]] Result<void> _readFile(std::uint64_t offset, std::span<char> into) const;

    int _file;
    std::uint64_t _size;
    const Refusal* _refuse;
    ArchiveMemory* _memory;
    // What was read last and is in memory: `_length` bytes from `_start` on.
    std::uint64_t _start = 0;
    std::size_t _length = 0;
};

} // namespace appsync
