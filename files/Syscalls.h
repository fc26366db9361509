// The few system calls through which files are opened, read and written.
#pragma once

#include "files/Descriptor.h"

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <string_view>

namespace appsync {

/// The system's text for an errno number.
[[nodiscard]] std::string systemText(int errorNumber);

/// The result of a system call that returns -1 and sets errno: zero or an errno number.
[[nodiscard]] inline int errnoOf(int result) noexcept {
    return result < 0 ? errno : 0;
}

// Each returns zero or an errno number.

/// Opens a path as it is seen from inside `root`: "/" is the root, and neither ".." nor a symbolic link leads above it.
[[nodiscard]] int openInRoot(int root, const std::string& path, int flags, mode_t mode, Descriptor& opened) noexcept;
/// Opens a relative path below `folder`; one that leads out of it fails with EXDEV. `resolve` has further RESOLVE_
/// flags of openat2.
[[nodiscard]] int openBeneath(int folder, const std::string& path, int flags, Descriptor& opened,
                              unsigned resolve = 0) noexcept;
/// As flags of an opening: what is opened for its bytes must not be waited for or become the terminal.
inline constexpr int withoutWaiting = O_NONBLOCK | O_NOCTTY;
/// Zero for a regular file, EISDIR for a folder, ENXIO for a pipe, a socket or a device.
[[nodiscard]] int checkIsFile(int file) noexcept;
/// Where an open file or folder stands on this machine at present; empty when that cannot be found out.
[[nodiscard]] std::string hostPathOf(int opened);
[[nodiscard]] int writeAll(int file, std::string_view bytes) noexcept;
/// From this many bytes on it pays to write past the system's cache: nothing is copied, and the cache keeps what is in
/// use.
inline constexpr std::size_t largeFile = std::size_t{128} << 10;
/// As `writeAll`, but what is large goes past the cache as far as the file system and its place in memory and in the
/// file allow it. The file has no status flags (O_APPEND and the like).
[[nodiscard]] int writeDirectly(int file, std::string_view bytes) noexcept;
/// Appends the rest of a file. EFBIG when that is more than `maxSize` bytes.
[[nodiscard]] int readAll(int file, std::size_t maxSize, std::string& bytes);
/// Writes the rest of a file to another.
[[nodiscard]] int copyAll(int from, int to);

} // namespace appsync
