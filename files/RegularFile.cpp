#include "files/RegularFile.h"

#include "files/Syscalls.h"

#include <sys/stat.h>

namespace appsync {

namespace {

FileStamp stampOf(const struct stat& status) noexcept {
    return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size), status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

ErrorPtr failure(const std::string& path, int number, std::string_view reason) {
    return makeError(posixErrorDomain, number, "'" + path + "' cannot be read: " + std::string(reason), path);
}

} // namespace

Result<RegularFile> RegularFile::open(const std::string& path) {
    Descriptor descriptor(::open(path.c_str(), O_RDONLY | withoutWaiting | O_CLOEXEC));
    struct stat status {};
    if (!descriptor.isOpen() || ::fstat(descriptor.get(), &status) != 0) {
        const int number = errno;
        return failure(path, number, systemText(number));
    }
    if (!S_ISREG(status.st_mode)) {
        return failure(path, EINVAL, "it is no regular file");
    }
    return RegularFile(std::move(descriptor), stampOf(status));
}

bool RegularFile::isUnchanged() const noexcept {
    struct stat status {};
    return ::fstat(_descriptor.get(), &status) == 0 && stampOf(status) == _stamp;
}

} // namespace appsync
