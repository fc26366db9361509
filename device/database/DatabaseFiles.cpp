#include "device/database/DatabaseFiles.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstring>

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

int openFile(sqlite3_vfs* /*files*/, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    struct stat status {};
    if (path != nullptr && ::lstat(path, &status) == 0 && !S_ISREG(status.st_mode)) {
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN_ISDIR;
    }
    return usual()->xOpen(usual(), path, file, flags, outFlags);
}

} // namespace

const char* databaseFiles() noexcept {
    static sqlite3_vfs files = [] {
        sqlite3_initialize();
        sqlite3_vfs own = *usual();
        own.pNext = nullptr;
        own.zName = "opened-folder";
        own.xFullPathname = keepPath;
        own.xOpen = openFile;
        return own;
    }();
    static const int registered = sqlite3_vfs_register(&files, 0);
    (void)registered; // opening a file by a name that is not registered fails
    return files.zName;
}

} // namespace appsync::device
