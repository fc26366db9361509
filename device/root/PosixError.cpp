#include "device/root/PosixError.h"

#include "files/Syscalls.h"

#include <cerrno>

namespace appsync::device {

namespace {

/// What a person can do about an error number; empty when the system's text says it all.
std::string_view remedy(int errorNumber) {
    switch (errorNumber) {
    case ENOSPC: return "; free some space on the device's disk and try again";
    case EDQUOT: return "; the account's disk quota is used up, free some space or raise it";
    case EROFS: return "; the file system is mounted read-only, mount it writable";
    case EMFILE:
    case ENFILE: return "; raise the limit of open files (ulimit -n)";
    case ENOSYS: return "; a device needs Linux 5.6 or later";
    case EISDIR: return "; a file belongs there: move the folder away";
    case EXDEV: return "; the path leaves the device, or source and destination are on different file systems";
    default: return {};
    }
}

} // namespace

ErrorPtr makePosixError(int errorNumber, std::string_view operation, std::string_view path) {
    std::string text(operation);
    const std::string reason =
        errorNumber == ENXIO ? "it is a pipe, a socket or a device and no file; move it away" : systemText(errorNumber);
    text.append(" ").append(path).append(": ").append(reason).append(remedy(errorNumber));
    return makeError(posixErrorDomain, errorNumber, text, path);
}

ErrorPtr makeNoThreadError(std::string_view purpose) {
    return makeError(posixErrorDomain, EAGAIN,
                     "no thread can be started for " + std::string(purpose) +
                         "; end other programs or raise the limit of processes (ulimit -u), and try again");
}

} // namespace appsync::device
