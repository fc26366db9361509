// Reads the entries of an archive.
#pragma once

#include "archive/ArchiveFile.h"
#include "archive/ZipDirectory.h"
#include "values/Result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct z_stream_s;

namespace appsync {

/// Packed and unpacked bytes together up to which a deflated entry is inflated at once, which is faster than piece by
/// piece; whoever reads has that much memory, and several may read at the same time.
inline constexpr std::size_t maxInflatedAtOnce = std::size_t{6} << 20;

/// Holds each entry to what the archive's directory says of it. Used on one thread from beginning to end.
class ArchiveReader {
  public:
    /// Both must outlive the reader.
    ArchiveReader(ArchiveFile& file, const Refusal& refuse) noexcept;
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    /// Goes to an entry; soonest done in the order in which they lie in the archive. Refused when what stands before
    /// the entry's content is not what the directory says. The entry must stay as long as it is read.
    [[nodiscard]] Result<void> open(const ZipDirectory::Entry& entry);
    /// The next piece of the entry's content; empty at its end, where its checksum and size have been found right.
    /// Valid until the next call.
    [[nodiscard]] Result<std::string_view> nextPiece();
    /// All of the entry's content; the caller knows from the directory that it is not too large.
    [[nodiscard]] Result<std::string> content();

  private:
    struct EndStream {
        void operator()(z_stream_s* stream) const noexcept;
    };

    [[nodiscard]] ErrorPtr _contradiction() const;
    [[nodiscard]] ErrorPtr _anotherSize() const;
    [[nodiscard]] ErrorPtr _damaged(std::string_view reason) const;
    [[nodiscard]] ErrorPtr _noMemory() const;
    [[nodiscard]] Result<std::string_view> _readPiece();
    [[nodiscard]] Result<std::string_view> _pieceOfWhole();
    [[nodiscard]] Result<void> _inflateWhole();
    [[nodiscard]] Result<std::string_view> _inflatePiece();
    [[nodiscard]] Result<void> _openStream();
    [[nodiscard]] Result<void> _checkEnd();

    ArchiveFile& _file;
    const Refusal& _refuse;
    const ZipDirectory::Entry* _entry = nullptr;
    std::uint64_t _contentStart = 0; // in the file
    bool _hasDescriptor = false;
    std::uint64_t _taken = 0;     // of the packed bytes
    std::uint64_t _handedOut = 0; // of the unpacked bytes
    std::uint32_t _checksum = 0;  // of these

    ArchiveMemory& _memory;
    std::unique_ptr<z_stream_s, EndStream> _stream; // of the present entry, when it has one
};

} // namespace appsync
