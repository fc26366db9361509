#include "device/root/TreeWalk.h"

#include "files/Syscalls.h"

#include <sys/stat.h>

#include <cassert>
#include <memory>

namespace appsync::device {

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

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
        while (failed == 0 && !_readings.empty()) {
            const auto entry = _readings.back().reader->next();
            if (entry) {
                failed = _visit(*entry);
            } else if (failed = _readings.back().reader->error(); failed == 0) {
                failed = _leave();
            }
        }
        return failed;
    }

  private:
    /// How far a folder has been read.
    struct Reading {
        std::unique_ptr<FolderReader> reader; // null while the folder is far up
        long position = 0;
    };

    int _read(Reading& reading) {
        Descriptor own(::fcntl(_path.folder(), F_DUPFD_CLOEXEC, 0));
        if (!own.isOpen()) {
            return errno;
        }
        reading.reader = std::make_unique<FolderReader>(std::move(own));
        return reading.reader->error();
    }

    int _enter(Descriptor folder) {
        if (const int failed = _path.enter(std::move(folder))) {
            return failed;
        }
        if (_readings.size() >= FolderPath::maxOpen) {
            Reading& far = _readings[_readings.size() - FolderPath::maxOpen];
            far.position = far.reader ? far.reader->position() : far.position;
            far.reader.reset();
        }
        return _read(_readings.emplace_back());
    }

    int _leave() {
        if (_readings.size() > 1) { // the top is the caller's own matter
            if (const int failed = _visitor.leaveFolder(_path.folder())) {
                return failed;
            }
        }
        _readings.pop_back();
        if (_readings.empty()) {
            return 0;
        }
        int failed = _path.leave();
        Reading& above = _readings.back();
        if (failed == 0 && !above.reader) {
            failed = _read(above);
            above.reader->goTo(above.position);
        }
        return failed;
    }

    int _visit(const FolderReader::Entry& entry) {
        const std::string name(entry.name);
        if (!entry.isFolder) {
            return _visitor.visitFile(_path.folder(), name);
        }
        Descriptor folder(::openat(_path.folder(), name.c_str(), folderFlags));
        if (!folder.isOpen()) {
            return _visitor.failedToEnter(errno, name);
        }
        const int failed = _visitor.enterFolder(folder.get(), name);
        return failed != 0 ? failed : _enter(std::move(folder));
    }

    TreeVisitor& _visitor;
    FolderPath _path;
    std::vector<Reading> _readings; // one for each folder of the path
};

} // namespace

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
