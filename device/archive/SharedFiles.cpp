#include "device/archive/SharedFiles.h"

#include "device/archive/FileUnpacker.h"

namespace appsync::device {

namespace {

/// What a thread takes at a time: files that lie together are read together, up to this many bytes or a larger one.
constexpr std::uint64_t bytesTaken = std::uint64_t{1} << 20;

} // namespace

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
