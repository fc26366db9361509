#include "device/archive/BundleWriter.h"

#include "archive/EntryPath.h"
#include "device/root/FaultPoint.h"
#include "files/Syscalls.h"

#include <sys/stat.h>

namespace appsync::device {

namespace {

/// From here on a file gets its room at once and is written out early; for smaller ones that costs more than it gains.
constexpr std::uint64_t largeFile = 1U << 20;

} // namespace

int BundleWriter::makeFolder(std::string_view path) {
    return _enter(path);
}

/// Makes a folder the current one.
int BundleWriter::_enter(std::string_view path) {
    if (path == _currentPath) {
        return 0;
    }
    Descriptor folder;
    std::string name(path);
    if (path.empty()) {
        // The topmost folder needs no descriptor of its own.
    } else if (_made.contains(name)) {
        if (const int failed = openBeneath(_folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW, folder)) {
            return failed;
        }
    } else {
        if (const int failed = _enter(parentOf(path))) {
            return failed;
        }
        if (const int failed = beforeChange(_faultPoint, "mkdir", path)) {
            return failed;
        }
        const std::string last(lastNameOf(path));
        if (::mkdirat(_here(), last.c_str(), 0755) != 0) {
            return errno;
        }
        folder = Descriptor(::openat(_here(), last.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder.isOpen()) {
            return errno;
        }
        _made.insert(name);
    }
    _current = std::move(folder);
    _currentPath = std::move(name);
    return 0;
}

int BundleWriter::makeFile(std::string_view path, bool isExecutable, std::uint64_t expectedBytes, Descriptor& file) {
    if (const int failed = _enter(parentOf(path))) {
        return failed;
    }
    if (const int failed = beforeChange(_faultPoint, "create", path)) {
        return failed;
    }
    const std::string name(lastNameOf(path));
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file = Descriptor(::openat(_here(), name.c_str(), flags, isExecutable ? 0755 : 0644));
    if (!file.isOpen()) {
        return errno;
    }
    if (expectedBytes >= largeFile &&
        ::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(expectedBytes)) != 0 && errno == ENOSPC) {
        return errno;
    }
    return 0;
}

void BundleWriter::finishFile(int file, std::uint64_t bytes) noexcept {
    if (bytes >= largeFile) {
        ::sync_file_range(file, 0, 0, SYNC_FILE_RANGE_WRITE);
    }
}

int BundleWriter::makeLinks() {
    for (const auto& [path, target] : _links) {
        if (const int failed = _enter(parentOf(path))) {
            return failed;
        }
        if (const int failed = beforeChange(_faultPoint, "symlink", path)) {
            return failed;
        }
        if (::symlinkat(target.c_str(), _here(), std::string(lastNameOf(path)).c_str()) != 0) {
            return errno;
        }
    }
    return 0;
}

} // namespace appsync::device
