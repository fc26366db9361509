#include "device/root/DeviceFileSystem.h"

#include "device/root/Tree.h"
#include "files/Syscalls.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdio>

namespace appsync::device {

namespace {

/// Whether the path can mean anything: absolute, without a zero byte.
int checkPath(std::string_view path) {
    return path.starts_with('/') && path.find('\0') == std::string_view::npos ? 0 : EINVAL;
}

/// Zero or an errno number.
int flush(int (*sync)(int), int opened, Timeline* timeline) {
    const Span span(timeline, "flush");
    Timeline::add(timeline, Counter::syncs);
    return errnoOf(sync(opened));
}

bool report(int failed, std::string_view operation, std::string_view path, ErrorPtr* error) {
    if (failed != 0 && error) {
        *error = makePosixError(failed, operation, path);
    }
    return failed == 0;
}

void setOwner(Accounts& accounts, int folder, const char* name, const FileAttributes& attributes) {
    const auto user = accounts.user(attributes.ownerAccountName);
    const auto group = accounts.group(attributes.groupOwnerAccountName);
    if (user || group) {
        // Fails for an ordinary user, whose device then owns all its files.
        (void)::fchownat(folder, name, user.value_or(static_cast<uid_t>(-1)), group.value_or(static_cast<gid_t>(-1)),
                         AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH);
    }
}

} // namespace

/// Where a name stands: the folder above it, resolved inside the root, and the last component.
struct DeviceFileSystem::Place {
    Descriptor folder;
    std::string name;
};

/// A new file; it vanishes unless it becomes whole. One that is to be durable, or takes the place of another, has a
/// temporary name in the folder where it belongs until then.
class DeviceFileSystem::NewFile {
  public:
    NewFile(DeviceFileSystem& files, std::string_view path) : _files(files), _path(path) {}
    ~NewFile() {
        if (_file.isOpen() && !_isWhole) {
            ::unlinkat(_place.folder.get(), _name.c_str(), 0);
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Fills it with `fill`, which gets its descriptor and returns zero or an errno number. If it is to be durable, its
    /// content is so before it has its name, and its name is so afterwards.
    template <class Fill> int make(const Fill& fill, bool isDurable) {
        _failed = _create(isDurable);
        _change("write", [&] { return fill(_file.get()); });
        if (isDurable) {
            _change("sync", [&] { return flush(::fdatasync, _file.get(), _files.timeline()); });
        }
        const int folder = _place.folder.get();
        if (_name != _place.name) {
            _change("rename", [&] { return errnoOf(::renameat(folder, _name.c_str(), folder, _place.name.c_str())); });
        }
        _isWhole = _failed == 0;
        if (isDurable) {
            _change("sync folder", [&] { return flush(::fsync, folder, _files.timeline()); });
        }
        return _failed;
    }

  private:
    int _create(bool isDurable) {
        int failed = _files._findPlace(_path, O_RDONLY, _place);
        if (failed == EACCES) { // a folder that may be written but not listed
            failed = _files._findPlace(_path, O_PATH, _place);
        }
        if (failed == 0) {
            failed = beforeChange(_files.faultPoint(), "create", _path);
        }
        if (failed != 0) {
            return failed;
        }
        if (!isDurable) {
            failed = _createAs(_place.name);
        }
        return isDurable || failed == EEXIST ? _createAs(makeTemporaryName()) : failed;
    }
    int _createAs(std::string name) {
        _name = std::move(name);
        _file = Descriptor(
            ::openat(_place.folder.get(), _name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        return _file.isOpen() ? 0 : errno;
    }
    /// Does nothing after a failure.
    template <class Change> void _change(std::string_view name, const Change& change) {
        if (_failed == 0) {
            _failed = beforeChange(_files.faultPoint(), name, _path);
        }
        if (_failed == 0) {
            _failed = change();
        }
    }

    DeviceFileSystem& _files;
    std::string_view _path;
    Place _place;
    std::string _name;
    Descriptor _file;
    int _failed = 0;
    bool _isWhole = false;
};

int DeviceFileSystem::_findPlace(std::string_view path, int flags, Place& place) {
    if (const int failed = checkPath(path)) {
        return failed;
    }
    while (path.size() > 1 && path.ends_with('/')) {
        path.remove_suffix(1);
    }
    const std::size_t slash = path.rfind('/');
    place.name = path.substr(slash + 1);
    if (place.name.empty() || place.name == "." || place.name == "..") {
        return EINVAL; // no name of its own that could be made, moved or removed
    }
    return openInRoot(_root.get(), std::string(path.substr(0, slash + 1)), flags | O_DIRECTORY, 0, place.folder);
}

int DeviceFileSystem::_open(std::string_view path, int flags, mode_t mode, Descriptor& opened) {
    const bool wantsBytes = (flags & (O_DIRECTORY | O_PATH)) == 0;
    const bool changes = (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
    int failed = checkPath(path);
    if (failed == 0 && changes) {
        failed = beforeChange(faultPoint(), "open", path);
    }
    if (failed == 0) {
        failed = openInRoot(_root.get(), std::string(path), flags | (wantsBytes ? withoutWaiting : 0), mode, opened);
    }
    return failed == 0 && wantsBytes ? checkIsFile(opened.get()) : failed;
}

int DeviceFileSystem::_createDirectory(std::string_view path, bool withIntermediateDirectories,
                                       const std::optional<FileAttributes>& attributes) {
    Place place;
    int failed = _findPlace(path, O_PATH, place);
    if (failed == ENOENT && withIntermediateDirectories) {
        failed = _createDirectory(path.substr(0, path.find_last_of('/', path.find_last_not_of('/'))), true, attributes);
        if (failed == 0) {
            failed = _findPlace(path, O_PATH, place);
        }
    }
    if (failed == 0) {
        failed = beforeChange(faultPoint(), "mkdir", path);
    }
    if (failed != 0) {
        return failed;
    }
    if (::mkdirat(place.folder.get(), place.name.c_str(), 0755) == 0) {
        if (attributes) {
            setOwner(_accounts, place.folder.get(), place.name.c_str(), *attributes);
        }
        return 0;
    }
    failed = errno;
    Descriptor existing;
    const bool isThere =
        failed == EEXIST && withIntermediateDirectories && _open(path, O_PATH | O_DIRECTORY, 0, existing) == 0;
    return isThere ? 0 : failed;
}

bool DeviceFileSystem::createDirectory(std::string_view path, bool withIntermediateDirectories,
                                       const std::optional<FileAttributes>& attributes, ErrorPtr* error) noexcept {
    if (withIntermediateDirectories) { // mostly it is there; this also takes "/" and a path that ends in ".."
        Descriptor existing;
        if (_open(path, O_PATH | O_DIRECTORY, 0, existing) == 0) {
            return true;
        }
    }
    return report(_createDirectory(path, withIntermediateDirectories, attributes), "creating the folder", path, error);
}

bool DeviceFileSystem::removeItem(std::string_view path, ErrorPtr* error) noexcept {
    Place place;
    int failed = _findPlace(path, O_PATH, place);
    if (failed == 0) {
        failed = removeTree(place.folder.get(), place.name, faultPoint(), path);
    }
    return report(failed, "removing", path, error);
}

bool DeviceFileSystem::moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    Place source;
    Place target;
    int failed = _findPlace(from, O_PATH, source);
    if (failed != 0) {
        return report(failed, "moving", from, error);
    }
    failed = _findPlace(to, O_PATH, target);
    if (failed == 0) {
        failed = beforeChange(faultPoint(), "rename", to);
    }
    if (failed == 0) {
        failed = errnoOf(::renameat2(source.folder.get(), source.name.c_str(), target.folder.get(), target.name.c_str(),
                                     RENAME_NOREPLACE));
    }
    return report(failed, "moving " + std::string(from) + " to", to, error);
}

bool DeviceFileSystem::copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    Descriptor source;
    int failed = _open(from, O_RDONLY, 0, source);
    if (failed != 0) {
        return report(failed, "copying", from, error);
    }
    failed = NewFile(*this, to).make([&](int copy) { return copyAll(source.get(), copy); }, false);
    return report(failed, "copying " + std::string(from) + " to", to, error);
}

bool DeviceFileSystem::fileExists(std::string_view path) noexcept {
    Descriptor found;
    return _open(path, O_PATH, 0, found) == 0;
}

std::optional<Data> DeviceFileSystem::readFile(std::string_view path, ErrorPtr* error) noexcept {
    Descriptor file;
    int failed = _open(path, O_RDONLY, 0, file);
    std::string bytes;
    if (failed == 0) {
        failed = readAll(file.get(), maxReadSize, bytes);
    }
    if (failed == 0) {
        return Data(std::move(bytes));
    }
    report(failed, "reading", path, error);
    return std::nullopt;
}

bool DeviceFileSystem::writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept {
    const auto fill = [&](int file) { return writeAll(file, bytes); };
    return report(NewFile(*this, path).make(fill, true), "writing", path, error);
}

bool DeviceFileSystem::createFile(std::string_view path, std::string_view bytes,
                                  const FileAttributes& attributes) noexcept {
    const auto fill = [&](int file) {
        const int failed = writeAll(file, bytes);
        if (failed == 0) {
            setOwner(_accounts, file, "", attributes);
        }
        return failed;
    };
    return NewFile(*this, path).make(fill, false) == 0;
}

std::optional<FileInformation> DeviceFileSystem::attributesOfItem(std::string_view path, ErrorPtr* error) noexcept {
    Descriptor found;
    struct stat status {};
    int failed = _open(path, O_PATH, 0, found);
    if (failed == 0) {
        failed = errnoOf(::fstat(found.get(), &status));
    }
    if (!report(failed, "reading the attributes of", path, error)) {
        return std::nullopt;
    }
    return FileInformation{static_cast<std::uint64_t>(status.st_size)};
}

int DeviceFileSystem::utimes(std::string_view path) noexcept {
    Descriptor found;
    int failed = _open(path, O_PATH, 0, found);
    if (failed == 0) {
        failed = beforeChange(faultPoint(), "utimes", path);
    }
    return failed != 0 ? failed : errnoOf(::utimensat(found.get(), "", nullptr, AT_EMPTY_PATH));
}

std::string DeviceFileSystem::errorText(int errorNumber) noexcept {
    return systemText(errorNumber);
}

Result<Descriptor> DeviceFileSystem::open(std::string_view path, int flags, mode_t mode) noexcept {
    Descriptor opened;
    if (const int failed = _open(path, flags, mode, opened)) {
        return makePosixError(failed, "opening", path);
    }
    return opened;
}

Result<void> DeviceFileSystem::link(std::string_view from, std::string_view to) noexcept {
    Place source;
    Place target;
    int failed = _findPlace(from, O_PATH, source);
    if (failed == 0) {
        failed = _findPlace(to, O_PATH, target);
    }
    if (failed == 0) {
        failed = beforeChange(faultPoint(), "link", to);
    }
    if (failed == 0) {
        failed =
            errnoOf(::linkat(source.folder.get(), source.name.c_str(), target.folder.get(), target.name.c_str(), 0));
    }
    return failed == 0 ? Result<void>() : makePosixError(failed, "linking " + std::string(from) + " to", to);
}

Result<std::optional<Data>> DeviceFileSystem::readIfThere(std::string_view path) noexcept {
    ErrorPtr error;
    auto bytes = readFile(path, &error);
    return bytes || isGone(path) ? Result(std::move(bytes)) : error;
}

Result<std::vector<std::string>> DeviceFileSystem::list(std::string_view path) noexcept {
    Descriptor folder;
    int failed = _open(path, O_RDONLY | O_DIRECTORY, 0, folder);
    std::vector<std::string> names;
    if (failed == 0) {
        FolderReader reader(std::move(folder));
        while (const auto entry = reader.next()) {
            names.emplace_back(entry->name);
        }
        failed = reader.error();
    }
    if (failed != 0) {
        return makePosixError(failed, "listing the folder", path);
    }
    std::ranges::sort(names);
    return names;
}

Result<std::uint64_t> DeviceFileSystem::treeSize(std::string_view path) noexcept {
    auto folder = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!folder) {
        return folder.error();
    }
    std::uint64_t bytes = 0;
    if (const int failed = device::treeSize(std::move(*folder), bytes)) {
        return makePosixError(failed, "reading", path);
    }
    return bytes;
}

bool DeviceFileSystem::isGone(std::string_view path) noexcept {
    Descriptor found;
    const int failed = _open(path, O_PATH, 0, found);
    return failed == ENOENT || failed == ENOTDIR;
}

Result<void> DeviceFileSystem::sync() noexcept {
    int failed = beforeChange(faultPoint(), "sync all", "/");
    if (failed == 0) {
        failed = flush(::syncfs, _root.get(), timeline());
    }
    return failed == 0 ? ErrorPtr() : makePosixError(failed, "writing out the file system of", "/");
}

Result<std::uint64_t> DeviceFileSystem::freeSpace() noexcept {
    struct statvfs status {};
    if (::fstatvfs(_root.get(), &status) != 0) {
        return makePosixError(errno, "asking for the free space of", "/");
    }
    return std::uint64_t{status.f_bavail} * status.f_frsize;
}

void DeviceFileSystem::removeLeftovers(std::string_view path) noexcept {
    Descriptor folder;
    if (_open(path, O_RDONLY | O_DIRECTORY, 0, folder) == 0) {
        removeTemporaryFiles(std::move(folder), faultPoint());
    }
}

} // namespace appsync::device
