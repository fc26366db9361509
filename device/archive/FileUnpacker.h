// Unpacks the files of an archive, one after the other; those of a large one on several threads.
#pragma once

#include "archive/ArchiveReader.h"
#include "archive/ZipDirectory.h"
#include "concurrency/Mutex.h"
#include "device/archive/BundleWriter.h"
#include "device/archive/Extraction.h"
#include "values/Result.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

/// `reason` ends the sentence.
[[nodiscard]] ErrorPtr makeNoSpaceError(const ExtractionRequest& request, const std::string& reason);
/// `reason` is what the system says of an entry.
[[nodiscard]] ErrorPtr makeWritingError(const ExtractionRequest& request, const ErrorPtr& reason,
                                        std::string_view entry);

/// One thread's.
class FileUnpacker {
  public:
    /// `wrote` is told of bytes that have been written.
    FileUnpacker(const ExtractionRequest& request, ArchiveFile& file, BundleWriter writer, const Refusal& refuse,
                 std::function<void(std::uint64_t)> wrote)
        : _request(request), _reader(file, refuse), _writer(std::move(writer)), _wrote(std::move(wrote)) {}

    [[nodiscard]] BundleWriter& writer() noexcept { return _writer; }
    /// Holds an entry that is not unpacked to what the archive's directory says.
    [[nodiscard]] Result<void> check(const ZipDirectory::Entry& entry) { return _reader.open(entry); }
    /// Of an entry that is not written to the disk.
    [[nodiscard]] Result<std::string> content(const ZipDirectory::Entry& entry);
    /// `content` gets what is written; may be null.
    [[nodiscard]] Result<void> unpack(const ZipDirectory::Entry& entry, bool isExecutable, std::string* content);

  private:
    const ExtractionRequest& _request;
    ArchiveReader _reader;
    BundleWriter _writer;
    const std::function<void(std::uint64_t)> _wrote;
};

/// Of several failures that of the first file counts, whichever came first.
class SharedFiles {
  public:
    explicit SharedFiles(std::vector<const ZipDirectory::Entry*> files)
        : _files(std::move(files)), _end(_files.size()) {}

    /// Unpacks files until none is left, or none before one that has failed. Any thread, each with an unpacker of its
    /// own.
    void unpack(FileUnpacker& unpacker) EXCLUDES(_mutex);
    /// When no thread unpacks any more.
    [[nodiscard]] Result<void> outcome() EXCLUDES(_mutex);

  private:
    [[nodiscard]] std::span<const ZipDirectory::Entry* const> _take() EXCLUDES(_mutex);
    void _fail(std::size_t file, const ErrorPtr& error) EXCLUDES(_mutex);

    const std::vector<const ZipDirectory::Entry*> _files; // in their order
    Mutex _mutex;
    std::size_t _next GUARDED_BY(_mutex) = 0;
    std::size_t _end GUARDED_BY(_mutex); // the first that has failed, else their number
    ErrorPtr _failure GUARDED_BY(_mutex);
};

} // namespace appsync::device
