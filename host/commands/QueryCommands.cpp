// The host's questions about a device's apps, and the two ways to empty it: app by app, and the plug-in's own data.
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/processes/ProcessTable.h"
#include "device/services/DevicePolicy.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/plugin/ClientOnDevice.h"
#include "host/session/DeletedApps.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <iostream>

namespace appsync::host {

namespace {

/// Starts the plug-in on a device and has `ask` ask it.
template <class Ask> ExitCode askClient(device::Device& device, const std::string& plugInPath, Ask&& ask) {
    const auto plugIn = ClientOnDevice::start(device, plugInPath);
    if (!plugIn) {
        return fail(reasonOf(plugIn.error()));
    }
    ask((*plugIn)->client());
    return ExitCode::done;
}

/// The same on a device that is looked at: the plug-in's messages are not logged, and what it would write is refused.
template <class Ask> ExitCode askClient(const QueryArguments& arguments, Ask&& ask) {
    const auto device = lookAtDevice(arguments.device);
    return device ? askClient(**device, arguments.plugin, ask) : fail(device.error());
}

/// The plug-in would take them for apps on their way; one that is to return is not listed.
void hideDemotedApps(device::Device& device) {
    for (const device::Application& app : device.registry().applications()) {
        if (app.isDemoted()) {
            device.letReturn(app.identifier);
        }
    }
}

bool isConfirmed(const std::string& device) {
    printQuestion(std::cout,
                  "This removes every app of " + device +
                      " that is still on its way, and what the plug-in keeps of earlier syncs. Go on? [y/N]");
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

} // namespace

ExitCode showInventory(const QueryArguments& arguments) {
    return askClient(arguments, [&](QRClient& client) {
        const auto deleted = deletedApps(client.installedAssets());
        if (arguments.json) {
            printJson(std::cout, {{"version", jsonVersion}, {"deleted", deleted}}, 2);
        } else if (deleted.empty()) {
            printLine(std::cout, "No app was deleted on the device since the last sync.");
        }
        for (const std::string& app : arguments.json ? std::vector<std::string>() : deleted) {
            printLine(std::cout, "deleted  " + app);
        }
    });
}

ExitCode showMetrics(const QueryArguments& arguments) {
    return askClient(arguments, [&](QRClient& client) {
        const Dictionary metrics = client.installedAssetMetrics();
        const auto number = [&](std::string_view key) {
            const Value* value = metrics.find(key);
            return value ? value->unsignedInteger().value_or(0) : 0;
        };
        if (arguments.json) {
            printJson(std::cout,
                      {{"version", jsonVersion},
                       {"count", number("_Count")},
                       {"physicalSize", number("_PhysicalSize")},
                       {"purgeableSize", number("_PurgeableSize")}},
                      2);
        } else {
            const std::size_t count = number("_Count");
            printLine(std::cout, appCountText(count) + (count == 1 ? " takes " : " take ") +
                                     sizeText(number("_PhysicalSize")) + ", of which " +
                                     sizeText(number("_PurgeableSize")) + " can be purged");
        }
    });
}

ExitCode showAccounts(const QueryArguments& arguments) {
    return askClient(arguments, [&](QRClient& client) {
        const auto accounts = client.zuvexIDsForAssets();
        if (arguments.json) {
            printJson(std::cout, {{"version", jsonVersion}, {"accounts", accounts}}, 2);
        } else if (accounts.empty()) {
            printLine(std::cout, "No app of the device names an account.");
        }
        for (const std::string& account : arguments.json ? std::set<std::string>() : accounts) {
            printLine(std::cout, account);
        }
    });
}

ExitCode uninstall(const UninstallArguments& arguments) {
    const auto opened = openDevice(arguments.device, "an uninstall");
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    if (device.policy().value(OLFeatureAppRemovalAllowed) == OLBoolValue::explicitlyNo) {
        return fail("This device does not allow removing apps.", ExitCode::someAppFailed);
    }
    if (device.processes().endAndHold(arguments.app) == device::RunningApps::Answer::busy) {
        return fail("'" + arguments.app + "' is in use and cannot be ended now; let go of it with `" +
                        letGoCommand(arguments.device, arguments.app) + "` and try again.",
                    ExitCode::someAppFailed);
    }
    if (const auto removed = device.coordinator().uninstallByUser(arguments.app); !removed) {
        return fail(reasonOf(removed.error()), ExitCode::someAppFailed);
    }
    printLine(std::cout, "removed " + arguments.app);
    return ExitCode::done;
}

ExitCode reset(const ResetArguments& arguments) {
    if (!arguments.yes && ::isatty(STDIN_FILENO) == 0) {
        return fail("Say --yes to reset without being asked.", ExitCode::wrongUse);
    }
    if (!arguments.yes && !isConfirmed(arguments.device)) {
        return fail("Nothing was changed.", ExitCode::wrongUse);
    }
    const auto opened = openDevice(arguments.device, "a reset");
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    return askClient(device, arguments.plugin, [&](QRClient& client) {
        hideDemotedApps(device);
        client.clearSyncData();
        printLine(std::cout, "reset " + arguments.device);
    });
}

} // namespace appsync::host
