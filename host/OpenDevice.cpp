#include "host/OpenDevice.h"

#include "device/Device.h"
#include "device/processes/ProcessTable.h"
#include "host/LocalTime.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"

#include <algorithm>
#include <iostream>

namespace appsync::host {

namespace {

std::string described(const device::DeviceOwner& owner) {
    std::string text = owner.purpose.empty() ? "another command" : owner.purpose;
    if (owner.since != TimePoint()) {
        text += " since " + localTime(owner.since, presentTime(), false);
    }
    return owner.process > 0 ? text + " (process " + std::to_string(owner.process) + ")" : text;
}

/// What runs on a device in use, how to look at it and how to end it.
std::string inUseSentence(const std::string& folder) {
    const auto owner = device::Root::owner(folder);
    if (!owner) {
        return "the device " + folder + " was in use by another command, which has just ended; try again";
    }
    const std::string end = owner->process > 0 ? "end it with `kill " + std::to_string(owner->process) + "`" : "end it";
    return "the device " + folder + " is in use by " + described(*owner) + "; `qrd status " + shellWord(folder) +
           "` shows what it does: wait for it, or " + end;
}

std::unique_ptr<device::Device> opened(Result<std::unique_ptr<device::Device>> device, const std::string& folder,
                                       ExitCode* code) {
    if (device) {
        return std::move(*device);
    }
    *code = exitCodeOf(device.error());
    const std::string reason = *code == ExitCode::deviceInUse ? inUseSentence(folder) : reasonOf(device.error());
    const bool namesDevice = reason.find(folder) != std::string::npos;
    fail(namesDevice ? reason : "the device " + folder + " cannot be opened: " + reason);
    return nullptr;
}

} // namespace

std::string shellWord(const std::string& text) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%";
    if (!text.empty() && text.front() != '-' && text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char character : text) {
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return quoted + "'";
}

std::unique_ptr<device::Device> openDevice(const std::string& folder, ExitCode* code, const char* purpose,
                                           Timeline* timeline) {
    return opened(device::Device::open(folder, {.purpose = purpose, .timeline = timeline}), folder, code);
}

std::unique_ptr<device::Device> lookAtDevice(const std::string& folder, ExitCode* code) {
    return opened(device::Device::look(folder), folder, code);
}

std::string describeOwner(const std::string& folder) {
    const auto owner = device::Root::owner(folder);
    return owner ? described(*owner) : "";
}

std::string letGoCommand(const std::string& folder, const std::string& app) {
    return "rm " + shellWord(folder + device::busyPath(app));
}

ExitCode exitCodeOf(const ErrorPtr& error) {
    return isError(error, device::rootErrorDomain, device::RootError::inUse) ? ExitCode::deviceInUse
                                                                             : ExitCode::deviceUnusable;
}

ExitCode fail(const std::string& sentence, ExitCode code) {
    printLine(std::cerr, "qrd: " + sentence);
    return code;
}

} // namespace appsync::host
