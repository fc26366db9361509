// The server of the control socket among clients that do not behave, in a device root of its own; no sync runs.
#include "host/control/ControlServer.h"
#include "host/plugin/PlugIn.h"

#include "device/root/Root.h"
#include "tests/device/root/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/socket.h>

#include <atomic>

namespace appsync::host {
namespace {

using Json = nlohmann::json;
using std::chrono_literals::operator""min;

class Server : public testing::Test {
  protected:
    void SetUp() override {
        root = std::move(*device::Root::create(folder / "device"));
        auto opened = ListeningSocket::open(root->files());
        ASSERT_TRUE(opened) << errorText(opened.error());
        listening.emplace(std::move(*opened));
    }
    void start(ControlTimes times = {.farewell = 0min}) {
        server.emplace(listening->descriptor(), -1,
                       ControlHandlers{.status = [this] { return *status.load(); },
                                       .changes = {&change},
                                       .writeLog = [this] { ++logWritings; },
                                       .flush = [] {},
                                       .prioritize = [](const std::string&) { return Result<void>(); },
                                       .cancel = [](const std::string&) { return hostError("no"); },
                                       .interrupted = [] {}},
                       times);
    }
    Descriptor connected() const {
        auto connection = connectToControl(folder / "device", 1min);
        EXPECT_TRUE(connection && connection->isOpen()) << errorText(connection.error());
        return std::move(*connection);
    }
    static void send(const Descriptor& connection, const std::string& bytes) {
        ASSERT_EQ(::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// The next line; "(hung up)" at the end of the connection.
    static std::string lineFrom(const Descriptor& connection) {
        std::string buffer;
        std::string line;
        return readLine(connection.get(), buffer, line, 1min) == ReadResult::line ? line : "(hung up)";
    }
    static std::string asked(const Descriptor& connection, const std::string& command) {
        send(connection, toJson({command, "app"}) + "\n");
        return lineFrom(connection);
    }

    const device::TemporaryFolder folder;
    std::unique_ptr<device::Root> root;
    const std::string small = R"({"running":true})";
    const std::string large = R"({"text":")" + std::string(3U << 20, 'x') + R"("})";
    const std::string further = R"({"running":true,"finished":1})";
    std::atomic<const std::string*> status{&small};
    const Event change;
    std::atomic<int> logWritings = 0;
    std::optional<ListeningSocket> listening;
    std::optional<ControlServer> server;
};

TEST_F(Server, AClientThatNeverReadsDelaysNeitherTheOthersNorTheEnd) {
    status = &large;
    start();
    const Descriptor silent = connected();
    for (int times = 0; times < 50; ++times) { // as many answers as memory would take
        send(silent, toJson({"status"}) + "\n");
    }
    const Descriptor follower = connected();
    send(follower, toJson({"follow"}) + "\n");
    const Descriptor other = connected();
    EXPECT_EQ(asked(other, "status"), large);
    EXPECT_EQ(asked(other, "cancel"), errorAnswer("no"));
    server.reset();
}

TEST_F(Server, EveryQuestionIsAnsweredInItsTurnHoweverSlowlyTheAnswersAreRead) {
    status = &large;
    start();
    const Descriptor slow = connected();
    send(slow, toJson({"status"}) + "\n" + toJson({"prioritize", "a"}) + "\n" + toJson({"status"}) + "\n");
    std::string buffer;
    for (const std::string& expected : {large, doneAnswer(), large}) {
        std::string line;
        ASSERT_EQ(readLine(slow.get(), buffer, line, 1min), ReadResult::line);
        EXPECT_EQ(line, expected);
    }
}

TEST_F(Server, TheOldestIdleClientMakesRoom) {
    start();
    std::vector<Descriptor> silent;
    for (std::size_t place = 0; place < maxClients; ++place) {
        silent.push_back(connected());
    }
    EXPECT_EQ(asked(silent.back(), "status"), small); // so all have been let in
    EXPECT_EQ(asked(silent[0], "status"), small);
    EXPECT_EQ(asked(connected(), "status"), small);
    EXPECT_EQ(lineFrom(silent[1]), "(hung up)");
    EXPECT_EQ(asked(silent[0], "status"), small);
    EXPECT_EQ(asked(silent[2], "status"), small);
}

TEST_F(Server, WhereAllFollowANewClientIsToldThatTheSyncIsBusy) {
    start();
    std::vector<Descriptor> followers;
    for (std::size_t place = 0; place < maxClients; ++place) {
        followers.push_back(connected());
        EXPECT_EQ(asked(followers.back(), "follow"), small);
    }
    EXPECT_EQ(lineFrom(connected()), errorAnswer(busySentence()));
    followers.pop_back();
    // Its place is free as soon as the server has seen it go.
    std::string answer;
    while (answer != small) {
        answer = lineFrom([&] {
            Descriptor connection = connected();
            const std::string request = toJson({"status"}) + "\n";
            (void)::send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL);
            return connection;
        }());
    }
}

TEST_F(Server, AFollowerThatReadsHasTheLastStatusHoweverLongItIs) {
    start({.farewell = 10min});
    const Descriptor follower = connected();
    EXPECT_EQ(asked(follower, "follow"), small);
    status = &large;
    std::thread ending([this] { server.reset(); });
    std::string line;
    while (line != "(hung up)" && line != large) {
        line = lineFrom(follower);
    }
    EXPECT_EQ(line, large);
    ending.join();
}

TEST_F(Server, AFollowerIsToldAtOnceWhatHasChangedAndThenNothingForAMoment) {
    start({.farewell = 10min, .stillness = 10min});
    const Descriptor follower = connected();
    EXPECT_EQ(asked(follower, "follow"), small);
    EXPECT_EQ(logWritings, 0);
    status = &further;
    change.set();
    EXPECT_EQ(lineFrom(follower), further);
    EXPECT_EQ(logWritings, 1) << "with what has changed";
    status = &small;
    change.set();
    EXPECT_EQ(asked(connected(), "status"), small) << "who asks is answered";
    status = &large;
    std::thread ending([this] { server.reset(); });
    EXPECT_EQ(lineFrom(follower), large) << "the one between was passed over";
    ending.join();
    EXPECT_EQ(logWritings, 1);
}

TEST_F(Server, WhatHasChangedBeforeSomebodyFollowsIsToldAtItsBegin) {
    start({.farewell = 0min, .stillness = 0min});
    change.set();
    EXPECT_EQ(asked(connected(), "status"), small);
    EXPECT_EQ(logWritings, 0) << "nobody watches";
    const Descriptor follower = connected();
    EXPECT_EQ(asked(follower, "follow"), small);
    EXPECT_EQ(logWritings, 1);
}

TEST_F(Server, WhatIsNoRequestIsToldOrHungUpOn) {
    start();
    for (const std::string& bytes : {std::string("half a line"), std::string(), std::string(1U << 20, 'x'),
                                     std::string(3000, '\n'), std::string(200'000, '{') + "\n"}) {
        const Descriptor client = connected();
        (void)::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    const Descriptor tooLong = connected();
    send(tooLong, std::string(maxRequestSize + 1, 'x'));
    EXPECT_NE(lineFrom(tooLong).find("longer than 4096 bytes"), std::string::npos);
    EXPECT_EQ(lineFrom(tooLong), "(hung up)");
    EXPECT_EQ(asked(connected(), "status"), small);
}

TEST_F(Server, ThousandsOfConnectionsLeaveRoomForTheNext) {
    start();
    for (int times = 0; times < 3000; ++times) {
        (void)connected();
    }
    EXPECT_EQ(asked(connected(), "status"), small);
}

TEST_F(Server, ASocketThatNobodyAcceptsIsBusyAndOneThatNobodyHearsIsNot) {
    std::vector<Result<Descriptor>> waiting;
    do { // until the queue is full
        waiting.push_back(connectToControl(folder / "device", std::chrono::milliseconds(1)));
    } while (waiting.back());
    EXPECT_EQ(errorText(waiting.back().error()), busySentence());
    std::string buffer;
    std::string line;
    EXPECT_EQ(readLine(waiting.front()->get(), buffer, line, std::chrono::milliseconds(1)), ReadResult::noAnswer);
    listening.reset();
    const auto unheard = connectToControl(folder / "device", 1min);
    ASSERT_TRUE(unheard) << errorText(unheard.error());
    EXPECT_FALSE(unheard->isOpen());
}

/// By a clock on which reading a piece takes a second.
TEST_F(Server, AnAnswerThatComesByteByByteHasNoMoreTimeThanAnother) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const Descriptor mine(ends[0]);
    const Descriptor theirs(ends[1]);
    std::chrono::steady_clock::time_point now;
    int bytes = 0;
    std::string buffer;
    std::string line;
    const ReadResult result = readLine(mine.get(), buffer, line, 1min, [&] {
        send(theirs, ++bytes < 1000 ? "x" : "\n");
        return now += std::chrono::seconds(1);
    });
    EXPECT_EQ(result, ReadResult::noAnswer);
    EXPECT_LT(bytes, 70);
}

TEST_F(Server, AnAnswerWithoutEndIsNone) {
    start();
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const Descriptor mine(ends[0]);
    std::thread babbling([other = Descriptor(ends[1])] {
        const std::string piece(1U << 16, 'x');
        while (::send(other.get(), piece.data(), piece.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    std::string buffer;
    std::string line;
    EXPECT_EQ(readLine(mine.get(), buffer, line, 1min), ReadResult::ended);
    EXPECT_LT(buffer.size(), 5U << 20);
    ::shutdown(mine.get(), SHUT_RDWR);
    babbling.join();
}

} // namespace
} // namespace appsync::host
