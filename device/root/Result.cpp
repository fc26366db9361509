#include "device/root/Result.h"

#include <cerrno>
#include <cstring>

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

ErrorPtr makeError(std::string_view domain, std::int64_t code, std::string_view description, std::string_view path) {
    Dictionary facts{{ErrorDescriptionKey, description}};
    if (!path.empty()) {
        facts.set(ErrorPathKey, path);
    }
    return Error::make(domain, code, std::move(facts));
}

std::string systemText(int errorNumber) {
    const char* text = strerrordesc_np(errorNumber);
    return text ? text : "error " + std::to_string(errorNumber);
}

ErrorPtr makePosixError(int errorNumber, std::string_view operation, std::string_view path) {
    std::string text(operation);
    const std::string reason =
        errorNumber == ENXIO ? "it is a pipe, a socket or a device and no file; move it away" : systemText(errorNumber);
    text.append(" ").append(path).append(": ").append(reason).append(remedy(errorNumber));
    return makeError(PosixErrorDomain, errorNumber, text, path);
}

std::string errorText(const ErrorPtr& error) {
    if (!error) {
        return "no error";
    }
    const auto description = error->userInfo().string(ErrorDescriptionKey);
    return description ? std::string(*description) : error->description();
}

} // namespace appsync::device
