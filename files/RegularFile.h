// Files that others may have put there, and may change or replace at any moment.
#pragma once

#include "files/Descriptor.h"
#include "values/Result.h"

#include <cstdint>
#include <string>

namespace appsync {

/// What tells one state of a file from another.
struct FileStamp {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;   // in bytes
    std::int64_t seconds = 0; // when it was modified
    std::int64_t nanoseconds = 0;

    bool operator==(const FileStamp&) const = default;
};

/// A file opened for reading.
class RegularFile {
  public:
    /// Never waits. What is no regular file (a pipe, a device, a folder) is refused; links are followed.
    [[nodiscard]] static Result<RegularFile> open(const std::string& path);

    [[nodiscard]] int descriptor() const noexcept { return _descriptor.get(); }
    /// The file's state when it was opened.
    [[nodiscard]] const FileStamp& stamp() const noexcept { return _stamp; }
    /// Whether it is still in that state.
    [[nodiscard]] bool isUnchanged() const noexcept;

  private:
    RegularFile(Descriptor descriptor, const FileStamp& stamp) : _descriptor(std::move(descriptor)), _stamp(stamp) {}

    Descriptor _descriptor;
    FileStamp _stamp;
};

} // namespace appsync
