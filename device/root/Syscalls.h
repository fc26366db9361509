// The system calls through which everything below a device root is reached.
#pragma once

#include "device/root/Descriptor.h"
#include "device/root/FaultPoint.h"
#include "files/Syscalls.h"

namespace appsync::device {

using appsync::checkIsFile;
using appsync::hostPathOf;
using appsync::openBeneath;
using appsync::openInRoot;
using appsync::openWithoutLinks;
using appsync::readAll;
using appsync::systemText;
using appsync::withoutWaiting;
using appsync::writeAll;

/// Asks the fault point, if there is one, before a change; zero or an errno number.
[[nodiscard]] inline int beforeChange(FaultPoint* faultPoint, std::string_view operation,
                                      std::string_view path) noexcept {
    return faultPoint ? faultPoint->before(operation, path) : 0;
}

/// The result of a system call that answers -1 and sets errno.
[[nodiscard]] inline int errnoOf(int result) noexcept {
    return result < 0 ? errno : 0;
}

} // namespace appsync::device
