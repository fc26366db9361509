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

bool isInUse(const ErrorPtr& error) {
    return isError(error, device::rootErrorDomain, device::RootError::inUse);
}

/// The device's error with the sentence that the person reads.
ErrorPtr told(const ErrorPtr& error, const std::string& folder) {
    const std::string reason = isInUse(error) ? inUseSentence(folder) : reasonOf(error);
    const bool namesDevice = reason.find(folder) != std::string::npos;
    return Error::make(
        error->domain(), error->code(),
        {{errorDescriptionKey, namesDevice ? reason : "the device " + folder + " cannot be opened: " + reason}});
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

Result<std::unique_ptr<device::Device>> openDevice(const std::string& folder, const char* purpose, Timeline* timeline) {
    auto device = device::Device::open(folder, {.purpose = purpose, .timeline = timeline});
    return device ? std::move(device) : told(device.error(), folder);
}

Result<std::unique_ptr<device::Device>> lookAtDevice(const std::string& folder) {
    auto device = device::Device::look(folder);
    return device ? std::move(device) : told(device.error(), folder);
}

std::string describeOwner(const std::string& folder) {
    const auto owner = device::Root::owner(folder);
    return owner ? described(*owner) : "";
}

std::string letGoCommand(const std::string& folder, const std::string& app) {
    return "rm " + shellWord(folder + device::busyPath(app));
}

ExitCode fail(const std::string& sentence, ExitCode code) {
    printLine(std::cerr, "qrd: " + sentence);
    return code;
}

ExitCode fail(const ErrorPtr& error) {
    return fail(reasonOf(error), isInUse(error) ? ExitCode::deviceInUse : ExitCode::deviceUnusable);
}

} // namespace appsync::host
