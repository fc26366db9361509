// Whole syncs with real files, a real database, real archives and the loaded plug-in.
#include "device/log/TransactionLog.h"
#include "device/screen/DeviceHomeScreen.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/session/RunSync.h"
#include "host/transfer/TransferQueue.h"
#include "host/view/SyncReport.h"
#include "platform/Platform.h"
#include "platform/host/Client.h"
#include "tests/device/log/Records.h"
#include "tests/host/SyncFixture.h"

#include <dlfcn.h>

#include <algorithm>
#include <csignal>
#include <sstream>

namespace appsync::host {
namespace {

INSTANTIATE_TEST_SUITE_P(Paths, SyncOnBothPaths, testing::Values(false, true), [](const auto& path) {
    return path.param ? std::string("OwnInstalls") : std::string("Coordinated");
});

TEST_P(SyncOnBothPaths, InstallsALibraryAndLeavesNothingBehind) {
    addApp("a");
    addApp("b");
    addApp("c");
    const Json report = sync(ExitCode::done);
    EXPECT_EQ(
        results(report),
        (Results{{"com.example.a", "installed"}, {"com.example.b", "installed"}, {"com.example.c", "installed"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}, {"com.example.b", "1.0"}, {"com.example.c", "1.0"}}));
    EXPECT_TRUE(filesBelow("var/mobile/Media/PublicStaging").empty());
    EXPECT_TRUE(filesBelow("tmp").empty());
    EXPECT_EQ(results(sync(ExitCode::done)), Results{});
}

TEST_P(SyncOnBothPaths, LeavesThePagesAndFoldersOfTheHomeScreen) {
    addApp("a");
    addApp("b");
    sync(ExitCode::done);
    using device::IconFolder;
    using device::IconPage;
    const IconFolder mine{"Mine", {{"com.example.a"}}};
    const auto layout = [&] { return (*device::Device::open(deviceFolder()))->homeScreen().layout().pages; };
    {
        const auto device = device::Device::open(deviceFolder());
        ASSERT_TRUE((*device)->homeScreen().arrange({{IconPage{"com.example.b"}, IconPage{mine}}}));
    }
    sync(ExitCode::done); // which has nothing to bring
    EXPECT_EQ(layout(), (std::vector{IconPage{"com.example.b"}, IconPage{mine}}));
    addApp("c");
    damage("c");
    sync(ExitCode::someAppFailed, {.remove = {"com.example.b"}});
    ASSERT_EQ(layout().size(), 1U);
    EXPECT_EQ(layout()[0].front(), device::IconPlace(mine));
}

TEST_P(SyncOnBothPaths, UpdatesRemovesAndReportsWhatIsDamaged) {
    addApp("a");
    addApp("b");
    addApp("c");
    sync(ExitCode::done);
    addApp("a", "2.0");
    addApp("d");
    damage("d");
    const Json report = sync(ExitCode::someAppFailed, {.remove = {"com.example.b"}});
    EXPECT_EQ(results(report),
              (Results{{"com.example.a", "updated"}, {"com.example.b", "removed"}, {"com.example.d", "failed"}}));
    EXPECT_NE(report["apps"][2]["reason"].get<std::string>().find("Resources/data"), std::string::npos);
    EXPECT_EQ(apps(), (Results{{"com.example.a", "2.0"}, {"com.example.c", "1.0"}}));
    EXPECT_TRUE(filesBelow("var/mobile/Media/PublicStaging").empty());
    EXPECT_TRUE(filesBelow("tmp").empty());
}

TEST_P(SyncOnBothPaths, LeavesEachOutcomeInTheToDoList) {
    addApp("a");
    addApp("b");
    sync(ExitCode::done);
    addApp("c");
    addApp("d");
    damage("d");
    sync(ExitCode::someAppFailed, {.remove = {"com.example.b"}});
    std::ifstream file(deviceFolder() + "/var/mobile/Library/ApplicationSync/TamblinStuff/ApplicationsSync.plist");
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    PropertyListCodec codec;
    const auto list = codec.propertyListWithData(bytes, nullptr);
    ASSERT_TRUE(list && list->array());
    Results operations;
    for (const Value& record : *list->array()) {
        operations[std::string(*record.dictionary()->string("identifier"))] = *record.dictionary()->string("operation");
    }
    EXPECT_EQ(operations,
              (Results{{"com.example.b", "remove"}, {"com.example.c", "INSTALLED"}, {"com.example.d", "FAILED"}}));
}

TEST_P(SyncOnBothPaths, KeepsTheOldVersionWhenAnUpdateIsDamaged) {
    addApp("a");
    sync(ExitCode::done);
    addApp("a", "2.0");
    damage("a");
    EXPECT_EQ(results(sync(ExitCode::someAppFailed)), (Results{{"com.example.a", "failed"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
    addApp("a", "2.0");
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "updated"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "2.0"}}));
}

TEST_P(SyncOnBothPaths, InstallsFilesExactlyAsTheyWerePacked) {
    addApp("a");
    sync(ExitCode::done);
    std::set<std::string> found;
    for (const std::string& file : filesBelow("var/containers/Bundle/Application")) {
        found.insert(file.substr(file.find('/') + 1));
    }
    EXPECT_EQ(found, (std::set<std::string>{"TamblinArtwork", "TamblinMetadata.plist", "a.app/Info.plist",
                                            "a.app/Resources/data", "a.app/main"}));
}

TEST_F(Sync, GoesOnAfterAnInterruption) {
    createDevice();
    addApp("a");
    addApp("b");
    const SyncReport report = syncInterrupted();
    EXPECT_TRUE(report.interrupted);
    ASSERT_EQ(report.apps.size(), 2u);
    for (const AppReport& app : report.apps) {
        EXPECT_EQ(app.result, AppResult::waiting);
        EXPECT_EQ(app.reason, "The sync was interrupted; sync again to go on.");
    }
    EXPECT_EQ(apps(), (Results{{"com.example.a", "placeholder"}, {"com.example.b", "placeholder"}}));
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "installed"}, {"com.example.b", "installed"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}, {"com.example.b", "1.0"}}));
}

TEST_P(SyncOnBothPaths, LeavesWaitingWhatAnEarlierSyncHasBegun) {
    addApp("c");
    sync(ExitCode::done);
    addApp("a");
    addApp("b");
    addApp("c", "2.0");
    addApp("d");
    EXPECT_TRUE(syncInterrupted().interrupted);
    fs::remove(archiveOf("b"));
    const Json report = sync(ExitCode::done, {.install = {"com.example.d"}});
    EXPECT_EQ(results(report), (Results{{"com.example.a", "waiting"},
                                        {"com.example.b", "cancelled"},
                                        {"com.example.c", "waiting"},
                                        {"com.example.d", "installed"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "placeholder"},
                               {"com.example.c", "placeholder"}, // of its update
                               {"com.example.d", "1.0"}}));
    EXPECT_EQ(results(sync(ExitCode::done)), (Results{{"com.example.a", "installed"}, {"com.example.c", "updated"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}, {"com.example.c", "2.0"}, {"com.example.d", "1.0"}}));
    EXPECT_TRUE(filesBelow("tmp").empty());
}

TEST_P(SyncOnBothPaths, FailsForWordsThatNameNoAppAndDoesTheRest) {
    addApp("a");
    const Json report = sync(ExitCode::someAppFailed, {.install = {"The a", "com.example.aa"}, .remove = {"b"}});
    EXPECT_EQ(results(report),
              (Results{{"com.example.a", "installed"}, {"com.example.aa", "failed"}, {"b", "failed"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
}

TEST_P(SyncOnBothPaths, SendsAgainAndOlderVersionsOnlyWhenAsked) {
    addApp("a", "2.0");
    sync(ExitCode::done);
    EXPECT_EQ(results(sync(ExitCode::done, {.install = {"com.example.a"}})), (Results{{"com.example.a", "unchanged"}}));
    EXPECT_EQ(results(sync(ExitCode::done, {.install = {"com.example.a"}, .reinstall = true})),
              (Results{{"com.example.a", "updated"}}));
    addApp("a", "1.0");
    sync(ExitCode::someAppFailed, {.install = {"com.example.a"}});
    EXPECT_EQ(apps(), (Results{{"com.example.a", "2.0"}}));
    EXPECT_EQ(results(sync(ExitCode::done, {.downgrade = true})), (Results{{"com.example.a", "downgraded"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
}

TEST_F(Sync, SaysThatTheLogIsNotComplete) {
    createDevice();
    const auto device = device::Device::open(deviceFolder(), {.faultPoint = {}, .log = {1, 1}});
    (*device)->log().write(QRLogCategoryFramework, LogLevel::error, "", "the file is full with this");
    fs::remove_all(folder / "device" / "var" / "log"); // where the next one would stand
    std::ostringstream shown;
    SyncView view(shown, SyncView::Style::lines);
    const SyncReport report = runSync(**device, {}, {.plugInPath = APPSYNC_BUNDLE}, view);
    EXPECT_EQ(report.failure, nullptr);
    ASSERT_EQ(report.problems.size(), 1U);
    EXPECT_NE(report.problems[0].find("The device's log is not complete: "), std::string::npos);
    EXPECT_NE(report.problems[0].find("/var/log/qrd.log"), std::string::npos) << report.problems[0];
}

TEST_F(Sync, TellsWhatItWouldDo) {
    createDevice();
    addApp("a");
    SyncArguments arguments{.device = deviceFolder(), .library = (folder / "library").string(), .dryRun = true};
    testing::internal::CaptureStdout();
    EXPECT_EQ(host::sync(arguments), ExitCode::done);
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(said.starts_with("App    Version  Would be   Reason\nThe a  1.0      installed\n")) << said;
    EXPECT_NE(said.find(" to send, 0 unchanged; the device needs about "), std::string::npos) << said;
    EXPECT_EQ(apps(), Results{});
}

TEST_F(Sync, InstallsNothingWherePolicyForbidsIt) {
    createDevice({.forbidInstall = true});
    addApp("a");
    const Json report = sync(ExitCode::someAppFailed);
    EXPECT_EQ(results(report), (Results{{"com.example.a", "refused"}}));
    EXPECT_EQ(report["apps"][0]["reason"], "This device does not allow installing apps.");
}

TEST_F(Sync, RemovesNothingWherePolicyForbidsIt) {
    createDevice({.forbidRemoval = true});
    addApp("a");
    sync(ExitCode::done);
    const Json report = sync(ExitCode::someAppFailed, {.remove = {"com.example.a"}});
    EXPECT_EQ(results(report), (Results{{"com.example.a", "refused"}}));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
}

TEST_F(Sync, DoesNothingWherePolicyForbidsBoth) {
    createDevice({.forbidInstall = true, .forbidRemoval = true});
    addApp("a");
    testing::internal::CaptureStderr();
    const Json report = sync(ExitCode::failed);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("neither installing nor removing"), std::string::npos);
    EXPECT_NE(report["failure"].get<std::string>().find("neither installing nor removing"), std::string::npos);
}

TEST_F(Sync, NamesWhatIsNoArchive) {
    createDevice();
    addApp("a");
    write(folder / "library" / "notes.archive", "no archive");
    const Json report = sync(ExitCode::someAppFailed);
    ASSERT_EQ(report["apps"].size(), 2U);
    EXPECT_EQ(report["apps"][0]["result"], "installed");
    EXPECT_EQ(report["apps"][1]["identifier"], nullptr);
    EXPECT_EQ(report["apps"][1]["name"], "notes.archive");
    EXPECT_EQ(report["apps"][1]["result"], "failed");
    EXPECT_NE(report["apps"][1]["reason"].get<std::string>().find("it is no zip archive"), std::string::npos);
}

TEST_F(Sync, PassesOverWhatIsThereForSomethingElse) {
    createDevice();
    addApp("a");
    write(folder / "library" / "notes.txt", "about the apps");
    const Json report = sync(ExitCode::done);
    EXPECT_EQ(report["apps"].size(), 1U);
    ASSERT_EQ(report["problems"].size(), 1U);
    EXPECT_NE(report["problems"][0].get<std::string>().find("notes.txt' is no app archive"), std::string::npos);
}

TEST_F(Sync, RecordsEveryStepInTheTransactionLog) {
    createDevice();
    addApp("a");
    sync(ExitCode::done);
    const auto device = device::Device::open(deviceFolder());
    const auto records = device::recordsOf((*device)->transactionLog(), "com.example.a");
    std::vector<std::string> descriptions;
    for (const auto& record : records) {
        descriptions.push_back(record.description);
        EXPECT_TRUE(record.success);
    }
    EXPECT_EQ(descriptions.front(), "Install App");
    EXPECT_NE(std::ranges::find(descriptions, "Install app"), descriptions.end());
}

// What is wrong from the start.

TEST_F(Sync, SaysThatTheDeviceIsInUse) {
    createDevice();
    const auto held = device::Device::open(deviceFolder());
    testing::internal::CaptureStderr();
    sync(ExitCode::deviceInUse);
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
}

TEST_F(Sync, SaysThatThereIsNoDevice) {
    testing::internal::CaptureStderr();
    sync(ExitCode::deviceUnusable);
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
}

TEST_F(Sync, SaysThatThereIsNoLibrary) {
    createDevice();
    fs::remove_all(folder / "library");
    testing::internal::CaptureStderr();
    sync(ExitCode::wrongUse);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("library"), std::string::npos);
}

TEST_F(Sync, SaysThatThereIsNoPlugIn) {
    PropertyListCodec codec;
    const auto missing = PlugIn::load((folder / "missing").string(), codec);
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error()->description().find("is no plug-in"), std::string::npos);
    write(folder / "bundle" / "Info.plist",
          "<plist version=\"1.0\"><dict><key>BXBundleIdentifier</key><string>x</string>"
          "<key>BXBundleExecutable</key><string>missing</string></dict></plist>");
    const auto empty = PlugIn::load((folder / "bundle").string(), codec);
    ASSERT_FALSE(empty);
    EXPECT_NE(empty.error()->description().find("cannot be loaded"), std::string::npos);
}

TEST_F(Sync, LoadsThePlugInByItsInfo) {
    PropertyListCodec codec;
    const auto plugIn = PlugIn::load(APPSYNC_BUNDLE, codec);
    ASSERT_TRUE(plugIn);
    EXPECT_EQ(plugIn->identifier(), "com.zuvex.tzl.Quorrel.AppSync");
}

TEST_F(Sync, RefusesAPlatformOfAnotherVersionThanThePlugIns) {
    createDevice();
    const auto device = device::Device::open((folder / "device").string());
    ASSERT_TRUE(device);
    const auto plugIn = PlugIn::load(APPSYNC_BUNDLE, (*device)->propertyLists());
    ASSERT_TRUE(plugIn);
    DeviceService deviceService;
    ErrorClassification errorClassification;
    Platform platform = (*device)->platform(deviceService, errorClassification);
    EXPECT_TRUE(plugIn->createClient(platform));
    platform.version = platformVersion + 1;
    const auto client = plugIn->createClient(platform);
    ASSERT_FALSE(client);
    EXPECT_EQ(reasonOf(client.error()),
              "The plug-in 'com.zuvex.tzl.Quorrel.AppSync' is made for version 1 of the platform, and this program has "
              "version 2. Use a plug-in and a program of one release.");
    // The plug-in itself touches nothing of a platform that it does not know.
    void* const object = ::dlopen(APPSYNC_BUNDLE "/ApplicationSync", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(object, nullptr);
    const auto create = reinterpret_cast<QRCreateClientFunction*>(::dlsym(object, QRCreateClientFunctionName));
    std::uint32_t version = 0;
    EXPECT_EQ(create(platform, version), nullptr);
    EXPECT_EQ(version, platformVersion);
}

TEST_F(Sync, KeepsThePlugInsCodeForWhatItLeavesBehind) {
    PropertyListCodec codec;
    ASSERT_TRUE(PlugIn::load(APPSYNC_BUNDLE, codec)) << "and is gone again";
    const std::string object = std::string(APPSYNC_BUNDLE) + "/ApplicationSync";
    EXPECT_NE(::dlopen(object.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is not in the process any more";
}

TEST(Interrupts, AreRememberedWhileSomebodyCares) {
    const Interrupt interrupt;
    EXPECT_FALSE(Interrupt::requested());
    std::raise(SIGINT);
    EXPECT_TRUE(Interrupt::requested());
}

TEST(Interrupts, CountOnceAndDoNotEndTheProcessWhenATerminalGoesAway) {
    for (const auto& [first, code] : {std::pair{SIGINT, ExitCode::interrupted},
                                      {SIGTERM, ExitCode::terminated},
                                      {SIGHUP, ExitCode::hungUp},
                                      {SIGPIPE, ExitCode::brokenPipe}}) {
        const Interrupt interrupt;
        EXPECT_EQ(Interrupt::exitCode(), ExitCode::done);
        std::raise(first);
        for (const int later : {SIGHUP, SIGPIPE, SIGHUP}) {
            std::raise(later);
        }
        EXPECT_EQ(Interrupt::exitCode(), code);
    }
}

TEST(Interrupts, LeaveWhatWasIgnoredIgnored) {
    const auto before = std::signal(SIGHUP, SIG_IGN);
    {
        const Interrupt interrupt;
        std::raise(SIGHUP);
        EXPECT_FALSE(Interrupt::requested());
    }
    EXPECT_EQ(std::signal(SIGHUP, before), SIG_IGN);
}

} // namespace
} // namespace appsync::host
