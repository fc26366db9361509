#include "archive/ArchiveFile.h"

#include "files/Syscalls.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

namespace appsync {

namespace {

/// Who reads on where the last reading ended gets many small entries at once; who looks here and there, a page.
constexpr std::size_t readAhead = std::size_t{256} << 10;
constexpr std::size_t pageSize = 4096;

} // namespace

Result<ArchiveFile> ArchiveFile::open(int file, const Refusal& refuse, ArchiveMemory& memory) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return refuse(InstallerError::archiveMissing, systemText(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return refuse(InstallerError::archiveMissing, "it is not a file");
    }
    return ArchiveFile(file, static_cast<std::uint64_t>(status.st_size), refuse, memory);
}

bool ArchiveFile::_has(std::uint64_t offset, std::size_t size) const noexcept {
    assert(offset <= _size && size <= _size - offset);
    return offset >= _start && offset + size <= _start + _length;
}

Result<std::string_view> ArchiveFile::read(std::uint64_t offset, std::size_t size) {
    if (!_has(offset, size)) {
        const bool goesOn = offset >= _start && offset <= _start + _length;
        const std::uint64_t wanted = std::max(size, goesOn ? readAhead : pageSize);
        const auto length = static_cast<std::size_t>(std::min(wanted, _size - offset));
        _length = 0;
        if (const auto filled = _readFile(offset, {_memory->file.grow(length), length}); !filled) {
            return filled.error();
        }
        _start = offset;
        _length = length;
    }
    return std::string_view(_memory->file.data() + (offset - _start), size);
}

Result<void> ArchiveFile::read(std::uint64_t offset, std::span<char> into) {
    if (!_has(offset, into.size())) {
        return _readFile(offset, into);
    }
    std::copy_n(_memory->file.data() + (offset - _start), into.size(), into.data());
    return {};
}

Result<void> ArchiveFile::_readFile(std::uint64_t offset, std::span<char> into) const {
    while (!into.empty()) {
        const ssize_t count = ::pread(_file, into.data(), into.size(), static_cast<off_t>(offset));
        if (count == 0) {
            return (*_refuse)(InstallerError::archiveDamaged, "it has become shorter while it was read");
        }
        if (count < 0 && errno != EINTR) {
            return (*_refuse)(InstallerError::archiveMissing, systemText(errno));
        }
        const std::size_t length = count > 0 ? static_cast<std::size_t>(count) : 0;
        into = into.subspan(length);
        offset += length;
    }
    return {};
}

} // namespace appsync
