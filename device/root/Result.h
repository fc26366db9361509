// Outcomes of operations of the device, and the errors that the system's numbers become.
#pragma once

#include "files/Syscalls.h"
#include "platform/Result.h"

#include <string>
#include <string_view>

namespace appsync::device {

using appsync::errorText;
using appsync::isError;
using appsync::makeError;
using appsync::Result;

/// A POSIX-domain error: "<operation> <path>: <the system's text>", and for some numbers what to do about it.
[[nodiscard]] ErrorPtr makePosixError(int errorNumber, std::string_view operation, std::string_view path);

} // namespace appsync::device
