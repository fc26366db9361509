#include "desktop/ArchiveSource.h"

#include "desktop/AppArchive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace appsync::desktop {

std::optional<ArchiveSource> ArchiveSource::open(const std::string& path, ErrorPtr* error) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat facts = {};
    if (descriptor < 0 || ::fstat(descriptor, &facts) != 0) {
        *error = desktopError("'" + path + "' cannot be read: " + std::strerror(errno) +
                                  ". Put it back into the library and sync again.",
                              path);
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        return std::nullopt;
    }
    ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    return ArchiveSource(path, descriptor, static_cast<std::uint64_t>(facts.st_size));
}

ArchiveSource::ArchiveSource(std::string path, int descriptor, std::uint64_t size)
    : _path(std::move(path)), _descriptor(descriptor), _size(size) {}

ArchiveSource::~ArchiveSource() {
    if (_descriptor >= 0) {
        ::close(_descriptor);
    }
}

ArchiveSource::ArchiveSource(ArchiveSource&& other) noexcept
    : _path(std::move(other._path)), _descriptor(std::exchange(other._descriptor, -1)), _size(other._size),
      _read(other._read) {}

ArchiveSource& ArchiveSource::operator=(ArchiveSource&& other) noexcept {
    std::swap(_path, other._path);
    std::swap(_descriptor, other._descriptor);
    std::swap(_size, other._size);
    std::swap(_read, other._read);
    return *this;
}

std::optional<std::size_t> ArchiveSource::read(std::span<char> buffer, ErrorPtr* error) {
    ssize_t length = 0;
    do {
        length = ::read(_descriptor, buffer.data(), buffer.size());
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        *error = desktopError("'" + _path + "' cannot be read: " + std::strerror(errno) + ".", _path);
        return std::nullopt;
    }
    if (length == 0 && _read < _size) {
        *error = desktopError("'" + _path + "' has become shorter while it was sent. Sync again.", _path);
        return std::nullopt;
    }
    _read += static_cast<std::uint64_t>(length);
    return static_cast<std::size_t>(length);
}

} // namespace appsync::desktop
