#include "device/archive/FileUnpacker.h"

#include "archive/InstallerError.h"
#include "device/root/PosixError.h"
#include "files/Syscalls.h"
#include "text/Printable.h"
#include "timeline/Timeline.h"

namespace appsync::device {

namespace {

/// What a thread takes at a time: files that lie together are read together, up to this many bytes or a larger one.
constexpr std::uint64_t bytesTaken = std::uint64_t{1} << 20;

} // namespace

ErrorPtr makeNoSpaceError(const ExtractionRequest& request, const std::string& reason) {
    return makeInstallerError(InstallerError::notEnoughSpace,
                              "there is no space to install the archive " + request.archivePath + ": " + reason +
                                  "; remove apps or files and try again",
                              request.archivePath);
}

ErrorPtr makeWritingError(const ExtractionRequest& request, const ErrorPtr& reason, std::string_view entry) {
    const auto number = static_cast<int>(reason->code());
    const std::string text = "writing its entry \"" + printable(entry) + "\": " + systemText(number);
    return number == ENOSPC || number == EDQUOT
               ? makeNoSpaceError(request, text)
               : makeInstallerError(InstallerError::failed,
                                    "cannot install the archive " + request.archivePath + ": " + text,
                                    request.archivePath);
}

Result<std::string> FileUnpacker::content(const ZipDirectory::Entry& entry) {
    const auto opened = _reader.open(entry);
    return opened ? _reader.content() : opened.error();
}

Result<void> FileUnpacker::unpack(const ZipDirectory::Entry& entry, bool isExecutable, std::string* content) {
    if (const auto opened = _reader.open(entry); !opened) {
        return opened;
    }
    const auto file = _writer.makeFile(entry.path, isExecutable, entry.unpackedBytes);
    if (!file) {
        return makeWritingError(_request, file.error(), entry.path);
    }
    for (;;) {
        const auto piece = _reader.nextPiece();
        if (!piece) {
            return piece.error();
        }
        if (piece->empty()) {
            return {};
        }
        if (_request.cancel.stop_requested()) {
            return makeCancelledError(_request.identifier, _request.archivePath);
        }
        if (const auto written = _writer.write(*file, *piece, entry.path); !written) {
            return makeWritingError(_request, written.error(), entry.path);
        }
        if (content) {
            content->append(*piece);
        }
        _wrote(piece->size());
        Timeline::add(_request.timeline, Counter::bytesUnpacked, piece->size());
    }
}

void SharedFiles::unpack(FileUnpacker& unpacker) {
    for (auto files = _take(); !files.empty(); files = _take()) {
        for (const ZipDirectory::Entry* const& file : files) {
            if (const auto done = unpacker.unpack(*file, file->isExecutable, nullptr); !done) {
                _fail(static_cast<std::size_t>(&file - _files.data()), done.error());
                break;
            }
        }
    }
}

Result<void> SharedFiles::outcome() {
    const Lock lock(_mutex);
    return _failure;
}

std::span<const ZipDirectory::Entry* const> SharedFiles::_take() {
    const Lock lock(_mutex);
    const std::size_t first = _next;
    for (std::uint64_t bytes = 0; _next < _end && bytes < bytesTaken; ++_next) {
        bytes += _files[_next]->unpackedBytes;
    }
    return std::span(_files).subspan(first, _next - first);
}

void SharedFiles::_fail(std::size_t file, const ErrorPtr& error) {
    const Lock lock(_mutex);
    if (file < _end) {
        _end = file;
        _failure = error;
    }
}

} // namespace appsync::device
