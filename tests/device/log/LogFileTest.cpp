#include "device/log/LogFile.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace appsync::device {
namespace {

class LogFileTest : public testing::Test {
  protected:
    [[nodiscard]] std::string content(const std::string& suffix = "") {
        return readHostFile(device.root->hostPath(logFilePath) + suffix);
    }
    [[nodiscard]] std::vector<LogEntry> entries() {
        std::vector<LogEntry> all;
        EXPECT_TRUE(LogCursor(device.files()).readOn([&](const LogEntry& entry) {
            all.push_back(entry);
            return true;
        }));
        return all;
    }
    [[nodiscard]] std::vector<std::string> texts() {
        std::vector<std::string> all;
        for (const LogEntry& entry : entries()) {
            all.push_back(entry.text);
        }
        return all;
    }
    [[nodiscard]] std::unique_ptr<LogFile> open(LogLimits limits = {}) {
        return std::move(*LogFile::open(device.files(), limits));
    }
    static void say(LogFile& log, std::string_view text, LogLevel level = LogLevel::standard) {
        log.write(QRLogCategorySyncBundle, level, "%{public}@", text);
    }

    OpenRoot device;
};

TEST_F(LogFileTest, WritesOneLinePerMessageWithTimeLevelSourceAndText) {
    auto log = open();
    say(*log, "plain");
    log->write(QRLogCategorySyncBundle_Oversize, LogLevel::standard, "", "big");
    log->write(QRLogCategoryFramework, LogLevel::error, "", "wrong");
    log->write(SystemLog{"com.zuvex.appinstallation", "qrd.appsync"}, LogLevel::standard, "step");
    log.reset();
    std::string written = content();
    std::replace_if(
        written.begin(), written.end(), [](char character) { return character >= '0' && character <= '9'; }, '0');
    const std::string time = "0000-00-00T00:00:00.000000Z ";
    EXPECT_EQ(written, time + "standard SyncBundle plain\n" +            //
                           time + "standard SyncBundle_Oversize big\n" + //
                           time + "error Framework wrong\n" +            //
                           time + "standard com.zuvex.appinstallation/qrd.appsync step\n");
}

TEST_F(LogFileTest, TimesAreUTCToTheMicrosecond) {
    using namespace std::chrono;
    EXPECT_EQ(formatLogTime(system_clock::time_point(microseconds(0))), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(formatLogTime(system_clock::time_point(seconds(951'868'799) + microseconds(12))),
              "2000-02-29T23:59:59.000012Z");
    EXPECT_EQ(formatLogTime(system_clock::time_point(microseconds(-1))), "1969-12-31T23:59:59.999999Z");
}

TEST_F(LogFileTest, AMessageStaysOneLineAndIsReadBackAsItWas) {
    const std::string text = "a\nb\\n\tc\x01 \xC3\xBC \\x41\x7F";
    auto log = open();
    say(*log, text);
    say(*log, "");
    log.reset();
    const std::string written = content();
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 2);
    EXPECT_EQ(texts(), (std::vector<std::string>{text, ""}));
}

TEST_F(LogFileTest, StandardMessagesAreBufferedAndErrorsAreWrittenAtOnce) {
    auto log = open();
    say(*log, "first");
    EXPECT_EQ(content(), "");
    say(*log, "failed", LogLevel::error);
    EXPECT_EQ(texts(), (std::vector<std::string>{"first", "failed"}));
    say(*log, "later");
    EXPECT_EQ(texts().size(), 2U);
    log->flush();
    EXPECT_EQ(texts().size(), 3U);
}

TEST_F(LogFileTest, AFullBufferIsWritten) {
    auto log = open();
    for (int i = 0; i < 40; ++i) {
        say(*log, std::string(1000, 'x'));
    }
    EXPECT_GE(texts().size(), 16U);
}

TEST_F(LogFileTest, ALaterProcessGoesOnAtTheEnd) {
    say(*open(), "first");
    say(*open(), "second");
    EXPECT_EQ(texts(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(LogFileTest, AFullFileBecomesAnOlderOneAndTheOldestGoes) {
    auto log = open({100, 2});
    for (const char* text : {"one", "two", "three", "four"}) {
        say(*log, text + std::string(60, '.'));
        log->flush();
    }
    log.reset();
    EXPECT_NE(content().find("four"), std::string::npos);
    EXPECT_NE(content(".1").find("three"), std::string::npos);
    EXPECT_NE(content(".2").find("two"), std::string::npos);
    EXPECT_FALSE(device.files().fileExists(std::string(logFilePath) + ".3"));
    const auto all = texts();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_TRUE(all[0].starts_with("two"));
    EXPECT_TRUE(all[2].starts_with("four"));
}

TEST_F(LogFileTest, MoreThanNineOlderFilesAreReadInTheOrderOfTheirAge) {
    auto log = open({1, 12});
    for (int i = 0; i < 13; ++i) {
        say(*log, std::to_string(i));
        log->flush();
    }
    log.reset();
    const auto all = texts();
    ASSERT_EQ(all.size(), 13U);
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i], std::to_string(i));
    }
}

TEST_F(LogFileTest, SaysHowManyMessagesCouldNotBeWritten) {
    auto log = open({1, 1});
    say(*log, "kept", LogLevel::error);
    // The next flush begins a new file, for which there is no folder.
    ASSERT_TRUE(device.files().removeItem("/var/log", nullptr));
    say(*log, "lost");
    EXPECT_EQ(log->failure(), nullptr) << "nothing has been lost yet";
    say(*log, "lost too", LogLevel::error);
    ASSERT_NE(log->failure(), nullptr);
    EXPECT_EQ(log->failure()->code(), ENOENT);
    EXPECT_NE(errorText(log->failure()).find("/var/log/qrd.log"), std::string::npos);
    ASSERT_TRUE(device.files().createDirectory("/var/log", true, std::nullopt, nullptr));
    say(*log, "back", LogLevel::error);
    EXPECT_EQ(log->failure(), nullptr) << "the log tells of it now";
    log.reset();
    EXPECT_EQ(texts(), (std::vector<std::string>{"2 messages could not be written", "back"}));
}

TEST_F(LogFileTest, OpeningSaysWhyThereCanBeNoLog) {
    ASSERT_TRUE(device.files().createDirectory(logFilePath, true, std::nullopt, nullptr));
    const auto log = LogFile::open(device.files());
    ASSERT_FALSE(log);
    EXPECT_NE(errorText(log.error()).find("qrd.log"), std::string::npos) << errorText(log.error());
}

TEST_F(LogFileTest, MessagesOfSeveralThreadsDoNotMix) {
    auto log = open();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 200; ++n) {
                say(*log, std::string(50, static_cast<char>('a' + i)), n % 20 ? LogLevel::standard : LogLevel::error);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    log.reset();
    const auto all = texts();
    EXPECT_EQ(all.size(), 800U);
    for (const std::string& text : all) {
        EXPECT_EQ(text, std::string(50, text.empty() ? '?' : text[0]));
    }
}

TEST_F(LogFileTest, ReadingStopsWhenTheVisitorHasEnough) {
    auto log = open();
    say(*log, "one");
    say(*log, "two");
    log.reset();
    int visited = 0;
    EXPECT_TRUE(LogCursor(device.files()).readOn([&](const LogEntry&) { return ++visited < 1; }));
    EXPECT_EQ(visited, 1);
}

TEST_F(LogFileTest, ADeviceWithoutALogHasNoEntries) {
    EXPECT_TRUE(entries().empty());
}

TEST_F(LogFileTest, LinesOfAnotherFormArePassedOver) {
    say(*open(), "good");
    std::ofstream(device.root->hostPath(logFilePath), std::ios::app)
        << "nonsense\n\n2026-01-01Z loud X y\n half a line";
    std::ofstream(device.root->hostPath(std::string(logFilePath) + ".old"))
        << "2026-01-01T00:00:00.000000Z error X y\n";
    EXPECT_EQ(texts(), std::vector<std::string>{"good"});
}

TEST_F(LogFileTest, ACursorReadsOnThroughFullFiles) {
    LogCursor cursor(device.files());
    const auto come = [&] {
        std::string texts;
        EXPECT_TRUE(cursor.readOn([&](const LogEntry& entry) {
            texts += entry.text + " ";
            return true;
        }));
        return texts;
    };
    EXPECT_EQ(come(), "");
    auto log = open({1, 5}); // each flush begins a new file
    const auto flushed = [&](std::string_view text) {
        say(*log, text);
        log->flush();
    };
    flushed("a");
    EXPECT_EQ(come(), "a ");
    EXPECT_EQ(come(), "");
    flushed("b");
    EXPECT_EQ(come(), "b ");
    flushed("c");
    flushed("d");
    flushed("e");
    EXPECT_EQ(come(), "c d e ");
    for (const char* text : {"f", "g", "h", "i", "j", "k", "l"}) {
        flushed(text);
    }
    EXPECT_EQ(come(), "g h i j k l ") << "what is kept";
}

TEST_F(LogFileTest, ACursorReadsALineWhenItHasItsEnd) {
    LogCursor cursor(device.files());
    int lines = 0;
    const auto count = [&](const LogEntry& entry) {
        EXPECT_EQ(entry.text, "a b");
        ++lines;
        return true;
    };
    (void)open();
    const std::string path = device.root->hostPath(logFilePath);
    std::ofstream(path, std::ios::app) << "2026-01-01T00:00:00.000000Z error S a";
    EXPECT_TRUE(cursor.readOn(count));
    EXPECT_EQ(lines, 0);
    std::ofstream(path, std::ios::app) << " b\n";
    EXPECT_TRUE(cursor.readOn(count));
    EXPECT_EQ(lines, 1);
}

TEST_F(LogFileTest, ALineWithoutEndIsNotKept) {
    (void)open();
    std::ofstream file(device.root->hostPath(logFilePath), std::ios::app);
    file << "2026-01-01T00:00:00.000000Z error S " << std::string(40U << 20, 'x') << "\n";
    file.close();
    say(*open(), "good");
    EXPECT_EQ(texts(), std::vector<std::string>{"good"});
}

TEST(LogReader, EscapesThatAreCutShortAreReadAsFarAsTheyGo) {
    const auto textOf = [](const std::string& escaped) {
        return parseLogLine("2026-01-01T00:00:00.000000Z error S " + escaped)->text;
    };
    EXPECT_EQ(textOf("a\\x4"), "ax4");
    EXPECT_EQ(textOf("a\\x"), "ax");
    EXPECT_EQ(textOf("a\\xzz"), "axzz");
    EXPECT_EQ(textOf("\\x41"), "A");
    EXPECT_EQ(textOf("\\q"), "q");
}

} // namespace
} // namespace appsync::device
