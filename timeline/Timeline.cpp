#include "timeline/Timeline.h"

#include "files/OutputFile.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <tuple>
#include <utility>

namespace appsync {

namespace {

using Json = nlohmann::ordered_json;

/// A counter is shown this often at most, so that many small pieces leave room for the rest.
constexpr std::int64_t counterStep = 1000; // microseconds
constexpr std::size_t maxUnwritten = std::size_t{1} << 16;

struct CounterWords {
    const char* name;
    const char* unit;
};
constexpr std::array<CounterWords, counterCount> counterWords{
    {{"bytes sent", "bytes"}, {"bytes unpacked", "bytes"}, {"syncs of the disk", "syncs"}}};

const char* unitOf(std::string_view counter) {
    return std::ranges::find(counterWords, counter, &CounterWords::name)->unit;
}

/// The events of a file, one a line.
class EventWriter {
  public:
    explicit EventWriter(OutputFile& file) : _file(file), _unwritten("{\"traceEvents\":[\n") {}

    void write(std::string_view kind, std::string_view name, const Json& fields) {
        Json event{{"ph", kind}, {"name", name}, {"pid", ::getpid()}};
        event.update(fields);
        _unwritten += std::exchange(_separator, ",\n");
        // What is no text cannot be the identifier of an app, but of an archive that is refused.
        _unwritten += event.dump(-1, ' ', true, Json::error_handler_t::replace);
        if (_unwritten.size() > maxUnwritten) {
            _flush();
        }
    }
    Result<void> finish() {
        _unwritten += "\n],\"displayTimeUnit\":\"ms\"}\n";
        _flush();
        return _outcome;
    }

  private:
    void _flush() {
        if (_outcome) {
            _outcome = _file.write(_unwritten);
        }
        _unwritten.clear();
    }

    OutputFile& _file;
    std::string _unwritten;
    const char* _separator = "";
    Result<void> _outcome;
};

} // namespace

Timeline::Timeline(std::function<Clock::time_point()> now, std::size_t maxEvents)
    : _now(std::move(now)), _maxEvents(maxEvents), _start(_now()) {
    const Lock lock(_mutex);
    (void)_thread("main");
}

Timeline::Microseconds Timeline::_present() {
    const auto passed = std::chrono::duration_cast<std::chrono::microseconds>(_now() - _start).count();
    return _latest = std::max<Microseconds>(_latest, passed);
}

/// For so many more events, beside the ends of the waits.
bool Timeline::_hasRoom(std::size_t events) const {
    return _events.size() + _waits.size() + events <= _maxEvents;
}

/// A thread is named after the outermost of its spans, which is the first that begins.
std::uint64_t Timeline::_thread(const char* firstSpan) {
    const auto [thread, isNew] = _threads.try_emplace(std::this_thread::get_id(), _firstSpans.size() + 1);
    if (isNew) {
        _firstSpans.push_back(firstSpan);
    }
    return thread->second;
}

const std::string* Timeline::_known(std::string_view app) {
    return app.empty() ? nullptr : &*_apps.emplace(app).first;
}

Timeline::Microseconds Timeline::_begin(const char* name) {
    const Lock lock(_mutex);
    (void)_thread(name);
    return _present();
}

void Timeline::_end(const char* name, std::string_view app, Microseconds began) noexcept {
    const Lock lock(_mutex);
    const Microseconds now = _present();
    if (_hasRoom(1)) {
        _events.push_back({'X', name, _known(app), _thread(name), began, now - began});
    } else {
        ++_dropped;
    }
}

void Timeline::_beginWaiting(const char* name, std::string_view app) {
    const Lock lock(_mutex);
    const auto isSame = [&](const Wait& wait) { return *wait.app == app && std::string_view(wait.name) == name; };
    if (std::ranges::any_of(_waits, isSame)) {
        return;
    }
    if (!_hasRoom(2)) {
        ++_dropped;
        return;
    }
    _waits.push_back({name, _known(app)});
    _events.push_back({'b', name, _waits.back().app, 0, _present(), 0});
}

void Timeline::_endWaiting(std::string_view app) {
    const Lock lock(_mutex);
    for (std::size_t number = _waits.size(); number-- > 0;) { // the last first: waits of an app are within each other
        if (*_waits[number].app == app) {
            _events.push_back({'e', _waits[number].name, _waits[number].app, 0, _present(), 0});
            _waits.erase(_waits.begin() + static_cast<std::ptrdiff_t>(number));
        }
    }
}

void Timeline::_add(Counter counter, std::uint64_t amount) {
    const Lock lock(_mutex);
    Count& count = _counts.at(static_cast<std::size_t>(counter));
    count.value += amount;
    if (const Microseconds now = _present(); now - count.shown >= counterStep && _hasRoom(1)) {
        _show(counter, now);
    }
}

void Timeline::_show(Counter counter, Microseconds time) {
    const auto number = static_cast<std::size_t>(counter);
    _counts.at(number).shown = time;
    _events.push_back({'C', counterWords.at(number).name, nullptr, _counts.at(number).value, time, 0});
}

std::uint64_t Timeline::dropped() const {
    const Lock lock(_mutex);
    return _dropped;
}

/// All events in the order of their times, what is around others before these.
std::vector<Timeline::Event> Timeline::_finish() {
    while (!_waits.empty()) {
        const Wait wait = _waits.back();
        _waits.pop_back();
        _events.push_back({'e', wait.name, wait.app, 0, _present(), 0});
    }
    for (std::size_t number = 0; number < counterCount; ++number) {
        _show(static_cast<Counter>(number), _present());
    }
    auto events = std::exchange(_events, {});
    std::ranges::stable_sort(events, {}, [](const Event& event) { return std::tuple(event.time, -event.duration); });
    return events;
}

std::vector<std::string> Timeline::_threadNames() const {
    std::vector<std::string> names;
    std::map<std::string_view, int> counts;
    for (const char* name : _firstSpans) {
        const int number = ++counts[name];
        names.push_back(number == 1 ? name : name + (" " + std::to_string(number)));
    }
    return names;
}

Result<void> Timeline::write(OutputFile& file) {
    const Lock lock(_mutex);
    EventWriter writer(file);
    writer.write("M", "process_name", {{"args", {{"name", "qrd"}}}});
    std::uint64_t number = 0;
    for (const std::string& name : _threadNames()) {
        writer.write("M", "thread_name", {{"tid", ++number}, {"args", {{"name", name}}}});
    }
    for (const CounterWords& counter : counterWords) {
        writer.write("C", counter.name, {{"ts", 0}, {"args", {{counter.unit, 0}}}});
    }
    for (const Event& event : _finish()) {
        Json fields{{"ts", event.time}};
        if (event.kind == 'X') {
            fields.update({{"dur", event.duration}, {"tid", event.number}});
        } else if (event.kind == 'C') {
            fields["args"] = {{unitOf(event.name), event.number}};
        } else {
            fields.update({{"cat", "app"}, {"id", *event.app}, {"tid", 1}});
        }
        if (event.kind == 'X' && event.app) {
            fields["args"] = {{"app", *event.app}};
        }
        writer.write(std::string_view(&event.kind, 1), event.name, fields);
    }
    return writer.finish();
}

} // namespace appsync
