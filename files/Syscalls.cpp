#include "files/Syscalls.h"

#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

namespace appsync {

namespace {

int openResolved(int folder, const std::string& path, int flags, mode_t mode, unsigned resolve,
                 Descriptor& opened) noexcept {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0; // the call refuses a mode that means nothing
    how.resolve = resolve | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        const long number = ::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how);
        if (number >= 0) {
            opened = Descriptor(static_cast<int>(number));
            return 0;
        }
        // EAGAIN: something on the path was moved meanwhile, so that the kernel could not vouch for "..".
        if (errno != EINTR && errno != EAGAIN) {
            return errno;
        }
    }
}

} // namespace

int openInRoot(int root, const std::string& path, int flags, mode_t mode, Descriptor& opened) noexcept {
    return openResolved(root, path, flags, mode, RESOLVE_IN_ROOT, opened);
}

int openBeneath(int folder, const std::string& path, int flags, Descriptor& opened, unsigned resolve) noexcept {
    return openResolved(folder, path, flags, 0, RESOLVE_BENEATH | resolve, opened);
}

int checkIsFile(int file) noexcept {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return errno;
    }
    if (S_ISDIR(status.st_mode)) {
        return EISDIR;
    }
    return S_ISREG(status.st_mode) ? 0 : ENXIO;
}

std::string hostPathOf(int opened) {
    std::string path(PATH_MAX, '\0');
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(opened)).c_str(), path.data(), path.size());
    path.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return path;
}

int writeAll(int file, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int writeDirectly(int file, std::string_view bytes) noexcept {
    constexpr std::size_t block = 4096;
    const bool isAtBlock = reinterpret_cast<std::uintptr_t>(bytes.data()) % block == 0;
    if (bytes.size() >= largeFile && isAtBlock && ::fcntl(file, F_SETFL, O_DIRECT) == 0) {
        // What this leaves over is written as usual; so a failure that lasts is found there.
        const ssize_t written = ::write(file, bytes.data(), bytes.size() / block * block);
        ::fcntl(file, F_SETFL, 0);
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return writeAll(file, bytes);
}

int readAll(int file, std::size_t maxSize, std::string& bytes) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return errno;
    }
    if (static_cast<std::uint64_t>(status.st_size) > maxSize) {
        return EFBIG;
    }
    const std::size_t start = bytes.size();
    const std::size_t limit = start + maxSize + 1; // one more byte than is taken shows that there is more
    // Likewise the end of a file that does not change shows in the first read after it.
    std::size_t used = start;
    bytes.resize(start + static_cast<std::size_t>(status.st_size) + 1);
    for (;;) {
        const ssize_t count = ::read(file, bytes.data() + used, bytes.size() - used);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (count == 0) {
            bytes.resize(used);
            return 0;
        }
        used += static_cast<std::size_t>(count);
        if (used == limit) {
            return EFBIG;
        }
        if (used == bytes.size()) {
            bytes.resize(std::min(limit, used * 2));
        }
    }
}

int copyAll(int from, int to) {
    std::array<char, std::size_t{1} << 16> buffer; // not filled beforehand: most files are small
    for (;;) {
        const ssize_t count = ::read(from, buffer.data(), buffer.size());
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return errnoOf(static_cast<int>(count));
        }
        if (count > 0) {
            if (const int failed = writeAll(to, {buffer.data(), static_cast<std::size_t>(count)})) {
                return failed;
            }
        }
    }
}

std::string systemText(int errorNumber) {
    const char* text = strerrordesc_np(errorNumber);
    return text ? text : "error " + std::to_string(errorNumber);
}

} // namespace appsync
