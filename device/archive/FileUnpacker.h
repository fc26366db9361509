// Unpacks the files of an archive, one after the other.
#pragma once

#include "archive/ArchiveReader.h"
#include "device/archive/BundleWriter.h"
#include "device/archive/Extraction.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

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

} // namespace appsync::device
