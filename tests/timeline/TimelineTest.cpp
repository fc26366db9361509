#include "timeline/Timeline.h"

#include "files/OutputFile.h"
#include "tests/files/TestFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>

#include <barrier>
#include <fstream>

namespace appsync {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

class Timelines : public FilesTest {
  protected:
    std::function<Timeline::Clock::time_point()> ticks() {
        return [this] { return now; };
    }
    std::vector<Json> written(Timeline& timeline) const {
        const std::string path = at("trace.json");
        const auto file = OutputFile::open(path);
        EXPECT_TRUE(file && timeline.write(**file) && (*file)->finish());
        const Json all = Json::parse(std::ifstream(path));
        EXPECT_EQ(all["displayTimeUnit"], "ms");
        return all["traceEvents"].get<std::vector<Json>>();
    }
    static std::vector<Json> of(const std::vector<Json>& events, const std::string& kind) {
        std::vector<Json> found;
        std::ranges::copy_if(events, std::back_inserter(found), [&](const Json& event) { return event["ph"] == kind; });
        return found;
    }

    Timeline::Clock::time_point now{1h};
};

TEST_F(Timelines, WithoutOneNothingIsDone) {
    Timeline* const none = nullptr;
    const Span span(none, "unpacking", "org.example.kite");
    Timeline::beginWaiting(none, "waiting", "org.example.kite");
    Timeline::endWaiting(none, "org.example.kite");
    Timeline::add(none, Counter::syncs);
}

TEST_F(Timelines, ASpanHasItsTimeItsThreadAndItsApp) {
    Timeline timeline(ticks());
    now += 5ms;
    {
        const Span around(&timeline, "install", "org.example.kite");
        {
            const Span within(&timeline, "unpacking");
            now += 7us;
        }
        now += 1ms;
    }
    const auto spans = of(written(timeline), "X");
    ASSERT_EQ(spans.size(), 2U);
    EXPECT_EQ(spans[0]["name"], "install") << "what is around others stands first";
    EXPECT_EQ(spans[0]["ts"], 5000);
    EXPECT_EQ(spans[0]["dur"], 1007);
    EXPECT_EQ(spans[0]["args"]["app"], "org.example.kite");
    EXPECT_EQ(spans[1]["ts"], 5000);
    EXPECT_EQ(spans[1]["dur"], 7);
    EXPECT_FALSE(spans[1].contains("args"));
    EXPECT_EQ(spans[0]["tid"], spans[1]["tid"]);
    EXPECT_EQ(spans[0]["pid"], ::getpid());
}

TEST_F(Timelines, AThreadIsNamedAfterItsOutermostSpan) {
    Timeline timeline(ticks());
    std::barrier both(2);
    const auto install = [&] {
        const Span around(&timeline, "install");
        both.arrive_and_wait();
        const Span within(&timeline, "unpacking");
    };
    std::thread first(install);
    std::thread second(install);
    first.join();
    second.join();
    const auto events = written(timeline);
    std::map<int, std::string> names;
    for (const Json& event : of(events, "M")) {
        if (event["name"] == "thread_name") {
            names[event["tid"]] = event["args"]["name"];
        }
    }
    EXPECT_EQ(names, (std::map<int, std::string>{{1, "main"}, {2, "install"}, {3, "install 2"}}));
    for (const Json& span : of(events, "X")) {
        EXPECT_NE(span["tid"], 1);
    }
}

TEST_F(Timelines, AWaitEndsOnAnyThread) {
    Timeline timeline(ticks());
    Timeline::beginWaiting(&timeline, "waiting", "a");
    now += 1ms;
    Timeline::beginWaiting(&timeline, "waiting", "a"); // it does already
    Timeline::beginWaiting(&timeline, "waiting", "b");
    Timeline::beginWaiting(&timeline, "busy", "a");
    now += 1ms;
    std::thread([&] { Timeline::endWaiting(&timeline, "a"); }).join();
    now += 1ms;
    std::vector<std::string> seen;
    for (const Json& event : written(timeline)) {
        if (event["ph"] == "b" || event["ph"] == "e") {
            EXPECT_EQ(event["cat"], "app");
            seen.push_back(event["ph"].get<std::string>() + " " + event["name"].get<std::string>() + " " +
                           event["id"].get<std::string>() + " " + event["ts"].dump());
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"b waiting a 0", "b waiting b 1000", "b busy a 1000", "e busy a 2000",
                                              "e waiting a 2000", "e waiting b 3000"}))
        << "who waits still, waits until the end";
}

TEST_F(Timelines, ACounterIsShownNowAndThenAndAtTheEnd) {
    Timeline timeline(ticks());
    for (int piece = 0; piece < 1000; ++piece) {
        Timeline::add(&timeline, Counter::bytesUnpacked, 10);
        now += 10us;
    }
    std::vector<std::pair<int, int>> shown;
    for (const Json& event : of(written(timeline), "C")) {
        if (event["name"] == "bytes unpacked") {
            shown.emplace_back(event["ts"], event["args"]["bytes"]);
        }
    }
    ASSERT_EQ(shown.size(), 11U);
    EXPECT_EQ(shown.front(), std::pair(0, 0));
    EXPECT_EQ(shown[1], std::pair(1000, 1010));
    EXPECT_EQ(shown.back(), std::pair(10'000, 10'000));
    EXPECT_TRUE(std::ranges::is_sorted(shown));
}

TEST_F(Timelines, TimeNeverGoesBackNorIsItNegative) {
    Timeline timeline(ticks());
    now -= 1s;
    {
        const Span early(&timeline, "early");
        now -= 1s;
    }
    now += 3s;
    {
        const Span late(&timeline, "late");
        now -= 1s;
        Timeline::add(&timeline, Counter::syncs);
    }
    for (const Json& event : written(timeline)) {
        EXPECT_GE(event.value("ts", 0), 0) << event;
        EXPECT_GE(event.value("dur", 0), 0) << event;
        EXPECT_TRUE(event["name"] != "late" || event["ts"] == 1'000'000) << event;
    }
}

TEST_F(Timelines, WhatIsBeyondTheBoundIsCounted) {
    constexpr std::size_t maxEvents = 10;
    Timeline timeline(ticks(), maxEvents);
    Timeline::beginWaiting(&timeline, "waiting", "a"); // and room for its end
    for (int number = 0; number < 20; ++number) {
        const Span span(&timeline, "unpacking");
        now += 5ms;
        Timeline::add(&timeline, Counter::syncs);
    }
    Timeline::beginWaiting(&timeline, "waiting", "b");
    Timeline::endWaiting(&timeline, "a");
    const auto events = written(timeline);
    const std::size_t shown = of(events, "C").size() - 2 * counterCount; // beside beginning and end
    EXPECT_EQ(of(events, "X").size() + shown + 2, maxEvents);
    EXPECT_EQ(of(events, "b").size(), 1U);
    EXPECT_EQ(of(events, "e").size(), 1U);
    EXPECT_EQ(timeline.dropped(), 20 - of(events, "X").size() + 1);
    EXPECT_EQ(events.back()["args"]["syncs"], 20) << "counters go on";
}

TEST_F(Timelines, ManyThreadsAtOnce) {
    Timeline timeline;
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&timeline, number] {
            const std::string app = "app " + std::to_string(number);
            for (int turn = 0; turn < 200; ++turn) {
                Timeline::beginWaiting(&timeline, "waiting", app);
                const Span around(&timeline, "install", app);
                Timeline::endWaiting(&timeline, app);
                const Span within(&timeline, "unpacking", app);
                Timeline::add(&timeline, Counter::bytesSent);
            }
        });
    }
    std::ranges::for_each(threads, &std::thread::join);
    const auto events = written(timeline);
    EXPECT_EQ(of(events, "X").size(), 3200U);
    EXPECT_EQ(of(events, "b").size(), 1600U);
    EXPECT_EQ(of(events, "e").size(), 1600U);
    EXPECT_EQ(events[events.size() - counterCount]["args"]["bytes"], 1600);
}

TEST_F(Timelines, AnyTextIsJson) {
    Timeline timeline(ticks());
    { const Span span(&timeline, "unpacking", "\"\\\n\xff\xc3\xa9"); }
    const auto spans = of(written(timeline), "X");
    EXPECT_EQ(spans[0]["args"]["app"], "\"\\\n\xef\xbf\xbd\xc3\xa9");
}

TEST_F(Timelines, AFileThatTakesNothingIsAFailure) {
    Timeline timeline(ticks());
    const auto file = OutputFile::open(at("trace.json"));
    ASSERT_TRUE(file);
    ::close((*file)->descriptor());
    EXPECT_FALSE(timeline.write(**file));
    ASSERT_EQ(::open("/dev/null", O_RDONLY), (*file)->descriptor()); // which the file closes
}

} // namespace
} // namespace appsync
