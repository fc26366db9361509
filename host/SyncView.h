// Shows a sync while it runs: progress bars on a terminal, otherwise plain lines.
#pragma once

#include "platform/Error.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

/// Any thread.
class SyncView {
  public:
    enum class Style { quiet, lines, bars };

    SyncView(std::ostream& out, Style style) : _out(out), _style(style) {}
    /// Bars when the stream of this descriptor is a terminal, otherwise lines.
    [[nodiscard]] static Style styleFor(int descriptor);

    /// How many apps will be transferred, and their bytes.
    void began(std::size_t apps, std::uint64_t bytes);
    void transferBegan(std::string_view identifier, std::string_view name, std::uint64_t bytes);
    /// `fraction` is 0 to 1.
    void transferring(std::string_view identifier, double fraction);
    void transferEnded(std::string_view identifier, const ErrorPtr& error);
    void installEnded(std::string_view identifier, const ErrorPtr& error);
    /// Takes the bars away.
    void ended();

  private:
    struct App {
        std::string name;
        std::uint64_t bytes = 0;
        double fraction = 0;
        bool transferred = false;
    };

    void _end(std::string_view identifier, const std::string& line);
    void _line(const std::string& text);
    void _drawBars();
    void _eraseBars();
    [[nodiscard]] std::string _nameOf(std::string_view identifier) const;

    std::ostream& _out;
    const Style _style;
    std::mutex _mutex;
    std::size_t _expected = 0;
    std::size_t _finished = 0;
    std::uint64_t _bytes = 0;
    std::uint64_t _bytesDone = 0;                      // of apps whose transfer has ended
    std::vector<std::string> _order;                   // of the apps under way
    std::map<std::string, App, std::less<>> _underWay; // by identifier
    std::size_t _drawnLines = 0;
};

} // namespace appsync::host
