// Follows a sync while it runs and shows it: progress bars on a terminal, otherwise plain lines.
#pragma once

#include "concurrency/Mutex.h"
#include "host/view/SyncStatus.h"
#include "values/Error.h"

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace appsync::host {

/// Any thread.
class SyncView {
  public:
    enum class Style { quiet, lines, bars };

    SyncView(std::ostream& out, Style style) : _out(out), _style(style) {}
    /// Bars when the stream of this descriptor is a terminal, otherwise lines.
    [[nodiscard]] static Style styleFor(int descriptor);

    /// The apps that will be transferred, with name and bytes.
    void began(std::vector<AppStatus> apps);
    void transferBegan(std::string_view identifier);
    /// `fraction` is 0 to 1.
    void transferring(std::string_view identifier, double fraction);
    void transferEnded(std::string_view identifier, const ErrorPtr& error);
    void installWaits(std::string_view identifier, const std::string& reason,
                      std::chrono::system_clock::time_point nextTry);
    void installEnded(std::string_view identifier, const ErrorPtr& error);
    /// Something else that a person should know.
    void note(const std::string& sentence);
    /// Takes the bars away.
    void ended();

    [[nodiscard]] SyncStatus status() const;

  private:
    [[nodiscard]] AppStatus& _app(std::string_view identifier) REQUIRES(_mutex);
    void _end(AppStatus& app, const ErrorPtr& error) REQUIRES(_mutex);
    void _line(const std::string& text) REQUIRES(_mutex);
    void _drawBars() REQUIRES(_mutex);
    void _eraseBars() REQUIRES(_mutex);

    std::ostream& _out;
    const Style _style;
    mutable Mutex _mutex;
    SyncStatus _status GUARDED_BY(_mutex);
    std::unordered_map<std::string, std::size_t> _places GUARDED_BY(_mutex); // of the apps in the status
    std::vector<std::string> _underWay GUARDED_BY(_mutex); // in the order in which their transfers began
    std::size_t _drawnLines GUARDED_BY(_mutex) = 0;
};

} // namespace appsync::host
