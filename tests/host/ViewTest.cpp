// What a person sees of a running sync: the lines for each window, what is drawn when, and tables.
#include "host/plugin/PlugIn.h"
#include "host/transfer/TransferQueue.h"
#include "host/transfer/TransferRate.h"
#include "host/view/Bars.h"
#include "host/view/SyncView.h"
#include "host/view/Table.h"
#include "text/Printable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

namespace appsync::host {
namespace {

using std::chrono::seconds;

std::string textOf(const Line& line) {
    std::string text;
    for (const Piece& piece : line) {
        text += piece.text;
    }
    return text;
}

std::vector<std::string> textsOf(const std::vector<Line>& lines) {
    std::vector<std::string> texts;
    std::ranges::transform(lines, std::back_inserter(texts), textOf);
    return texts;
}

AppStatus app(const std::string& name, AppStage stage, double fraction = 0, std::uint64_t bytes = 20'000'000) {
    return {.identifier = name, .name = name, .bytes = bytes, .stage = stage, .fraction = fraction};
}

/// Of 40 MB half is sent.
SyncStatus halfSent() {
    return {{app("Kettle", AppStage::installing, 1), app("Harbor", AppStage::transferring, 0)}};
}

struct Drawn {
    std::size_t columns;
    std::vector<std::string> lines;
};

TEST(Bars, LoseOneDetailAfterTheOtherAsTheWindowGetsNarrower) {
    const Drawn table[] = {
        {100,
         {"Kettle      [###################################] installing",
          "Harbor      [...................................]   0%  0.0 of 20.0 MB",
          "0 of 2 apps [#################..................]  50%  20.0 of 40.0 MB    2.0 MB/s    0:10 left"}},
        {80,
         {"Kettle      [###############] installing", "Harbor      [...............]   0%  0.0 of 20.0 MB",
          "0 of 2 apps [#######........]  50%  20.0 of 40.0 MB    2.0 MB/s    0:10 left"}},
        {70,
         {"Kettle      [#################] installing", "Harbor      [.................]   0%  0.0 of 20.0 MB",
          "0 of 2 apps [########.........]  50%  20.0 of 40.0 MB    0:10 left"}},
        {50,
         {"Kettle      [################] installing", "Harbor      [................]   0%",
          "0 of 2 apps [########........]  50%  0:10 left"}},
        {34,
         {"Kettle      [##############] 100%", "Harbor      [..............]   0%",
          "0 of 2 apps [#######.......]  50%"}},
        {20, {"Kettle      100%", "Harbor        0%", "0 of 2 apps  50%"}},
        {12, {"Kettle 100%", "Harbor   0%", "0 of …  50%"}},
        {3, {" …", " …", " …"}},
        {1, {"…", "…", "…"}},
    };
    for (const Drawn& expected : table) {
        EXPECT_EQ(textsOf(barLines(halfSent(), 2e6, {expected.columns, 24})), expected.lines) << expected.columns;
    }
}

TEST(Bars, AreNeverWiderThanTheWindowNorHigher) {
    SyncStatus status;
    for (const char* name : {"A", "日本語アプリケーション", "e\u0301e\u0301e\u0301", "👩\u200D🔧👩\u200D🔧 and more",
                             "A name that is longer than most", "مرحبا", "\x1b[2Jx"}) {
        for (const AppStage stage : {AppStage::queued, AppStage::transferring, AppStage::installing, AppStage::waiting,
                                     AppStage::done, AppStage::failed}) {
            status.apps.push_back(app(name, stage, 0.3, 123'456'789));
            status.apps.back().reason = "it is in use and cannot be ended now";
        }
    }
    for (std::size_t columns = 1; columns < 200; ++columns) {
        for (const std::size_t rows : {1UL, 2UL, 5UL, 24UL}) {
            const auto lines = barLines(status, 1e6, {columns, rows});
            EXPECT_LE(lines.size(), rows);
            for (const Line& line : lines) {
                EXPECT_LE(displayWidth(textOf(line)), std::max(columns - 1, 1UL)) << textOf(line);
            }
        }
    }
}

TEST(Bars, KeepTheirPlacesWhileTheSyncGoesOn) {
    const auto barAt = [](double fraction, AppStage stage) {
        SyncStatus status{{app("Kettle", stage, fraction), app("The longest of all", AppStage::queued)}};
        const auto lines = textsOf(barLines(status, fraction * 1e9, {100, 24}));
        EXPECT_EQ(lines.front().find('['), lines.back().find('['));
        return std::pair(lines.back().find('['), lines.back().find(']'));
    };
    for (const double fraction : {0.1, 0.5, 0.999, 1.0}) {
        EXPECT_EQ(barAt(fraction, AppStage::transferring), barAt(0, AppStage::transferring));
    }
    EXPECT_EQ(barAt(1, AppStage::done), barAt(0, AppStage::transferring));
}

TEST(Bars, ShowFirstWhatIsBeingSent) {
    SyncStatus status{{app("a", AppStage::waiting), app("b", AppStage::installing), app("c", AppStage::transferring)}};
    const auto namesIn = [&](std::size_t rows) {
        std::string names;
        for (const std::string& line : textsOf(barLines(status, {}, {80, rows}))) {
            names += line[0];
        }
        return names;
    };
    EXPECT_EQ(namesIn(24), "abc0");
    EXPECT_EQ(namesIn(3), "bc0");
    EXPECT_EQ(namesIn(2), "c0");
    EXPECT_EQ(namesIn(1), "0");
}

TEST(Bars, SayWhyAnAppWaitsAndWhenItIsTriedAgainAsFarAsThereIsRoom) {
    AppStatus waiting = app("Kettle", AppStage::waiting);
    waiting.reason = "it is in use and cannot be ended now";
    const std::string time = clockText(waiting.nextTry);
    const auto lineIn = [&](std::size_t columns) { return barLines({{waiting}}, {}, {columns, 24}).front(); };
    EXPECT_EQ(textOf(lineIn(100)), "Kettle     waiting: it is in use and cannot be ended now; next try at " + time);
    EXPECT_EQ(lineIn(100).back().colour, Colour::yellow);
    EXPECT_EQ(textOf(lineIn(60)), "Kettle     waiting; next try at " + time);
    EXPECT_EQ(textOf(lineIn(25)), "Kettle     waiting; nex…");
}

TEST(Bars, TellTheTimeThatIsLeftOfWhatIsStillToBeSent) {
    const auto leftOf = [](std::uint64_t bytes, double bytesPerSecond) {
        const std::string line =
            textOf(barLines({{app("a", AppStage::transferring, 0, bytes)}}, bytesPerSecond, {100, 24}).back());
        const std::size_t place = line.find("/s");
        return place == std::string::npos ? ""
                                          : line.substr(std::min(line.size(), line.find_first_not_of(' ', place + 2)));
    };
    EXPECT_EQ(leftOf(1'000'000, 1e6), "0:01 left");
    EXPECT_EQ(leftOf(59'500'000, 1e6), "1:00 left");
    EXPECT_EQ(leftOf(754'000'000, 1e6), "12:34 left");
    EXPECT_EQ(leftOf(3'700'000'000, 1e6), "1:01 h left");
    EXPECT_EQ(leftOf(1'000'000, 0), "") << "it does not move";
    EXPECT_EQ(leftOf(1'000'000'000'000, 1), "");
    const SyncStatus failed{{app("a", AppStage::failed, 0.5), app("b", AppStage::transferring, 0.5)}};
    EXPECT_TRUE(textOf(barLines(failed, 1e6, {100, 24}).back()).ends_with("0:10 left")) << "without what has failed";
}

TEST(TransferRates, FollowWhatIsSentWithoutJumping) {
    TransferRate rate;
    TransferRate::Clock::time_point now;
    EXPECT_EQ(rate.bytesPerSecond(), std::nullopt);
    rate.sent(0, now);
    EXPECT_EQ(rate.bytesPerSecond(), std::nullopt);
    rate.sent(1e6, now += seconds(1));
    EXPECT_DOUBLE_EQ(*rate.bytesPerSecond(), 1e6);
    rate.sent(4e6, now += seconds(1)); // three times as fast for a moment
    EXPECT_GT(*rate.bytesPerSecond(), 1.2e6);
    EXPECT_LT(*rate.bytesPerSecond(), 2e6);
    for (int i = 0; i < 30; ++i) {
        rate.sent(4e6 + (i + 1) * 3e6, now += seconds(1));
    }
    EXPECT_NEAR(*rate.bytesPerSecond(), 3e6, 1e3);
    const double before = *rate.bytesPerSecond();
    rate.sent(1e12, now += std::chrono::milliseconds(1));
    EXPECT_EQ(*rate.bytesPerSecond(), before) << "too short to tell";
    rate.sent(5, now += seconds(1));
    EXPECT_EQ(*rate.bytesPerSecond(), before) << "begun anew";
}

TEST(Durations, AreTold) {
    EXPECT_EQ(durationText(std::chrono::milliseconds(1240)), "1.2 s");
    EXPECT_EQ(durationText(std::chrono::milliseconds(0)), "0.0 s");
    EXPECT_EQ(durationText(seconds(200)), "3 min 20 s");
    EXPECT_EQ(durationText(seconds(7500)), "2 h 5 min");
}

Table longTable() {
    Table table({"App", "Result", "Reason"});
    table.setResults(1);
    table.add({"An app with a long name", "failed", "the archive was refused: its entry is damaged"});
    table.add({"Kettle", "done", ""});
    return table;
}

TEST(Tables, KeepWithinTheWidthOfAWindow) {
    const Drawn table[] = {
        {80,
         {"App                      Result  Reason",
          "An app with a long name  failed  the archive was refused: its entry is damaged",
          "Kettle                   done"}},
        {64,
         {"App                      Result  Reason", "An app with a long name  failed  the archive was refused: its",
          "                                 entry is damaged", "Kettle                   done"}},
        {50,
         {"App         Result  Reason", "An app wi…  failed  the archive was refused: its",
          "                    entry is damaged", "Kettle      done"}},
        {34,
         {"App         Result  Reason", "An app wi…  failed  the archive", "                    was refused:",
          "                    its entry is", "                    damaged", "Kettle      done"}},
    };
    for (const Drawn& expected : table) {
        EXPECT_EQ(textsOf(longTable().lines(expected.columns)), expected.lines) << expected.columns;
    }
    EXPECT_EQ(textsOf(longTable().lines(std::nullopt)), table[0].lines);
    EXPECT_EQ(textsOf(longTable().lines(10)).size(), 3U);
}

TEST(Tables, BreakWordsThatAreLongerThanTheirPlace) {
    Table table({"A", "B"});
    table.add({"x", std::string(30, 'y')});
    EXPECT_EQ(textsOf(table.lines(23)),
              (std::vector<std::string>{"A  B", "x  " + std::string(20, 'y'), "   " + std::string(10, 'y')}));
    std::string family = "👩";
    for (int i = 0; i < 20; ++i) {
        family += "\u200D👩"; // is seen as one character
    }
    Table wide({"A", "B"});
    wide.add({"x", family});
    EXPECT_EQ(textsOf(wide.lines(23)), (std::vector<std::string>{"A  B", "x  " + family}));
}

TEST(Tables, ColourWhatBecameOfAnApp) {
    const auto lines = longTable().lines(std::nullopt);
    EXPECT_EQ(lines[0][2].colour, Colour::none);
    EXPECT_EQ(lines[1][2].colour, Colour::red);
    EXPECT_EQ(lines[2][2].colour, Colour::green);
    EXPECT_EQ(colourOfResult("waiting"), Colour::yellow);
    EXPECT_EQ(colourOfResult("cancelled"), Colour::yellow);
    EXPECT_EQ(colourOfResult("queued"), Colour::none);
}

class Views : public testing::Test {
  protected:
    std::ostringstream out;
    Window window;
    SyncView::Clock::time_point now;
};

TEST_F(Views, TellPlainLines) {
    SyncView view(
        out, SyncView::Style::lines, [this] { return window; }, [this] { return now; });
    view.began({{"a", "A\n", 1000}, {"b", "B", 2000}, {"c", "C", 10}, {"d", "D", 10}});
    view.transferBegan("a");
    view.transferring("a", 0.5);
    view.transferEnded("a", nullptr);
    view.transferBegan("b");
    view.transferEnded("b", transferError(TransferError::noSpace, "Full."));
    view.installEnded("a", nullptr);
    view.installEnded("x", Error::make("D", 1));
    view.transferEnded("c", cancelledByUserError());
    view.transferEnded("d", transferError(TransferError::interrupted, "Later."));
    now += std::chrono::milliseconds(1500);
    view.ended();
    EXPECT_EQ(out.str(), "sending A  (1.0 kB)\n"
                         "sending B (2.0 kB)\n"
                         "failed  B: Full.\n"
                         "done    A \n"
                         "failed  x: D 1\n"
                         "cancelled C\n"
                         "1 of 5 apps, 1.0 kB in 1.5 s\n");
}

TEST_F(Views, TellOnceThatAnAppHasFailed) {
    SyncView view(out, SyncView::Style::lines);
    view.began({{"a", "A", 1000}});
    view.transferBegan("a");
    view.transferring("a", 0.25);
    view.installEnded("a", Error::make("D", 1));
    view.transferEnded("a", transferError(TransferError::noSpace, "Full."));
    EXPECT_EQ(out.str(), "sending A (1.0 kB)\nfailed  A: D 1\n");
    const SyncStatus status = view.status();
    EXPECT_EQ(status.finished(), 1U);
    EXPECT_EQ(status.apps[0].reason, "D 1");
    EXPECT_EQ(status.fraction(), 0.25);
}

TEST_F(Views, DrawBarsForTheWindowOfTheMomentAndTakeThemAway) {
    SyncView view(
        out, SyncView::Style::bars, [this] { return window; }, [this] { return now; });
    window.columns = 40;
    view.began({{"a", "A", 1000}, {"b", "B", 0}});
    view.transferBegan("a");
    EXPECT_EQ(out.str(), "\r\x1b[J"
                         "A           [....................]   0%\n"
                         "0 of 2 apps [....................]   0%\r\x1b[1A");
    out.str("");
    view.transferring("a", 0.5);
    EXPECT_EQ(out.str(), "") << "not more often than one can see";
    now += seconds(1);
    window.columns = 20;
    view.transferring("a", 0.5);
    EXPECT_EQ(out.str(), "\r\x1b[J"
                         "A            50%\n"
                         "0 of 2 apps  50%\r\x1b[1A");
    view.transferEnded("a", nullptr);
    out.str("");
    view.installEnded("a", nullptr);
    EXPECT_EQ(out.str(), "\r\x1b[J"
                         "done    A\n"
                         "\r\x1b[J"
                         "1 of 2 apps 100%\r");
    out.str("");
    view.installEnded("b", nullptr);
    out.str("");
    view.ended();
    EXPECT_EQ(out.str(), "\r\x1b[J"
                         "2 apps, 1.0 kB in 1.0 s\n");
}

TEST_F(Views, SayNothingWhenTheyAreQuiet) {
    SyncView view(out, SyncView::Style::quiet);
    view.began({{"a", "A", 10}});
    view.transferBegan("a");
    view.transferring("a", 0.5);
    view.transferEnded("a", nullptr);
    view.installEnded("a", nullptr);
    view.ended();
    EXPECT_EQ(out.str(), "");
}

TEST_F(Views, TellProgramsEachEventOnALineAndProgressNowAndThen) {
    SyncView view(
        out, SyncView::Style::events, [this] { return window; }, [this] { return now; });
    view.began({{"a", "A\n", 10}});
    EXPECT_EQ(out.str(), R"({"version":1,"event":"began","apps":[{"identifier":"a","name":"A\n","stage":"queued",)"
                         R"("bytes":10,"fraction":0.0}]})"
                         "\n");
    out.str("");
    view.transferBegan("a");
    const std::string sending = R"({"version":1,"event":"app","app":{"identifier":"a","name":"A\n","stage":)"
                                R"("transferring","bytes":10,"fraction":0.0}})"
                                "\n";
    EXPECT_EQ(out.str(), sending);
    view.transferring("a", 0.25);
    EXPECT_EQ(out.str(), sending) << "not at each step";
    now += std::chrono::milliseconds(100);
    out.str("");
    view.transferring("a", 0.5);
    EXPECT_NE(out.str().find(R"("fraction":0.5}})"), std::string::npos) << out.str();
    view.transferEnded("a", nullptr);
    EXPECT_TRUE(out.str().ends_with(R"("stage":"installing","bytes":10,"fraction":1.0}})"
                                    "\n"))
        << out.str();
    out.str("");
    view.installEnded("a", transferError(TransferError::interrupted, "Why."));
    EXPECT_NE(out.str().find(R"("stage":"queued")"), std::string::npos) << out.str();
    view.installEnded("a", hostError("It is damaged."));
    EXPECT_TRUE(out.str().ends_with(R"("stage":"failed","bytes":10,"fraction":1.0,"reason":"It is damaged."}})"
                                    "\n"))
        << out.str();
    out.str("");
    view.installEnded("a", nullptr);
    view.ended();
    EXPECT_EQ(out.str(), "") << "the first word counts, and the report follows";
}

TEST_F(Views, TellNotesOnTheStandardErrorAlsoWhenTheyAreQuiet) {
    for (const auto style : {SyncView::Style::quiet, SyncView::Style::lines}) {
        SyncView view(out, style);
        testing::internal::CaptureStderr();
        view.note("There is a hole.");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "note: There is a hole.\n");
    }
    EXPECT_EQ(out.str(), "");
}

} // namespace
} // namespace appsync::host
