#include "files/OutputFile.h"

#include "files/Syscalls.h"

#include <sys/stat.h>

#include <array>
#include <charconv>
#include <climits>
#include <filesystem>
#include <random>

namespace appsync {

namespace {

namespace fs = std::filesystem;

constexpr mode_t permissionBits = 0777;

/// Eight letters and digits, of which nobody knows beforehand which.
std::string randomName() {
    std::random_device source;
    std::array<char, 16> digits{};
    const std::uint64_t number = static_cast<std::uint64_t>(source()) << 32 | source();
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 36).ptr;
    return {digits.data(), end};
}

/// Follows the links at the end of a path, the last of which may lead nowhere.
int resolve(const std::string& path, std::string& target) {
    constexpr int maxLinks = 40; // as the kernel has it
    fs::path place = path;
    std::error_code failed;
    for (int links = 0; fs::is_symlink(place, failed); ++links) {
        const fs::path next = fs::read_symlink(place, failed);
        if (failed || links == maxLinks) {
            return failed ? failed.value() : ELOOP;
        }
        place = place.parent_path() / next;
    }
    target = place.string();
    return 0;
}

} // namespace

bool isStandardOutput(const std::string& path) noexcept {
    struct stat found {};
    struct stat standard {};
    return ::stat(path.c_str(), &found) == 0 && ::fstat(STDOUT_FILENO, &standard) == 0 && !S_ISDIR(found.st_mode) &&
           found.st_dev == standard.st_dev && found.st_ino == standard.st_ino;
}

Result<std::unique_ptr<OutputFile>> OutputFile::open(const std::string& path) {
    std::unique_ptr<OutputFile> file(new OutputFile(path));
    const auto opened = file->_outcome(file->_open());
    return opened ? Result(std::move(file)) : opened.error();
}

OutputFile::~OutputFile() {
    if (!_unfinished.empty()) {
        ::unlink(_unfinished.c_str());
    }
}

Result<void> OutputFile::_outcome(int failed) const {
    if (failed == 0) {
        return {};
    }
    return makeError(posixErrorDomain, failed, "'" + _path + "' cannot be written: " + systemText(failed) + ".", _path);
}

int OutputFile::_open() {
    if (const int failed = _openTarget()) {
        return failed;
    }
    if (_node.isOpen()) {
        std::error_code ignored;
        const fs::path folder = fs::temp_directory_path(ignored);
        const int failed = _openContent(folder.empty() ? "/tmp" : folder.string(), 0600);
        ::unlink(_unfinished.c_str()); // it is only copied
        _unfinished.clear();
        return failed;
    }
    const fs::path folder = fs::path(_target).parent_path();
    // A file that takes the place of another gets its mode in the end; until then it is the owner's alone.
    return _openContent(folder.empty() ? "." : folder.string(), _replaced.isOpen() ? 0600 : 0666);
}

/// Opens what the path leads to, if there is something.
int OutputFile::_openTarget() {
    struct stat found {};
    if (::stat(_path.c_str(), &found) != 0) {
        return errno == ENOENT ? resolve(_path, _target) : errno;
    }
    if (isStandardOutput(_path)) {
        _node = Descriptor(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        return _node.isOpen() ? 0 : errno;
    }
    Descriptor opened(::open(_path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    if (!opened.isOpen() || ::fstat(opened.get(), &found) != 0) {
        return errno;
    }
    (S_ISREG(found.st_mode) ? _replaced : _node) = std::move(opened);
    return _replaced.isOpen() ? resolve(_path, _target) : 0;
}

int OutputFile::_openContent(const std::string& folder, mode_t mode) {
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    do {
        const std::string path = folder + "/.qrd." + randomName();
        _content = Descriptor(::open(path.c_str(), flags, mode));
        if (_content.isOpen()) {
            _unfinished = path;
            return 0;
        }
    } while (errno == EEXIST);
    return errno;
}

Result<void> OutputFile::write(std::string_view bytes) {
    return _outcome(writeAll(_content.get(), bytes));
}

Result<void> writeOutput(const std::string& path, std::string_view bytes) {
    const auto file = OutputFile::open(path);
    if (!file) {
        return file.error();
    }
    const auto written = (*file)->write(bytes);
    return written ? (*file)->finish() : written;
}

Result<void> OutputFile::finish() {
    auto finished = _outcome(_node.isOpen() ? _copy() : _replace());
    if (finished) {
        _unfinished.clear();
    }
    return finished;
}

int OutputFile::_copy() {
    const int failed = ::lseek(_content.get(), 0, SEEK_SET) < 0 ? errno : 0;
    return failed != 0 ? failed : copyAll(_content.get(), _node.get());
}

int OutputFile::_replace() {
    if (_replaced.isOpen()) {
        struct stat before {};
        struct stat now {};
        if (::fstat(_replaced.get(), &before) != 0 || ::fstat(_content.get(), &now) != 0) {
            return errno;
        }
        mode_t mode = before.st_mode & permissionBits;
        const bool isOfSame = before.st_uid == now.st_uid && before.st_gid == now.st_gid;
        if (!isOfSame && ::fchown(_content.get(), before.st_uid, before.st_gid) != 0) {
            mode &= S_IRWXU; // what was for its group and others was not for these
        }
        // It must not take the place of what is there before it is there itself.
        if (::fchmod(_content.get(), mode) != 0 || ::fsync(_content.get()) != 0) {
            return errno;
        }
    }
    return ::rename(_unfinished.c_str(), _target.c_str()) == 0 ? 0 : errno;
}

} // namespace appsync
