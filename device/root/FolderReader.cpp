#include "device/root/FolderReader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace appsync::device {

FolderReader::FolderReader(Descriptor folder) noexcept : _stream(::fdopendir(folder.get())) {
    if (_stream) {
        (void)folder.release(); // closed with the stream
    } else {
        _error = errno;
    }
}

FolderReader::~FolderReader() {
    if (_stream) {
        ::closedir(_stream);
    }
}

std::optional<FolderReader::Entry> FolderReader::next() noexcept {
    while (_stream) {
        errno = 0;
        const dirent* entry = ::readdir(_stream);
        if (!entry) {
            _error = errno;
            break;
        }
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        if (entry->d_type != DT_UNKNOWN) {
            return Entry{name, entry->d_type == DT_DIR};
        }
        struct stat status {};
        const bool known = ::fstatat(::dirfd(_stream), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
        return Entry{name, known && S_ISDIR(status.st_mode)};
    }
    return std::nullopt;
}

} // namespace appsync::device
