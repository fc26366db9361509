// `qrd log`: which lines it shows, how, and following a log that is written.
#include "host/LocalTime.h"
#include "tests/host/CommandLineFixture.h"

#include <ctime>

namespace appsync::host {
namespace {

using namespace std::chrono_literals;

class Log : public CommandLine {
  protected:
    void SetUp() override {
        CommandLine::SetUp();
        ::setenv("TZ", "CET-1", 1); // an hour before UTC, the whole year
        ::tzset();
        ASSERT_EQ(qrd("device create d").code, 0);
        write("d/var/log/qrd.log.1", "2026-03-01T10:00:00.000001Z standard SyncBundle oldest\n");
        write("d/var/log/qrd.log",
              "2026-03-01T11:00:00.000001Z error Framework com.example.a: it failed\n"
              "2026-03-01T12:00:00.000001Z standard SyncBundle com.example.ab and my.com.example.a\n"
              "2026-03-01T13:00:00.999999Z standard a/b ends with com.example.a.\n");
    }
    void TearDown() override {
        CommandLine::TearDown();
        ::unsetenv("TZ");
        ::tzset();
    }
    const std::string oldest = "2026-03-01 11:00:00   oldest\n";
    const std::string failed = "2026-03-01 12:00:00 E com.example.a: it failed\n";
    const std::string other = "2026-03-01 13:00:00   com.example.ab and my.com.example.a\n";
    const std::string last = "2026-03-01 14:00:00   ends with com.example.a.\n";
};

TEST_F(Log, ShowsTimeLevelAndTextOfEachMessage) {
    EXPECT_EQ(qrd("log d").text, oldest + failed + other + last);
}

TEST_F(Log, ShowsTheLastOnes) {
    EXPECT_EQ(qrd("log d --tail 2").text, other + last);
    EXPECT_EQ(qrd("log d --tail 0").text, "");
    EXPECT_EQ(qrd("log d --tail 9").text, oldest + failed + other + last);
    EXPECT_EQ(qrd("log d --tail x").code, 2);
    EXPECT_EQ(qrd("log d --tail -1").code, 2);
}

TEST_F(Log, ShowsWhatIsOfALevelAndWorse) {
    EXPECT_EQ(qrd("log d --level error").text, failed);
    EXPECT_EQ(qrd("log d --level default").text, oldest + failed + other + last);
    const Answer wrong = qrd("log d --level eror");
    EXPECT_EQ(wrong.code, 2);
    EXPECT_EQ(wrong.text, "qrd: there is no level 'eror'. Did you mean 'error'? The levels are default and error.\n");
}

TEST_F(Log, ShowsWhatNamesAnApp) {
    EXPECT_EQ(qrd("log d --app com.example.a").text, failed + last);
    EXPECT_EQ(qrd("log d --app com.example.ab").text, other);
    EXPECT_EQ(qrd("log d --app com.example").text, "");
    EXPECT_EQ(qrd("log d --app com.example.a --level error --tail 5").text, failed);
}

TEST_F(Log, ShowsWhatIsSinceATime) {
    EXPECT_EQ(qrd("log d --since '2026-03-01 13:00'").text, other + last);
    EXPECT_EQ(qrd("log d --since 2026-03-01T12:00:01Z").text, last);
    EXPECT_EQ(qrd("log d --since 2026-03-01").text, oldest + failed + other + last);
    EXPECT_EQ(qrd("log d --since 1s").text, "");
    const Answer wrong = qrd("log d --since teatime");
    EXPECT_EQ(wrong.code, 2);
    EXPECT_EQ(wrong.text, "qrd: 'teatime' is no time; say 14:05, 2026-11-21, 2026-11-21T14:05:30, or an age such as "
                          "10m, 2h, 1d.\n");
}

TEST_F(Log, ShowsTheSameAsJson) {
    const auto json = nlohmann::json::parse(qrd("log d --json --app com.example.a --level error").text);
    const nlohmann::json entry{{"time", "2026-03-01T11:00:00.000001Z"},
                               {"level", "error"},
                               {"source", "Framework"},
                               {"text", "com.example.a: it failed"}};
    EXPECT_EQ(json, (nlohmann::json{{"version", 1}, {"entries", {entry}}}));
    const auto none = nlohmann::json::parse(qrd("log d --json --tail 0").text);
    EXPECT_EQ(none, (nlohmann::json{{"version", 1}, {"entries", nlohmann::json::array()}}));
    EXPECT_EQ(nlohmann::json::parse(qrd("log d --json").text)["entries"].size(), 4U);
}

TEST_F(Log, ChoosesTransactionsTheSameWay) {
    addApp("a");
    addApp("b");
    ASSERT_EQ(qrd("sync d --library library").code, 0);
    const std::string all = qrd("log d --transactions").text;
    const std::string ofA = qrd("log d --transactions --app com.example.a").text;
    EXPECT_NE(all.find("com.example.b"), std::string::npos);
    EXPECT_EQ(ofA.find("com.example.b"), std::string::npos);
    EXPECT_NE(ofA.find("com.example.a"), std::string::npos);
    EXPECT_TRUE(all.ends_with(qrd("log d --transactions --tail 1").text));
    EXPECT_EQ(qrd("log d --transactions --since 2099-01-01").text, "");
    EXPECT_EQ(qrd("log d --transactions --since 1h").text, all);
    EXPECT_EQ(qrd("log d --transactions --level error").text, "");
    EXPECT_EQ(nlohmann::json::parse(qrd("log d --transactions --tail 1 --json").text)["entries"][0]["success"], true);
}

TEST_F(Log, FollowsThroughSyncsUntilAnInterrupt) {
    Running messages(folder, "log d --follow --tail 1");
    Running records(folder, "log d --follow --transactions --json --app com.example.b");
    EXPECT_NE(messages.lineWith("ends with").find(last), std::string::npos);
    for (const char* name : {"a", "b"}) {
        addApp(name);
        ASSERT_EQ(qrd("sync d --library library").code, 0);
        EXPECT_NE(messages.lineWith("sync ended with success: y"), "") << name;
    }
    EXPECT_EQ(nlohmann::json::parse(records.lineWith("Install"))["entries"][0]["app"], "com.example.b");
    for (Running* running : {&messages, &records}) {
        running->send(SIGINT);
        EXPECT_EQ(running->end(), 130);
    }
}

TEST_F(Log, FollowsWhatASyncThatRunsHasSaid) {
    addApp("a", "x", 500'000);
    Running sync(folder, "sync d --library library --bandwidth 50kB/s");
    ASSERT_NE(sync.lineWith("sending The a"), "");
    EXPECT_TRUE(has(qrd("log d --tail 1000"), "for com.example.a")) << "written out for those who look";
    Running log(folder, "log d --follow --tail 0");
    EXPECT_NE(log.lineWith("Updating download progress"), "") << "before the sync ends";
    sync.send(SIGTERM);
    EXPECT_EQ(sync.end(), 143);
    log.send(SIGTERM);
    EXPECT_EQ(log.end(), 143);
}

TEST_F(Log, FollowingEndsWhenNobodyReads) {
    const std::string command =
        "cd '" + folder.string() + "' && (" APPSYNC_QRD " log d --follow; echo $? >code) | head -1";
    EXPECT_EQ(std::system((command + " >/dev/null").c_str()), 0);
    EXPECT_EQ(bytesOf("code"), "141\n");
}

TEST(LocalTimes, AreShownWithTheirDateWhenItIsNotTodays) {
    const TimePoint now = *parseTime("2026-03-02T12:00:00", TimePoint());
    EXPECT_EQ(localTime(now - 1h, now, true), "11:00:00");
    EXPECT_EQ(localTime(now - 1h, now, false), "11:00");
    EXPECT_EQ(localTime(now - 24h, now, true), "2026-03-01 12:00:00");
    EXPECT_EQ(localTime(now - 24h * 365, now, false), "2025-03-02 12:00");
}

TEST(LocalTimes, AreReadAsAPersonWritesThem) {
    const TimePoint now = *parseTime("2026-03-02T12:00:00", TimePoint());
    const std::pair<const char*, TimePoint> cases[] = {
        {"10m", now - 10min},
        {"90s", now - 90s},
        {"2h", now - 2h},
        {"1d", now - 24h},
        {"11:30", now - 30min},
        {"11:30:10", now - 30min + 10s},
        {"12:00", now},
        {"12:01", now - 24h + 1min},
        {"2026-03-02", now - 12h},
        {"2026-03-01 12:00", now - 24h},
        {"2026-03-01T12:00:05", now - 24h + 5s},
    };
    for (const auto& [text, time] : cases) {
        EXPECT_EQ(parseTime(text, now), time) << text;
    }
    EXPECT_EQ(parseTime("1970-01-01T00:01:00Z", now), TimePoint(1min));
    EXPECT_GT(parseTime("2999-01-01", now), now) << "as late as can be told";
    EXPECT_LT(parseTime("0001-01-01", now), now);
    for (const char* wrong : {"", "10", "m", "-1m", "1w", "10 m", "25:00", "12:60", "12", "2026-13-01", "2026-03-01T",
                              "2026-03-01T12", "99999999999999999999d", "9999999999d", "now", "12:00 ", "11:30Z"}) {
        EXPECT_EQ(parseTime(wrong, now), std::nullopt) << wrong;
    }
}

} // namespace
} // namespace appsync::host
