#include "tests/simulation/Program.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

namespace appsync::simulation {

namespace {

constexpr const char* help = "Lives random lives of the plug-in and checks what must always hold.\n"
                             "  --seed N         lives the life of that seed and prints what happens in it\n"
                             "  --lives N        lives so many (1000 unless named)\n"
                             "  --minutes M, --seconds S\n"
                             "                   lives for so long instead\n"
                             "  --from N         begins with that seed and goes on with the next ones (a random one\n"
                             "                   unless named)\n"
                             "  --twice          lives each life twice and compares what happened\n"
                             "  --everything     fails when something that can happen has not happened in any life\n";

struct Options {
    std::optional<std::uint64_t> seed;
    std::optional<std::uint64_t> from;
    std::optional<std::uint64_t> lives;
    std::optional<std::uint64_t> seconds;
    bool twice = false;
    bool everything = false;
};

std::optional<std::uint64_t> number(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

/// Nothing when the command line makes no sense.
std::optional<Options> parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--twice" || name == "--everything") {
            (name == "--twice" ? options.twice : options.everything) = true;
            continue;
        }
        auto* const option = name == "--seed"                             ? &options.seed
                             : name == "--from"                           ? &options.from
                             : name == "--lives"                          ? &options.lives
                             : name == "--seconds" || name == "--minutes" ? &options.seconds
                                                                          : nullptr;
        if (!option || i + 1 == argc) {
            return std::nullopt;
        }
        *option = number(argv[++i]);
        if (!*option) {
            return std::nullopt;
        }
        if (name == "--minutes") {
            **option *= 60;
        }
    }
    return options;
}

/// Ends the program, with the seed of the life, when a life makes no call for so long that it can only hang.
class Watchdog {
  public:
    Watchdog() : _thread([this] { _watch(); }) {}
    ~Watchdog() {
        {
            const std::lock_guard lock(_mutex);
            _stopped = true;
            _changed.notify_all();
        }
        _thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    std::atomic<std::uint64_t> seed = 0;

  private:
    static constexpr int secondsUntilItHangs = 30;

    void _watch() {
        std::unique_lock lock(_mutex);
        std::uint64_t last = 0;
        for (int idle = 0; !_changed.wait_for(lock, std::chrono::seconds(1), [this] { return _stopped; }); ++idle) {
            const std::uint64_t now = callCount + seed;
            idle = now == last ? idle : 0;
            last = now;
            if (idle == secondsUntilItHangs) {
                std::printf("life %" PRIu64 ": every wait ends: it hangs; replay with --seed %" PRIu64 "\n",
                            seed.load(), seed.load());
                std::fflush(stdout);
                std::_Exit(1);
            }
        }
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    bool _stopped = false;
    std::thread _thread;
};

class Simulation {
  public:
    Simulation(const Options& options, const Live& live) : _options(options), _live(live) {}

    int run() { return _options.seed ? _replay(*_options.seed) : _liveMany(); }

  private:
    int _replay(std::uint64_t seed) {
        _watchdog.seed = seed;
        const Outcome outcome = _live(seed, _tally, true);
        for (const std::string& line : outcome.journal) {
            std::puts(line.c_str());
        }
        return _holds(seed, outcome.violation) ? 0 : 1;
    }

    int _liveMany() {
        const std::uint64_t from = _options.from.value_or(std::random_device{}());
        std::printf("lives from seed %" PRIu64 "\n", from);
        std::fflush(stdout);
        const auto begin = std::chrono::steady_clock::now();
        const auto seconds = [&] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        };
        const auto goesOn = [&](std::uint64_t lived) {
            return _options.seconds ? seconds() < static_cast<double>(*_options.seconds)
                                    : lived < _options.lives.value_or(1000);
        };
        std::uint64_t lived = 0;
        for (; goesOn(lived); ++lived) {
            _watchdog.seed = from + lived;
            if (!(_options.twice ? _liveTwice(from + lived) : _liveOnce(from + lived))) {
                return 1;
            }
        }
        const bool everything = _printTally();
        std::printf("%" PRIu64 " lives, %.0f a second\n", lived, static_cast<double>(lived) / seconds());
        return everything || !_options.everything ? 0 : 1;
    }

    bool _liveOnce(std::uint64_t seed) { return _holds(seed, _live(seed, _tally, false).violation); }

    bool _liveTwice(std::uint64_t seed) {
        const Outcome first = _live(seed, _tally, true);
        const Outcome second = _live(seed, _tally, true);
        if (!_holds(seed, first.violation ? first.violation : second.violation)) {
            return false;
        }
        const auto [one, other] = std::ranges::mismatch(first.journal, second.journal);
        if (one == first.journal.end() && other == second.journal.end()) {
            return true;
        }
        std::printf("life %" PRIu64 ": a life can be replayed: line %td differs\n  %s\n  %s\n", seed,
                    one - first.journal.begin(), one != first.journal.end() ? one->c_str() : "(end)",
                    other != second.journal.end() ? other->c_str() : "(end)");
        return false;
    }

    static bool _holds(std::uint64_t seed, const std::optional<Violation>& violation) {
        if (violation) {
            std::printf("life %" PRIu64 ": %s: %s; replay with --seed %" PRIu64 "\n", seed,
                        violation->invariant.c_str(), violation->where.c_str(), seed);
        }
        return !violation;
    }

    /// False: something has never happened.
    bool _printTally() const {
        bool everything = true;
        for (std::size_t event = 0; event < eventNames.size(); ++event) {
            const std::uint64_t times = _tally.of(event);
            everything &= times > 0;
            if (times > 0 || _options.everything) {
                std::printf("%10" PRIu64 " %s%s\n", times, std::string(eventNames[event]).c_str(),
                            times > 0 ? "" : "  <- never happened");
            }
        }
        return everything;
    }

    const Options& _options;
    const Live& _live;
    Tally _tally;
    Watchdog _watchdog;
};

} // namespace

int runProgram(int argc, char** argv, const Live& live) {
    const auto options = parse(argc, argv);
    if (!options) {
        std::fputs(help, stderr);
        return 2;
    }
    return Simulation(*options, live).run();
}

} // namespace appsync::simulation
