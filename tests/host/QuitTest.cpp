// Ending a running app, and letting go of a busy one, also while a sync waits for it.
#include "tests/host/CommandLineFixture.h"

namespace appsync::host {
namespace {

/// A device that installs by itself, with an app that runs until it is asked to end.
class Quit : public CommandLine {
  protected:
    void SetUp() override {
        CommandLine::SetUp();
        addApp("a", "#!/bin/sh\nwhile :; do sleep 0.01; done\n");
        ASSERT_EQ(qrd("device create d --no-coordination").code, 0);
        ASSERT_EQ(qrd("sync d --library library").code, 0);
    }
    void TearDown() override {
        fs::remove(folder / "d/var/run/apps/com.example.a.busy");
        qrd("quit d com.example.a");
        CommandLine::TearDown();
    }
};

TEST_F(Quit, EndsARunningApp) {
    ASSERT_EQ(qrd("launch d com.example.a").code, 0);
    EXPECT_TRUE(has(qrd("apps d"), "running"));
    const Answer answer = qrd("quit d com.example.a");
    EXPECT_EQ(answer.text, "ended com.example.a\n");
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(has(qrd("apps d"), "installed"));
}

TEST_F(Quit, SaysThatAnAppDoesNotRun) {
    for (const std::string app : {"com.example.a", "com.example.none", "../../x"}) {
        const Answer answer = qrd("quit d " + app);
        EXPECT_EQ(answer.text, "qrd: '" + app + "' does not run; `qrd apps d` shows which apps do.\n");
        EXPECT_EQ(answer.code, 1);
    }
    EXPECT_EQ(qrd("quit none com.example.a").code, 4);
}

TEST_F(Quit, LeavesABusyAppAndSaysHowItIsLetGo) {
    const Answer launched = qrd("launch d com.example.a --busy");
    EXPECT_TRUE(has(launched, "note: it is busy and cannot be ended until it is let go of with "
                              "`rm d/var/run/apps/com.example.a.busy`\n"))
        << launched.text;
    const Answer busy = qrd("quit d com.example.a");
    EXPECT_EQ(busy.code, 1);
    EXPECT_EQ(busy.text, "qrd: 'com.example.a' is busy and goes on; let go of it with "
                         "`rm d/var/run/apps/com.example.a.busy` and quit it again.\n");
    EXPECT_TRUE(has(qrd("uninstall d com.example.a"), "`rm d/var/run/apps/com.example.a.busy`"));
    EXPECT_TRUE(has(qrd("demote d com.example.a"), "`rm d/var/run/apps/com.example.a.busy`"));
    EXPECT_EQ(std::system(("cd '" + folder.string() + "' && rm d/var/run/apps/com.example.a.busy").c_str()), 0);
    EXPECT_EQ(qrd("quit d com.example.a").code, 0);
}

TEST_F(Quit, ASyncThatWaitsForABusyAppSaysHowItIsLetGo) {
    ASSERT_EQ(qrd("launch d com.example.a --busy").code, 0);
    const std::string info = "apps/a/a.app/Info.plist";
    std::string changed = bytesOf(info);
    changed.replace(changed.find("1.0</string>"), 3, "2.0");
    write(info, changed);
    ASSERT_EQ(qrd("pack apps/a -o library/a.archive").code, 0);
    Running sync(folder, "sync d --library library");
    const std::string reason = "it is busy; let go of it with `rm " +
                               (fs::canonical(folder) / "d/var/run/apps/com.example.a.busy").string() + "`";
    EXPECT_NE(sync.lineWith("waiting The a: " + reason), "");
    EXPECT_TRUE(has(qrd("status d"), reason));
    EXPECT_TRUE(has(qrd("quit d com.example.a"), "is busy and goes on")) << "also while a sync has the device";
    sync.send(SIGTERM);
    EXPECT_EQ(sync.end(), 143);
}

} // namespace
} // namespace appsync::host
