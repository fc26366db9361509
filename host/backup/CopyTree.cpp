#include "host/backup/CopyTree.h"

#include "device/root/Tree.h"
#include "files/Syscalls.h"
#include "host/plugin/PlugIn.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

namespace appsync::host {

namespace {

constexpr std::size_t pieceSize = std::size_t{1} << 18;
constexpr mode_t keptPermissions = 0755;
constexpr std::size_t maxPathShown = 1000;

class TreeCopier final : public device::TreeVisitor {
  public:
    TreeCopier(const std::string& name, const std::function<bool()>& isCancelled,
               const std::function<void(std::size_t)>& copied)
        : _path(name), _isCancelled(isCancelled), _copied(copied), _buffer(pieceSize) {}

    Result<void> copy(Descriptor from, Descriptor to) {
        int failed = _target.enter(std::move(to));
        if (failed == 0) {
            failed = device::walkTree(std::move(from), *this);
        }
        if (failed == 0) {
            return {};
        }
        const std::string shown = _path.size() > maxPathShown ? _path.substr(0, maxPathShown) + "…" : _path;
        return hostError("'" + shown + "' cannot be copied: " + std::strerror(failed) + ".", shown);
    }

    int visitFile(int parent, const std::string& name) override {
        const std::size_t length = _path.size();
        _path += "/" + name;
        const int failed = _isCancelled && _isCancelled() ? ECANCELED : _copyEntry(parent, name);
        if (failed == 0) {
            _path.resize(length);
        }
        return failed;
    }

    int failedToEnter(int failed, const std::string& name) override {
        _path += "/" + name;
        return failed;
    }

    int enterFolder(int folder, const std::string& name) override {
        _path += "/" + name;
        struct stat information {};
        if (::fstat(folder, &information) != 0 || ::mkdirat(_target.folder(), name.c_str(), 0700) != 0) {
            return errno;
        }
        _modes.push_back(information.st_mode & keptPermissions);
        Descriptor made(::openat(_target.folder(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return made.isOpen() ? _target.enter(std::move(made)) : errno;
    }

    /// It gets its mode at last: a folder that may not be written can be filled.
    int leaveFolder(int /*folder*/) override {
        Descriptor filled;
        int failed = _target.leave(&filled);
        if (failed == 0) {
            failed = errnoOf(::fchmod(filled.get(), _modes.back()));
        }
        if (failed == 0) {
            _modes.pop_back();
            _path.resize(_path.rfind('/'));
        }
        return failed;
    }

  private:
    int _copyEntry(int from, const std::string& name) {
        struct stat information {};
        if (::fstatat(from, name.c_str(), &information, AT_SYMLINK_NOFOLLOW) != 0) {
            return errno;
        }
        switch (information.st_mode & S_IFMT) {
        case S_IFREG: return _copyFile(from, name);
        case S_IFLNK: return _copyLink(from, name);
        default: return 0;
        }
    }

    /// What stands there may have been replaced since it was looked at.
    int _copyFile(int from, const std::string& name) {
        const Descriptor source(::openat(from, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | withoutWaiting));
        if (!source.isOpen()) {
            return errno;
        }
        struct stat information {};
        if (const int failed = checkIsFile(source.get())) {
            return failed;
        }
        const Descriptor target(
            ::openat(_target.folder(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!target.isOpen() || ::fstat(source.get(), &information) != 0) {
            return errno;
        }
        int failed = _copyContent(source.get(), target.get(), information.st_size);
        if (failed == 0) {
            failed = errnoOf(::fchmod(target.get(), information.st_mode & keptPermissions));
        }
        return failed;
    }

    /// As much as there was at the beginning, without the holes, so that neither a file that grows nor one that only
    /// says that it is large fills the disk.
    int _copyContent(int source, int target, off_t size) {
        for (off_t start = 0; start < size;) {
            const off_t data = ::lseek(source, start, SEEK_DATA);
            if (data < 0 || data >= size) {
                if (data < 0 && errno != ENXIO) {
                    return errno;
                }
                break; // the rest is a hole
            }
            const off_t hole = ::lseek(source, data, SEEK_HOLE);
            const off_t end = hole < 0 ? size : std::min(hole, size);
            if (const int failed = _copyRange(source, target, data, end)) {
                return failed;
            }
            start = end;
        }
        return errnoOf(::ftruncate(target, size));
    }

    int _copyRange(int source, int target, off_t start, off_t end) {
        if (::lseek(target, start, SEEK_SET) < 0) {
            return errno;
        }
        while (start < end) {
            if (_isCancelled && _isCancelled()) {
                return ECANCELED;
            }
            const auto wanted = std::min<std::size_t>(_buffer.size(), static_cast<std::size_t>(end - start));
            const ssize_t length = ::pread(source, _buffer.data(), wanted, start);
            if (length < 0 && errno == EINTR) {
                continue;
            }
            if (length <= 0) {
                return length < 0 ? errno : 0; // it has become shorter
            }
            if (const int failed = writeAll(target, {_buffer.data(), static_cast<std::size_t>(length)})) {
                return failed;
            }
            start += length;
            if (_copied) {
                _copied(static_cast<std::size_t>(length));
            }
        }
        return 0;
    }

    int _copyLink(int from, const std::string& name) {
        std::vector<char> text(PATH_MAX);
        const ssize_t length = ::readlinkat(from, name.c_str(), text.data(), text.size() - 1);
        if (length < 0) {
            return errno;
        }
        text[static_cast<std::size_t>(length)] = 0;
        return errnoOf(::symlinkat(text.data(), _target.folder(), name.c_str()));
    }

    std::string _path; // of what is being copied, for the sentence about a failure
    const std::function<bool()>& _isCancelled;
    const std::function<void(std::size_t)>& _copied;
    std::vector<char> _buffer;
    device::FolderPath _target;
    std::vector<mode_t> _modes; // of the folders that are being filled
};

} // namespace

Result<void> copyTree(Descriptor from, Descriptor to, const std::string& name, const std::function<bool()>& isCancelled,
                      const std::function<void(std::size_t)>& copied) {
    return TreeCopier(name, isCancelled, copied).copy(std::move(from), std::move(to));
}

} // namespace appsync::host
