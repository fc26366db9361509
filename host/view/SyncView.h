// Follows a sync, or what brings apps in another way, while it runs and shows it: progress bars on a terminal,
// otherwise plain lines; for programs JSON.
#pragma once

#include "concurrency/Mutex.h"
#include "files/Event.h"
#include "host/transfer/TransferRate.h"
#include "host/view/Print.h"
#include "host/view/SyncStatus.h"
#include "host/view/Terminal.h"
#include "values/Error.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace appsync::host {

/// Any thread.
class SyncView {
  public:
    enum class Style { quiet, lines, bars, events };

    using Clock = std::chrono::steady_clock;

    /// `window` says how large the window is now; it is asked for each drawing.
    SyncView(std::ostream& out, Style style, std::function<Window()> window = _windowOfOutput,
             std::function<Clock::time_point()> now = Clock::now);
    /// Bars when it is a terminal's (host/view/Terminal.h), otherwise lines; for programs events or nothing.
    [[nodiscard]] static Style styleFor(const std::ostream& out, JsonOutput json);

    /// The apps that will be transferred, with name and bytes.
    void began(std::vector<AppStatus> apps);
    void transferBegan(std::string_view identifier);
    /// `fraction` is 0 to 1.
    void transferring(std::string_view identifier, double fraction);
    void transferEnded(std::string_view identifier, const ErrorPtr& error);
    void installWaits(std::string_view identifier, const std::string& reason,
                      std::chrono::system_clock::time_point nextTry);
    void installEnded(std::string_view identifier, const ErrorPtr& error);
    /// Something else that a person should know, on the standard error.
    void note(const std::string& sentence);
    /// Takes the bars away and says how many apps and bytes it were, and in what time.
    void ended();

    [[nodiscard]] SyncStatus status() const;
    /// Set when that has changed.
    [[nodiscard]] const Event& changes() const noexcept { return _changes; }

  private:
    /// That is about to be changed.
    [[nodiscard]] AppStatus& _app(std::string_view identifier) REQUIRES(_mutex);
    void _end(AppStatus& app, const ErrorPtr& error) REQUIRES(_mutex);
    [[nodiscard]] bool _isForPerson() const { return _style == Style::lines || _style == Style::bars; }
    void _line(const Line& line) REQUIRES(_mutex);
    void _plainLine(const std::string& text) REQUIRES(_mutex);
    void _show(const AppStatus& app) REQUIRES(_mutex);
    void _drawBars() REQUIRES(_mutex);
    void _eraseBars() REQUIRES(_mutex);
    [[nodiscard]] std::string _summary() const REQUIRES(_mutex);
    static Window _windowOfOutput();

    std::ostream& _out;
    const Style _style;
    const std::function<Window()> _window;
    const std::function<Clock::time_point()> _now;
    const Event _changes;
    mutable Mutex _mutex;
    SyncStatus _status GUARDED_BY(_mutex);
    std::unordered_map<std::string, std::size_t> _places GUARDED_BY(_mutex); // of the apps in the status
    TransferRate _rate GUARDED_BY(_mutex);
    Clock::time_point _begin GUARDED_BY(_mutex);
    std::optional<Clock::time_point> _shown GUARDED_BY(_mutex); // when last
};

} // namespace appsync::host
