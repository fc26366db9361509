#include "host/session/RunSync.h"

#include "desktop/Staging.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/coordinator/InstallObservers.h"
#include "device/root/DeviceFileSystem.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/Notifications.h"
#include "host/OpenDevice.h"
#include "host/control/PersonOnDevice.h"
#include "host/control/RunControl.h"
#include "host/plugin/HostPlatform.h"
#include "host/plugin/PlugIn.h"
#include "host/session/BusyApps.h"
#include "host/session/InstallOutcomes.h"
#include "host/session/SyncSession.h"
#include "host/transfer/TransferQueue.h"
#include "platform/host/Client.h"
#include "timeline/Timeline.h"

namespace appsync::host {

namespace {

/// The report points at the log for reasons; a full disk does not take them.
void noteLostMessages(device::Device& device, SyncReport& report) {
    device.log().flush();
    if (const ErrorPtr failure = device.log().failure()) {
        report.problems.push_back("The device's log is not complete: " + reasonOf(failure));
    }
}

/// The pages of the home screen with every app that has an icon.
Array iconsOf(const device::DeviceHomeScreen& screen) {
    const Value pages = screen.layout().showing(screen.flattenedOrder()).propertyList();
    return *pages.array();
}

/// The report of a sync that did not begin.
SyncReport unfinished(const SyncReport& planned) {
    SyncReport report;
    report.problems = planned.problems;
    return report;
}

} // namespace

SyncReport runSync(device::Device& device, SyncPlan plan, const SyncOptions& options, SyncView& view) {
    Timeline* const timeline = device.files().timeline();
    const Span span(timeline, "sync");
    SyncReport report = unfinished(plan.report);
    if (const auto staged =
            desktop::writeStagingArea(device.files(), device.propertyLists(), plan.list, iconsOf(device.homeScreen()));
        !staged) {
        report.failure = staged.error();
        return report;
    }
    const auto plugIn = PlugIn::load(options.plugInPath, device.propertyLists());
    if (!plugIn) {
        report.failure = plugIn.error();
        return report;
    }
    InstallOutcomes outcomes([&view, &outcomes, timeline](std::string_view identifier, const ErrorPtr& error) {
        const Span reporting(timeline, "report", identifier);
        Timeline::endWaiting(timeline, identifier);
        const bool isCancelled = error && outcomes.isCancelled(identifier);
        view.installEnded(identifier, isCancelled ? cancelledByUserError() : error);
    });
    DeviceService deviceService;
    ErrorClassification errorClassification;
    const Platform devicePlatform = device.platform(deviceService, errorClassification);
    ObservedWorkspace workspace(devicePlatform.workspaces.defaultWorkspace(), outcomes);
    BusyApps busyApps(devicePlatform.homeScreen, devicePlatform.scheduler,
                      [&](const std::string& identifier, BusyApps::Time nextTry) {
                          Timeline::beginWaiting(timeline, "busy", identifier);
                          view.installWaits(identifier,
                                            "it is busy; let go of it with `" +
                                                letGoCommand(device.root().hostPath(""), identifier) + "`",
                                            nextTry);
                      });
    const auto created = plugIn->createClient(withHostServices(devicePlatform, {workspace, busyApps, busyApps}));
    if (!created) {
        report.failure = created.error();
        return report;
    }
    QRClient& client = **created;
    device.notificationCenter().post(startupCompleteName);
    device.notificationCenter().waitUntilDelivered();
    // After the plug-in's own connection, which gets the reports that waited for one.
    const auto observer = devicePlatform.installObservers.initWithMachServiceName_forClients_delegate(
        observerServiceName, {KXClientSyncHost}, &outcomes);
    // What ended while no plug-in ran is told to it before it opens the sync, since it notes that in its work files.
    device.coordinator().waitUntilIdle();
    PersonOnDevice person(device, deviceService, workspace, busyApps, outcomes);
    const RunControl control(device, view, options.interrupt,
                             {.prioritize = [&person](const std::string& app) { return person.prioritize(app); },
                              .cancel = [&person](const std::string& app) { return person.cancel(app); },
                              .end = [&busyApps] { busyApps.giveUp(); }});
    report = SyncSession({device, client, deviceService, outcomes, view, options.bandwidth}, plan).run();
    noteLostMessages(device, report);
    return report;
}

} // namespace appsync::host
