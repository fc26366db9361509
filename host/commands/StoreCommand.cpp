// `qrd store`: plays the store client, which brings the apps that a restore has made it responsible for.
#include "desktop/AppLibrary.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/root/DeviceFileSystem.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/commands/Outcome.h"
#include "host/commands/TraceFile.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/session/Leftovers.h"
#include "host/transfer/Transfer.h"
#include "host/transfer/TransferQueue.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"
#include "platform/Platform.h"
#include "timeline/Timeline.h"

#include <algorithm>
#include <iostream>
#include <set>

namespace appsync::host {

namespace {

const std::string downloadFolder = "/var/mobile/Library/StoreDownloads";

struct Order {
    std::string identifier;
    std::string name;
    std::optional<std::string> version;
    KXAppInstallCoordinatorPtr coordinator; // null when it was gone at once
    ErrorPtr error = {};                    // why nothing was delivered
};

Result<void> mayGoOn() {
    if (Interrupt::requested()) {
        return transferError(TransferError::interrupted, "The store was interrupted; `qrd store` again to go on.");
    }
    return {};
}

class StoreClient {
  public:
    StoreClient(device::Device& device, const desktop::AppLibrary& catalogue, SyncView& view)
        : _device(device), _catalogue(catalogue), _view(view),
          _platform(device.platform(_deviceService, _errorClassification)) {}

    /// Ends early, and cleanly, when the process is interrupted.
    void run() {
        _findOrders();
        _clearDownloads();
        for (Order& order : _orders) {
            if (const auto delivered = _deliver(order); !delivered) {
                order.error = delivered.error();
                _view.transferEnded(order.identifier, order.error);
            }
        }
        _device.coordinator().waitUntilIdle();
        for (const AppReport& report : reports()) { // the coordinator tells the sync host alone, whose apps they were
            if (report.result != AppResult::waiting) {
                const bool isDone = report.result == AppResult::installed;
                _view.installEnded(report.identifier, isDone ? nullptr : hostError(report.reason));
            }
        }
        _view.ended();
        clearPlaceholderBundles(_device); // of restored apps, as a sync does it
    }

    [[nodiscard]] std::vector<AppReport> reports() {
        std::vector<AppReport> all;
        for (const Order& order : _orders) {
            const ErrorPtr error =
                order.error == nullptr && order.coordinator != nullptr ? order.coordinator->error() : order.error;
            AppReport report{order.identifier, order.name, order.version, AppResult::failed, reasonOf(error)};
            const auto app = _device.registry().application(order.identifier);
            if (isError(error, hostTransferErrorDomain, TransferError::interrupted)) {
                report.result = AppResult::waiting;
            } else if (error == nullptr && app && app->isInstalled && !app->isPlaceholder) {
                report.result = AppResult::installed;
                report.version = app->version;
            } else if (error == nullptr) {
                report.reason = "The device has not installed it; `qrd log` tells more.";
            }
            all.push_back(std::move(report));
        }
        return all;
    }

  private:
    void _findOrders() {
        for (const device::OpenCoordinator& open : _device.coordinator().openCoordinators()) {
            if (open.responsibleClient != KXClientCorbin) {
                continue;
            }
            const auto app = _device.registry().application(open.bundleID);
            _orders.push_back(
                {open.bundleID, app ? app->name : open.bundleID, app ? app->version : std::nullopt,
                 _platform.coordinators.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
                     open.bundleID, KXClientCorbin, false, nullptr, nullptr)});
        }
        std::vector<AppStatus> planned;
        for (const Order& order : _orders) {
            const desktop::AppArchive* app = _catalogue.find(order.identifier, order.version);
            planned.push_back({order.identifier, order.name, app != nullptr ? app->size : 0});
        }
        _view.began(std::move(planned));
    }

    /// Removes what earlier runs have left of apps that wait no longer, and what was cut short.
    void _clearDownloads() {
        std::set<std::string> wanted;
        for (const Order& order : _orders) {
            wanted.insert(order.identifier + ".archive");
        }
        const auto names = _device.files().list(downloadFolder);
        for (const std::string& name : names ? *names : std::vector<std::string>()) {
            if (!wanted.contains(name)) {
                _device.files().removeItem(std::string(downloadFolder).append("/").append(name), nullptr);
            }
        }
    }

    Result<void> _deliver(const Order& order) {
        if (order.coordinator == nullptr) {
            return {}; // its install has just ended
        }
        ErrorPtr error;
        auto promise = order.coordinator->appAssetPromiseWithError(&error);
        if (promise != nullptr && promise->isComplete()) {
            return {}; // delivered before an interruption
        }
        const desktop::AppArchive* app = _catalogue.find(order.identifier, order.version);
        if (app == nullptr) {
            return hostError("It is not in the catalogue.");
        }
        const std::string path = downloadFolder + "/" + order.identifier + ".archive";
        if (const auto goesOn = mayGoOn(); !goesOn) {
            return goesOn;
        }
        _view.transferBegan(order.identifier);
        const TransferRequest request{*app, [&](double fraction) { _view.transferring(order.identifier, fraction); },
                                      mayGoOn};
        if (auto copied = copyToDevice(_device.files(), request, path); !copied) {
            return copied;
        }
        _view.transferEnded(order.identifier, nullptr);
        const auto url = FileURL::fileURLWithPath(path, false);
        if (promise != nullptr) {
            promise->setTransferPath(url);
        } else {
            promise = _platform.transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
                order.identifier, KXClientCorbin, *url, app->size);
            if (!order.coordinator->setAppAssetPromise_error(promise, &error)) {
                return error;
            }
        }
        Timeline::beginWaiting(_device.files().timeline(), "waiting", order.identifier);
        promise->setComplete(true);
        return {};
    }

    device::Device& _device;
    const desktop::AppLibrary& _catalogue;
    SyncView& _view;
    DeviceService _deviceService;
    ErrorClassification _errorClassification;
    const Platform _platform;
    std::vector<Order> _orders;
};

} // namespace

ExitCode store(const StoreArguments& arguments) {
    auto trace = TraceFile::open(arguments.trace);
    if (!trace) {
        return fail(reasonOf(trace.error()));
    }
    const auto opened = openDevice(arguments.device, "a visit to the store", trace->timeline());
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    device.coordinator().waitUntilIdle(); // what an interrupted run has delivered is installed first
    const auto catalogue = desktop::readAppCatalogue(arguments.catalogue, device.propertyLists());
    if (!catalogue) {
        return fail(reasonOf(catalogue.error()), ExitCode::wrongUse);
    }
    const Interrupt interrupt;
    SyncReport report;
    {
        SyncView view(std::cout, SyncView::styleFor(std::cout, arguments.json));
        StoreClient client(device, *catalogue, view);
        client.run();
        report.apps = client.reports();
    }
    report.problems = catalogue->problems;
    for (const desktop::UnreadableFile& file : catalogue->unreadable) {
        report.problems.push_back(file.reason);
    }
    report.interrupted = Interrupt::requested();
    trace->finish(report);
    return tellOutcome(report, arguments.json, {"No app waits for the store.", "`qrd store` again"});
}

} // namespace appsync::host
