#include "host/backup/CopyTree.h"

#include "device/root/FolderReader.h"
#include "device/root/Syscalls.h"
#include "host/plugin/PlugIn.h"

#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <vector>

namespace appsync::host {

namespace {

using device::Descriptor;

/// Each level holds two descriptors.
constexpr int maximumDepth = 200;
constexpr std::size_t pieceSize = std::size_t{1} << 18;
constexpr mode_t permissionBits = 07777;

class TreeCopier {
  public:
    explicit TreeCopier(const std::string& name) : _path(name), _buffer(pieceSize) {}

    ErrorPtr copyFolder(Descriptor from, Descriptor to, int depth) {
        if (depth > maximumDepth) {
            return _failure(ELOOP);
        }
        const int target = to.get();
        device::FolderReader reader(std::move(from));
        while (const auto entry = reader.next()) {
            const std::size_t length = _path.size();
            const std::string name(entry->name);
            _path += "/" + name;
            if (ErrorPtr error = _copyEntry(reader.folder(), target, name, depth)) {
                return error;
            }
            _path.resize(length);
        }
        return reader.error() != 0 ? _failure(reader.error()) : nullptr;
    }

  private:
    [[nodiscard]] ErrorPtr _failure(int number) const {
        return hostError("'" + _path + "' cannot be copied: " + std::strerror(number) + ".", _path);
    }

    ErrorPtr _copyEntry(int from, int to, const std::string& name, int depth) {
        struct stat information {};
        if (::fstatat(from, name.c_str(), &information, AT_SYMLINK_NOFOLLOW) != 0) {
            return _failure(errno);
        }
        const mode_t mode = information.st_mode & permissionBits;
        switch (information.st_mode & S_IFMT) {
        case S_IFDIR: return _copySubfolder(from, to, name, mode, depth);
        case S_IFREG: return _copyFile(from, to, name, mode);
        case S_IFLNK: return _copyLink(from, to, name);
        default: return nullptr;
        }
    }

    ErrorPtr _copySubfolder(int from, int to, const std::string& name, mode_t mode, int depth) {
        constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        Descriptor source(::openat(from, name.c_str(), flags));
        if (!source.isOpen() || ::mkdirat(to, name.c_str(), 0700) != 0) {
            return _failure(errno);
        }
        Descriptor target(::openat(to, name.c_str(), flags));
        Descriptor forMode(target.isOpen() ? ::dup(target.get()) : -1);
        if (!forMode.isOpen()) {
            return _failure(errno);
        }
        if (ErrorPtr error = copyFolder(std::move(source), std::move(target), depth + 1)) {
            return error;
        }
        return ::fchmod(forMode.get(), mode) != 0 ? _failure(errno) : nullptr;
    }

    ErrorPtr _copyFile(int from, int to, const std::string& name, mode_t mode) {
        const Descriptor source(::openat(from, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!source.isOpen()) {
            return _failure(errno);
        }
        const Descriptor target(::openat(to, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!target.isOpen()) {
            return _failure(errno);
        }
        for (;;) {
            const ssize_t length = ::read(source.get(), _buffer.data(), _buffer.size());
            if (length < 0 && errno == EINTR) {
                continue;
            }
            if (length < 0) {
                return _failure(errno);
            }
            if (length == 0) {
                return ::fchmod(target.get(), mode) != 0 ? _failure(errno) : nullptr;
            }
            if (const int failed = device::writeAll(target.get(), {_buffer.data(), static_cast<std::size_t>(length)})) {
                return _failure(failed);
            }
        }
    }

    ErrorPtr _copyLink(int from, int to, const std::string& name) {
        std::vector<char> text(PATH_MAX);
        const ssize_t length = ::readlinkat(from, name.c_str(), text.data(), text.size() - 1);
        if (length < 0) {
            return _failure(errno);
        }
        text[static_cast<std::size_t>(length)] = 0;
        return ::symlinkat(text.data(), to, name.c_str()) != 0 ? _failure(errno) : nullptr;
    }

    std::string _path;
    std::vector<char> _buffer;
};

} // namespace

ErrorPtr copyTree(Descriptor from, Descriptor to, const std::string& name) {
    return TreeCopier(name).copyFolder(std::move(from), std::move(to), 0);
}

} // namespace appsync::host
