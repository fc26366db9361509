// `qrd store`: plays the store client, which brings the apps that a restore has made it responsible for.
#include "desktop/AppLibrary.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/plugin/PlugIn.h"
#include "host/session/Leftovers.h"
#include "host/transfer/Transfer.h"
#include "host/transfer/TransferQueue.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"
#include "platform/Platform.h"

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
    std::string problem = {};               // why nothing was delivered
};

class StoreClient {
  public:
    StoreClient(device::Device& device, const desktop::AppLibrary& catalogue)
        : _device(device), _catalogue(catalogue), _platform(device.platform(_deviceService, _errorClassification)) {}

    void run() {
        _findOrders();
        _clearDownloads();
        for (Order& order : _orders) {
            if (const auto delivered = _deliver(order); !delivered) {
                order.problem = reasonOf(delivered.error());
            }
        }
        _device.coordinator().waitUntilIdle();
        clearPlaceholderBundles(_device); // of restored apps, as a sync does it
    }

    [[nodiscard]] std::vector<AppReport> reports() {
        std::vector<AppReport> all;
        for (const Order& order : _orders) {
            AppReport report{order.identifier, order.name, order.version, AppResult::failed, order.problem};
            const auto app = _device.registry().application(order.identifier);
            const ErrorPtr error = order.coordinator != nullptr ? order.coordinator->error() : nullptr;
            if (order.problem.empty() && error != nullptr) {
                report.reason = reasonOf(error);
            } else if (order.problem.empty() && app && app->isInstalled && !app->isPlaceholder) {
                report.result = AppResult::installed;
                report.version = app->version;
            } else if (order.problem.empty()) {
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
        const TransferRequest request{*app, [](double) {}, [] { return Result<void>(); }};
        if (auto copied = copyToDevice(_device.files(), request, path); !copied) {
            return copied;
        }
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
        promise->setComplete(true);
        return {};
    }

    device::Device& _device;
    const desktop::AppLibrary& _catalogue;
    DeviceService _deviceService;
    ErrorClassification _errorClassification;
    const Platform _platform;
    std::vector<Order> _orders;
};

} // namespace

ExitCode store(const StoreArguments& arguments) {
    ExitCode code = ExitCode::failed;
    const auto device = openDevice(arguments.device, &code, "a visit to the store");
    if (device == nullptr) {
        return code;
    }
    device->coordinator().waitUntilIdle(); // what an interrupted run has delivered is installed first
    const auto catalogue = desktop::readAppCatalogue(arguments.catalogue, device->propertyLists());
    if (!catalogue) {
        return fail(reasonOf(catalogue.error()), ExitCode::wrongUse);
    }
    SyncReport report;
    {
        StoreClient client(*device, *catalogue);
        client.run();
        report.apps = client.reports();
    }
    report.problems = catalogue->problems;
    for (const desktop::UnreadableFile& file : catalogue->unreadable) {
        report.problems.push_back(file.reason);
    }
    if (arguments.json) {
        printJson(std::cout, report);
    } else if (report.apps.empty()) {
        printLine(std::cout, "No app waits for the store.");
    } else {
        printTable(std::cout, report);
    }
    if (!arguments.json) {
        printNotes(std::cerr, report);
    }
    return report.allDone() ? ExitCode::done : ExitCode::someAppFailed;
}

} // namespace appsync::host
