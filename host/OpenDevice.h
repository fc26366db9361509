// Opening a device for a command.
#pragma once

#include "host/ExitCode.h"
#include "values/Error.h"

#include <memory>
#include <string>

namespace appsync {
class Timeline;
}
namespace appsync::device {
class Device;
}

namespace appsync::host {

/// The device, opened; null after telling the person why not, with the exit code in `code`. `purpose` is what others
/// are told who want to change it meanwhile, such as "a sync"; the timeline must outlive the device.
[[nodiscard]] std::unique_ptr<device::Device> openDevice(const std::string& folder, ExitCode* code, const char* purpose,
                                                         Timeline* timeline = nullptr);
/// The same to look at it, whatever else runs on it.
[[nodiscard]] std::unique_ptr<device::Device> lookAtDevice(const std::string& folder, ExitCode* code);

/// Who has a device open, such as "a sync since 11:42 (process 1234)"; empty when nobody has.
[[nodiscard]] std::string describeOwner(const std::string& folder);

/// As one word of a shell's command, quoted when it has to be.
[[nodiscard]] std::string shellWord(const std::string& text);

/// How a person lets go of an app that holds itself busy: a shell's command.
[[nodiscard]] std::string letGoCommand(const std::string& folder, const std::string& app);

/// The exit code of a device that could not be opened or made.
[[nodiscard]] ExitCode exitCodeOf(const ErrorPtr& error);

/// Tells the person on standard error; returns the code.
ExitCode fail(const std::string& sentence, ExitCode code = ExitCode::failed);

} // namespace appsync::host
