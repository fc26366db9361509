#include "host/view/SyncView.h"

#include "host/transfer/TransferQueue.h"
#include "host/view/Bars.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"
#include "text/Printable.h"
#include "values/Result.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::milliseconds showInterval{100}; // of what only grows

Line endOf(const AppStatus& app, bool isCancelled) {
    const std::string name = printable(app.name);
    if (app.stage == AppStage::done) {
        return {{"done", Colour::green}, {"    " + name}};
    }
    return isCancelled ? Line{{"cancelled", Colour::yellow}, {" " + name}}
                       : Line{{"failed", Colour::red}, {"  " + name + ": " + app.reason}};
}

} // namespace

SyncView::SyncView(std::ostream& out, Style style, std::function<Window()> window,
                   std::function<Clock::time_point()> now)
    : _out(out), _style(style), _window(std::move(window)), _now(std::move(now)), _begin(_now()) {}

SyncView::Style SyncView::styleFor(const std::ostream& out, JsonOutput json) {
    switch (json) {
    case JsonOutput::none: return terminalOf(out) ? Style::bars : Style::lines;
    case JsonOutput::object: return Style::quiet;
    case JsonOutput::lines: return Style::events;
    }
    return Style::quiet;
}

Window SyncView::_windowOfOutput() {
    return windowOf(STDOUT_FILENO);
}

void SyncView::began(std::vector<AppStatus> apps) {
    const Lock lock(_mutex);
    _changes.set();
    _status.apps = std::move(apps);
    for (std::size_t place = 0; place < _status.apps.size(); ++place) {
        _places[_status.apps[place].identifier] = place;
    }
    if (_style == Style::events) {
        Json planned = Json::array();
        for (const AppStatus& app : _status.apps) {
            planned.push_back(toJsonObject(app));
        }
        printEvent(_out, {{"event", "began"}, {"apps", std::move(planned)}});
    }
}

void SyncView::transferBegan(std::string_view identifier) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    app.stage = AppStage::transferring;
    _plainLine("sending " + printable(app.name) + " (" + sizeText(app.bytes) + ")");
    _show(app);
}

void SyncView::transferring(std::string_view identifier, double fraction) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    app.fraction = fraction;
    if (!_shown || _now() - *_shown >= showInterval) {
        _show(app);
    }
}

void SyncView::transferEnded(std::string_view identifier, const ErrorPtr& error) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    if (error) {
        _end(app, error);
    } else {
        app.fraction = 1;
        app.stage = AppStage::installing;
        _show(app);
    }
}

void SyncView::installWaits(std::string_view identifier, const std::string& reason,
                            std::chrono::system_clock::time_point nextTry) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    app.stage = AppStage::waiting;
    app.reason = reason;
    app.nextTry = nextTry;
    _plainLine("waiting " + printable(app.name) + ": " + reason + "; next try at " + clockText(nextTry));
    _show(app);
}

void SyncView::installEnded(std::string_view identifier, const ErrorPtr& error) {
    const Lock lock(_mutex);
    _end(_app(identifier), error);
}

void SyncView::note(const std::string& sentence) {
    const Lock lock(_mutex);
    _eraseBars();
    printLine(std::cerr, "note: " + sentence);
    _drawBars();
}

void SyncView::ended() {
    const Lock lock(_mutex);
    _eraseBars();
    if (_isForPerson() && _status.bytes() != 0) {
        printLine(_out, _summary());
    }
    _out.flush();
}

SyncStatus SyncView::status() const {
    const Lock lock(_mutex);
    return _status;
}

/// An app that nobody has planned is one all the same: a coordinator may end one of an earlier sync.
AppStatus& SyncView::_app(std::string_view identifier) {
    _changes.set();
    const auto [place, isNew] = _places.try_emplace(std::string(identifier), _status.apps.size());
    if (!isNew) {
        return _status.apps[place->second];
    }
    return _status.apps.emplace_back(AppStatus{std::string(identifier), std::string(identifier)});
}

/// Of a cancelled app both the coordinator and the transfer tell; the first word counts. What a sync leaves to the next
/// one has not ended.
void SyncView::_end(AppStatus& app, const ErrorPtr& error) {
    if (app.stage == AppStage::done || app.stage == AppStage::failed) {
        return;
    }
    if (isError(error, hostTransferErrorDomain, TransferError::interrupted)) {
        app.stage = AppStage::queued;
    } else {
        app.stage = error ? AppStage::failed : AppStage::done;
        app.reason = reasonOf(error);
        _line(endOf(app, isError(error, hostTransferErrorDomain, TransferError::cancelledByUser)));
    }
    _show(app);
}

void SyncView::_line(const Line& line) {
    if (_isForPerson()) {
        _eraseBars();
        printLine(_out, line);
        _out.flush();
    }
}

/// What the bars show by themselves.
void SyncView::_plainLine(const std::string& text) {
    if (_style == Style::lines) {
        printLine(_out, text);
        _out.flush();
    }
}

/// That it has changed.
void SyncView::_show(const AppStatus& app) {
    _shown = _now();
    if (_style == Style::events) {
        printEvent(_out, {{"event", "app"}, {"app", toJsonObject(app)}});
    }
    _drawBars();
}

void SyncView::_drawBars() {
    if (_style != Style::bars) {
        return;
    }
    _rate.sent(static_cast<double>(_status.sentBytes()), _now());
    drawLines(_out, barLines(_status, _rate.bytesPerSecond(), _window()));
    setDrawing(true);
}

/// Also where there are none yet: an echoed "^C" may stand there.
void SyncView::_eraseBars() {
    if (_style == Style::bars) {
        eraseLines(_out);
        setDrawing(false);
    }
}

std::string SyncView::_summary() const {
    const auto done = static_cast<std::size_t>(std::ranges::count(_status.apps, AppStage::done, &AppStatus::stage));
    const std::size_t all = _status.apps.size();
    return (done == all ? "" : std::to_string(done) + " of ") + appCountText(all) + ", " +
           sizeText(_status.sentBytes()) + " in " + durationText(_now() - _begin);
}

} // namespace appsync::host
