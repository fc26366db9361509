// `qrd demote`: frees the space that an app takes, and keeps its data.
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/processes/ProcessTable.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"

#include <iostream>

namespace appsync::host {

ExitCode demote(const DemoteArguments& arguments) {
    const auto opened = openDevice(arguments.device, "a demotion");
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    device.coordinator().waitUntilIdle();
    if (const auto demoted = device.demote(arguments.app, arguments.automatic); !demoted) {
        const bool isBusy = isError(demoted.error(), device::processErrorDomain, device::ProcessError::inUse);
        const std::string advice =
            isBusy ? "; let go of it with `" + letGoCommand(arguments.device, arguments.app) + "`" : "";
        return fail(reasonOf(demoted.error()) + advice, ExitCode::someAppFailed);
    }
    printLine(std::cout, "demoted " + arguments.app);
    return ExitCode::done;
}

} // namespace appsync::host
