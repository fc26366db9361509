// A person acts on the device while a sync runs: through the control socket, during real syncs on both install paths.
//
// The pauses of a slowed transfer are where the tests act: they run on the sync's own thread, one after each piece.
#include "device/processes/ProcessTable.h"
#include "host/control/ControlServer.h"
#include "host/control/Interrupt.h"
#include "host/session/RunSync.h"
#include "host/transfer/Bandwidth.h"
#include "tests/host/SyncFixture.h"

#include <sys/stat.h>

#include <csignal>
#include <sstream>
#include <thread>

namespace appsync::host {
namespace {

class Control : public SyncOnBothPaths {
  protected:
    /// Sends a request over the socket and gives back the answer.
    Json ask(const std::string& command, const std::string& app = {}) {
        return askLine(toJson(ControlRequest{command, app}));
    }
    Json askLine(const std::string& line) {
        const auto connection = connected();
        EXPECT_TRUE(connection.isOpen());
        EXPECT_TRUE(writeLine(connection.get(), line));
        std::string buffer;
        std::string answer;
        EXPECT_TRUE(hasRead(connection.get(), buffer, answer));
        return Json::parse(answer, nullptr, false);
    }
    Descriptor connected() const {
        auto connection = connectToControl(deviceFolder(), std::chrono::minutes(1));
        return connection ? std::move(*connection) : Descriptor();
    }
    static bool hasRead(int connection, std::string& buffer, std::string& line) {
        return readLine(connection, buffer, line, std::chrono::minutes(1)) == ReadResult::line;
    }
    /// Syncs slowly; `pause` is called after each piece with its number.
    SyncReport syncSlowly(const std::function<void(int piece)>& pause, const Interrupt* interrupt = nullptr) {
        int pieces = 0;
        Bandwidth bandwidth(20 * pieceSize, [&](std::chrono::nanoseconds) { pause(++pieces); });
        return syncWith({.plugInPath = APPSYNC_BUNDLE, .bandwidth = &bandwidth, .interrupt = interrupt});
    }
    SyncReport syncWith(const SyncOptions& options) {
        const auto device = device::Device::open(deviceFolder());
        const auto library = desktop::readAppLibrary((folder / "library").string(), (*device)->propertyLists());
        SyncView view(shown, SyncView::Style::lines);
        return runSync(**device, planSync(*library, stateOf(**device), {}), options, view);
    }
    /// The order in which apps were sent.
    std::string sent() const {
        std::string order;
        std::istringstream lines(shown.str());
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("sending The ")) {
                order += line.substr(12, 1);
            }
        }
        return order;
    }
    static Results resultsOf(const SyncReport& report) {
        Results all;
        for (const AppReport& app : report.apps) {
            all[app.identifier] = nameOf(app.result);
        }
        return all;
    }
    /// An app that runs until it is asked to end, and says in its folder's pipe that it has begun.
    void installRunningApp(const std::string& name, bool busy) {
        addApp(name, "1.0", "#!/bin/sh\necho ready > pipe\nwhile :; do sleep 0.01; done\n");
        sync(ExitCode::done);
        const auto device = device::Device::open(deviceFolder());
        const std::string data =
            deviceFolder() + (*device)->registry().application("com.example." + name)->dataContainerPath;
        fs::create_directories(data);
        ASSERT_EQ(::mkfifo((data + "/pipe").c_str(), 0600), 0);
        const auto launched = (*device)->launch("com.example." + name, busy);
        ASSERT_TRUE(launched) << errorText(launched.error());
        process = *launched;
        std::string line;
        std::ifstream pipe(data + "/pipe");
        std::getline(pipe, line);
        ASSERT_EQ(line, "ready");
    }
    void TearDown() override {
        if (process > 1) {
            ::kill(-process, SIGKILL);
        }
        SyncOnBothPaths::TearDown();
    }

    static constexpr std::uint64_t pieceSize = 100;
    std::ostringstream shown;
    pid_t process = 0;
};
INSTANTIATE_TEST_SUITE_P(Paths, Control, testing::Values(false, true), [](const auto& path) {
    return path.param ? std::string("OwnInstalls") : std::string("Coordinated");
});

TEST_P(Control, APrioritizedAppIsSentNext) {
    addApp("a");
    addApp("b");
    addApp("c");
    const SyncReport report = syncSlowly([&](int piece) {
        if (piece == 1) {
            EXPECT_EQ(ask("prioritize", "com.example.c"), (Json{{"done", true}}));
        }
    });
    EXPECT_TRUE(report.allDone());
    EXPECT_EQ(sent(), "acb");
}

TEST_P(Control, ACancelledAppIsNotInstalledAndTheOthersGoOn) {
    addApp("a");
    addApp("b");
    addApp("c");
    const SyncReport report = syncSlowly([&](int piece) {
        if (piece == 1) { // one that waits, and the one that is being sent
            EXPECT_EQ(ask("cancel", "com.example.b"), (Json{{"done", true}}));
            EXPECT_EQ(ask("cancel", "com.example.a"), (Json{{"done", true}}));
        }
    });
    EXPECT_EQ(
        resultsOf(report),
        (Results{{"com.example.a", "cancelled"}, {"com.example.b", "cancelled"}, {"com.example.c", "installed"}}));
    EXPECT_EQ(report.apps[0].reason, "Cancelled on the device.");
    EXPECT_EQ(apps(), (Results{{"com.example.c", "1.0"}}));
    EXPECT_TRUE(filesBelow("var/mobile/Media/PublicStaging").empty());
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "installed"}, {"com.example.b", "installed"}}));
}

TEST_P(Control, ACancelledUpdateKeepsTheInstalledVersion) {
    addApp("a");
    sync(ExitCode::done);
    addApp("a", "2.0");
    const SyncReport report = syncSlowly([&](int piece) {
        if (piece == 1) {
            EXPECT_EQ(ask("cancel", "com.example.a"), (Json{{"done", true}}));
        }
    });
    EXPECT_EQ(resultsOf(report), (Results{{"com.example.a", "cancelled"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
}

TEST_P(Control, SaysWhyNothingCouldBeDone) {
    addApp("a");
    syncSlowly([&](int piece) {
        if (piece > 1) {
            return;
        }
        EXPECT_EQ(ask("cancel", "com.example.x")["error"],
                  "'com.example.x' is not being installed; `qrd status` shows what is.");
        EXPECT_TRUE(ask("prioritize", "com.example.x").contains("error"));
        EXPECT_TRUE(ask("cancel").contains("error"));
        EXPECT_TRUE(ask("dance", "com.example.a").contains("error"));
        EXPECT_TRUE(askLine("no JSON").contains("error"));
        EXPECT_TRUE(askLine("[1]").contains("error"));
        EXPECT_TRUE(askLine(R"({"command": 1})").contains("error"));
    });
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
}

TEST_P(Control, AnEndlessRequestIsHungUpOn) {
    addApp("a");
    syncSlowly([&](int piece) {
        if (piece > 1) {
            return;
        }
        const auto connection = connected();
        const std::string endless(2 * maxRequestSize, 'x');
        ASSERT_GT(::write(connection.get(), endless.data(), endless.size()), 0);
        std::string buffer;
        std::string answer;
        EXPECT_TRUE(hasRead(connection.get(), buffer, answer));
        EXPECT_FALSE(hasRead(connection.get(), buffer, answer));
    });
}

TEST_P(Control, ShowsWhatRuns) {
    addApp("a");
    addApp("b");
    syncSlowly([&](int piece) {
        if (piece != 2) {
            return;
        }
        const Json status = ask("status");
        EXPECT_EQ(status["running"], true);
        EXPECT_EQ(status["finished"], 0);
        ASSERT_EQ(status["apps"].size(), 2U);
        EXPECT_EQ(status["apps"][0]["identifier"], "com.example.a");
        EXPECT_EQ(status["apps"][0]["name"], "The a");
        EXPECT_EQ(status["apps"][0]["stage"], "transferring");
        EXPECT_GT(status["apps"][0]["fraction"].get<double>(), 0);
        EXPECT_EQ(status["apps"][1]["stage"], "queued");
    });
    EXPECT_FALSE(connected().isOpen());
}

TEST_P(Control, AFollowerIsToldUntilTheEnd) {
    addApp("a");
    std::vector<std::string> lines;
    std::thread follower;
    syncSlowly([&](int piece) {
        if (piece != 1) {
            return;
        }
        auto connection = connected();
        ASSERT_TRUE(writeLine(connection.get(), toJson(ControlRequest{"follow"})));
        std::string buffer;
        ASSERT_TRUE(hasRead(connection.get(), buffer, lines.emplace_back()));
        follower = std::thread([&lines, connection = std::move(connection), buffer]() mutable {
            for (std::string line; hasRead(connection.get(), buffer, line);) {
                lines.push_back(line);
            }
        });
    });
    follower.join();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(Json::parse(lines.front())["finished"], 0);
    EXPECT_EQ(Json::parse(lines.back())["finished"], 1);
}

TEST_P(Control, OnlyTheOwnerReachesTheSocket) {
    addApp("a");
    syncSlowly([&](int) {
        struct stat information {};
        ASSERT_EQ(::stat((deviceFolder() + "/var/run/control").c_str(), &information), 0);
        EXPECT_EQ(information.st_mode & 0777U, 0700U);
        ASSERT_EQ(::stat((deviceFolder() + "/var/run/control/socket").c_str(), &information), 0);
        EXPECT_EQ(information.st_mode & 0777U, 0600U);
    });
    EXPECT_FALSE(fs::exists(deviceFolder() + "/var/run/control/socket"));
}

TEST_P(Control, ASocketThatAKilledSyncHasLeftIsReplaced) {
    addApp("a");
    fs::create_directories(deviceFolder() + "/var/run/control");
    write(deviceFolder() + "/var/run/control/socket", "left");
    syncSlowly([&](int) { EXPECT_EQ(ask("status")["running"], true); });
}

TEST_P(Control, ARunningAppIsEndedForItsUpdateWhenThePluginReplacesIt) {
    installRunningApp("a", false);
    addApp("a", "2.0");
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "updated"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "2.0"}}));
    const auto device = device::Device::open(deviceFolder());
    EXPECT_EQ((*device)->processes().isRunning("com.example.a"), !GetParam());
}

/// What waits for a busy app, on a device on which the plug-in installs.
class BusyUpdate : public Control {
  protected:
    void SetUp() override {
        Control::SetUp();
        installRunningApp("a", true);
        addApp("a", "2.0");
    }
    [[nodiscard]] std::string waitReason() const {
        return "it is busy; let go of it with `rm " + fs::canonical(deviceFolder()).string() +
               "/var/run/apps/com.example.a.busy`";
    }
    /// Follows the sync and calls `act` with the status in which the app waits.
    std::thread whenItWaits(std::function<void(const Json& app)> act) {
        return std::thread([this, act = std::move(act)] {
            Descriptor connection;
            while (!connection.isOpen()) {
                connection = connected();
                std::this_thread::yield();
            }
            ASSERT_TRUE(writeLine(connection.get(), toJson(ControlRequest{"follow"})));
            std::string buffer;
            for (std::string line; hasRead(connection.get(), buffer, line);) {
                const Json status = Json::parse(line);
                for (const Json& app : status["apps"]) {
                    if (app["stage"] == "waiting") {
                        act(app);
                        return;
                    }
                }
            }
            ADD_FAILURE() << "the app did not wait";
        });
    }
};
INSTANTIATE_TEST_SUITE_P(Paths, BusyUpdate, testing::Values(true),
                         [](const auto&) { return std::string("OwnInstalls"); });

TEST_P(BusyUpdate, IsShownWithItsReasonAndItsNextTryAndEndsAtAnInterrupt) {
    const Interrupt interrupt;
    std::thread watcher = whenItWaits([this](const Json& app) {
        EXPECT_EQ(app["reason"], waitReason());
        EXPECT_EQ(app["nextTry"].get<std::string>().back(), 'Z');
        std::raise(SIGINT);
    });
    const SyncReport report = syncWith({.plugInPath = APPSYNC_BUNDLE, .interrupt = &interrupt});
    watcher.join();
    EXPECT_TRUE(report.interrupted);
    EXPECT_EQ(resultsOf(report), (Results{{"com.example.a", "waiting"}}));
    EXPECT_EQ(report.apps[0].reason, "It is in use and could not be replaced; close it and sync again.");
    EXPECT_NE(shown.str().find("waiting The a: " + waitReason() + "; next try at "), std::string::npos);

    fs::remove(deviceFolder() + "/var/run/apps/com.example.a.busy");
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "updated"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "2.0"}}));
    EXPECT_TRUE(filesBelow("var/mobile/Media/PublicStaging").empty());
}

TEST_P(BusyUpdate, CanBeTakenBackWhileItWaits) {
    std::thread watcher = whenItWaits([this](const Json&) {
        EXPECT_EQ(ask("cancel", "com.example.a"), (Json{{"done", true}}));
    });
    const SyncReport report = syncWith({.plugInPath = APPSYNC_BUNDLE});
    watcher.join();
    EXPECT_EQ(resultsOf(report), (Results{{"com.example.a", "cancelled"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
    const auto device = device::Device::open(deviceFolder());
    EXPECT_TRUE((*device)->processes().isRunning("com.example.a"));
}

TEST(Bandwidths, AreRead) {
    EXPECT_EQ(parseBandwidth("10MB/s"), 10'000'000U);
    EXPECT_EQ(parseBandwidth("1.5 kB/s"), 1'500U);
    EXPECT_EQ(parseBandwidth("2GB"), 2'000'000'000U);
    EXPECT_EQ(parseBandwidth("7 B/s"), 7U);
    for (const char* wrong :
         {"", "7", "10/s", "fast", "MB/s", "-1", "0", "0.5B", "10MiB/s", "10MB/h", "1e300", "nan", "10 MB /s"}) {
        EXPECT_EQ(parseBandwidth(wrong), std::nullopt) << wrong;
    }
}

TEST(Bandwidths, AreKeptOverTime) {
    auto now = Bandwidth::Clock::time_point{};
    std::chrono::nanoseconds waited{0};
    Bandwidth bandwidth(
        1000,
        [&](std::chrono::nanoseconds time) {
            waited += time;
            now += time;
        },
        [&] { return now; });
    EXPECT_EQ(bandwidth.pieceSize(1 << 20), 50U);
    EXPECT_EQ(bandwidth.pieceSize(10), 10U);
    bandwidth.sent(500);
    EXPECT_EQ(waited, std::chrono::milliseconds(500));
    now += std::chrono::milliseconds(100); // the desktop was slow: no wait for that
    bandwidth.sent(500);
    EXPECT_EQ(waited, std::chrono::milliseconds(1000));
}

} // namespace
} // namespace appsync::host
