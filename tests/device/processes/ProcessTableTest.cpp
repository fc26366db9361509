// Real processes: each app is a shell script that says through a pipe in its folder when it is ready.
#include "device/processes/ProcessTable.h"

#include "device/root/Root.h"
#include "tests/device/root/TemporaryFolder.h"

#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

namespace appsync::device {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Answer = RunningApps::Answer;

class ProcessTableTest : public testing::Test {
  protected:
    void SetUp() override {
        root = std::move(*Root::create(folder / "device"));
        fs::create_directories(data());
        ASSERT_EQ(::mkfifo((data() + "/pipe").c_str(), 0600), 0);
    }
    void TearDown() override {
        if (process > 1) {
            ::kill(-process, SIGKILL);
        }
    }
    [[nodiscard]] std::string data() const { return folder / "data"; }
    [[nodiscard]] std::string busyFile() const { return folder / "device/var/run/apps/a.busy"; }

    [[nodiscard]] std::string script(const std::string& body) const {
        const std::string path = folder / "program";
        std::ofstream(path) << "#!/bin/sh\n" << body;
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }
    [[nodiscard]] Result<pid_t> launch(ProcessTable& table, const std::string& executable, bool busy = false) {
        auto launched = table.launch({.identifier = "a", .executable = executable, .dataFolder = data(), .busy = busy});
        process = launched ? *launched : process;
        return launched;
    }
    /// Launches a script that writes into the pipe when it is ready; what it wrote.
    std::string start(ProcessTable& table, const std::string& body, bool busy = false) {
        const auto launched = launch(table, script(body), busy);
        EXPECT_TRUE(launched) << errorText(launched.error());
        std::string line;
        if (launched) {
            std::ifstream pipe(data() + "/pipe"); // opens when the other end does
            std::getline(pipe, line);
        }
        return line;
    }
    static void waitUntilEnded(ProcessTable& table) {
        while (table.isRunning("a")) {
            std::this_thread::yield();
        }
    }

    static constexpr const char* Obedient = "trap 'echo asked > asked; exit 0' TERM\n"
                                            "echo ready > pipe\n"
                                            "while :; do sleep 0.01; done\n";
    TemporaryFolder folder;
    std::unique_ptr<Root> root;
    pid_t process = 0;
};

TEST_F(ProcessTableTest, AnAppRunsAsAProcessOfItsOwnWithItsDataAsHome) {
    ProcessTable table(*root);
    EXPECT_FALSE(table.isRunning("a"));
    EXPECT_EQ(start(table, "echo \"$HOME\" > pipe\nwhile :; do sleep 0.01; done\n"), data());
    EXPECT_TRUE(table.isRunning("a"));
    EXPECT_FALSE(table.isRunning("b"));
    EXPECT_EQ(::getsid(process), process);
}

TEST_F(ProcessTableTest, AnAppOutlivesWhoStartedIt) {
    {
        ProcessTable table(*root);
        start(table, Obedient);
    }
    ProcessTable later(*root);
    EXPECT_TRUE(later.isRunning("a"));
    EXPECT_EQ(later.endAndHold("a"), Answer::ended);
}

TEST_F(ProcessTableTest, AnAppEndsWhenItIsAskedAndIsNotStartedBeforeItIsLetGo) {
    ProcessTable table(*root);
    start(table, Obedient);
    EXPECT_EQ(table.endAndHold("a"), Answer::ended);
    EXPECT_FALSE(table.isRunning("a"));
    EXPECT_TRUE(fs::exists(data() + "/asked"));

    const auto refused = launch(table, script(Obedient));
    EXPECT_TRUE(isError(refused.error(), processErrorDomain, ProcessError::beingReplaced));
    table.letGo("a");
    EXPECT_EQ(start(table, Obedient), "ready");
}

TEST_F(ProcessTableTest, AnAppIsNotStartedBetweenItsEndAndItsHold) {
    ProcessTable table(*root);
    const std::string program = script(Obedient);
    for (int round = 0; round < 20; ++round) {
        start(table, Obedient);
        // Tries over and over, so that some try is under way when the app ends.
        ErrorPtr refusal;
        std::thread impatient([&] {
            do {
                refusal = launch(table, program).error();
            } while (isError(refusal, processErrorDomain, ProcessError::runsAlready));
        });
        EXPECT_EQ(table.endAndHold("a"), Answer::ended);
        impatient.join();
        ASSERT_TRUE(isError(refusal, processErrorDomain, ProcessError::beingReplaced)) << errorText(refusal);
        ASSERT_FALSE(table.isRunning("a"));
        table.letGo("a");
    }
}

TEST_F(ProcessTableTest, LookingAtAnAppThatHasEndedDoesNotMakeItRun) {
    ProcessTable table(*root);
    start(table, Obedient);
    ASSERT_EQ(table.endAndHold("a"), Answer::ended);
    table.letGo("a");
    std::atomic<int> running = 0;
    std::vector<std::jthread> onlookers;
    for (int onlooker = 0; onlooker < 4; ++onlooker) {
        onlookers.emplace_back([&] {
            for (int look = 0; look < 5'000; ++look) {
                running += table.isRunning("a") ? 1 : 0;
            }
        });
    }
    onlookers.clear();
    EXPECT_EQ(running, 0);
}

TEST_F(ProcessTableTest, ANumberThatAnEarlierProcessLeftIsForgotten) {
    ProcessTable table(*root);
    start(table, Obedient);
    ASSERT_EQ(table.endAndHold("a"), Answer::ended);
    table.letGo("a");
    fs::create_directory(busyFile()); // so that it fails before there is a process with a number of its own
    EXPECT_FALSE(launch(table, script(Obedient), true));
    EXPECT_EQ(fs::file_size(folder / "device/var/run/apps/a.run"), 0U);
}

TEST_F(ProcessTableTest, HoldsAddUp) {
    ProcessTable table(*root);
    for (int hold = 0; hold < 2; ++hold) {
        start(table, Obedient);
        ASSERT_EQ(table.endAndHold("a"), Answer::ended);
        if (hold == 0) {
            table.letGo("a");
        }
    }
    EXPECT_FALSE(launch(table, script(Obedient)));
    table.letGo("a");
    EXPECT_TRUE(launch(table, script(Obedient)));
}

TEST_F(ProcessTableTest, AnAppThatDoesNotRunIsNotHeld) {
    ProcessTable table(*root);
    EXPECT_EQ(table.endAndHold("a"), Answer::notRunning);
    EXPECT_EQ(table.endAndHold("../a"), Answer::notRunning);
    EXPECT_EQ(start(table, Obedient), "ready");
}

TEST_F(ProcessTableTest, ABusyAppIsLeftAloneUntilItLetsGo) {
    ProcessTable table(*root);
    start(table, Obedient, true);
    EXPECT_EQ(table.endAndHold("a"), Answer::busy);
    EXPECT_TRUE(table.isRunning("a"));
    fs::remove(busyFile());
    EXPECT_EQ(table.endAndHold("a"), Answer::ended);
}

TEST_F(ProcessTableTest, AnAppMayDeclareItselfBusy) {
    ProcessTable table(*root);
    start(table, std::string(": > \"$APP_BUSY_FILE\"\n") + Obedient);
    EXPECT_EQ(table.endAndHold("a"), Answer::busy);
}

TEST_F(ProcessTableTest, ABusyAppThatIsKilledIsNoMoreBusy) {
    ProcessTable table(*root);
    start(table, Obedient, true);
    ::kill(-process, SIGKILL);
    waitUntilEnded(table);
    EXPECT_EQ(table.endAndHold("a"), Answer::notRunning);
    start(table, Obedient);
    EXPECT_EQ(table.endAndHold("a"), Answer::ended);
}

TEST_F(ProcessTableTest, AnAppThatDoesNotHeedTheRequestIsKilled) {
    ProcessTable table(*root, 1ms);
    start(table, "trap '' TERM\necho ready > pipe\nwhile :; do sleep 0.01; done\n");
    Answer answer = Answer::busy;
    while (answer == Answer::busy) { // a killed process takes its time to go
        answer = table.endAndHold("a");
    }
    EXPECT_FALSE(table.isRunning("a"));
}

TEST_F(ProcessTableTest, AnAppRunsAsLongAsAnyOfItsProcesses) {
    ProcessTable table(*root);
    start(table, "sleep 1000 &\necho ready > pipe\n");
    EXPECT_TRUE(table.isRunning("a"));
    EXPECT_EQ(table.endAndHold("a"), Answer::ended);
}

TEST_F(ProcessTableTest, IsNotStartedTwice) {
    ProcessTable table(*root);
    start(table, Obedient);
    const auto again = table.launch({.identifier = "a", .executable = script(Obedient), .dataFolder = data()});
    EXPECT_TRUE(isError(again.error(), processErrorDomain, ProcessError::runsAlready));
}

TEST_F(ProcessTableTest, WhatCannotBeStartedSaysWhy) {
    ProcessTable table(*root);
    const auto missing = launch(table, folder / "nothing");
    EXPECT_TRUE(isError(missing.error(), processErrorDomain, ProcessError::cannotBeStarted));
    EXPECT_EQ(errorText(missing.error()),
              "a cannot be launched: " + (folder / "nothing") + ": No such file or directory");
    waitUntilEnded(table);

    fs::remove_all(data());
    const auto homeless = launch(table, script(Obedient));
    EXPECT_TRUE(isError(homeless.error(), processErrorDomain, ProcessError::cannotBeStarted));
}

TEST_F(ProcessTableTest, AnIdentifierThatIsAPathNamesNoApp) {
    ProcessTable table(*root);
    const auto refused = table.launch({.identifier = "../a", .executable = script(Obedient), .dataFolder = data()});
    EXPECT_TRUE(isError(refused.error(), processErrorDomain, ProcessError::cannotBeStarted));
    EXPECT_FALSE(fs::exists(folder / "device/var/run/a.run"));
}

} // namespace
} // namespace appsync::device
