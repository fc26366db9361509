// The commands about one device: making it, listing its apps, drawing its home screen.
#include "device/Device.h"
#include "device/processes/ProcessTable.h"
#include "device/screen/DeviceHomeScreen.h"
#include "files/OutputFile.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/control/RunningSync.h"
#include "host/view/AppState.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"
#include "text/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <tuple>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

std::string shownState(const device::Application& app, bool isRunning) {
    const bool isComing = app.isPlaceholder && app.progress;
    return stateOf(app, isRunning) +
           (isComing ? " " + std::to_string(static_cast<int>(*app.progress * 100)) + "%" : std::string());
}

Json toJson(const device::Application& app, bool isRunning) {
    Json entry{{"identifier", app.identifier}, {"name", app.name},
               {"version", nullptr},           {"state", stateOf(app, isRunning)},
               {"installed", app.isInstalled}, {"placeholder", app.isPlaceholder},
               {"running", isRunning},         {"demoted", app.isDemoted()}};
    if (app.version) {
        entry["version"] = *app.version;
    }
    if (app.progress) {
        entry["progress"] = *app.progress;
    }
    return entry;
}

} // namespace

ExitCode createDevice(const DeviceCreateArguments& arguments) {
    const auto created = device::Device::create(arguments.device,
                                                {.coordinationIsEnabled = !arguments.noCoordination,
                                                 .forbidsInstalling = arguments.forbidInstall,
                                                 .forbidsRemoving = arguments.forbidRemoval},
                                                {.purpose = "the making of it"});
    if (!created) {
        return fail(created.error());
    }
    printLine(std::cout, "made the device " + arguments.device);
    return ExitCode::done;
}

ExitCode listApps(const AppsArguments& arguments) {
    const auto opened = lookAtDevice(arguments.device);
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    showProgressOf(arguments.device, device);
    Json list = Json::array();
    Table table({"App", "Version", "State", "Identifier"});
    auto apps = device.registry().applications(); // in the order in which they came
    std::ranges::sort(apps, {}, [](const device::Application& app) { return std::tie(app.name, app.identifier); });
    for (const device::Application& app : apps) {
        const bool isRunning = device.processes().isRunning(app.identifier);
        list.push_back(toJson(app, isRunning));
        table.add({app.name, app.version.value_or("-"), shownState(app, isRunning), app.identifier});
    }
    if (arguments.json) {
        printJson(std::cout, {{"version", jsonVersion}, {"apps", list}}, 2);
    } else if (list.empty()) {
        printLine(std::cout, "The device has no apps.");
    } else {
        table.print(std::cout);
    }
    return ExitCode::done;
}

ExitCode drawScreen(const ScreenArguments& arguments) {
    const auto opened = lookAtDevice(arguments.device);
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    showProgressOf(arguments.device, device);
    const auto picture = device::drawHomeScreen(device.homeScreen().contents());
    if (!picture) {
        return fail("The home screen cannot be drawn: there is not enough memory.");
    }
    if (const auto written = writeOutput(arguments.output, picture->png.bytes()); !written) {
        return fail(errorText(written.error()));
    }
    printLine(isStandardOutput(arguments.output) ? std::cerr : std::cout, "drew " + arguments.output);
    if (const auto& names = picture->unknownNames; !names.empty()) {
        printLine(std::cerr,
                  "note: no font of this machine has all characters of \"" + printable(names.front()) + "\"" +
                      (names.size() > 1 ? " and of " + std::to_string(names.size() - 1) + " other names" : "") +
                      "; boxes stand for them. Debian's packages fonts-noto-core and fonts-noto-cjk have "
                      "most.");
    }
    return ExitCode::done;
}

} // namespace appsync::host
