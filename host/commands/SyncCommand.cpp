// `qrd sync`: what the person asked for becomes a plan, and its report becomes text and an exit code.
#include "desktop/AppLibrary.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/commands/Outcome.h"
#include "host/commands/TraceFile.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/session/Leftovers.h"
#include "host/session/RunSync.h"
#include "host/transfer/Bandwidth.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"

#include <chrono>
#include <iostream>
#include <utility>

namespace appsync::host {

namespace {

/// Without coordination the plug-in asks for no app that has a placeholder of another's making.
void letDemotedAppsReturn(device::Device& device, const desktop::SyncList& list) {
    for (const desktop::AppArchive* archive : list.installs) {
        const auto app = device.registry().application(archive->identifier);
        if (app && app->isDemoted()) {
            device.letReturn(archive->identifier);
        }
    }
}

constexpr OutcomeWords words{"Nothing to do: the device has every app of the library.", "sync again"};

} // namespace

ExitCode sync(const SyncArguments& arguments) {
    const auto bytesPerSecond = arguments.bandwidth.empty() ? std::nullopt : parseBandwidth(arguments.bandwidth);
    if (!arguments.bandwidth.empty() && !bytesPerSecond) {
        return fail("'" + arguments.bandwidth + "' is no bandwidth; write one like 10MB/s.", ExitCode::wrongUse);
    }
    auto trace = TraceFile::open(arguments.trace);
    if (!trace) {
        return fail(reasonOf(trace.error()));
    }
    const auto opened = openDevice(arguments.device, "a sync", trace->timeline());
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    device.coordinator().waitUntilIdle(); // what an interrupted sync left to install is installed first
    const auto began = std::chrono::system_clock::now();
    const auto library = desktop::readAppLibrary(arguments.library, device.propertyLists());
    if (!library) {
        return fail(reasonOf(library.error()), ExitCode::wrongUse);
    }
    SyncPlan plan = planSync(*library, stateOf(device),
                             {arguments.install, arguments.remove, arguments.reinstall, arguments.downgrade});
    plan.report.isDryRun = arguments.dryRun;
    if (arguments.dryRun || plan.report.failure != nullptr) {
        return tellOutcome(plan.report, arguments.json, words);
    }
    clearLeftovers(device, plan.goingOn, plan.takenBack);
    if (!device.coordinationIsEnabled()) {
        letDemotedAppsReturn(device, plan.list);
    }
    const Interrupt interrupt;
    SyncOptions options{.plugInPath = arguments.plugin.empty() ? PlugIn::defaultPath() : arguments.plugin,
                        .interrupt = &interrupt};
    std::optional<Bandwidth> bandwidth;
    if (bytesPerSecond) {
        bandwidth.emplace(*bytesPerSecond, [&](std::chrono::nanoseconds time) { interrupt.waitFor(time); });
        options.bandwidth = &*bandwidth;
    }
    SyncView view(std::cout, SyncView::styleFor(std::cout, arguments.json));
    SyncReport report = runSync(device, std::move(plan), options, view);
    report.began = began;
    report.ended = std::chrono::system_clock::now();
    trace->finish(report);
    return tellOutcome(report, arguments.json, words);
}

} // namespace appsync::host
