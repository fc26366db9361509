#include "host/SyncView.h"

#include "host/SyncReport.h"
#include "host/Table.h"

#include <unistd.h>

#include <algorithm>
#include <ostream>

namespace appsync::host {

namespace {

constexpr std::size_t barWidth = 28;
constexpr std::size_t nameWidth = 22;
constexpr std::size_t mostBars = 8;

std::string bar(double fraction) {
    const auto filled = static_cast<std::size_t>(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(barWidth));
    return "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
}

std::string padded(const std::string& name) {
    const std::size_t width = displayWidth(name);
    return width >= nameWidth ? name : name + std::string(nameWidth - width, ' ');
}

std::string percent(double fraction) {
    const std::string number = std::to_string(static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100));
    return std::string(number.size() < 3 ? 3 - number.size() : 0, ' ') + number + "%";
}

} // namespace

SyncView::Style SyncView::styleFor(int descriptor) {
    return ::isatty(descriptor) != 0 ? Style::bars : Style::lines;
}

void SyncView::began(std::size_t apps, std::uint64_t bytes) {
    const std::lock_guard lock(_mutex);
    _expected = apps;
    _bytes = bytes;
}

void SyncView::transferBegan(std::string_view identifier, std::string_view name, std::uint64_t bytes) {
    const std::lock_guard lock(_mutex);
    _order.emplace_back(identifier);
    _underWay[std::string(identifier)] = {printable(name), bytes};
    if (_style == Style::lines) {
        _line("sending " + printable(name) + " (" + sizeText(bytes) + ")");
    }
    _drawBars();
}

void SyncView::transferring(std::string_view identifier, double fraction) {
    const std::lock_guard lock(_mutex);
    if (const auto app = _underWay.find(identifier); app != _underWay.end()) {
        app->second.fraction = fraction;
        _drawBars();
    }
}

void SyncView::transferEnded(std::string_view identifier, const ErrorPtr& error) {
    const std::lock_guard lock(_mutex);
    const auto app = _underWay.find(identifier);
    if (app == _underWay.end()) {
        return;
    }
    _bytesDone += app->second.bytes;
    app->second.transferred = true;
    app->second.fraction = 1;
    if (error != nullptr) {
        _end(identifier, "failed  " + app->second.name + ": " + reasonOf(error));
    }
    _drawBars();
}

void SyncView::installEnded(std::string_view identifier, const ErrorPtr& error) {
    const std::lock_guard lock(_mutex);
    _end(identifier, error == nullptr ? "done    " + _nameOf(identifier)
                                      : "failed  " + _nameOf(identifier) + ": " + reasonOf(error));
    _drawBars();
}

void SyncView::ended() {
    const std::lock_guard lock(_mutex);
    _eraseBars();
    _out.flush();
}

void SyncView::_end(std::string_view identifier, const std::string& line) {
    ++_finished;
    std::erase(_order, identifier);
    if (const auto app = _underWay.find(identifier); app != _underWay.end()) {
        _underWay.erase(app);
    }
    _line(line);
}

void SyncView::_line(const std::string& text) {
    if (_style == Style::quiet) {
        return;
    }
    _eraseBars();
    _out << text << '\n' << std::flush;
}

void SyncView::_drawBars() {
    if (_style != Style::bars) {
        return;
    }
    _eraseBars();
    std::uint64_t bytes = _bytesDone;
    std::size_t drawn = 0;
    for (const std::string& identifier : _order) {
        const App& app = _underWay.find(identifier)->second;
        bytes += app.transferred ? 0 : static_cast<std::uint64_t>(app.fraction * static_cast<double>(app.bytes));
        if (drawn < mostBars) {
            _out << padded(app.name) << ' ' << bar(app.fraction) << ' '
                 << (app.transferred ? "installing" : percent(app.fraction)) << '\n';
            ++drawn;
        }
    }
    const double whole = _bytes == 0 ? 0 : static_cast<double>(bytes) / static_cast<double>(_bytes);
    _out << padded("All apps") << ' ' << bar(whole) << ' ' << percent(whole) << "  " << _finished << " of " << _expected
         << '\n'
         << std::flush;
    _drawnLines = drawn + 1;
}

void SyncView::_eraseBars() {
    if (_drawnLines > 0) {
        _out << "\x1b[" << _drawnLines << "A\x1b[J";
        _drawnLines = 0;
    }
}

std::string SyncView::_nameOf(std::string_view identifier) const {
    const auto app = _underWay.find(identifier);
    return app != _underWay.end() ? app->second.name : std::string(identifier);
}

} // namespace appsync::host
