#include "host/control/RunningSync.h"

#include "device/Device.h"
#include "device/services/Notifications.h"
#include "host/OpenDevice.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncStatus.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

/// No deeper than an answer is.
Json parsed(const std::string& line) {
    constexpr int maxDepth = 4;
    return Json::parse(
        line, [](int depth, Json::parse_event_t, Json&) { return depth <= maxDepth; }, false);
}

/// The ring of an app that has begun to come.
void showProgress(device::Registry& registry, const Json& app) {
    constexpr std::int64_t units = 10'000;
    const std::string stage = textIn(app, "stage");
    if (stage != nameOf(AppStage::transferring) && stage != nameOf(AppStage::installing) &&
        stage != nameOf(AppStage::waiting)) {
        return;
    }
    // Null for an app that the device does not show as one on its way.
    if (const auto progress = registry.progress(textIn(app, "identifier"))) {
        progress->setTotalUnitCount(units);
        progress->setCompletedUnitCount(static_cast<std::int64_t>(std::min(numberIn(app, "fraction"), 1.0) * units));
    }
}

} // namespace

RunningSync::RunningSync(Result<Descriptor> connection, std::chrono::milliseconds patience)
    : _patience(patience), _problem(reasonOf(connection.error())),
      _connection(connection ? std::move(*connection) : Descriptor()) {}

Json RunningSync::ask(const ControlRequest& request) {
    if (!_connection.isOpen()) {
        return {};
    }
    (void)writeLine(_connection.get(), toJson(request)); // one that is busy answers before it has read
    return next();
}

bool RunningSync::send(const ControlRequest& request) const {
    return writeLine(_connection.get(), toJson(request));
}

bool RunningSync::hasNext() const {
    pollfd awaited{_connection.get(), POLLIN, 0};
    return _buffer.find('\n') != std::string::npos || ::poll(&awaited, 1, 0) > 0;
}

Json RunningSync::next() {
    std::string line;
    const ReadResult result = readLine(_connection.get(), _buffer, line, _patience);
    Json answer = result == ReadResult::line ? parsed(line) : Json();
    if (!answer.is_object()) {
        _problem = result == ReadResult::noAnswer ? busySentence()
                                                  : "What ran on the device has ended before it could answer.";
    }
    return answer;
}

bool RunningSync::waitForNext(int instead) const {
    std::array<pollfd, 2> awaited{{{_connection.get(), POLLIN, 0}, {instead, POLLIN, 0}}};
    while (_buffer.find('\n') == std::string::npos && ::poll(awaited.data(), awaited.size(), -1) < 0 &&
           errno == EINTR) {
    }
    return awaited[1].revents == 0;
}

std::string noSyncSentence(const std::string& folder) {
    const std::string owner = describeOwner(folder);
    return owner.empty() ? "No sync is running on " + folder + "."
                         : folder + " is in use by " + owner + ", which does not say how far it is.";
}

Json toJsonObject(const device::DeviceOwner& owner) {
    return {{"purpose", owner.purpose}, {"process", owner.process}, {"since", device::formatLogTime(owner.since)}};
}

std::string textIn(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

double numberIn(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_number() ? std::clamp(found->get<double>(), 0.0, 1e6) : 0;
}

const Json& listIn(const Json& object, const char* key) {
    static const Json none = Json::array();
    const auto found = object.find(key);
    return found != object.end() && found->is_array() ? *found : none;
}

void showProgressOf(const std::string& deviceFolder, device::Device& device) {
    RunningSync running(deviceFolder, lookersPatience);
    if (!running.isThere()) {
        return;
    }
    const Json status = running.ask({"status"});
    if (!status.is_object() || status.contains("error")) {
        printLine(std::cerr, "note: what runs on " + deviceFolder + " does not answer now; how far it is is not shown");
        return;
    }
    for (const Json& app : listIn(status, "apps")) {
        showProgress(device.registry(), app);
    }
    int token = 0;
    device.notifications().notify_register_check(syncNoticeName, &token);
    device.notifications().notify_set_state(token, 1);
}

} // namespace appsync::host
