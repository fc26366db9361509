// Looking at a device waits for nobody and changes nothing: beside a sync, and where nothing can be written.
#include "device/root/Root.h"
#include "tests/device/root/Tree.h"
#include "tests/host/CommandLineFixture.h"

namespace appsync::host {
namespace {

const char* const looks[] = {
    "apps d",      "apps d --json", "status d",   "log d",          "log d --transactions", "screen d -o p.png",
    "inventory d", "metrics d",     "accounts d", "status d --json"};

class Look : public CommandLine {
  protected:
    void SetUp() override {
        CommandLine::SetUp();
        addApp("a");
        addApp("b", "x", 4'000'000);
        addApp("c");
        fs::rename(folder / "library", folder / "library2");
        addApp("a");
        ASSERT_EQ(qrd("device create d").code, 0);
        ASSERT_EQ(qrd("sync d --library library").code, 0);
    }
    [[nodiscard]] device::Tree tree() const { return device::Tree((folder / "d").string()); }
    /// Each way to look: it succeeds, and nothing has changed on the disk.
    void lookEverywhere(const std::string& before = {}) {
        const device::Tree all = tree();
        for (const char* words : looks) {
            const Answer answer = qrd(words, before);
            EXPECT_EQ(answer.code, 0) << words << ": " << answer.text;
            EXPECT_EQ(tree(), all) << words;
        }
    }
};

/// A sync that is sending its second app, slowly.
class LookBesideASync : public Look {
  protected:
    void SetUp() override {
        Look::SetUp();
        sync = std::make_unique<Running>(folder, "sync d --library library2 --bandwidth 200kB/s");
        ASSERT_NE(sync->lineWith("sending The b"), "");
        Answer apps;
        do { // the device makes their places on its own time
            apps = qrd("apps d");
        } while (apps.code == 0 && !(has(apps, "The b  1.0      waiting") && has(apps, "The c  1.0      waiting")));
    }
    /// The sync is none the worse for those who looked: it ends cleanly, and the next one goes on.
    void goOn() {
        sync->send(SIGTERM);
        EXPECT_EQ(sync->end(), 143);
        EXPECT_EQ(qrd("sync d --library library2").code, 0);
        EXPECT_TRUE(has(qrd("apps d"), "The c  1.0      installed"));
    }
    std::unique_ptr<Running> sync;
};

TEST_F(Look, ChangesNothingWhenNothingRuns) {
    lookEverywhere();
}

TEST_F(Look, NeedsNoRightToWrite) {
    if (::geteuid() == 0) {
        fs::permissions(folder, fs::perms(0777));
        lookEverywhere("setpriv --reuid=65534 --regid=65534 --clear-groups");
    } else {
        fs::permissions(folder / "d/var/db", fs::perms(0555));
        lookEverywhere();
        fs::permissions(folder / "d/var/db", fs::perms(0755));
    }
}

TEST_F(Look, NeedsNoFileSystemThatCanBeWritten) {
    const std::string mounted = "unshare -m sh -c 'mount --bind d d && mount -o remount,ro,bind d d && \"$@\"' sh";
    if (std::system((mounted + " true 2>/dev/null; cd '" + folder.string() + "' && " + mounted + " true").c_str()) !=
        0) {
        GTEST_SKIP() << "only root mounts";
    }
    EXPECT_EQ(qrd("apps d", mounted).text, qrd("apps d").text);
    lookEverywhere(mounted);
    EXPECT_EQ(qrd("launch d com.example.a", mounted).code, 4);
}

TEST_F(LookBesideASync, ShowsWhatItDoes) {
    EXPECT_TRUE(has(qrd("apps d"), "The a  1.0      installed"));
    EXPECT_TRUE(has(qrd("apps d"), "The c  1.0      waiting  "));
    EXPECT_TRUE(has(qrd("status d"), "The b  transferring"));
    // The transfer has begun; how far it is only grows.
    const auto progressOf = [this] {
        const auto apps = nlohmann::json::parse(qrd("apps d --json").text);
        return apps["apps"][1].value("progress", -1.0);
    };
    const double first = progressOf();
    ASSERT_GE(first, 0);
    double later = first;
    while (later == first) {
        later = progressOf();
    }
    EXPECT_GT(later, first);
}

TEST_F(LookBesideASync, ShowsTheRingOfWhatComes) {
    EXPECT_EQ(qrd("screen d -o before.png").code, 0);
    const std::string before = bytesOf("before.png");
    std::string after;
    do { // the ring fills
        EXPECT_EQ(qrd("screen d -o after.png").code, 0);
        after = bytesOf("after.png");
    } while (after == before);
    goOn();
}

TEST_F(LookBesideASync, WaitsForNoneThatStandsStillAndChangesNothing) {
    sync->stop();
    const device::Tree before = tree();
    for (const char* words :
         {"apps d", "log d", "log d --transactions", "screen d -o p.png", "inventory d", "metrics d", "accounts d"}) {
        const Answer answer = qrd(words);
        EXPECT_EQ(answer.code, 0) << words << ": " << answer.text;
        EXPECT_EQ(tree(), before) << words;
    }
    EXPECT_TRUE(has(qrd("apps d"), "note: what runs on d does not answer now; how far it is is not shown\n"));
    sync->send(SIGCONT);
    goOn();
}

TEST_F(LookBesideASync, WhoWouldChangeTheDeviceIsToldWhatRunsHowToLookAndHowToEndIt) {
    const std::string process = std::to_string(sync->process());
    for (const char* words :
         {"launch d com.example.a", "uninstall d com.example.a", "reset d --yes", "sync d --library library"}) {
        const Answer answer = qrd(words);
        EXPECT_EQ(answer.code, 3) << words;
        EXPECT_TRUE(answer.text.starts_with("qrd: the device d is in use by a sync since ")) << answer.text;
        EXPECT_TRUE(answer.text.ends_with(" (process " + process +
                                          "); `qrd status d` shows what it does: wait for it, or end it with `kill " +
                                          process + "`\n"))
            << answer.text;
    }
    goOn();
    EXPECT_EQ(qrd("status d").text, "No sync is running on d.\n") << "what it has left in the lock means nothing";
}

TEST_F(LookBesideASync, AKilledSyncLeavesWhatCanBeLookedAt) {
    sync->send(SIGKILL);
    EXPECT_EQ(sync->end(), -1);
    lookEverywhere();
    const Answer apps = qrd("apps d");
    EXPECT_TRUE(has(apps, "The b  1.0      waiting  ")) << apps.text;
    EXPECT_EQ(qrd("sync d --library library2").code, 0);
}

TEST_F(Look, StatusTellsOfAnotherCommandThatHasTheDevice) {
    const auto owner = device::Root::open((folder / "d").string(), nullptr, "a restore");
    ASSERT_TRUE(owner);
    const std::string process = std::to_string(::getpid());
    const Answer answer = qrd("status d");
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(answer.text.starts_with("d is in use by a restore since ")) << answer.text;
    EXPECT_TRUE(answer.text.ends_with(" (process " + process + "), which does not say how far it is.\n"))
        << answer.text;
    const auto json = nlohmann::json::parse(qrd("status d --json").text);
    EXPECT_EQ(json["running"], false);
    EXPECT_EQ(json["inUseBy"]["purpose"], "a restore");
    EXPECT_EQ(json["inUseBy"]["process"], ::getpid());
    EXPECT_EQ(qrd("cancel d com.example.a").code, 5);
}

} // namespace
} // namespace appsync::host
