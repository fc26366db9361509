// The commands by which a person acts on the device itself: launching an app, and steering a sync that runs.
#include "device/Device.h"
#include "device/processes/ProcessTable.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/control/Interrupt.h"
#include "host/control/RunningSync.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncStatus.h"
#include "host/view/Table.h"
#include "host/view/Terminal.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds patience{10}; // with a sync that does not answer

std::string percentIn(const Json& object) {
    return std::to_string(static_cast<int>(std::min(numberIn(object, "fraction"), 1.0) * 100)) + "%";
}

Json noSyncJson(const std::string& folder) {
    Json status{{"version", jsonVersion}, {"running", false}, {"apps", Json::array()}};
    if (const auto owner = device::Root::owner(folder)) {
        status["inUseBy"] = toJsonObject(*owner);
    }
    return status;
}

/// Says that, unless the folder is no device.
template <class Say> ExitCode noSync(const std::string& folder, Say&& say) {
    const auto checked = device::Root::check(folder);
    return checked ? say() : fail(checked.error());
}

ExitCode act(const ControlArguments& arguments, const char* command) {
    RunningSync running(arguments.device, patience);
    if (!running.isThere()) {
        return noSync(arguments.device, [&] { return fail(noSyncSentence(arguments.device)); });
    }
    const Json answer = running.ask({command, arguments.app});
    if (!answer.is_object()) {
        return fail(running.problem());
    }
    return answer.contains("error") ? fail(textIn(answer, "error"), ExitCode::someAppFailed) : ExitCode::done;
}

/// What a person looks at first comes first.
std::size_t importanceOf(const Json& app) {
    constexpr std::array stages{"transferring", "installing", "waiting", "failed", "queued", "done"};
    return static_cast<std::size_t>(std::ranges::find(stages, textIn(app, "stage")) - stages.begin());
}

/// At most so many of the apps, in their order.
std::vector<const Json*> shownApps(const Json& status, std::size_t count) {
    std::vector<const Json*> shown;
    for (const Json& app : listIn(status, "apps")) {
        shown.push_back(&app);
    }
    if (shown.size() > count) {
        std::ranges::stable_sort(shown, {}, [](const Json* app) { return importanceOf(*app); });
        shown.resize(count);
        std::ranges::sort(shown); // they lie in one array
    }
    return shown;
}

std::vector<Line> statusLines(const Json& status, std::size_t count, std::optional<std::size_t> columns) {
    Table table({"App", "Stage", "Sent", "Reason"});
    table.setResults(1);
    const auto shown = shownApps(status, count);
    for (const Json* app : shown) {
        std::string reason = textIn(*app, "reason");
        if (app->contains("nextTry")) {
            reason += "; next try at " + clockText(device::parseLogTime(textIn(*app, "nextTry")));
        }
        table.add({textIn(*app, "name"), textIn(*app, "stage"), percentIn(*app), reason});
    }
    auto lines = table.lines(columns);
    const std::size_t all = listIn(status, "apps").size();
    if (shown.size() < all) {
        lines.push_back({{"and " + std::to_string(all - shown.size()) + " more"}});
    }
    lines.push_back({{std::to_string(static_cast<long>(numberIn(status, "finished"))) + " of " + appCountText(all) +
                      (all == 1 ? " is" : " are") + " done, " + percentIn(status) + " is sent"}});
    return lines;
}

void showStatus(const Json& status, bool json) {
    if (json) {
        printEvent(std::cout, status);
    } else {
        const auto terminal = terminalOf(std::cout);
        const auto columns = terminal ? std::optional(windowOf(*terminal).columns) : std::nullopt;
        for (const Line& line : statusLines(status, listIn(status, "apps").size(), columns)) {
            printLine(std::cout, line);
        }
    }
    std::cout.flush();
}

/// As many apps as the window has room for.
void drawStatus(const Json& status, const Window& window) {
    const std::size_t columns = std::max<std::size_t>(window.columns, 2) - 1; // the last one would begin a line
    std::size_t count = std::min(listIn(status, "apps").size(), window.rows);
    auto lines = statusLines(status, count, columns);
    while (lines.size() > window.rows && count > 0) {
        lines = statusLines(status, --count, columns);
    }
    lines.resize(std::min(lines.size(), window.rows));
    for (Line& line : lines) {
        line = fittedLine(std::move(line), columns);
    }
    drawLines(std::cout, lines);
    setDrawing(true);
}

/// Draws each status over the last one, until there is none or the person has seen enough. The last one stays.
ExitCode followOn(int terminal, RunningSync& running, Json status) {
    const Interrupt interrupt;
    while (std::cout.good()) {
        drawStatus(status, windowOf(terminal));
        Json next = running.waitForNext(interrupt.descriptor()) ? running.next() : Json();
        if (!next.is_object()) {
            break;
        }
        status = std::move(next);
    }
    eraseLines(std::cout);
    setDrawing(false);
    showStatus(status, false);
    return Interrupt::exitCode();
}

} // namespace

ExitCode launch(const LaunchArguments& arguments) {
    const auto opened = openDevice(arguments.device, "a launch");
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    const auto process = device.launch(arguments.app, arguments.busy);
    if (!process) {
        const bool isUnknown = isError(process.error(), device::processErrorDomain, device::ProcessError::notInstalled);
        return fail(reasonOf(process.error()) +
                        (isUnknown ? "; `qrd apps " + arguments.device + "` lists those that it has" : ""),
                    ExitCode::someAppFailed);
    }
    printLine(std::cout, "launched " + arguments.app + " (process " + std::to_string(*process) + ")");
    if (arguments.busy) {
        printLine(std::cerr, "note: it is busy and cannot be ended until it is let go of with `" +
                                 letGoCommand(arguments.device, arguments.app) + "`");
    }
    return ExitCode::done;
}

/// The app's processes are nobody's: the device is only looked at, also while a sync waits for the app.
ExitCode quit(const QuitArguments& arguments) {
    const auto root = device::Root::look(arguments.device);
    if (!root) {
        return fail(root.error());
    }
    device::ProcessTable processes(**root);
    switch (processes.endAndHold(arguments.app)) {
    case device::RunningApps::Answer::ended: printLine(std::cout, "ended " + arguments.app); return ExitCode::done;
    case device::RunningApps::Answer::notRunning:
        return fail("'" + arguments.app + "' does not run; `qrd apps " + arguments.device + "` shows which apps do.",
                    ExitCode::someAppFailed);
    case device::RunningApps::Answer::busy: break;
    }
    const std::string letGo = letGoCommand(arguments.device, arguments.app);
    return fail("'" + arguments.app + "' is busy and goes on; let go of it with `" + letGo + "` and quit it again.",
                ExitCode::someAppFailed);
}

ExitCode prioritize(const ControlArguments& arguments) {
    return act(arguments, "prioritize");
}

ExitCode cancel(const ControlArguments& arguments) {
    return act(arguments, "cancel");
}

ExitCode showSyncStatus(const StatusArguments& arguments) {
    RunningSync running(arguments.device, patience);
    if (!running.isThere()) {
        return noSync(arguments.device, [&] {
            if (arguments.json) {
                printJson(std::cout, noSyncJson(arguments.device));
            } else {
                printLine(std::cout, noSyncSentence(arguments.device));
            }
            return ExitCode::done;
        });
    }
    Json status = running.ask({arguments.follow ? "follow" : "status"});
    if (!status.is_object()) {
        return fail(running.problem());
    }
    if (status.contains("error")) {
        return fail(textIn(status, "error"));
    }
    if (const auto terminal = terminalOf(std::cout); terminal && arguments.follow && !arguments.json) {
        return followOn(*terminal, running, std::move(status));
    }
    do {
        showStatus(status, arguments.json);
        status = arguments.follow && running.waitForNext() ? running.next() : Json();
    } while (status.is_object() && std::cout.good());
    return ExitCode::done;
}

} // namespace appsync::host
