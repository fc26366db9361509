// What each thread did when, for a person who wants to see where the time goes.
//
//   const Span span(timeline, "unpacking", identifier);
//
// The timeline may be null everywhere: then nothing is kept, for the price of that test.
#pragma once

#include "concurrency/Mutex.h"
#include "values/Result.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace appsync {

class OutputFile;

/// What only grows.
enum class Counter : std::uint8_t {
    bytesSent,
    bytesUnpacked,
    syncs, // of the disk: fsync, fdatasync, syncfs, durable commits
};
inline constexpr std::size_t counterCount = 3;

/// Any thread. Names must outlive the timeline.
class Timeline {
  public:
    using Clock = std::chrono::steady_clock;
    /// Of 48 bytes each: some 10 MB, beside the identifiers of the apps.
    static constexpr std::size_t defaultMaxEvents = 200'000;

    /// Begins now; the calling thread is the main one. `now` is called with a lock held.
    explicit Timeline(std::function<Clock::time_point()> now = Clock::now, std::size_t maxEvents = defaultMaxEvents);
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    /// An app waits from now on, whichever thread ends that. Does nothing when it waits for that already.
    static void beginWaiting(Timeline* timeline, const char* name, std::string_view app) {
        if (timeline) {
            timeline->_beginWaiting(name, app);
        }
    }
    /// It waits for nothing any more.
    static void endWaiting(Timeline* timeline, std::string_view app) {
        if (timeline) {
            timeline->_endWaiting(app);
        }
    }
    static void add(Timeline* timeline, Counter counter, std::uint64_t amount = 1) {
        if (timeline) {
            timeline->_add(counter, amount);
        }
    }

    /// Writes trace-event JSON, and keeps nothing of it. Who still waits does so until now; spans that have not ended
    /// are left out.
    [[nodiscard]] Result<void> write(OutputFile& file) EXCLUDES(_mutex);
    /// Spans and waits that had no room. Counters go on.
    [[nodiscard]] std::uint64_t dropped() const EXCLUDES(_mutex);

  private:
    friend class Span;
    using Microseconds = std::int64_t; // since the timeline began; never fewer than those of what came before
    struct Event {
        char kind; // 'X' complete, 'b' and 'e' of a wait, 'C' counter
        const char* name;
        const std::string* app; // null: none
        std::uint64_t number;   // of the thread, or the counter's value
        Microseconds time;
        Microseconds duration;
    };
    struct Count {
        std::uint64_t value = 0;
        Microseconds shown = 0; // when an event had it last
    };
    struct Wait {
        const char* name;
        const std::string* app;
    };

    [[nodiscard]] Microseconds _begin(const char* name) EXCLUDES(_mutex);
    void _end(const char* name, std::string_view app, Microseconds began) noexcept EXCLUDES(_mutex);
    void _beginWaiting(const char* name, std::string_view app) EXCLUDES(_mutex);
    void _endWaiting(std::string_view app) EXCLUDES(_mutex);
    void _add(Counter counter, std::uint64_t amount) EXCLUDES(_mutex);
    [[nodiscard]] Microseconds _present() REQUIRES(_mutex);
    [[nodiscard]] bool _hasRoom(std::size_t events) const REQUIRES(_mutex);
    [[nodiscard]] std::uint64_t _thread(const char* firstSpan) REQUIRES(_mutex);
    [[nodiscard]] const std::string* _known(std::string_view app) REQUIRES(_mutex);
    void _show(Counter counter, Microseconds time) REQUIRES(_mutex);
    [[nodiscard]] std::vector<Event> _finish() REQUIRES(_mutex);
    [[nodiscard]] std::vector<std::string> _threadNames() const REQUIRES(_mutex);

    const std::function<Clock::time_point()> _now;
    const std::size_t _maxEvents;
    const Clock::time_point _start;
    mutable Mutex _mutex;
    Microseconds _latest GUARDED_BY(_mutex) = 0;
    std::vector<Event> _events GUARDED_BY(_mutex);
    std::vector<Wait> _waits GUARDED_BY(_mutex); // the end of each has its room
    std::array<Count, counterCount> _counts GUARDED_BY(_mutex);
    std::set<std::string, std::less<>> _apps GUARDED_BY(_mutex);
    std::map<std::thread::id, std::uint64_t> _threads GUARDED_BY(_mutex);
    std::vector<const char*> _firstSpans GUARDED_BY(_mutex); // of the threads, by their numbers from 1 on
    std::uint64_t _dropped GUARDED_BY(_mutex) = 0;
};

/// What a thread does as long as this lives. Name and app must outlive it.
class Span {
  public:
    Span(Timeline* timeline, const char* name, std::string_view app = {})
        : _timeline(timeline), _name(name), _app(app), _began(timeline ? timeline->_begin(name) : 0) {}
    ~Span() {
        if (_timeline) {
            _timeline->_end(_name, _app, _began);
        }
    }
    Span(const Span&) = delete;
    Span& operator=(const Span&) = delete;

  private:
    Timeline* const _timeline;
    const char* const _name;
    const std::string_view _app;
    const Timeline::Microseconds _began;
};

} // namespace appsync
