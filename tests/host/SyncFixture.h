// A library of small apps and a device, each in a folder of its own, for tests of whole syncs.
#pragma once

#include "desktop/AppLibrary.h"
#include "desktop/ArchivePacker.h"
#include "device/Device.h"
#include "host/Commands.h"
#include "host/control/Interrupt.h"
#include "host/session/RunSync.h"
#include "propertylist/Codec.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace appsync::host {

namespace fs = std::filesystem;
using Json = nlohmann::json;

class Sync : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "sync.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        fs::create_directories(folder / "library");
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string deviceFolder() const { return (folder / "device").string(); }
    void createDevice(DeviceCreateArguments arguments = {}) {
        arguments.device = deviceFolder();
        testing::internal::CaptureStdout();
        EXPECT_EQ(host::createDevice(arguments), ExitCode::done);
        testing::internal::GetCapturedStdout();
    }
    static void write(const fs::path& path, const std::string& bytes) {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
    }
    fs::path archiveOf(const std::string& name) const { return folder / "library" / (name + ".archive"); }
    /// Packs an app into the library.
    void addApp(const std::string& name, const std::string& version = "1.0", const std::string& program = {}) {
        const fs::path app = folder / "apps" / name / (name + ".app");
        const Dictionary info{{"BXBundleIdentifier", "com.example." + name},
                              {"BXBundleVersion", version},
                              {"BXBundleExecutable", "main"},
                              {"BXBundleDisplayName", "The " + name}};
        PropertyListCodec codec;
        write(app / "Info.plist",
              std::string(codec.dataWithPropertyList(info, PropertyListFormat::xml, nullptr)->bytes()));
        write(app / "main", program.empty() ? "program of " + name + " " + version : program);
        fs::permissions(app / "main", fs::perms::owner_all);
        write(app / "Resources" / "data", std::string(50'000, 'x') + name + version);
        write(app.parent_path() / "TamblinArtwork", "artwork of " + name);
        write(app.parent_path() / "TamblinMetadata.plist",
              "<plist version=\"1.0\"><dict><key>title</key><string>" + name + "</string></dict></plist>");
        ASSERT_TRUE(desktop::packApp(app.parent_path().string(), archiveOf(name).string(), codec));
    }
    void damage(const std::string& name) {
        std::fstream file(archiveOf(name), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(fs::file_size(archiveOf(name)) / 2));
        file << "damage";
    }
    std::pair<ExitCode, Json> syncAnyhow(SyncArguments arguments = {}) {
        arguments.device = deviceFolder();
        arguments.library = (folder / "library").string();
        arguments.plugin = APPSYNC_BUNDLE;
        arguments.json = JsonOutput::object;
        testing::internal::CaptureStdout();
        const ExitCode code = host::sync(arguments);
        return {code, Json::parse(testing::internal::GetCapturedStdout(), nullptr, false)};
    }
    Json sync(ExitCode expected, SyncArguments arguments = {}) {
        auto [code, report] = syncAnyhow(std::move(arguments));
        EXPECT_EQ(code, expected) << report.dump();
        return report;
    }
    /// A sync that is ended before it sends anything.
    SyncReport syncInterrupted() {
        const auto device = device::Device::open(deviceFolder());
        const auto library = desktop::readAppLibrary((folder / "library").string(), (*device)->propertyLists());
        std::ostringstream shown;
        SyncView view(shown, SyncView::Style::quiet);
        const Interrupt interrupt;
        std::raise(SIGINT);
        return runSync(**device, planSync(*library, stateOf(**device), {}), {.plugInPath = APPSYNC_BUNDLE}, view);
    }
    static std::map<std::string, std::string> results(const Json& report) {
        std::map<std::string, std::string> all;
        for (const auto& app : report["apps"]) {
            all[app["identifier"]] = app["result"];
        }
        return all;
    }
    /// Identifier and version of what is installed; a placeholder counts as "placeholder".
    std::map<std::string, std::string> apps() {
        std::map<std::string, std::string> all;
        const auto device = device::Device::open(deviceFolder());
        EXPECT_TRUE(device) << errorText(device.error());
        for (const auto& app : (*device)->registry().applications()) {
            all[app.identifier] = app.isPlaceholder ? "placeholder" : app.version.value_or("");
        }
        return all;
    }
    /// The files below a folder of the device.
    std::set<std::string> filesBelow(const std::string& path) const {
        std::set<std::string> all;
        const fs::path root = folder / "device" / path;
        if (fs::exists(root)) {
            for (const auto& entry : fs::recursive_directory_iterator(root)) {
                if (!entry.is_directory()) {
                    all.insert(entry.path().lexically_relative(root).string());
                }
            }
        }
        return all;
    }
    using Results = std::map<std::string, std::string>;
    fs::path folder;
};

/// On both install paths.
class SyncOnBothPaths : public Sync, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        Sync::SetUp();
        createDevice({.noCoordination = GetParam()});
    }
};

} // namespace appsync::host
