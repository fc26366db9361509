// The errors that the system's numbers become.
#pragma once

#include "values/Error.h"

#include <string_view>

namespace appsync::device {

/// A POSIX-domain error: "<operation> <path>: <the system's text>", and for some numbers what to do about it.
[[nodiscard]] ErrorPtr makePosixError(int errorNumber, std::string_view operation, std::string_view path);

/// That the system has no thread for something, "the store client" say.
[[nodiscard]] ErrorPtr makeNoThreadError(std::string_view purpose);

} // namespace appsync::device
