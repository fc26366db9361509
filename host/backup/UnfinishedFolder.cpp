#include "host/backup/UnfinishedFolder.h"

#include "device/root/Tree.h"
#include "files/Syscalls.h"
#include "host/backup/BackupFolder.h"
#include "host/plugin/PlugIn.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace appsync::host {

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t randomLetters = 6;

std::string randomText() {
    return device::makeTemporaryName().substr(1, randomLetters); // after its dot
}

bool holdsPartOfBackup(int folder) {
    device::FolderReader reader(Descriptor(::fcntl(folder, F_DUPFD_CLOEXEC, 0)));
    while (const auto entry = reader.next()) {
        if (std::ranges::find(backupNames, entry->name) == backupNames.end()) {
            return false;
        }
    }
    return reader.error() == 0;
}

/// Whether a folder is what this account's process has begun and nobody will finish.
bool isAbandoned(int folder) {
    struct stat status {};
    return ::fstat(folder, &status) == 0 && status.st_uid == ::geteuid() && (status.st_mode & 0777U) == 0700 &&
           ::flock(folder, LOCK_EX | LOCK_NB) == 0 && holdsPartOfBackup(folder);
}

} // namespace

ErrorPtr writeError(const std::string& path, int errorNumber) {
    return hostError("'" + path + "' cannot be written: " + std::strerror(errorNumber) + ".", path);
}

UnfinishedFolder::UnfinishedFolder(const std::string& final) {
    auto path = std::filesystem::path(final).lexically_normal();
    if (!path.has_filename()) {
        path = path.parent_path(); // it was written with a slash at its end
    }
    _final = path.string();
    _name = path.filename().string();
    const std::string parent = path.has_parent_path() ? path.parent_path().string() : ".";
    _parent = Descriptor(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

Result<std::unique_ptr<UnfinishedFolder>> UnfinishedFolder::begin(const std::string& final) {
    std::unique_ptr<UnfinishedFolder> folder(new UnfinishedFolder(final));
    if (const int failed = folder->_parent.isOpen() ? folder->_make() : errno) {
        return writeError(folder->_final, failed);
    }
    return folder;
}

UnfinishedFolder::~UnfinishedFolder() {
    if (_isThere) {
        (void)device::removeTree(_parent.get(), _temporaryName, nullptr, _final); // what stays, the next one removes
    }
}

int UnfinishedFolder::_make() {
    _removeLeftOnes();
    _temporaryName = "." + _name + ".unfinished-" + randomText();
    if (::mkdirat(_parent.get(), _temporaryName.c_str(), 0700) != 0) {
        return errno;
    }
    _isThere = true;
    _folder = Descriptor(::openat(_parent.get(), _temporaryName.c_str(), folderFlags));
    return _folder.isOpen() ? errnoOf(::flock(_folder.get(), LOCK_EX | LOCK_NB)) : errno;
}

void UnfinishedFolder::_removeLeftOnes() const {
    const std::string prefix = "." + _name + ".unfinished-";
    device::FolderReader reader(Descriptor(::openat(_parent.get(), ".", folderFlags)));
    std::vector<std::string> left;
    while (const auto entry = reader.next()) {
        if (entry->isFolder && entry->name.size() == prefix.size() + randomLetters && entry->name.starts_with(prefix)) {
            left.emplace_back(entry->name);
        }
    }
    for (const std::string& name : left) {
        const Descriptor folder(::openat(_parent.get(), name.c_str(), folderFlags));
        if (folder.isOpen() && isAbandoned(folder.get())) {
            (void)device::removeTree(_parent.get(), name, nullptr, _final);
        }
    }
}

Result<void> UnfinishedFolder::keep() {
    if (::syncfs(_folder.get()) != 0 ||
        ::renameat2(_parent.get(), _temporaryName.c_str(), _parent.get(), _name.c_str(), RENAME_NOREPLACE) != 0) {
        return writeError(_final, errno);
    }
    _isThere = false;
    if (::fsync(_parent.get()) != 0) {
        return writeError(_final, errno);
    }
    return {};
}

} // namespace appsync::host
