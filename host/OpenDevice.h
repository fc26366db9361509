// Opening a device for a command.
#pragma once

#include "host/ExitCode.h"
#include "values/Error.h"

#include <memory>
#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

/// The device, opened; null after telling the person why not, with the exit code in `code`.
[[nodiscard]] std::unique_ptr<device::Device> openDevice(const std::string& folder, ExitCode* code);

/// The exit code of a device that could not be opened or made.
[[nodiscard]] ExitCode exitCodeOf(const ErrorPtr& error);

/// Tells the person on standard error; returns the code.
ExitCode fail(const std::string& sentence, ExitCode code = ExitCode::failed);

} // namespace appsync::host
