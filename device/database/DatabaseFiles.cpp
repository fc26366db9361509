#include "device/database/DatabaseFiles.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace appsync::device {

namespace {

sqlite3_vfs* usual() noexcept {
    return sqlite3_vfs_find("unix");
}

int keepPath(sqlite3_vfs* /*files*/, const char* path, int size, char* out) {
    const std::size_t length = std::strlen(path) + 1;
    if (length > static_cast<std::size_t>(size)) {
        return SQLITE_CANTOPEN;
    }
    std::memcpy(out, path, length);
    return SQLITE_OK;
}

bool isOther(const char* path) {
    struct stat status {};
    return ::lstat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

int openFile(sqlite3_vfs* /*files*/, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    // SQLite opens the shared memory by itself, beside the database.
    const bool isDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    if (path != nullptr && (isOther(path) || (isDatabase && isOther((std::string(path) + "-shm").c_str())))) {
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN_ISDIR;
    }
    return usual()->xOpen(usual(), path, file, flags, outFlags);
}

int openFileForReading(sqlite3_vfs* files, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    constexpr int changing = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_DELETEONCLOSE;
    return openFile(files, path, file, (flags & ~changing) | SQLITE_OPEN_READONLY, outFlags);
}

int refuseRemoval(sqlite3_vfs* /*files*/, const char* /*path*/, int /*syncsFolder*/) {
    return SQLITE_READONLY;
}

/// For root SQLite gives the files beside the database the owner of that, also those that it opens to read.
int giveUnlessForReading(int file, uid_t user, gid_t group) {
    const int flags = ::fcntl(file, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) == O_RDONLY ? 0 : ::fchown(file, user, group);
}

sqlite3_vfs makeFiles(const char* name) {
    sqlite3_initialize();
    sqlite3_vfs own = *usual();
    own.pNext = nullptr;
    own.zName = name;
    own.xFullPathname = keepPath;
    own.xOpen = openFile;
    return own;
}

} // namespace

const char* databaseFiles(bool isForReading) noexcept {
    static sqlite3_vfs usualFiles = makeFiles("opened-folder");
    static sqlite3_vfs readFiles = [] {
        usual()->xSetSystemCall(usual(), "fchown", reinterpret_cast<sqlite3_syscall_ptr>(giveUnlessForReading));
        sqlite3_vfs own = makeFiles("opened-folder-for-reading");
        own.xOpen = openFileForReading;
        own.xDelete = refuseRemoval;
        return own;
    }();
    // Opening a file by a name that is not registered fails.
    static const int registered = sqlite3_vfs_register(&usualFiles, 0) | sqlite3_vfs_register(&readFiles, 0);
    (void)registered;
    return isForReading ? readFiles.zName : usualFiles.zName;
}

} // namespace appsync::device
