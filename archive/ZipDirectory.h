// The directory of a zip archive, read and checked before anything is unpacked.
//
// It states every entry's name, kind, sizes, checksum and place. What it says is checked against the limits and against
// itself; that the entries keep to it is checked while they are read (archive/ArchiveReader.h).
#pragma once

#include "archive/ArchiveFile.h"
#include "archive/ArchiveLimits.h"
#include "values/Result.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace appsync {

class ZipDirectory {
  public:
    enum class Kind { file, folder, link };
    struct Entry {
        std::string_view name; // as the archive spells it
        std::string_view path; // without the "/" that ends the name of a folder
        Kind kind = Kind::file;
        bool isExecutable = false;
        bool isDeflated = false; // else its content lies in the archive as it is
        std::uint32_t checksum = 0;
        std::uint64_t packedBytes = 0; // of its content, as it lies in the archive
        std::uint64_t unpackedBytes = 0;
        std::uint64_t start = 0; // its place in the archive
        std::uint64_t end = 0;   // where the next entry begins, or the directory
    };

    [[nodiscard]] static Result<ZipDirectory> read(ArchiveFile& archive, const ArchiveLimits& limits,
                                                   const Refusal& refuse);

    /// In the order in which they lie in the archive. No two have the same path or share bytes, and none lies below
    /// another that is not a folder.
    [[nodiscard]] const std::vector<Entry>& entries() const noexcept { return _entries; }
    /// Null when there is none.
    [[nodiscard]] const Entry* find(std::string_view path) const noexcept;
    /// Of an entry, or of a folder that is only named in the paths of others; nullopt when there is neither.
    [[nodiscard]] std::optional<Kind> kindOf(std::string_view path) const noexcept;
    /// How many files, links and folders there are, with those that are only named in paths.
    [[nodiscard]] std::size_t count() const noexcept { return _numbers.size(); }
    [[nodiscard]] std::uint64_t unpackedBytes() const noexcept { return _unpackedBytes; }

  private:
    class Reader;

    std::string _bytes; // the entries' paths are views of it: with an entry in it, too long to move with the object
    std::vector<Entry> _entries;
    /// Number of the entry; for a folder that is only the parent of others, `impliedFolder`.
    std::unordered_map<std::string_view, std::size_t> _numbers;
    std::uint64_t _unpackedBytes = 0;
};

} // namespace appsync
