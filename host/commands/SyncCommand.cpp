// `qrd sync`: what the person asked for becomes a sync list, and its report becomes text and an exit code.
#include "desktop/SyncList.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/session/Leftovers.h"
#include "host/session/RunSync.h"
#include "host/transfer/Bandwidth.h"
#include "host/view/Print.h"
#include "host/view/Table.h"

#include <unistd.h>

#include <iostream>

namespace appsync::host {

namespace {

std::vector<desktop::InstalledApp> installedApps(const device::Registry& registry) {
    std::vector<desktop::InstalledApp> installed;
    for (const device::Application& app : registry.applications()) {
        if (app.isInstalled) {
            installed.push_back({app.identifier, app.version});
        }
    }
    return installed;
}

std::set<std::string> restoringApps(const device::Registry& registry) {
    std::set<std::string> restoring;
    for (const device::Application& app : registry.applications()) {
        if (app.isPlaceholder && app.installType == PDInstallTypeRestore) {
            restoring.insert(app.identifier);
        }
    }
    return restoring;
}

/// With coordination a restore is the store's.
void leaveRestoresToStore(desktop::SyncList& list) {
    for (const desktop::AppArchive* app : list.restores) {
        list.problems.push_back(app->identifier + " is being restored and waits for the store; `qrd store` brings it.");
    }
    list.restores.clear();
}

/// Without coordination the plug-in asks for no app that has a placeholder of another's making.
void letDemotedAppsReturn(device::Device& device, const desktop::SyncList& list) {
    for (const desktop::AppArchive* archive : list.installs) {
        const auto app = device.registry().application(archive->identifier);
        if (app && app->isDemoted()) {
            device.letReturn(archive->identifier);
        }
    }
}

void showPlanned(const std::string& what, const desktop::AppArchive& app) {
    printLine(std::cout, what + app.identifier + " " + app.version.value_or("-") + " (" + sizeText(app.size) + ")");
}

void showPlan(const desktop::SyncList& list) {
    for (const std::string& identifier : list.removals) {
        printLine(std::cout, "would remove  " + identifier);
    }
    for (const desktop::AppArchive* app : list.installs) {
        showPlanned("would install ", *app);
    }
    for (const desktop::AppArchive* app : list.restores) {
        showPlanned("would restore ", *app);
    }
    if (list.removals.empty() && list.installs.empty() && list.restores.empty()) {
        printLine(std::cout, "nothing to do");
    }
    for (const std::string& problem : list.problems) {
        printLine(std::cout, "note: " + problem);
    }
}

ExitCode exitCodeOf(const SyncReport& report) {
    if (report.failure != nullptr) {
        return ExitCode::failed;
    }
    return report.interrupted ? Interrupt::exitCode() : report.allDone() ? ExitCode::done : ExitCode::someAppFailed;
}

} // namespace

ExitCode sync(const SyncArguments& arguments) {
    const auto bytesPerSecond = arguments.bandwidth.empty() ? std::nullopt : parseBandwidth(arguments.bandwidth);
    if (!arguments.bandwidth.empty() && !bytesPerSecond) {
        return fail("'" + arguments.bandwidth + "' is no bandwidth; write one like 10MB/s.", ExitCode::wrongUse);
    }
    ExitCode code = ExitCode::failed;
    const auto device = openDevice(arguments.device, &code, "a sync");
    if (device == nullptr) {
        return code;
    }
    device->coordinator().waitUntilIdle(); // what an interrupted sync left to install is installed first
    clearLeftovers(*device);
    const auto library = desktop::readAppLibrary(arguments.library, device->propertyLists());
    if (!library) {
        return fail(reasonOf(library.error()), ExitCode::wrongUse);
    }
    auto list = desktop::makeSyncList(*library, installedApps(device->registry()),
                                      {arguments.install, arguments.remove, restoringApps(device->registry())});
    if (device->coordinationIsEnabled()) {
        leaveRestoresToStore(list);
    }
    list.problems.insert(list.problems.begin(), library->problems.begin(), library->problems.end());
    if (arguments.dryRun) {
        showPlan(list);
        return ExitCode::done;
    }
    if (!device->coordinationIsEnabled()) {
        letDemotedAppsReturn(*device, list);
    }
    const Interrupt interrupt;
    SyncOptions options{.plugInPath = arguments.plugin.empty() ? PlugIn::defaultPath() : arguments.plugin,
                        .interrupt = &interrupt};
    std::optional<Bandwidth> bandwidth;
    if (bytesPerSecond) {
        bandwidth.emplace(*bytesPerSecond, [&](std::chrono::nanoseconds time) { interrupt.waitFor(time); });
        options.bandwidth = &*bandwidth;
    }
    SyncView view(std::cout, arguments.json ? SyncView::Style::quiet : SyncView::styleFor(STDOUT_FILENO));
    const SyncReport report = runSync(*device, list, options, view);
    if (arguments.json) {
        printJson(std::cout, report);
    } else if (report.failure == nullptr) {
        printTable(std::cout, report);
    }
    if (report.failure != nullptr) {
        fail(reasonOf(report.failure));
    }
    if (report.interrupted) {
        fail("interrupted; sync again to go on");
    }
    return exitCodeOf(report);
}

} // namespace appsync::host
