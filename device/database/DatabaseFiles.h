// How SQLite reaches its files: only regular ones, and by the path that it is given.
#pragma once

namespace appsync::device {

/// The name of SQLite's usual access to files, with two differences. A path is used as it is: SQLite would resolve one
/// that leads through the descriptor of an opened folder, and go on with where that folder stood then. And what stands
/// there but is no regular file is refused with SQLITE_CANTOPEN_ISDIR; opening a pipe would wait without end. For one
/// who looks, every file is opened for reading alone, and none is made.
[[nodiscard]] const char* databaseFiles(bool isForReading) noexcept;

} // namespace appsync::device
