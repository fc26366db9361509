#include "bench/Lags.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <ctime>
#include <functional>
#include <map>
#include <optional>

namespace appsync::bench {

namespace {

using Json = nlohmann::json;
using Time = std::chrono::system_clock::time_point;

constexpr auto never = std::chrono::hours(1);

/// Calls `visit` with each line and the moment at which it was there as a whole.
void visitLines(const Heard& heard, const std::function<void(Time, const std::string&)>& visit) {
    std::string line;
    for (const auto& [time, piece] : heard) {
        for (const char byte : piece) {
            if (byte == '\n') {
                visit(time, line);
                line.clear();
            } else {
                line += byte;
            }
        }
    }
}

/// How far an app is: it only grows.
double progressOf(const Json& app) {
    constexpr const char* stages[] = {"queued", "transferring", "installing", "waiting", "done", "failed"};
    const auto stage = std::ranges::find(stages, app.at("stage").get<std::string>());
    return 2.0 * static_cast<double>(stage - std::begin(stages)) + app.value("fraction", 0.0);
}

/// When each app was first shown so far: moments and progress, both growing.
using Shown = std::map<std::string, std::vector<std::pair<double, Time>>>;

struct Page {
    Shown progress;
    std::map<std::string, Time> places;
    std::map<std::string, Time> installed;
    std::vector<std::pair<Time, Time>> logged; // when it was logged, when it was shown

    void show(Time time, const Json& app) {
        const std::string identifier = app.at("identifier");
        places.try_emplace(identifier, time);
        if (app.at("state") == "installed") {
            installed.try_emplace(identifier, time);
        }
    }
    void showSync(Time time, const Json& sync) {
        for (const Json& app : sync.at("apps")) {
            auto& shown = progress[app.at("identifier")];
            if (const double reached = progressOf(app); shown.empty() || shown.back().first < reached) {
                shown.emplace_back(reached, time);
            }
        }
    }
    void showLog(Time time, const std::string& logTime) {
        std::tm utc{};
        if (const char* rest = ::strptime(logTime.c_str(), "%Y-%m-%dT%H:%M:%S", &utc)) {
            const std::chrono::duration<double> part(std::stod("0" + std::string(rest)));
            logged.emplace_back(std::chrono::system_clock::from_time_t(::timegm(&utc)) +
                                    std::chrono::duration_cast<Time::duration>(part),
                                time);
        }
    }
};

Page readPage(const Heard& heard) {
    Page page;
    std::string name;
    visitLines(heard, [&](Time time, const std::string& line) {
        if (line.starts_with("event: ")) {
            name = line.substr(7);
        } else if (line.starts_with("data: ")) {
            const Json data = Json::parse(line.substr(6));
            if (name == "app") {
                page.show(time, data);
            } else if (name == "sync") {
                page.showSync(time, data);
            } else if (name == "log") {
                page.showLog(time, data.at("time"));
            } else {
                for (const Json& apps : data.at("pages")) {
                    for (const Json& app : apps) {
                        page.show(time, app);
                    }
                }
            }
        }
    });
    return page;
}

double lag(Time told, std::optional<Time> shown) {
    const std::chrono::duration<double, std::milli> time = shown ? *shown - told : never;
    return std::max(0.0, time.count()); // a page may be told before the program that reads the sync
}

std::optional<Time> timeIn(const std::map<std::string, Time>& times, const std::string& app) {
    const auto found = times.find(app);
    return found != times.end() ? std::optional(found->second) : std::nullopt;
}

std::optional<Time> timeOf(const Shown& shown, const Json& app) {
    const auto times = shown.find(app.at("identifier"));
    if (times == shown.end()) {
        return std::nullopt;
    }
    const auto reached =
        std::ranges::find_if(times->second, [&](const auto& one) { return one.first >= progressOf(app); });
    return reached != times->second.end() ? std::optional(reached->second) : std::nullopt;
}

} // namespace

std::vector<double> Lags::all() const {
    std::vector<double> together;
    for (const auto* some : {&placeholders, &stages, &installed, &logged}) {
        together.insert(together.end(), some->begin(), some->end());
    }
    return together;
}

Lags lagsOf(const Heard& sync, const Heard& heard) {
    const Page page = readPage(heard);
    Lags lags;
    visitLines(sync, [&](Time told, const std::string& line) {
        const Json event = Json::parse(line);
        if (event.at("event") == "began") {
            for (const Json& app : event.at("apps")) {
                lags.placeholders.push_back(lag(told, timeIn(page.places, app.at("identifier"))));
            }
        } else if (event.at("event") == "app") {
            const Json& app = event.at("app");
            lags.stages.push_back(lag(told, timeOf(page.progress, app)));
            if (app.at("stage") == "done") {
                lags.installed.push_back(lag(told, timeIn(page.installed, app.at("identifier"))));
            }
        }
    });
    for (const auto& [told, shown] : page.logged) {
        if (!heard.empty() && told >= heard.front().first) { // later than what there was before
            lags.logged.push_back(lag(told, shown));
        }
    }
    return lags;
}

} // namespace appsync::bench
