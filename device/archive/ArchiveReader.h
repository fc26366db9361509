// Reads the entries of an archive one after another, in the order in which they lie in it.
#pragma once

#include "device/archive/Refusal.h"
#include "device/root/Result.h"

#include <cstdint>
#include <locale.h>
#include <memory>
#include <optional>
#include <string_view>

struct archive;
struct archive_entry;

namespace appsync::device {

/// Used on one thread from beginning to end.
class ArchiveReader {
  public:
    enum class Kind { file, folder, link, other };
    struct Entry {
        Kind kind = Kind::other;
        std::optional<std::uint64_t> unpackedBytes;
        bool isExecutable = false;
        std::string_view linkTarget;
    };

    /// The file's offset is moved while reading. `refuse` must outlive the reader.
    explicit ArchiveReader(const Refusal& refuse) noexcept;
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    [[nodiscard]] Result<void> open(int file, std::uint64_t fileSize);
    /// Nothing after the last one. Names are left to the archive's directory. Views are valid until the next call.
    [[nodiscard]] Result<std::optional<Entry>> next();
    /// The next piece of the present entry's content; empty at its end, where its checksum and size have been found
    /// right. Valid until the next call.
    [[nodiscard]] Result<std::string_view> nextPiece();

  private:
    /// The library renders names in the thread's locale: UTF-8, whatever the process has chosen.
    class TextLocale {
      public:
        TextLocale() noexcept;
        ~TextLocale();
        TextLocale(const TextLocale&) = delete;
        TextLocale& operator=(const TextLocale&) = delete;

      private:
        locale_t _previous; // null when nothing was changed
    };
    struct Close {
        void operator()(archive* reader) const noexcept;
    };

    [[nodiscard]] ErrorPtr _failure(std::string_view what) const;

    const TextLocale _locale;
    const Refusal& _refuse;
    std::unique_ptr<archive, Close> _archive;
    archive_entry* _entry = nullptr; // owned by the library
    std::uint64_t _offset = 0;       // in the present entry's content
};

} // namespace appsync::device
