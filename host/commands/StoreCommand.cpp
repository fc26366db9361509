// `qrd store`: plays the store client, which brings the apps that a restore has made it responsible for.
#include "desktop/AppLibrary.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/root/DeviceFileSystem.h"
#include "host/Commands.h"
#include "host/commands/BringApps.h"
#include "host/control/Interrupt.h"
#include "host/control/RunControl.h"
#include "host/plugin/PlugIn.h"
#include "host/session/Leftovers.h"
#include "host/transfer/Transfer.h"
#include "host/transfer/TransferQueue.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"
#include "platform/Platform.h"
#include "timeline/Timeline.h"

#include <algorithm>
#include <iterator>
#include <map>
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
    bool isInstalling = false;              // it was delivered, and has not ended yet as far as was told
};

constexpr BringWords storeWords{"a visit to the store", "No app waits for the store.", "`qrd store` again"};

class StoreClient {
  public:
    StoreClient(device::Device& device, const desktop::AppLibrary& catalogue, SyncView& view)
        : _device(device), _catalogue(catalogue), _view(view),
          _platform(device.platform(_deviceService, _errorClassification)) {}

    /// Ends early, and cleanly, when the process is interrupted.
    void run(const Interrupt& interrupt) {
        _findOrders();
        _clearDownloads();
        std::map<std::string, Order*> byIdentifier;
        std::vector<std::string> inOrder;
        for (Order& order : _orders) {
            byIdentifier[order.identifier] = &order;
            inOrder.push_back(order.identifier);
        }
        TransferQueue queue(std::move(inOrder));
        const RunControl control(_device, _view, &interrupt, _wishes(queue));
        while (const auto identifier = queue.next()) {
            Order& order = *byIdentifier.at(*identifier);
            order.error = _deliver(order, queue).error();
            order.isInstalling = !order.error;
            if (!order.isInstalling) {
                _view.transferEnded(order.identifier, _errorOf(order));
            }
            _tellWhoEnded(false);
        }
        _device.coordinator().waitUntilIdle();
        _tellWhoEnded(true);
        _view.ended();
        clearPlaceholderBundles(_device); // of restored apps, as a sync does it
    }

    [[nodiscard]] std::vector<AppReport> reports() {
        std::vector<AppReport> all;
        std::ranges::transform(_orders, std::back_inserter(all),
                               [this](const Order& order) { return _reportOf(order); });
        return all;
    }

  private:
    /// The device knows as well when an app is taken back: it gives its placeholder up.
    Wishes _wishes(TransferQueue& queue) {
        return {.prioritize = [&queue](const std::string& app) -> Result<void> {
                    return queue.prioritize(app) ? Result<void>() : notWaitingError(app);
                },
                .cancel = [this, &queue](const std::string& app) -> Result<void> {
                    const bool isToCome = queue.cancel(app);
                    const bool isCancelled = _device.coordinator().cancelByUser(app);
                    return isToCome || isCancelled ? Result<void>() : notUnderWayError(app);
                }};
    }

    static ErrorPtr _errorOf(const Order& order) {
        const ErrorPtr ended = order.coordinator ? order.coordinator->error() : nullptr;
        if (isError(ended, device::coordinatorErrorDomain, device::CoordinatorError::cancelledByPerson)) {
            return cancelledByUserError();
        }
        return order.error ? order.error : ended;
    }

    AppReport _reportOf(const Order& order) {
        const ErrorPtr error = _errorOf(order);
        AppReport report{order.identifier, order.name, order.version, AppResult::failed, reasonOf(error)};
        const auto app = _device.registry().application(order.identifier);
        if (isError(error, hostTransferErrorDomain, TransferError::interrupted)) {
            report.result = AppResult::waiting;
        } else if (isError(error, hostTransferErrorDomain, TransferError::cancelledByUser)) {
            report.result = AppResult::cancelled;
        } else if (!error && app && app->isInstalled && !app->isPlaceholder) {
            report.result = AppResult::installed;
            report.version = app->version;
        } else if (!error) {
            report.reason = "The device has not installed it; `qrd log` tells more.";
        }
        return report;
    }

    /// The coordinator tells the sync host alone, whose apps they were. What has not ended at the end has failed.
    void _tellWhoEnded(bool isEnd) {
        for (Order& order : _orders) {
            const AppReport report = order.isInstalling ? _reportOf(order) : AppReport();
            const bool isDone = report.result == AppResult::installed;
            const ErrorPtr error = order.isInstalling ? _errorOf(order) : nullptr;
            if (order.isInstalling && (isDone || error || isEnd)) {
                order.isInstalling = false;
                _view.installEnded(order.identifier, isDone || error ? error : hostError(report.reason));
            }
        }
    }

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
            planned.push_back({order.identifier, order.name, app ? app->size : 0});
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

    Result<void> _deliver(const Order& order, const TransferQueue& queue) {
        const auto mayGoOn = [&]() -> Result<void> {
            if (queue.isCancelled(order.identifier)) {
                return cancelledByUserError();
            }
            return Interrupt::requested() ? transferError(TransferError::interrupted,
                                                          "The store was interrupted; `qrd store` again to go on.")
                                          : Result<void>();
        };
        if (!order.coordinator) {
            return {}; // its install has just ended
        }
        ErrorPtr error;
        auto promise = order.coordinator->appAssetPromiseWithError(&error);
        if (promise && promise->isComplete()) {
            return {}; // delivered before an interruption
        }
        const desktop::AppArchive* app = _catalogue.find(order.identifier, order.version);
        if (!app) {
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
        if (promise) {
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
    const BringWhere where{arguments.device, arguments.trace, arguments.json};
    return bringApps(where, storeWords,
                     [&](device::Device& device, SyncView& view, const Interrupt& interrupt) -> Result<SyncReport> {
                         const auto catalogue = desktop::readAppCatalogue(arguments.catalogue, device.propertyLists());
                         if (!catalogue) {
                             return catalogue.error();
                         }
                         StoreClient client(device, *catalogue, view);
                         client.run(interrupt);
                         SyncReport report;
                         report.apps = client.reports();
                         report.problems = catalogue->problems;
                         for (const desktop::UnreadableFile& file : catalogue->unreadable) {
                             report.problems.push_back(file.reason);
                         }
                         report.interrupted = Interrupt::requested();
                         return report;
                     });
}

} // namespace appsync::host
