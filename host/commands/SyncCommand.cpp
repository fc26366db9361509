// `qrd sync`: what the person asked for becomes a plan, and its report becomes text and an exit code.
#include "desktop/AppLibrary.h"
#include "device/Device.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/commands/BringApps.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/session/Leftovers.h"
#include "host/session/RunSync.h"
#include "host/transfer/Bandwidth.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"

#include <chrono>
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

constexpr BringWords syncWords{"a sync", "Nothing to do: the device has every app of the library.", "sync again"};

} // namespace

ExitCode sync(const SyncArguments& arguments) {
    const auto bytesPerSecond = arguments.bandwidth.empty() ? std::nullopt : parseBandwidth(arguments.bandwidth);
    if (!arguments.bandwidth.empty() && !bytesPerSecond) {
        return fail("'" + arguments.bandwidth + "' is no bandwidth; write one like 10MB/s.", ExitCode::wrongUse);
    }
    const BringWhere where{arguments.device, arguments.trace, arguments.json};
    return bringApps(
        where, syncWords,
        [&](device::Device& device, SyncView& view, const Interrupt& interrupt) -> Result<SyncReport> {
            const auto began = std::chrono::system_clock::now();
            const auto library = desktop::readAppLibrary(arguments.library, device.propertyLists());
            if (!library) {
                return library.error();
            }
            SyncPlan plan = planSync(*library, stateOf(device),
                                     {arguments.install, arguments.remove, arguments.reinstall, arguments.downgrade});
            plan.report.isDryRun = arguments.dryRun;
            if (arguments.dryRun || plan.report.failure) {
                return std::move(plan.report);
            }
            clearLeftovers(device, plan.goingOn, plan.takenBack);
            if (!device.coordinationIsEnabled()) {
                letDemotedAppsReturn(device, plan.list);
            }
            SyncOptions options{.plugInPath = arguments.plugin.empty() ? PlugIn::defaultPath() : arguments.plugin,
                                .interrupt = &interrupt};
            std::optional<Bandwidth> bandwidth;
            if (bytesPerSecond) {
                bandwidth.emplace(*bytesPerSecond, [&](std::chrono::nanoseconds time) { interrupt.waitFor(time); });
                options.bandwidth = &*bandwidth;
            }
            SyncReport report = runSync(device, std::move(plan), options, view);
            report.began = began;
            report.ended = std::chrono::system_clock::now();
            return report;
        });
}

} // namespace appsync::host
