#include "device/root/Tree.h"

#include "files/Syscalls.h"

#include <sys/random.h>
#include <sys/stat.h>

#include <array>
#include <cassert>
#include <optional>
#include <vector>

namespace appsync::device {

namespace {

constexpr std::string_view temporaryPrefix = ".";
constexpr std::string_view temporarySuffix = ".device-tmp";
constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Removes a folder with all that is in it, of any depth, with few descriptors.
class TreeRemover {
  public:
    TreeRemover(FaultPoint* faultPoint, std::string_view path) : _faultPoint(faultPoint), _path(path) {}

    int removeFolder(int parent, const std::string& name) {
        int failed = _enter(parent, name);
        while (failed == 0 && !_names.empty()) {
            std::optional<std::string> below;
            failed = _removeFiles(below);
            if (failed == 0) {
                failed = below ? _enter(_folders.folder(), *below) : _leave(parent);
            }
        }
        return failed;
    }

  private:
    int _enter(int parent, const std::string& name) {
        Descriptor folder;
        int failed = openBeneath(parent, name, folderFlags, folder);
        if (failed == EACCES && ::fchmodat(parent, name.c_str(), 0700, 0) == 0) {
            failed = openBeneath(parent, name, folderFlags, folder);
        }
        if (failed == 0 && (failed = _folders.enter(std::move(folder))) == 0) {
            _names.push_back(name);
        }
        return failed == ENOENT ? 0 : failed;
    }
    /// Of the present folder, up to the first folder in it.
    int _removeFiles(std::optional<std::string>& below) {
        FolderReader reader(Descriptor(::fcntl(_folders.folder(), F_DUPFD_CLOEXEC, 0)));
        reader.rewind();
        while (const auto entry = reader.next()) {
            if (entry->isFolder) {
                below = entry->name;
                return 0;
            }
            if (const int failed = _unlink(_folders.folder(), std::string(entry->name), 0)) {
                return failed;
            }
        }
        return reader.error();
    }
    /// Goes up, and removes the folder that was left.
    int _leave(int top) {
        const std::string name = std::move(_names.back());
        _names.pop_back();
        const int failed = _folders.leave();
        return failed != 0 ? failed : _unlink(_names.empty() ? top : _folders.folder(), name, AT_REMOVEDIR);
    }
    int _unlink(int folder, const std::string& name, int flags) {
        if (const int failed = beforeChange(_faultPoint, "unlink", _path)) {
            return failed;
        }
        int failed = errnoOf(::unlinkat(folder, name.c_str(), flags));
        if (failed == EACCES && ::fchmod(folder, 0700) == 0) {
            failed = errnoOf(::unlinkat(folder, name.c_str(), flags));
        }
        return failed == ENOENT ? 0 : failed;
    }

    FaultPoint* _faultPoint;
    std::string_view _path;
    FolderPath _folders;
    std::vector<std::string> _names; // of the folders that have been entered
};

class TemporaryFileRemover final : public TreeVisitor {
  public:
    explicit TemporaryFileRemover(FaultPoint* faultPoint) : _faultPoint(faultPoint) {}
    int visitFile(int parent, const std::string& name) override {
        if (isTemporaryName(name) && beforeChange(_faultPoint, "unlink", name) == 0) {
            ::unlinkat(parent, name.c_str(), 0);
        }
        return 0;
    }
    int failedToEnter(int /*failed*/, const std::string& /*name*/) override { return 0; }

  private:
    FaultPoint* _faultPoint;
};

class SizeAdder final : public TreeVisitor {
  public:
    explicit SizeAdder(std::uint64_t& bytes) : _bytes(bytes) {}
    int visitFile(int parent, const std::string& name) override {
        struct stat status {};
        if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            _bytes += static_cast<std::uint64_t>(status.st_size);
        }
        return 0;
    }

  private:
    std::uint64_t& _bytes;
};

int identityOf(int folder, dev_t& device, ino_t& number) {
    struct stat status {};
    if (::fstat(folder, &status) != 0) {
        return errno;
    }
    device = status.st_dev;
    number = status.st_ino;
    return 0;
}

class TreeWalk {
  public:
    explicit TreeWalk(TreeVisitor& visitor) : _visitor(visitor) {}

    int run(Descriptor top) {
        int failed = _enter(std::move(top));
        while (failed == 0 && !_unvisited.empty()) {
            std::vector<std::string>& folders = _unvisited.back();
            if (folders.empty()) {
                failed = _leave();
            } else {
                const std::string name = std::move(folders.back());
                folders.pop_back();
                failed = _visitFolder(name);
            }
        }
        return failed;
    }

  private:
    /// Visits the files of a folder, and notes the folders in it: it is read once, whatever becomes of it afterwards.
    int _enter(Descriptor folder) {
        if (const int failed = _path.enter(std::move(folder))) {
            return failed;
        }
        std::vector<std::string>& folders = _unvisited.emplace_back();
        Descriptor own(::fcntl(_path.folder(), F_DUPFD_CLOEXEC, 0));
        if (!own.isOpen()) {
            return errno;
        }
        FolderReader reader(std::move(own));
        while (const auto entry = reader.next()) {
            if (entry->isFolder) {
                folders.emplace_back(entry->name);
            } else if (const int failed = _visitor.visitFile(_path.folder(), std::string(entry->name))) {
                return failed;
            }
        }
        return reader.error();
    }

    int _leave() {
        _unvisited.pop_back();
        if (_unvisited.empty()) {
            return 0; // the top is the caller's own matter
        }
        const int failed = _visitor.leaveFolder(_path.folder());
        return failed != 0 ? failed : _path.leave();
    }

    int _visitFolder(const std::string& name) {
        Descriptor folder(::openat(_path.folder(), name.c_str(), folderFlags));
        if (!folder.isOpen()) {
            return _visitor.failedToEnter(errno, name);
        }
        const int failed = _visitor.enterFolder(folder.get(), name);
        return failed != 0 ? failed : _enter(std::move(folder));
    }

    TreeVisitor& _visitor;
    FolderPath _path;
    std::vector<std::vector<std::string>> _unvisited; // of each folder of the path the folders that are still to come
};

} // namespace

std::string makeUniqueName() {
    std::array<unsigned char, 16> bytes{};
    while (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40); // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    std::string text;
    for (std::size_t place = 0; place < bytes.size(); ++place) {
        if (place == 4 || place == 6 || place == 8 || place == 10) {
            text += '-';
        }
        text += "0123456789ABCDEF"[bytes[place] >> 4];
        text += "0123456789ABCDEF"[bytes[place] & 15];
    }
    return text;
}

std::string makeTemporaryName() {
    return std::string(temporaryPrefix) + makeUniqueName() + std::string(temporarySuffix);
}

bool isTemporaryName(std::string_view name) noexcept {
    return name.starts_with(temporaryPrefix) && name.ends_with(temporarySuffix);
}

int removeTree(int folder, const std::string& name, FaultPoint* faultPoint, std::string_view path) {
    if (const int failed = beforeChange(faultPoint, "unlink", path)) {
        return failed;
    }
    if (::unlinkat(folder, name.c_str(), 0) == 0) {
        return 0;
    }
    return errno == EISDIR ? TreeRemover(faultPoint, path).removeFolder(folder, name) : errno;
}

void removeTemporaryFiles(Descriptor folder, FaultPoint* faultPoint) {
    TemporaryFileRemover remover(faultPoint);
    (void)walkTree(std::move(folder), remover); // what stays is found the next time
}

int treeSize(Descriptor folder, std::uint64_t& bytes) {
    SizeAdder adder(bytes);
    return walkTree(std::move(folder), adder);
}

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

int FolderPath::enter(Descriptor folder) noexcept {
    Level level{std::move(folder)};
    if (const int failed = identityOf(level.folder.get(), level.device, level.number)) {
        return failed;
    }
    _levels.push_back(std::move(level));
    if (_levels.size() > maxOpen) {
        const Descriptor closed = std::move(_levels[_levels.size() - maxOpen - 1].folder);
    }
    return 0;
}

int FolderPath::leave(Descriptor* left) noexcept {
    assert(!_levels.empty());
    Descriptor present = std::move(_levels.back().folder);
    _levels.pop_back();
    int failed = 0;
    if (!_levels.empty() && !_levels.back().folder.isOpen()) {
        Level& above = _levels.back();
        dev_t device = 0;
        ino_t number = 0;
        above.folder = Descriptor(::openat(present.get(), "..", folderFlags));
        failed = above.folder.isOpen() ? identityOf(above.folder.get(), device, number) : errno;
        if (failed == 0 && (device != above.device || number != above.number)) {
            failed = ESTALE;
        }
    }
    if (left) {
        *left = std::move(present);
    }
    return failed;
}

int walkTree(Descriptor top, TreeVisitor& visitor) {
    return TreeWalk(visitor).run(std::move(top));
}

} // namespace appsync::device
