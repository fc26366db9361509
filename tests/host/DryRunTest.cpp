// What a dry run says is what the sync then does: random libraries, devices and wishes, each by its seed.
#include "device/services/DevicePolicy.h"
#include "platform/DevicePolicy.h"
#include "tests/host/SyncFixture.h"

#include <random>

namespace appsync::host {
namespace {

const std::vector<std::string> names = {"a", "b", "c", "d", "e", "f"};

/// The name of each test has its seed.
class DryRun : public Sync, public testing::WithParamInterface<unsigned> {
  protected:
    int number(int end) { return std::uniform_int_distribution<>(0, end - 1)(random); }
    bool isChosen(int percent) { return number(100) < percent; }
    const std::string& anyName() { return names[static_cast<std::size_t>(number(static_cast<int>(names.size())))]; }

    void fillLibrary(int percent) {
        for (const std::string& name : names) {
            if (isChosen(percent)) {
                addApp(name, std::to_string(1 + number(2)) + "." + std::to_string(number(2)));
            }
        }
    }
    void allow(std::string_view feature, bool isAllowed) {
        const auto device = device::Device::open(deviceFolder());
        const auto value = isAllowed ? OLBoolValue::unset : OLBoolValue::explicitlyNo;
        ASSERT_TRUE((*device)->policy().set(feature, value));
    }
    void spoilLibrary() {
        for (const std::string& name : names) {
            const fs::path archive = archiveOf(name);
            if (!fs::exists(archive)) {
                continue;
            }
            if (isChosen(15)) {
                fs::remove(archive);
            } else if (isChosen(10)) {
                fs::resize_file(archive, fs::file_size(archive) / 3);
            } else if (isChosen(15)) {
                damage(name); // which the device alone finds
                damaged.insert("com.example." + name);
            }
        }
        if (isChosen(20)) {
            write(folder / "library" / "notes.archive", "no archive");
        }
    }
    SyncArguments wishes() {
        SyncArguments wished;
        for (int count = isChosen(50) ? number(4) : 0; count > 0; --count) {
            wished.install.push_back(isChosen(70)   ? "com.example." + anyName()
                                     : isChosen(50) ? "The " + anyName()
                                                    : "com.exmple." + anyName());
        }
        for (int count = isChosen(50) ? number(3) : 0; count > 0; --count) {
            wished.remove.push_back(isChosen(80) ? "com.example." + anyName() : "nothing");
        }
        wished.reinstall = !wished.install.empty() && isChosen(30);
        wished.downgrade = isChosen(40);
        return wished;
    }
    /// What the sync may do otherwise than the dry run has said: refuse a damaged archive.
    void expectSame(const Json& said, const Json& done) {
        ASSERT_EQ(said["apps"].size(), done["apps"].size());
        for (std::size_t row = 0; row < said["apps"].size(); ++row) {
            Json planned = said["apps"][row];
            const Json& app = done["apps"][row];
            const bool isSent = results.contains(planned["result"]);
            if (isSent && damaged.contains(planned["identifier"]) && app["result"] == "failed") {
                planned["result"] = "failed";
                planned["reason"] = app["reason"];
            }
            EXPECT_EQ(planned, app);
        }
        for (const char* key : {"unchanged", "bytes", "problems"}) {
            EXPECT_EQ(said[key], done[key]) << key;
        }
        EXPECT_EQ(said.contains("failure"), done.contains("failure"));
    }
    void expectTrue(const Json& done) {
        auto there = apps();
        for (const Json& app : done["apps"]) {
            const std::string identifier = app["identifier"].is_null() ? "" : app["identifier"];
            if (results.contains(app["result"])) {
                EXPECT_EQ(there[identifier], app["to"]);
            } else if (app["result"] == "waiting") {
                EXPECT_EQ(there[identifier], "placeholder") << identifier;
            } else if (app["result"] == "unchanged" || app["result"] == "refused") {
                EXPECT_EQ(there[identifier], app["from"].is_null() ? "" : app["from"]) << identifier;
            } else if (app["result"] == "removed") {
                EXPECT_EQ(there.count(identifier), 0U) << identifier;
            } else if (app["result"] == "cancelled") {
                EXPECT_NE(there[identifier], "placeholder") << identifier;
            }
        }
    }

    std::mt19937 random{GetParam()};
    std::set<std::string> damaged;
    const std::set<std::string> results = {"installed", "updated", "downgraded"};
};

TEST_P(DryRun, SaysWhatTheSyncThenDoes) {
    createDevice({.noCoordination = isChosen(50)});
    fillLibrary(60);
    sync(ExitCode::done);
    fillLibrary(60);
    if (isChosen(50)) {
        EXPECT_TRUE(syncInterrupted().interrupted);
        fillLibrary(30);
    }
    spoilLibrary();
    if (isChosen(25)) {
        allow(OLFeatureAppInstallationAllowed, false);
    }
    if (isChosen(25)) {
        allow(OLFeatureAppRemovalAllowed, false);
    }
    SyncArguments wished = wishes();
    wished.dryRun = true;
    const auto before = apps();
    testing::internal::CaptureStderr();
    const auto [planCode, said] = syncAnyhow(wished);
    EXPECT_EQ(apps(), before);
    wished.dryRun = false;
    const auto [code, done] = syncAnyhow(wished);
    testing::internal::GetCapturedStderr();
    expectSame(said, done);
    if (damaged.empty()) {
        EXPECT_EQ(planCode, code);
    }
    if (!done.contains("failure")) {
        expectTrue(done);
    }
    if (HasFailure()) {
        ADD_FAILURE() << "seed " << GetParam() << "\nsaid " << said.dump(1) << "\ndone " << done.dump(1);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DryRun, testing::Range(1U, 41U));

} // namespace
} // namespace appsync::host
