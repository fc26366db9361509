#include "desktop/ArchiveSource.h"

#include "files/Syscalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace appsync::desktop {

Result<ArchiveSource> ArchiveSource::open(const AppArchive& app) {
    auto file = openAgain(app);
    if (!file) {
        return file.error();
    }
    ::posix_fadvise(file->descriptor(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return ArchiveSource(app.path, std::move(*file));
}

Result<void> ArchiveSource::skip(std::uint64_t bytes) {
    if (::lseek(_file.descriptor(), static_cast<off_t>(bytes), SEEK_SET) < 0) {
        return desktopError("'" + _path + "' cannot be read: " + systemText(errno) + ".", _path);
    }
    _read = bytes;
    return {};
}

Result<std::size_t> ArchiveSource::read(std::span<char> buffer) {
    ssize_t length = 0;
    do {
        length = ::read(_file.descriptor(), buffer.data(), buffer.size());
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        return desktopError("'" + _path + "' cannot be read: " + systemText(errno) + ".", _path);
    }
    _read += static_cast<std::uint64_t>(length);
    if (_read > size() || (length == 0 && (_read < size() || !_file.isUnchanged()))) {
        return desktopError("'" + _path + "' has changed while it was sent. Sync again.", _path);
    }
    return static_cast<std::size_t>(length);
}

} // namespace appsync::desktop
