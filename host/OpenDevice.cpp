#include "host/OpenDevice.h"

#include "device/Device.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"

#include <iostream>

namespace appsync::host {

std::unique_ptr<device::Device> openDevice(const std::string& folder, ExitCode* code) {
    auto opened = device::Device::open(folder);
    if (!opened) {
        const std::string reason = reasonOf(opened.error());
        const bool namesDevice = reason.find(folder) != std::string::npos;
        *code = fail(namesDevice ? reason : "the device " + folder + " cannot be opened: " + reason,
                     exitCodeOf(opened.error()));
        return nullptr;
    }
    return std::move(*opened);
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
