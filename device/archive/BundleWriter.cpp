#include "device/archive/BundleWriter.h"

#include "archive/EntryPath.h"
#include "device/root/FaultPoint.h"
#include "device/root/PosixError.h"
#include "files/Syscalls.h"

#include <sys/stat.h>

namespace appsync::device {

Result<void> BundleWriter::makeFolder(std::string_view path) {
    return _enter(path);
}

Result<void> BundleWriter::_before(std::string_view operation, std::string_view path) {
    const int failed = beforeChange(_faultPoint, operation, path);
    return failed == 0 ? Result<void>() : makePosixError(failed, operation, path);
}

Result<void> BundleWriter::_enter(std::string_view path) {
    if (path == _currentPath) {
        return {};
    }
    Descriptor folder; // the topmost folder needs none of its own
    std::string name(path);
    if (_made.contains(name)) {
        if (const int failed = openBeneath(_folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW, folder)) {
            return makePosixError(failed, "open", path);
        }
    } else if (!path.empty()) {
        if (const auto entered = _enter(parentOf(path)); !entered) {
            return entered;
        }
        auto made = _make(path);
        if (!made) {
            return made.error();
        }
        folder = std::move(*made);
        _made.insert(name);
    }
    _current = std::move(folder);
    _currentPath = std::move(name);
    return {};
}

Result<Descriptor> BundleWriter::_make(std::string_view path) {
    if (const auto allowed = _before("mkdir", path); !allowed) {
        return allowed.error();
    }
    const std::string last(lastNameOf(path));
    if (::mkdirat(_here(), last.c_str(), 0755) != 0) {
        return makePosixError(errno, "mkdir", path);
    }
    Descriptor folder(::openat(_here(), last.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.isOpen()) {
        return makePosixError(errno, "open", path);
    }
    return folder;
}

Result<Descriptor> BundleWriter::makeFile(std::string_view path, bool isExecutable, std::uint64_t expectedBytes) {
    if (const auto entered = _enter(parentOf(path)); !entered) {
        return entered.error();
    }
    if (const auto allowed = _before("create", path); !allowed) {
        return allowed.error();
    }
    const std::string name(lastNameOf(path));
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor file(::openat(_here(), name.c_str(), flags, isExecutable ? 0755 : 0644));
    if (!file.isOpen()) {
        return makePosixError(errno, "create", path);
    }
    // A large file gets its room at once. Only a full disk counts: a file system that gives no room in advance may have
    // it all the same.
    if (expectedBytes >= largeFile &&
        ::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(expectedBytes)) != 0 && errno == ENOSPC) {
        return makePosixError(ENOSPC, "create", path);
    }
    return file;
}

Result<void> BundleWriter::write(const Descriptor& file, std::string_view bytes, std::string_view path) {
    if (const auto allowed = _before("write", path); !allowed) {
        return allowed;
    }
    const int failed = writeDirectly(file.get(), bytes);
    return failed == 0 ? Result<void>() : makePosixError(failed, "write", path);
}

Result<void> BundleWriter::makeLinks() {
    for (const auto& [path, target] : _links) {
        if (const auto entered = _enter(parentOf(path)); !entered) {
            return entered;
        }
        if (const auto allowed = _before("symlink", path); !allowed) {
            return allowed;
        }
        if (::symlinkat(target.c_str(), _here(), std::string(lastNameOf(path)).c_str()) != 0) {
            return makePosixError(errno, "symlink", path);
        }
    }
    return {};
}

} // namespace appsync::device
