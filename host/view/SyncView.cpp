#include "host/view/SyncView.h"

#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"
#include "text/Printable.h"

#include <unistd.h>

#include <algorithm>
#include <ostream>

namespace appsync::host {

namespace {

constexpr std::size_t barWidth = 28;
constexpr std::size_t nameWidth = 22;
constexpr std::size_t maxBars = 8;

std::string bar(double fraction) {
    const auto filled = static_cast<std::size_t>(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(barWidth));
    return "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
}

std::string padded(const std::string& name) {
    const std::string shown = printable(name, 2 * nameWidth);
    const std::size_t width = displayWidth(shown);
    return width >= nameWidth ? shown : shown + std::string(nameWidth - width, ' ');
}

std::string percent(double fraction) {
    const std::string number = std::to_string(static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100));
    return std::string(number.size() < 3 ? 3 - number.size() : 0, ' ') + number + "%";
}

/// What stands behind an app's bar.
std::string stageText(const AppStatus& app) {
    switch (app.stage) {
    case AppStage::installing: return "installing";
    case AppStage::waiting: return "waiting: " + app.reason + "; next try at " + clockText(app.nextTry);
    default: return percent(app.fraction);
    }
}

} // namespace

SyncView::Style SyncView::styleFor(int descriptor) {
    return ::isatty(descriptor) != 0 ? Style::bars : Style::lines;
}

void SyncView::began(std::vector<AppStatus> apps) {
    const Lock lock(_mutex);
    _status.apps = std::move(apps);
    for (std::size_t place = 0; place < _status.apps.size(); ++place) {
        _places[_status.apps[place].identifier] = place;
    }
}

void SyncView::transferBegan(std::string_view identifier) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    app.stage = AppStage::transferring;
    _underWay.emplace_back(identifier);
    if (_style == Style::lines) {
        _line("sending " + printable(app.name) + " (" + sizeText(app.bytes) + ")");
    }
    _drawBars();
}

void SyncView::transferring(std::string_view identifier, double fraction) {
    const Lock lock(_mutex);
    _app(identifier).fraction = fraction;
    _drawBars();
}

void SyncView::transferEnded(std::string_view identifier, const ErrorPtr& error) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    if (error != nullptr) {
        _end(app, error);
    } else {
        app.fraction = 1;
        app.stage = AppStage::installing;
    }
    _drawBars();
}

void SyncView::installWaits(std::string_view identifier, const std::string& reason,
                            std::chrono::system_clock::time_point nextTry) {
    const Lock lock(_mutex);
    AppStatus& app = _app(identifier);
    app.stage = AppStage::waiting;
    app.reason = reason;
    app.nextTry = nextTry;
    if (_style == Style::lines) {
        _line("waiting " + printable(app.name) + ": " + reason + "; next try at " + clockText(nextTry));
    }
    _drawBars();
}

void SyncView::installEnded(std::string_view identifier, const ErrorPtr& error) {
    const Lock lock(_mutex);
    _end(_app(identifier), error);
    _drawBars();
}

void SyncView::note(const std::string& sentence) {
    const Lock lock(_mutex);
    _line("note: " + sentence);
    _drawBars();
}

void SyncView::ended() {
    const Lock lock(_mutex);
    _eraseBars();
    _out.flush();
}

SyncStatus SyncView::status() const {
    const Lock lock(_mutex);
    return _status;
}

/// An app that nobody has planned is one all the same: a coordinator may end one of an earlier sync.
AppStatus& SyncView::_app(std::string_view identifier) {
    const auto [place, isNew] = _places.try_emplace(std::string(identifier), _status.apps.size());
    if (!isNew) {
        return _status.apps[place->second];
    }
    return _status.apps.emplace_back(AppStatus{std::string(identifier), std::string(identifier)});
}

/// Of a cancelled app both the coordinator and the transfer tell; the first word counts.
void SyncView::_end(AppStatus& app, const ErrorPtr& error) {
    if (app.stage == AppStage::done || app.stage == AppStage::failed) {
        return;
    }
    app.stage = error == nullptr ? AppStage::done : AppStage::failed;
    app.reason = reasonOf(error);
    std::erase(_underWay, app.identifier);
    _line(error == nullptr ? "done    " + printable(app.name) : "failed  " + printable(app.name) + ": " + app.reason);
}

void SyncView::_line(const std::string& text) {
    if (_style == Style::quiet) {
        return;
    }
    _eraseBars();
    printLine(_out, text);
    _out.flush();
}

void SyncView::_drawBars() {
    if (_style != Style::bars) {
        return;
    }
    _eraseBars();
    std::size_t drawn = 0;
    for (const std::string& identifier : _underWay) {
        if (drawn < maxBars) {
            const AppStatus& app = _app(identifier);
            printLine(_out, padded(app.name) + " " + bar(app.fraction) + " " + stageText(app));
            ++drawn;
        }
    }
    const double whole = _status.fraction();
    printLine(_out, padded("All apps") + " " + bar(whole) + " " + percent(whole) + "  " +
                        std::to_string(_status.finished()) + " of " + std::to_string(_status.apps.size()));
    _out.flush();
    _drawnLines = drawn + 1;
}

void SyncView::_eraseBars() {
    if (_drawnLines > 0) {
        eraseLines(_out, _drawnLines);
        _drawnLines = 0;
    }
}

} // namespace appsync::host
