// Opening a device for a command.
#pragma once

#include "host/ExitCode.h"
#include "values/Result.h"

#include <memory>
#include <string>

namespace appsync {
class Timeline;
}
namespace appsync::device {
class Device;
}

namespace appsync::host {

/// The device, opened. `purpose` is what others are told who want to change it meanwhile, such as "a sync"; the
/// timeline must outlive the device. An error is the device's own, in a sentence for the person.
[[nodiscard]] Result<std::unique_ptr<device::Device>> openDevice(const std::string& folder, const char* purpose,
                                                                 Timeline* timeline = nullptr);
/// The same to look at it, whatever else runs on it.
[[nodiscard]] Result<std::unique_ptr<device::Device>> lookAtDevice(const std::string& folder);

/// Who has a device open, such as "a sync since 11:42 (process 1234)"; empty when nobody has.
[[nodiscard]] std::string describeOwner(const std::string& folder);

/// As one word of a shell's command, quoted when it has to be.
[[nodiscard]] std::string shellWord(const std::string& text);

/// How a person lets go of an app that holds itself busy: a shell's command.
[[nodiscard]] std::string letGoCommand(const std::string& folder, const std::string& app);

/// Tells the person on standard error; returns the code.
ExitCode fail(const std::string& sentence, ExitCode code = ExitCode::failed);
/// Tells why a device could not be opened or made.
ExitCode fail(const ErrorPtr& error);

} // namespace appsync::host
