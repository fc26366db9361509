// Reads the entries of an archive one after another, in the order in which they lie in it.
#pragma once

#include "archive/Refusal.h"
#include "archive/TextLocale.h"
#include "archive/ZipDirectory.h"
#include "values/Result.h"

#include <cstdint>
#include <memory>
#include <string_view>

struct archive;
struct archive_entry;

namespace appsync {

/// Holds the entries to what the archive's directory says of them. Used on one thread from beginning to end.
class ArchiveReader {
  public:
    struct Entry {
        bool isExecutable = false;
        std::string_view linkTarget; // valid until the next call
    };

    /// The file's offset is moved while reading. `refuse` must outlive the reader.
    explicit ArchiveReader(const Refusal& refuse) noexcept;
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    [[nodiscard]] Result<void> open(int file);
    /// Goes on to the next entry of the directory, which must stay as long as it is read.
    [[nodiscard]] Result<Entry> next(const ZipDirectory::Entry& stated);
    /// The next piece of the present entry's content; empty at its end, where its checksum and size have been found
    /// right. Valid until the next call.
    [[nodiscard]] Result<std::string_view> nextPiece();
    /// After the last entry.
    [[nodiscard]] Result<void> end();

  private:
    struct Close {
        void operator()(archive* reader) const noexcept;
    };

    [[nodiscard]] ErrorPtr _failure(std::string_view what) const;
    /// False at the end of the archive.
    [[nodiscard]] Result<bool> _readHeader();
    [[nodiscard]] bool _isAsStated() const;

    const TextLocale _locale;
    const Refusal& _refuse;
    std::unique_ptr<archive, Close> _archive;
    archive_entry* _entry = nullptr; // owned by the library
    const ZipDirectory::Entry* _stated = nullptr;
    std::uint64_t _offset = 0; // in the present entry's content
};

} // namespace appsync
