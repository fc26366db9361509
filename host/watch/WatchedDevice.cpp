#include "host/watch/WatchedDevice.h"

#include "device/Device.h"
#include "device/screen/DeviceHomeScreen.h"
#include "files/Syscalls.h"
#include "host/LogJson.h"
#include "host/OpenDevice.h"
#include "host/plugin/PlugIn.h"
#include "host/view/AppState.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/watch/WebRequest.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;

constexpr std::size_t maxLines = 50; // of the log, that are kept and told at once
constexpr auto askInterval = 200ms;  // between two questions for a sync
constexpr auto findInterval = 1s;    // between two looks whether running apps still run
constexpr auto retryInterval = 1s;   // after a look that failed
constexpr auto lookInterval = 100ms; // between two looks at the database
constexpr int lookShare = 20;        // looking takes at most this part of a processor's time
constexpr int maxTold = 8;           // lines of a sync that are taken in at once: they may never end

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string event(std::string_view name, std::string_view data) {
    return "event: " + std::string(name) + "\ndata: " + std::string(data) + "\n\n";
}

bool isGone(const ErrorPtr& error) {
    return isError(error, device::rootErrorDomain, device::RootError::noSuchFolder) ||
           isError(error, device::rootErrorDomain, device::RootError::notADevice);
}

ErrorPtr gone(const std::string& folder) {
    return hostError("the device " + folder + " is gone: its folder was moved or removed");
}

ErrorPtr unwatchable(const std::string& folder, int problem) {
    return hostError("the changes of the device " + folder + " cannot be followed: " + systemText(problem) +
                     "; the limit of inotify instances or watches may be reached (`sysctl fs.inotify` shows it)");
}

/// A container never holds another version, so that its name stands for the icon in it.
std::optional<IconKey> iconOf(const device::Application& app) {
    if (!app.iconPath) {
        return std::nullopt;
    }
    return IconKey{app.identifier, app.containerPath.substr(app.containerPath.rfind('/') + 1)};
}

/// How far the sync is with an app that the device shows as one on its way.
std::optional<double> progressOf(const device::Application& app, const AppStatus& status) {
    const bool hasBegun = status.stage == AppStage::transferring || status.stage == AppStage::installing ||
                          status.stage == AppStage::waiting;
    return app.isPlaceholder && hasBegun ? std::optional(status.fraction) : std::nullopt;
}

Json describe(const device::Application& app, bool isRunning, const AppStatus* status) {
    Json entry{{"identifier", app.identifier},
               {"name", app.name},
               {"version", app.version ? Json(*app.version) : Json()},
               {"state", stateOf(app, isRunning)}};
    if (app.progress) {
        entry["progress"] = *app.progress;
    }
    if (status) {
        const Json told = toJsonObject(*status);
        for (const char* key : {"stage", "reason", "nextTry"}) {
            if (told.contains(key)) {
                entry[key] = told[key];
            }
        }
    }
    if (const auto icon = iconOf(app)) {
        entry["icon"] = iconAddress(icon->app, icon->version);
    }
    return entry;
}

} // namespace

std::chrono::nanoseconds usedTime() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

WatchedDevice::WatchedDevice(std::string folder, std::unique_ptr<device::Root> root)
    : _folder(std::move(folder)), _root(std::move(root)), _changes(_root->files()), _icons(_root->files()),
      _processes(*_root), _log(_root->files()) {}

Result<std::unique_ptr<WatchedDevice>> WatchedDevice::open(const std::string& folder) {
    auto root = device::Root::look(folder);
    if (!root) {
        return root.error();
    }
    std::unique_ptr<WatchedDevice> device(new WatchedDevice(folder, std::move(*root)));
    const int problem = device->_changes.problem();
    return problem == 0 ? Result(std::move(device)) : unwatchable(folder, problem);
}

Result<void> WatchedDevice::update(Clock::time_point now) {
    const DeviceChanges::Seen seen = _changes.take();
    if (seen.isGone) {
        return gone(_folder);
    }
    if (const int problem = _changes.problem(); problem != 0) {
        return unwatchable(_folder, problem);
    }
    if (seen.owner || (_owner && !_sync)) {
        _owner = device::Root::owner(_folder);
    }
    if (seen.control && !_sync) {
        _nextAsk = std::min(_nextAsk, now);
    }
    _findSync(now);
    _isToLook = _isToLook || seen.database || seen.owner;
    if (_isToLook && now >= _nextLook) {
        if (auto looked = _look(now); !looked) {
            return looked;
        }
    }
    if (seen.processes || (!_running.empty() && now >= _nextFind)) {
        _findRunning(now);
    }
    const bool wasSyncing = _isSyncing;
    _hearSync(now);                  // after the look, which takes a while
    if (wasSyncing && !_isSyncing) { // its end shows with what it has done
        if (auto looked = _look(now); !looked) {
            return looked;
        }
    }
    if (seen.log) {
        _readLog();
    }
    return {};
}

WatchedDevice::Clock::time_point WatchedDevice::nextUpdate() const {
    if (_sync && _sync->hasNext()) { // of which its descriptor need not tell: it may have been read already
        return {};
    }
    Clock::time_point next = Clock::time_point::max();
    if (_isToLook) {
        next = std::min(next, _nextLook);
    }
    if (!_running.empty()) {
        next = std::min(next, _nextFind);
    }
    if (!_sync && _owner) {
        next = std::min(next, _nextAsk);
    }
    return next;
}

Result<void> WatchedDevice::_look(Clock::time_point now) {
    const auto before = usedTime();
    const auto device = device::Device::look(_folder);
    if (!device && isGone(device.error())) {
        return gone(_folder);
    }
    if (!device) { // its database may just be changed by one who ends or begins
        _nextLook = now + retryInterval;
        _passOver(reasonOf(device.error()));
        return {};
    }
    _isToLook = false;
    _problem.clear();
    _apps = (*device)->registry().applications();
    device::IdentifierList identifiers;
    std::map<IconKey, std::string> icons;
    for (const device::Application& app : _apps) {
        identifiers.push_back(app.identifier);
        if (auto icon = iconOf(app)) {
            icons.emplace(std::move(*icon), *app.iconPath);
        }
    }
    _layout = (*device)->homeScreen().layout().showing(identifiers);
    _icons.offer(std::move(icons));
    _nextLook = now + std::max<Clock::duration>(lookInterval, lookShare * (usedTime() - before));
    return {};
}

void WatchedDevice::_passOver(const std::string& problem) {
    if (std::exchange(_problem, problem) != problem) {
        printLine(std::cerr, "note: " + problem + "; it is looked at again");
    }
}

void WatchedDevice::_findRunning(Clock::time_point now) {
    _running.clear();
    for (const device::Application& app : _apps) {
        if (app.isInstalled && _processes.isRunning(app.identifier)) {
            _running.insert(app.identifier);
        }
    }
    _nextFind = now + findInterval;
}

/// Follows the sync that has the device, if it is one.
void WatchedDevice::_findSync(Clock::time_point now) {
    if (_sync || !_owner || now < _nextAsk) {
        return;
    }
    _nextAsk = now + askInterval;
    RunningSync found(_folder, lookersPatience);
    if (found.descriptor() >= 0 && found.send({"follow"})) {
        _sync.emplace(std::move(found));
    }
}

void WatchedDevice::_hearSync(Clock::time_point now) {
    for (int count = 0; count < maxTold && _sync && _sync->hasNext(); ++count) {
        const Json told = _sync->next();
        if (!told.is_object() || told.contains("error")) {
            _endSync();
            _nextAsk = now + askInterval;
        } else {
            _rate = _isSyncing ? _rate : TransferRate();
            _purpose = _owner && !_owner->purpose.empty() ? _owner->purpose : _purpose;
            _isSyncing = true;
            _status = parseSyncStatus(told);
            _rate.sent(static_cast<double>(_status.sentBytes()), now);
        }
    }
}

void WatchedDevice::_endSync() {
    _sync.reset();
    _isSyncing = false;
}

void WatchedDevice::_readLog() {
    std::deque<device::LogEntry> entries; // the last ones: a sync may have written thousands
    const auto read = _log.readOn([&entries](const device::LogEntry& entry) {
        entries.push_back(entry);
        if (entries.size() > maxLines) {
            entries.pop_front();
        }
        return true;
    });
    if (!read) {
        _passOver(reasonOf(read.error()));
    }
    for (const device::LogEntry& entry : entries) {
        _lines.push_back(dumped(toJsonObject(entry)));
    }
    _newLines += entries.size();
    _lines.erase(_lines.begin(), _lines.end() - static_cast<std::ptrdiff_t>(std::min(_lines.size(), maxLines)));
}

std::map<std::string, std::string> WatchedDevice::_describeApps() const {
    std::map<std::string_view, const AppStatus*> statuses;
    for (const AppStatus& status : _status.apps) {
        statuses[status.identifier] = &status;
    }
    std::map<std::string, std::string> described;
    for (device::Application app : _apps) {
        const auto found = statuses.find(app.identifier);
        const AppStatus* status = found != statuses.end() ? found->second : nullptr;
        app.progress = _isSyncing && status ? progressOf(app, *status) : std::nullopt;
        described[app.identifier] = dumped(describe(app, _running.contains(app.identifier), status));
    }
    return described;
}

std::string WatchedDevice::_describeSync() const {
    Json apps = Json::array();
    for (const AppStatus& app : _status.apps) {
        apps.push_back(toJsonObject(app));
    }
    Json sync{{"running", _isSyncing},    {"fraction", _status.fraction()},   {"finished", _status.finished()},
              {"bytes", _status.bytes()}, {"sentBytes", _status.sentBytes()}, {"rate", nullptr},
              {"secondsLeft", nullptr},   {"apps", std::move(apps)}};
    if (!_purpose.empty()) {
        sync["purpose"] = _purpose;
    }
    if (const auto rate = _rate.bytesPerSecond(); rate && _isSyncing) {
        sync["rate"] = static_cast<std::uint64_t>(*rate);
        const double seconds = std::ceil(static_cast<double>(_status.bytesLeft()) / *rate);
        if (seconds < 24 * 60 * 60) { // of more nobody can tell
            sync["secondsLeft"] = static_cast<std::uint64_t>(seconds);
        }
    }
    if (_owner && !_isSyncing) {
        sync["inUseBy"] = toJsonObject(*_owner);
    }
    return dumped(sync);
}

/// The places with their apps, or without them only with their identifiers.
std::string WatchedDevice::_describeScreen(const std::map<std::string, std::string>* apps) const {
    const auto list = [](const auto& entries, const auto& describe) {
        std::string text;
        for (const auto& entry : entries) {
            text += (text.empty() ? "[" : ",") + describe(entry);
        }
        return text.empty() ? "[]" : text + "]";
    };
    const auto describeApp = [apps](const std::string& app) { return apps ? apps->at(app) : dumped(app); };
    const auto describePlace = [&](const device::IconPlace& place) {
        if (const auto* app = std::get_if<std::string>(&place)) {
            return describeApp(*app);
        }
        const auto& folder = std::get<device::IconFolder>(place);
        device::IdentifierList all;
        for (const auto& page : folder.pages) {
            all.insert(all.end(), page.begin(), page.end());
        }
        return R"({"folder":)" + dumped(folder.displayName) + R"(,"apps":)" + list(all, describeApp) + "}";
    };
    const std::string name = std::filesystem::path(_root->hostPath("")).filename();
    return R"({"device":)" + dumped(name) + R"(,"isSyncing":)" + (_isSyncing ? "true" : "false") + R"(,"pages":)" +
           list(_layout.pages, [&](const device::IconPage& page) { return list(page, describePlace); }) + "}";
}

std::string WatchedDevice::takeNews() {
    std::string news;
    auto apps = _describeApps();
    if (std::string places = _describeScreen(nullptr); places != _toldPlaces) {
        _toldPlaces = std::move(places);
        news += event("screen", _describeScreen(&apps));
    } else {
        for (const auto& [identifier, text] : apps) {
            news += _toldApps[identifier] != text ? event("app", text) : "";
        }
    }
    _toldApps = std::move(apps);
    if (std::string sync = _describeSync(); sync != _toldSync) {
        _toldSync = std::move(sync);
        news += event("sync", _toldSync);
    }
    for (auto line = _lines.end() - static_cast<std::ptrdiff_t>(std::min(_newLines, _lines.size()));
         line != _lines.end(); ++line) {
        news += event("log", *line);
    }
    _newLines = 0;
    return news;
}

std::string WatchedDevice::everything() const {
    std::string all = event("screen", _describeScreen(&_toldApps)) + event("sync", _toldSync);
    for (const std::string& line : _lines) {
        all += event("log", line);
    }
    return all;
}

} // namespace appsync::host
