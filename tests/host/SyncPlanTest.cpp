// What a sync decides to do with each app, and what it says of it.
#include "host/session/SyncPlan.h"

#include <gtest/gtest.h>

#include <map>

namespace appsync::host {
namespace {

using Pending = DeviceState::Pending;

class Plans : public testing::Test {
  protected:
    void addArchive(const std::string& identifier, std::optional<std::string> version = "2.0", std::string name = {}) {
        desktop::AppArchive app;
        app.identifier = identifier;
        app.version = std::move(version);
        app.name = name.empty() ? "The " + identifier : name;
        app.size = 100;
        app.unpackedSize = 1000;
        library.apps.push_back(std::move(app));
    }
    void addApp(const std::string& identifier, std::optional<std::string> version = "1.0",
                Pending pending = Pending::nothing) {
        device.apps.push_back({identifier, "The " + identifier, version.has_value(), std::move(version), pending});
    }
    const SyncPlan& plan(const SyncWishes& wishes = {}) {
        planned = planSync(library, device, wishes);
        return planned;
    }
    /// "result from>to", with a "!" where it counts as a failure.
    std::string said(const std::string& identifier) const {
        for (const AppReport& app : planned.report.apps) {
            if (app.identifier == identifier) {
                SyncReport alone;
                alone.apps = {app};
                return nameOf(app.result) + (" " + app.from.value_or("-")) + ">" + app.version.value_or("-") +
                       (alone.allDone() ? "" : "!");
            }
        }
        return "nothing";
    }
    std::string reason(const std::string& identifier) const {
        const auto& apps = planned.report.apps;
        const auto found = std::ranges::find(apps, identifier, &AppReport::identifier);
        return found != apps.end() ? found->reason : "";
    }
    std::string sent() const {
        std::string all;
        for (const desktop::AppArchive* app : planned.list.installs) {
            all += app->identifier;
        }
        return all;
    }

    desktop::AppLibrary library;
    DeviceState device;
    SyncPlan planned;
};

TEST_F(Plans, BringWhatTheDeviceLacksOrHasInAnOlderVersion) {
    for (const char* app : {"a", "b", "c", "d"}) {
        addArchive(app);
    }
    addApp("b");
    addApp("c", "2.0");
    addApp("d", "3.0");
    addApp("e");
    plan();
    EXPECT_EQ(said("a"), "installed ->2.0");
    EXPECT_EQ(said("b"), "updated 1.0>2.0");
    EXPECT_EQ(said("c"), "nothing");
    EXPECT_EQ(said("d"), "unchanged 3.0>2.0");
    EXPECT_EQ(said("e"), "nothing");
    EXPECT_EQ(sent(), "ab");
    EXPECT_EQ(planned.report.unchanged, 2U);
    EXPECT_EQ(planned.report.bytes, 200U);
    EXPECT_EQ(planned.report.bytesNeeded, 2100U) << "the unpacked apps and one archive beside them";
}

TEST_F(Plans, BringAnotherVersionWhenNoneIsTheOlderOne) {
    addArchive("a", "2.0b");
    addArchive("b", std::nullopt);
    addApp("a", "2.0a");
    addApp("b", "1.0");
    plan();
    EXPECT_EQ(said("a"), "updated 2.0a>2.0b");
    EXPECT_EQ(said("b"), "updated 1.0>-");
}

TEST_F(Plans, BringOnlyWhatIsNamedByIdentifierOrName) {
    addArchive("a");
    addArchive("b");
    addArchive("c");
    plan({.install = {"b", "The c", "b"}});
    EXPECT_EQ(sent(), "bc");
    EXPECT_EQ(said("a"), "nothing");
}

TEST_F(Plans, FailWordsThatNameNoAppAndSayWhichAreNear) {
    addArchive("com.example.kettle", "1.0", "Kettle");
    addApp("com.example.marrow");
    plan({.install = {"com.example.ketle", "kettle", "xyzzy", "xyzzy"}, .remove = {"The com.example.marow"}});
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(planned.report.apps.size(), 4U);
    EXPECT_EQ(said("xyzzy"), "failed ->-!");
    EXPECT_EQ(reason("xyzzy"), "The library does not have it.");
    EXPECT_EQ(reason("kettle"), "The library does not have it. Did you mean 'Kettle'?");
    EXPECT_EQ(reason("com.example.ketle"), "The library does not have it. Did you mean 'com.example.kettle'?");
    EXPECT_EQ(reason("The com.example.marow"), "The device does not have it. Did you mean 'The com.example.marrow'?");
}

TEST_F(Plans, TakeNoNameThatSeveralAppsHave) {
    addArchive("a", "1.0", "Notes");
    addArchive("b", "1.0", "Notes");
    plan({.install = {"Notes"}});
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(reason("Notes"), "Several apps have this name; say which: a, b.");
}

TEST_F(Plans, LeaveAloneWhatIsThereUnlessItIsToBeSentAgain) {
    addArchive("a", "1.0");
    addApp("a");
    plan({.install = {"a"}});
    EXPECT_EQ(said("a"), "unchanged 1.0>1.0");
    EXPECT_EQ(reason("a"), "It is there already; --reinstall sends it again.");
    EXPECT_EQ(sent(), "");
    plan({.install = {"a"}, .reinstall = true});
    EXPECT_EQ(said("a"), "updated 1.0>1.0");
    EXPECT_EQ(sent(), "a");
}

TEST_F(Plans, BringAnOlderVersionOnlyWhenThatIsAskedFor) {
    addArchive("a", "1.0");
    addApp("a", "1.0.1");
    EXPECT_EQ(plan().report.allDone(), true);
    EXPECT_EQ(reason("a"), "The device has a newer version; --downgrade brings this one.");
    plan({.install = {"a"}});
    EXPECT_EQ(said("a"), "refused 1.0.1>1.0!");
    plan({.downgrade = true});
    EXPECT_EQ(said("a"), "downgraded 1.0.1>1.0");
    EXPECT_EQ(sent(), "a");
}

TEST_F(Plans, RefuseWhatTheDeviceDoesNotAllow) {
    addArchive("a");
    addArchive("b", "1.0");
    addApp("b");
    device.mayInstall = false;
    plan();
    EXPECT_EQ(said("a"), "refused ->2.0!");
    EXPECT_EQ(said("b"), "nothing") << "which is there";
    EXPECT_EQ(reason("a"), "This device does not allow installing apps.");
    EXPECT_EQ(planned.report.failure, nullptr);
    device.mayRemove = false;
    plan({.remove = {"b"}});
    EXPECT_EQ(said("b"), "refused 1.0>-!");
    EXPECT_EQ(reason("b"), "This device does not allow removing apps.");
    EXPECT_TRUE(planned.list.removals.empty());
    EXPECT_NE(planned.report.failure, nullptr);
}

TEST_F(Plans, RemoveRatherThanInstall) {
    addArchive("a");
    addApp("a");
    plan({.install = {"a"}, .remove = {"The a", "a"}});
    EXPECT_EQ(said("a"), "removed 1.0>-");
    EXPECT_EQ(planned.list.removals, (std::vector<std::string>{"a"}));
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(planned.report.problems,
              (std::vector<std::string>{"'a' is to be installed and removed; it is removed."}));
}

TEST_F(Plans, KeepWaitingWhatAnEarlierSyncHasBegun) {
    addArchive("a");
    addArchive("b");
    addArchive("c", "1.0");
    addApp("a", std::nullopt, Pending::begun);
    addApp("c", "1.0", Pending::begun); // an update that the library has no more
    addApp("d", std::nullopt, Pending::begun);
    addApp("e", std::nullopt, Pending::begun);
    plan({.install = {"b"}, .remove = {"e"}});
    EXPECT_EQ(sent(), "b");
    EXPECT_EQ(said("a"), "waiting ->2.0");
    EXPECT_EQ(said("c"), "cancelled 1.0>1.0");
    EXPECT_EQ(said("d"), "cancelled ->-");
    EXPECT_EQ(said("e"), "cancelled ->-");
    EXPECT_EQ(planned.goingOn.waiting, (Apps{"a"}));
    EXPECT_EQ(planned.takenBack, (Apps{"c", "d", "e"}));
    plan();
    EXPECT_EQ(sent(), "ab") << "without names all of the library";
    EXPECT_EQ(planned.goingOn.waiting, Apps{});
}

TEST_F(Plans, LeaveARestoreToTheStore) {
    addArchive("a");
    addApp("a", std::nullopt, Pending::restoring);
    plan();
    EXPECT_EQ(said("a"), "waiting ->2.0");
    plan({.install = {"a"}});
    EXPECT_EQ(said("a"), "waiting ->2.0!");
    EXPECT_EQ(sent(), "");
}

TEST_F(Plans, BringARestoreWhereThereIsNoStore) {
    device.hasStore = false;
    addArchive("a");
    addArchive("b");
    addApp("a", std::nullopt, Pending::restoring);
    addApp("c", std::nullopt, Pending::restoring);
    plan();
    EXPECT_EQ(said("a"), "installed ->2.0");
    ASSERT_EQ(planned.list.restores.size(), 1U);
    EXPECT_EQ(sent(), "b");
    EXPECT_EQ(said("c"), "waiting ->-!");
    EXPECT_EQ(reason("c"), "The library has no 'c'.");
}

TEST_F(Plans, BringADemotedAppBackAndDoNotRemoveIt) {
    addArchive("a", "1.0");
    addApp("a", std::nullopt, Pending::demoted);
    plan();
    EXPECT_EQ(said("a"), "installed ->1.0");
    plan({.remove = {"a"}});
    EXPECT_EQ(said("a"), "failed ->-!");
    EXPECT_EQ(reason("a"), "It is not installed; `qrd uninstall` removes its place on the home screen.");
}

TEST_F(Plans, NameFilesThatCannotBeRead) {
    library.unreadable = {{"library/Bad.archive", "It is damaged."}};
    plan();
    ASSERT_EQ(planned.report.apps.size(), 1U);
    EXPECT_EQ(planned.report.apps[0].name, "Bad.archive");
    EXPECT_EQ(said(""), "failed ->-!");
    EXPECT_TRUE(planned.report.problems.empty());
    addArchive("a");
    plan({.install = {"a"}});
    EXPECT_EQ(said(""), "failed ->-") << "it is none of those that were asked for";
}

TEST_F(Plans, SayThatALibraryIsEmpty) {
    EXPECT_EQ(plan().report.problems, (std::vector<std::string>{"The library has no app archive."}));
}

} // namespace
} // namespace appsync::host
