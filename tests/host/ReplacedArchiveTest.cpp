// A library whose archives are replaced under a sync's hands: what is reported is what the device has.
#include "SyncFixture.h"

#include "desktop/AppLibrary.h"
#include "host/session/RunSync.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <functional>
#include <sstream>

namespace appsync::host {
namespace {

/// Calls once a text has been written to it.
class Watch : public std::stringbuf {
  public:
    Watch(std::string text, std::function<void()> call) : _text(std::move(text)), _call(std::move(call)) {}

  protected:
    int sync() override {
        if (_call && str().find(_text) != std::string::npos) {
            std::exchange(_call, nullptr)();
        }
        return 0;
    }

  private:
    const std::string _text;
    std::function<void()> _call;
};

class ReplacedArchive : public SyncOnBothPaths {
  protected:
    void SetUp() override {
        SyncOnBothPaths::SetUp();
        addApp("a");
        sync(ExitCode::done);
        addApp("a", "2.0");
        addApp("b");
    }
    /// A sync that calls between reading the library and staging, and once it sends the app "a".
    SyncReport run(const std::function<void()>& beforeStaging, const std::function<void()>& whileSending = {}) {
        const auto device = device::Device::open(deviceFolder());
        const auto library = desktop::readAppLibrary((folder / "library").string(), (*device)->propertyLists());
        auto plan = planSync(*library, stateOf(**device), {});
        if (beforeStaging) {
            beforeStaging();
        }
        Watch watch("sending The a", whileSending);
        std::ostream shown(&watch);
        shown << std::unitbuf;
        SyncView view(shown, SyncView::Style::lines);
        return runSync(**device, std::move(plan), {.plugInPath = APPSYNC_BUNDLE}, view);
    }
    static const AppReport& reportOf(const SyncReport& report, const std::string& identifier) {
        return *std::ranges::find(report.apps, identifier, &AppReport::identifier);
    }
    void expectFailure(const SyncReport& report) {
        EXPECT_FALSE(report.allDone());
        EXPECT_EQ(reportOf(report, "com.example.a").result, AppResult::failed);
        EXPECT_EQ(reportOf(report, "com.example.a").reason,
                  "'" + archiveOf("a").string() + "' has changed since the library was read. Sync again.");
        EXPECT_EQ(reportOf(report, "com.example.b").result, AppResult::installed);
        EXPECT_EQ(apps(), (Results{{"com.example.a", "1.0"}, {"com.example.b", "1.0"}}));
    }
};

TEST_P(ReplacedArchive, FailsWhenItHappensBeforeTheAppIsStaged) {
    expectFailure(run([&] { addApp("a", "3.0"); }));
}

TEST_P(ReplacedArchive, FailsWhenItHappensBeforeTheAppIsSent) {
    expectFailure(run({}, [&] { addApp("a", "3.0"); }));
}

TEST_P(ReplacedArchive, IsReportedWithTheVersionThatWasInstalledWhenNothingTellsThemApart) {
    const auto replaceUnseen = [&] {
        struct stat before {};
        ASSERT_EQ(::stat(archiveOf("a").c_str(), &before), 0);
        fs::rename(archiveOf("a"), folder / "kept");
        for (int version = 21; version < 100; ++version) { // one that compresses as well
            addApp("a", std::to_string(version / 10) + "." + std::to_string(version % 10));
            if (fs::file_size(archiveOf("a")) == fs::file_size(folder / "kept")) {
                break;
            }
        }
        ASSERT_EQ(fs::file_size(archiveOf("a")), fs::file_size(folder / "kept"));
        fs::copy_file(archiveOf("a"), folder / "kept", fs::copy_options::overwrite_existing); // the same inode
        fs::rename(folder / "kept", archiveOf("a"));
        const timespec times[] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::utimensat(AT_FDCWD, archiveOf("a").c_str(), times, 0), 0);
    };
    const SyncReport report = run(replaceUnseen);
    EXPECT_EQ(reportOf(report, "com.example.a").result, AppResult::updated);
    EXPECT_EQ(reportOf(report, "com.example.a").version, apps()["com.example.a"]);
}

INSTANTIATE_TEST_SUITE_P(Paths, ReplacedArchive, testing::Bool());

} // namespace
} // namespace appsync::host
