// Many operations at once.
#include "RegistryFixture.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

namespace appsync::device {
namespace {

class Concurrency : public RegistryTest {
  protected:
    static std::string numbered(int number) { return "org.example.app" + std::to_string(number); }
    static void inThreads(int count, const std::function<void(int)>& work) {
        std::vector<std::thread> threads;
        for (int number = 0; number < count; ++number) {
            threads.emplace_back(work, number);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
};

TEST_F(Concurrency, ManyAppsAreInstalledAtOnce) {
    constexpr int threadCount = 6;
    constexpr int appsEach = 5;
    inThreads(threadCount, [&](int thread) {
        for (int number = 0; number < appsEach; ++number) {
            const auto installed = install(numbered(thread * appsEach + number));
            EXPECT_TRUE(installed) << errorText(installed.error());
        }
    });
    EXPECT_EQ(registry().applications().size(), std::size_t{threadCount * appsEach});
    open();
    faults->forget();
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(faults->count(), 0U) << "everything is in order";
    const auto apps = registry().applications();
    ASSERT_EQ(apps.size(), std::size_t{threadCount * appsEach});
    for (const Application& app : apps) {
        EXPECT_EQ(content(app.bundlePath + "/Name"), "executable of " + app.identifier + " 1.0");
    }
}

TEST_F(Concurrency, InstallsThatWaitForTheDiskShareIt) {
    constexpr int threadCount = 8;
    std::vector<ArchiveRequest> requests;
    for (int number = 0; number < threadCount; ++number) {
        requests.push_back(request(app(numbered(number)).bytes(), numbered(number)));
    }
    faults->forget();
    inThreads(threadCount,
              [&](int number) { EXPECT_TRUE(registry().installArchive(requests[static_cast<std::size_t>(number)])); });
    const auto operations = faults->operations();
    const auto syncs = std::count(operations.begin(), operations.end(), "sync all");
    EXPECT_GE(syncs, 1);
    EXPECT_LE(syncs, threadCount);
    EXPECT_EQ(syncs, std::count(operations.begin(), operations.end(), "commit")) << "one commit for each flush";
}

TEST_F(Concurrency, FailureOfTheDiskFailsThoseItConcernsAndNoOthers) {
    constexpr int threadCount = 6;
    std::vector<ArchiveRequest> requests;
    for (int number = 0; number < threadCount; ++number) {
        requests.push_back(request(app(numbered(number)).bytes(), numbered(number)));
    }
    faults->forget();
    faults->failure = EIO;
    faults->failAt = 20;
    std::atomic<int> failures = 0;
    inThreads(threadCount, [&](int number) {
        failures += registry().installArchive(requests[static_cast<std::size_t>(number)]) ? 0 : 1;
    });
    faults->failAt = -1;
    EXPECT_GE(failures, 1);
    EXPECT_EQ(registry().applications().size(), static_cast<std::size_t>(threadCount - failures));
    EXPECT_EQ(staged(), std::vector<std::string>());
    EXPECT_TRUE(install("org.example.later"));
}

TEST_F(Concurrency, OneAppIsChangedByOneOperationAtATime) {
    const std::string first = app(identifier, "1.0").bytes();
    const std::string second = app(identifier, "2.0").bytes();
    ASSERT_TRUE(files().createFile("/var/mobile/Media/first.zip", first, {}));
    ASSERT_TRUE(files().createFile("/var/mobile/Media/second.zip", second, {}));
    inThreads(4, [&](int thread) {
        for (int round = 0; round < 8; ++round) {
            if (thread == 3) {
                (void)registry().uninstall(identifier, RemovalReason::sync, RemovalScope::everything);
                continue;
            }
            ArchiveRequest made;
            made.identifier = identifier;
            made.archivePath = thread % 2 == 0 ? "/var/mobile/Media/first.zip" : "/var/mobile/Media/second.zip";
            const auto installed = registry().installArchive(made);
            EXPECT_TRUE(installed) << errorText(installed.error());
        }
    });
    const auto app = registry().application(identifier);
    EXPECT_EQ(containers().size(), app ? 1U : 0U);
    if (app) {
        EXPECT_EQ(content(app->bundlePath + "/Name"), "executable of org.example.app " + *app->version);
    }
}

TEST_F(Concurrency, ReadersSeeWholeAppsWhileOthersInstall) {
    std::atomic<bool> isDone = false;
    std::thread reader([&] {
        while (!isDone) {
            workspace().enumerateBundlesOfType_block(PDBundleTypeAll, [](const PDApplicationProxyPtr& proxy, bool&) {
                EXPECT_FALSE(proxy->bundleIdentifier().empty());
                EXPECT_TRUE(proxy->bundleURL());
                (void)proxy->installProgressSync();
            });
            for (const Application& app : registry().applications()) {
                EXPECT_NE(app.isInstalled, app.isPlaceholder);
            }
        }
    });
    inThreads(3, [&](int thread) {
        for (int round = 0; round < 5; ++round) {
            const std::string app = numbered(thread);
            EXPECT_TRUE(registry().installPlaceholder(placeholder(app)));
            registry().progress(app)->setInstallState(PDInstallStateActive);
            EXPECT_TRUE(install(app));
            EXPECT_TRUE(registry().uninstall(app, RemovalReason::sync, RemovalScope::everything));
        }
    });
    isDone = true;
    reader.join();
    EXPECT_EQ(containers(), std::vector<std::string>());
}

TEST_F(Concurrency, ObserversComeAndGoWhileInstallsRun) {
    class Silent final : public PDApplicationWorkspaceObserver {};
    std::atomic<bool> isDone = false;
    std::thread follower([&] {
        while (!isDone) {
            Silent observer;
            workspace().addObserver(&observer);
            (void)registry().applications();
            workspace().removeObserver(&observer);
        }
    });
    inThreads(3, [&](int thread) {
        for (int round = 0; round < 5; ++round) {
            EXPECT_TRUE(install(numbered(thread), std::to_string(round)));
        }
    });
    isDone = true;
    follower.join();
    EXPECT_EQ(registry().applications().size(), 3U);
}

} // namespace
} // namespace appsync::device
