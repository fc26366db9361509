// The commands by which a person acts on the device itself: launching an app, and steering a sync that runs.
#include "device/Device.h"
#include "device/processes/ProcessTable.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/control/ControlSocket.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds patience{10}; // with a sync that does not answer

// The other end may be no sync of this program: an element of another kind counts as absent.

/// No deeper than an answer is.
Json parsed(const std::string& line) {
    constexpr int maxDepth = 4;
    return Json::parse(
        line, [](int depth, Json::parse_event_t, Json&) { return depth <= maxDepth; }, false);
}

std::string textIn(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

double numberIn(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_number() ? std::clamp(found->get<double>(), 0.0, 1e6) : 0;
}

std::string percentIn(const Json& object) {
    return std::to_string(static_cast<int>(std::min(numberIn(object, "fraction"), 1.0) * 100)) + "%";
}

/// The sync that runs on a device, as seen by one who asks it something.
class RunningSync {
  public:
    explicit RunningSync(const std::string& deviceFolder) : RunningSync(connectToControl(deviceFolder, patience)) {}

    [[nodiscard]] bool isThere() const { return _connection.isOpen() || !_problem.empty(); }
    /// An answer; of another kind than an object when none came, as `problem` says then.
    Json ask(const ControlRequest& request) {
        if (!_connection.isOpen()) {
            return {};
        }
        (void)writeLine(_connection.get(), toJson(request)); // one that is busy answers before it has read
        return next();
    }
    Json next() {
        std::string line;
        const ReadResult result = readLine(_connection.get(), _buffer, line);
        Json answer = result == ReadResult::line ? parsed(line) : Json();
        if (!answer.is_object()) {
            _problem = result == ReadResult::noAnswer ? busySentence() : "The sync has ended before it could answer.";
        }
        return answer;
    }
    void waitWithoutEnd() const { waitForAnswersWithoutEnd(_connection.get()); }
    [[nodiscard]] const std::string& problem() const { return _problem; }

  private:
    explicit RunningSync(Result<Descriptor> connection)
        : _problem(reasonOf(connection.error())), _connection(connection ? std::move(*connection) : Descriptor()) {}

    std::string _problem;
    std::string _buffer;
    Descriptor _connection;
};

/// What is said where no sync runs, unless the folder is no device.
template <class Say> ExitCode noSync(const std::string& folder, Say&& say) {
    const auto checked = device::Root::check(folder);
    return checked ? say() : fail(reasonOf(checked.error()), exitCodeOf(checked.error()));
}

ExitCode act(const ControlArguments& arguments, const char* command) {
    RunningSync running(arguments.device);
    if (!running.isThere()) {
        return noSync(arguments.device, [&] { return fail("No sync is running on " + arguments.device + "."); });
    }
    const Json answer = running.ask({command, arguments.app});
    if (!answer.is_object()) {
        return fail(running.problem());
    }
    return answer.contains("error") ? fail(textIn(answer, "error"), ExitCode::someAppFailed) : ExitCode::done;
}

void showStatus(const Json& status, bool json) {
    if (json) {
        printJson(std::cout, status);
        std::cout.flush();
        return;
    }
    Table table({"App", "Stage", "Sent", "Reason"});
    const auto apps = status.find("apps");
    for (const Json& app : apps != status.end() && apps->is_array() ? *apps : Json::array()) {
        std::string reason = textIn(app, "reason");
        if (app.contains("nextTry")) {
            reason += "; next try at " + textIn(app, "nextTry");
        }
        table.add({textIn(app, "name"), textIn(app, "stage"), percentIn(app), reason});
    }
    table.print(std::cout);
    printLine(std::cout, std::to_string(static_cast<long>(numberIn(status, "finished"))) + " of " +
                             std::to_string(apps != status.end() ? apps->size() : 0) + " apps are done, " +
                             percentIn(status) + " is sent");
    std::cout.flush();
}

} // namespace

ExitCode launch(const LaunchArguments& arguments) {
    ExitCode code = ExitCode::failed;
    const auto device = openDevice(arguments.device, &code);
    if (device == nullptr) {
        return code;
    }
    const auto process = device->launch(arguments.app, arguments.busy);
    if (!process) {
        const bool isUnknown = isError(process.error(), device::processErrorDomain, device::ProcessError::notInstalled);
        return fail(reasonOf(process.error()) +
                        (isUnknown ? "; `qrd apps " + arguments.device + "` lists those that it has" : ""),
                    ExitCode::someAppFailed);
    }
    printLine(std::cout, "launched " + arguments.app + " (process " + std::to_string(*process) + ")");
    return ExitCode::done;
}

ExitCode prioritize(const ControlArguments& arguments) {
    return act(arguments, "prioritize");
}

ExitCode cancel(const ControlArguments& arguments) {
    return act(arguments, "cancel");
}

ExitCode showSyncStatus(const StatusArguments& arguments) {
    RunningSync running(arguments.device);
    if (!running.isThere()) {
        return noSync(arguments.device, [&] {
            if (arguments.json) {
                printJson(std::cout, {{"running", false}});
            } else {
                printLine(std::cout, "No sync is running on " + arguments.device + ".");
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
    running.waitWithoutEnd();
    do {
        showStatus(status, arguments.json);
        status = arguments.follow ? running.next() : Json();
    } while (status.is_object() && std::cout.good());
    return ExitCode::done;
}

} // namespace appsync::host
