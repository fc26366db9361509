// The commands by which a person acts on the device itself: launching an app, and steering a sync that runs.
#include "device/Device.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/control/ControlSocket.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"

#include <nlohmann/json.hpp>

#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* noAnswer = "The sync has ended before it could answer.";

/// An answer of the running sync; discarded when it hung up.
Json nextAnswer(int connection, std::string& buffer) {
    std::string line;
    return readLine(connection, buffer, line) ? Json::parse(line, nullptr, false) : Json(Json::value_t::discarded);
}

ExitCode act(const ControlArguments& arguments, const char* command) {
    const auto connection = connectToControl(arguments.device);
    if (!connection.isOpen()) {
        return fail("No sync is running on " + arguments.device + ".");
    }
    std::string buffer;
    if (!writeLine(connection.get(), toJson(ControlRequest{command, arguments.app}))) {
        return fail(noAnswer);
    }
    const Json answer = nextAnswer(connection.get(), buffer);
    if (!answer.is_object()) {
        return fail(noAnswer);
    }
    return answer.contains("error") ? fail(answer.value("error", ""), ExitCode::someAppFailed) : ExitCode::done;
}

void showStatus(const Json& status, bool json) {
    if (json) {
        printJson(std::cout, status);
        std::cout.flush();
        return;
    }
    Table table({"App", "Stage", "Sent", "Reason"});
    for (const Json& app : status.value("apps", Json::array())) {
        std::string reason = app.value("reason", "");
        if (app.contains("nextTry")) {
            reason += "; next try at " + app.value("nextTry", "");
        }
        table.add({app.value("name", ""), app.value("stage", ""),
                   std::to_string(static_cast<int>(app.value("fraction", 0.0) * 100)) + "%", reason});
    }
    table.print(std::cout);
    printLine(std::cout, std::to_string(status.value("finished", 0)) + " of " +
                             std::to_string(status.value("apps", Json::array()).size()) + " apps are done, " +
                             std::to_string(static_cast<int>(status.value("fraction", 0.0) * 100)) + "% is sent");
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
        return fail(reasonOf(process.error()), ExitCode::someAppFailed);
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
    const auto connection = connectToControl(arguments.device);
    if (!connection.isOpen()) {
        if (arguments.json) {
            printJson(std::cout, {{"running", false}});
        } else {
            printLine(std::cout, "No sync is running on " + arguments.device + ".");
        }
        return ExitCode::done;
    }
    std::string buffer;
    if (!writeLine(connection.get(), toJson(ControlRequest{arguments.follow ? "follow" : "status"}))) {
        return fail(noAnswer);
    }
    Json status = nextAnswer(connection.get(), buffer);
    if (!status.is_object()) {
        return fail(noAnswer);
    }
    do {
        showStatus(status, arguments.json);
        status = arguments.follow ? nextAnswer(connection.get(), buffer) : Json();
    } while (status.is_object() && std::cout.good());
    return ExitCode::done;
}

} // namespace appsync::host
