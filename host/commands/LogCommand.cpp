// Showing what a device has logged, and following it while it is written.
#include "device/database/Database.h"
#include "device/log/LogFile.h"
#include "device/log/TransactionLog.h"
#include "device/root/Root.h"
#include "host/Commands.h"
#include "host/LocalTime.h"
#include "host/LogJson.h"
#include "host/Nearest.h"
#include "host/OpenDevice.h"
#include "host/control/Interrupt.h"
#include "host/control/RunningSync.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"

#include <nlohmann/json.hpp>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <iostream>

namespace appsync::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t followedLines = 10; // of what was there before
constexpr int followInterval = 200;       // milliseconds between two looks for what is new

/// What a person wants to see.
struct Wish {
    std::string app; // empty: of all apps
    LogLevel level = LogLevel::standard;
    std::optional<TimePoint> since;
};

/// The wish; nullopt after telling the person what is wrong with it.
std::optional<Wish> wishOf(const LogArguments& arguments) {
    Wish wish{arguments.app, LogLevel::standard, std::nullopt};
    if (!arguments.level.empty() && arguments.level != levelName(LogLevel::standard)) {
        if (arguments.level != levelName(LogLevel::error)) {
            fail("there is no level '" + arguments.level + "'." + suggestion(arguments.level, {"default", "error"}) +
                 " The levels are default and error.");
            return std::nullopt;
        }
        wish.level = LogLevel::error;
    }
    if (!arguments.since.empty()) {
        wish.since = parseTime(arguments.since, presentTime());
        if (!wish.since) {
            fail("'" + arguments.since +
                 "' is no time; say 14:05, 2026-11-21, 2026-11-21T14:05:30, or an age such as 10m, 2h, 1d.");
            return std::nullopt;
        }
    }
    return wish;
}

bool continuesIdentifier(std::string_view text, std::size_t place) {
    const auto isPart = [&](std::size_t at) {
        return at < text.size() && (std::isalnum(static_cast<unsigned char>(text[at])) != 0 || text[at] == '-');
    };
    return isPart(place) || (place < text.size() && text[place] == '.' && isPart(place + 1));
}

/// Whether a text names an app, and not only one whose identifier begins or ends alike.
bool names(std::string_view text, std::string_view app) {
    for (auto found = text.find(app); found != std::string_view::npos; found = text.find(app, found + 1)) {
        const bool begins = found == 0 || (!continuesIdentifier(text, found - 1) && text[found - 1] != '.');
        if (begins && !continuesIdentifier(text, found + app.size())) {
            return true;
        }
    }
    return false;
}

/// A line of either log.
struct LogLine {
    TimePoint time;
    LogLevel level = LogLevel::standard;
    std::string text;
    Json json; // the line for programs; null unless that is wanted
};

constexpr const char* listName = "entries"; // as JSON

/// Prints lines as they come, or first only the last of them.
class Lines {
  public:
    /// `follows`: what is printed has no end, so that each line is a JSON object of its own.
    Lines(std::optional<std::size_t> tail, bool json, bool follows)
        : _tail(tail), _json(json), _follows(follows), _list(std::cout, listName) {}

    /// False when nobody reads any more.
    bool add(LogLine line) {
        if (!_tail) {
            return _print(line);
        }
        _last.push_back(std::move(line));
        if (_last.size() > *_tail) {
            _last.pop_front();
        }
        return true;
    }
    /// Prints the last ones; from now on every line is printed. False when nobody reads any more.
    bool endTail() {
        _tail.reset();
        const auto last = std::exchange(_last, {});
        return std::ranges::all_of(last, [this](const LogLine& line) { return _print(line); });
    }
    /// No more will come.
    void end() {
        if (_json && !_follows) {
            _list.end();
        }
    }

  private:
    [[nodiscard]] bool _print(const LogLine& line) {
        if (_json && _follows) {
            printJson(std::cout, {{"version", jsonVersion}, {listName, Json::array({line.json})}});
        } else if (_json) {
            _list.add(line.json);
        } else {
            const std::string time = localTime(line.time, presentTime(), true);
            printLine(std::cout, time + (line.level == LogLevel::error ? " E " : "   ") + line.text, std::string::npos);
        }
        return std::cout.good();
    }

    std::optional<std::size_t> _tail;
    const bool _json;
    const bool _follows;
    JsonList _list;
    std::deque<LogLine> _last;
};

/// A log that is read on from where it was read last. Each call shows what has come; false when nobody reads any more.
class LogSource {
  public:
    virtual ~LogSource() = default;
    [[nodiscard]] virtual Result<bool> readOn(Lines& lines) = 0;
};

class Messages final : public LogSource {
  public:
    Messages(device::Root& root, Wish wish, bool json)
        : _cursor(root.files()), _wish(std::move(wish)), _json(json),
          _since(_wish.since ? device::formatLogTime(*_wish.since) : "") {}

    Result<bool> readOn(Lines& lines) override {
        bool isRead = true;
        const auto read = _cursor.readOn([&](const device::LogEntry& entry) {
            const bool isWanted = entry.time >= _since &&
                                  (_wish.level == LogLevel::standard || entry.level == LogLevel::error) &&
                                  (_wish.app.empty() || names(entry.text, _wish.app));
            isRead = !isWanted || lines.add(_lineOf(entry));
            return isRead;
        });
        return read ? Result(isRead) : read.error();
    }

  private:
    [[nodiscard]] LogLine _lineOf(const device::LogEntry& entry) const {
        LogLine line{device::parseLogTime(entry.time), entry.level, _json ? "" : entry.text, {}};
        if (_json) {
            line.json = toJsonObject(entry);
        }
        return line;
    }

    device::LogCursor _cursor;
    const Wish _wish;
    const bool _json;
    const std::string _since; // as it stands in the log
};

class Transactions final : public LogSource {
  public:
    Transactions(device::Root& root, Wish wish, bool json) : _root(root), _wish(std::move(wish)), _json(json) {}

    /// The database is let go of before anything is printed: who prints may be made to wait.
    Result<bool> readOn(Lines& lines) override {
        const auto records = _newRecords();
        if (!records) {
            return records.error();
        }
        return std::ranges::all_of(*records, [&](const auto& record) { return lines.add(_lineOf(record)); });
    }

  private:
    [[nodiscard]] Result<std::vector<device::TransactionRecord>> _newRecords() {
        auto database = device::Database::look(_root);
        if (!database) {
            return database.error();
        }
        auto log = device::TransactionLog::open(**database, nullptr);
        if (!log) {
            return log.error();
        }
        std::vector<device::TransactionRecord> records;
        const auto keep = [&](const device::TransactionRecord& record) {
            _last = record.number;
            const bool isWanted = (!_wish.since || _timeOf(record) >= *_wish.since) &&
                                  (_wish.level == LogLevel::standard || !record.success);
            if (isWanted) {
                records.push_back(record);
            }
            return true;
        };
        const auto app = _wish.app.empty() ? std::nullopt : std::optional<std::string_view>(_wish.app);
        const auto visited = (*log)->visit(keep, app, _last);
        return visited ? Result(std::move(records)) : visited.error();
    }
    [[nodiscard]] static TimePoint _timeOf(const device::TransactionRecord& record) {
        return TimePoint(std::chrono::microseconds(record.time));
    }
    [[nodiscard]] LogLine _lineOf(const device::TransactionRecord& record) const {
        LogLine line{_timeOf(record), record.success ? LogLevel::standard : LogLevel::error, record.text(), {}};
        if (_json) {
            line.json = {{"number", record.number},
                         {"time", device::formatLogTime(_timeOf(record))},
                         {"step", device::nameOf(record.step)},
                         {"success", record.success},
                         {"app", record.bundleID},
                         {"description", record.description}};
            if (record.scenario) {
                line.json["scenario"] = *record.scenario;
            } else {
                line.json["phase"] = record.phase == TransactionPhase::start ? "start" : "end";
            }
        }
        return line;
    }

    device::Root& _root;
    const Wish _wish;
    const bool _json;
    std::int64_t _last = 0; // the number of the record that was read last
};

/// Has a sync that runs write out what it has said; one that does not answer is not waited for.
void haveLogWritten(const std::string& device) {
    RunningSync running(device, lookersPatience);
    if (running.isThere()) {
        (void)running.ask({"flush"});
    }
}

/// Waits a little. False when the person wants no more, or nobody reads any more.
bool waitForMore(const Interrupt& interrupt) {
    std::cout.flush();
    pollfd awaited[] = {{interrupt.descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    (void)::poll(awaited, std::size(awaited), followInterval);
    return !Interrupt::requested() && std::cout.good() && (awaited[1].revents & (POLLERR | POLLHUP)) == 0;
}

ExitCode follow(LogSource& source, Lines& lines, const std::string& device) {
    const Interrupt interrupt;
    while (waitForMore(interrupt)) {
        haveLogWritten(device);
        const auto isRead = source.readOn(lines);
        if (!isRead) {
            return fail(reasonOf(isRead.error()));
        }
        if (!*isRead) {
            break;
        }
    }
    return Interrupt::requested() ? Interrupt::exitCode() : ExitCode::brokenPipe;
}

} // namespace

ExitCode showLog(const LogArguments& arguments) {
    const auto wish = wishOf(arguments);
    if (!wish) {
        return ExitCode::wrongUse;
    }
    const auto root = device::Root::look(arguments.device);
    if (!root) {
        return fail(root.error());
    }
    std::unique_ptr<LogSource> source;
    if (arguments.transactions) {
        source = std::make_unique<Transactions>(**root, *wish, arguments.json);
    } else {
        source = std::make_unique<Messages>(**root, *wish, arguments.json);
    }
    haveLogWritten(arguments.device);
    Lines lines(arguments.follow && !arguments.tail ? followedLines : arguments.tail, arguments.json, arguments.follow);
    const auto isRead = source->readOn(lines);
    if (!isRead) {
        return fail(reasonOf(isRead.error()));
    }
    if (!*isRead || !lines.endTail()) {
        return ExitCode::done; // nobody reads it
    }
    if (arguments.follow) {
        return follow(*source, lines, arguments.device);
    }
    lines.end();
    return ExitCode::done;
}

} // namespace appsync::host
