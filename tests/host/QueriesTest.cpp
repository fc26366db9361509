// The host's questions outside of a sync, and emptying a device.
#include "tests/host/SyncFixture.h"

#include "device/processes/ProcessTable.h"

#include <csignal>

namespace appsync::host {
namespace {

class Queries : public SyncOnBothPaths {
  protected:
    using Query = ExitCode (*)(const QueryArguments&);
    Json ask(Query query) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(query({.device = deviceFolder(), .plugin = APPSYNC_BUNDLE, .json = true}), ExitCode::done);
        return Json::parse(testing::internal::GetCapturedStdout(), nullptr, false);
    }
    std::string askInWords(Query query) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(query({.device = deviceFolder(), .plugin = APPSYNC_BUNDLE}), ExitCode::done);
        return testing::internal::GetCapturedStdout();
    }
    ExitCode remove(const std::string& app, std::string* complaint = nullptr) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const ExitCode code = uninstall({.device = deviceFolder(), .app = app});
        testing::internal::GetCapturedStdout();
        const std::string said = testing::internal::GetCapturedStderr();
        if (complaint) {
            *complaint = said;
        }
        return code;
    }
};
INSTANTIATE_TEST_SUITE_P(Paths, Queries, testing::Values(false, true), [](const auto& path) {
    return path.param ? std::string("OwnInstalls") : std::string("Coordinated");
});

TEST_P(Queries, WhatAPersonRemovesIsReportedByTheNextSyncAndThenForgotten) {
    addApp("a");
    addApp("b");
    sync(ExitCode::done);
    EXPECT_EQ(askInWords(showInventory), "No app was deleted on the device since the last sync.\n");
    EXPECT_EQ(remove("com.example.a"), ExitCode::done);
    EXPECT_EQ(apps(), (Results{{"com.example.b", "1.0"}}));
    EXPECT_EQ(ask(showInventory)["deleted"], (Json{"com.example.a"}));
    EXPECT_EQ(askInWords(showInventory), "deleted  com.example.a\n");

    fs::remove(archiveOf("a"));
    EXPECT_EQ(sync(ExitCode::done)["deleted"], (Json{"com.example.a"}));
    EXPECT_EQ(sync(ExitCode::done)["deleted"], Json::array());
}

TEST_P(Queries, WhatTheSyncRemovesIsNotReportedAsDeleted) {
    addApp("a");
    sync(ExitCode::done);
    sync(ExitCode::done, {.remove = {"com.example.a"}});
    EXPECT_EQ(ask(showInventory)["deleted"], Json::array());
}

TEST_P(Queries, CountAppsAndTheirBytes) {
    EXPECT_EQ(ask(showMetrics), (Json{{"version", 1}, {"count", 0}, {"physicalSize", 0}, {"purgeableSize", 0}}));
    addApp("a");
    addApp("b");
    sync(ExitCode::done);
    const Json metrics = ask(showMetrics);
    EXPECT_EQ(metrics["count"], 2);
    EXPECT_GE(metrics["physicalSize"].get<std::uint64_t>(), 100'000U);
    EXPECT_TRUE(askInWords(showMetrics).starts_with("2 apps take 1"));
}

TEST_P(Queries, ListAccounts) {
    EXPECT_EQ(ask(showAccounts)["accounts"], Json::array());
    EXPECT_EQ(askInWords(showAccounts), "No app of the device names an account.\n");
    addApp("a");
    sync(ExitCode::done);
    const auto metadata = [this] {
        const auto device = device::Device::open(deviceFolder());
        return deviceFolder() + (*device)->registry().application("com.example.a")->containerPath +
               "/TamblinMetadata.plist";
    }();
    write(metadata, "<plist version=\"1.0\"><dict><key>zuvexId</key><string>somebody</string></dict></plist>");
    EXPECT_EQ(ask(showAccounts)["accounts"], (Json{"somebody"}));
    EXPECT_EQ(askInWords(showAccounts), "somebody\n");
}

TEST_P(Queries, RemovingSaysWhyItIsRefused) {
    std::string complaint;
    EXPECT_EQ(remove("com.example.a", &complaint), ExitCode::someAppFailed);
    EXPECT_NE(complaint.find("the device has no such app"), std::string::npos) << complaint;
}

TEST_P(Queries, ABusyAppIsNotRemoved) {
    addApp("a", "1.0", "#!/bin/sh\nwhile :; do sleep 0.01; done\n");
    sync(ExitCode::done);
    pid_t process = 0;
    {
        const auto device = device::Device::open(deviceFolder());
        process = *(*device)->launch("com.example.a", true);
    }
    std::string complaint;
    EXPECT_EQ(remove("com.example.a", &complaint), ExitCode::someAppFailed);
    EXPECT_NE(complaint.find("is in use and cannot be ended now"), std::string::npos) << complaint;
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
    ::kill(-process, SIGKILL);
}

TEST_P(Queries, AResetRemovesWhatThePluginKeeps) {
    addApp("a");
    sync(ExitCode::done);
    EXPECT_TRUE(fs::exists(deviceFolder() + "/var/mobile/Library/ApplicationSync"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(reset({.device = deviceFolder(), .plugin = APPSYNC_BUNDLE, .yes = true}), ExitCode::done);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(fs::exists(deviceFolder() + "/var/mobile/Library/ApplicationSync"));
    EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}}));
}

TEST(Policy, ForbidsAPersonToRemove) {
    const fs::path folder = fs::temp_directory_path() / ("policy." + std::to_string(::getpid()));
    testing::internal::CaptureStdout();
    EXPECT_EQ(createDevice({.device = folder.string(), .forbidRemoval = true}), ExitCode::done);
    testing::internal::GetCapturedStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(uninstall({.device = folder.string(), .app = "a"}), ExitCode::someAppFailed);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "qrd: This device does not allow removing apps.\n");
    fs::remove_all(folder);
}

} // namespace
} // namespace appsync::host
