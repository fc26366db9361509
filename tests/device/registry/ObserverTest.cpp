#include "RegistryFixture.h"

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

namespace appsync::device {
namespace {

/// Keeps what it is told, and lets a test wait for it.
class Probe final : public PDApplicationWorkspaceObserver {
  public:
    using Identifiers = std::vector<std::string>;

    void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies& prioritized,
                                                     const PDApplicationProxies& paused) noexcept override {
        const std::lock_guard lock(_mutex);
        _lists.emplace_back(identifiersOf(prioritized), identifiersOf(paused));
        _proxies = prioritized;
        _changed.notify_all();
    }
    void applicationInstallsDidCancel(const PDApplicationProxies& applications) noexcept override {
        const std::lock_guard lock(_mutex);
        _cancelled.push_back(identifiersOf(applications));
        _changed.notify_all();
    }

    /// Waits until these lists are the last that it was told.
    void waitForLists(const Identifiers& prioritized, const Identifiers& paused) {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [&] { return !_lists.empty() && _lists.back() == std::pair(prioritized, paused); });
    }
    Identifiers waitForCancellation() {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [&] { return !_cancelled.empty(); });
        return _cancelled.front();
    }
    PDApplicationProxies proxies() {
        const std::lock_guard lock(_mutex);
        return _proxies;
    }
    std::size_t calls() {
        const std::lock_guard lock(_mutex);
        return _lists.size();
    }

  private:
    static Identifiers identifiersOf(const PDApplicationProxies& applications) {
        Identifiers identifiers;
        for (const PDApplicationProxyPtr& application : applications) {
            identifiers.push_back(application->applicationIdentifier());
        }
        return identifiers;
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<std::pair<Identifiers, Identifiers>> _lists;
    std::vector<Identifiers> _cancelled;
    PDApplicationProxies _proxies;
};

class Observing : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        for (const std::string app : {"org.example.a", "org.example.b"}) {
            ASSERT_TRUE(registry().installPlaceholder(placeholder(app)));
        }
    }
    void observe() { workspace().addObserver(&probe); }
    void TearDown() override {
        workspace().removeObserver(&probe);
        RegistryTest::TearDown();
    }
    void start(const std::string& app) { registry().progress(app)->setInstallState(PDInstallStateActive); }

    Probe probe;
};

TEST_F(Observing, NewObserverHearsTheListsEvenWhenNothingIsUnderWay) {
    observe();
    probe.waitForLists({}, {});
}

TEST_F(Observing, ListsHoldTheInstallsUnderWayInTheOrderOfTheirBeginning) {
    start("org.example.b");
    start("org.example.a");
    observe();
    probe.waitForLists({"org.example.b", "org.example.a"}, {});
    const auto proxy = probe.proxies().at(0);
    EXPECT_TRUE(proxy->isPlaceholder());
    EXPECT_EQ(proxy->installType(), PDInstallTypeSync);
    EXPECT_EQ(proxy->installProgressSync(), registry().existingProgress("org.example.b"));
}

TEST_F(Observing, PrioritizedInstallComesFirst) {
    start("org.example.a");
    start("org.example.b");
    observe();
    probe.waitForLists({"org.example.a", "org.example.b"}, {});
    registry().prioritize("org.example.b");
    probe.waitForLists({"org.example.b", "org.example.a"}, {});
    registry().prioritize("org.example.a");
    probe.waitForLists({"org.example.a", "org.example.b"}, {});
    registry().prioritize("org.example.unknown");
}

TEST_F(Observing, PausedInstallsAreListedApart) {
    start("org.example.a");
    start("org.example.b");
    observe();
    registry().progress("org.example.a")->setInstallState(PDInstallStatePaused);
    probe.waitForLists({"org.example.b"}, {"org.example.a"});
    registry().progress("org.example.a")->setInstallState(PDInstallStateActive);
    probe.waitForLists({"org.example.a", "org.example.b"}, {});
}

TEST_F(Observing, EndedInstallsLeaveTheLists) {
    start("org.example.a");
    observe();
    probe.waitForLists({"org.example.a"}, {});
    const auto progress = registry().progress("org.example.a");
    progress->setInstallState(PDInstallStateFailed);
    probe.waitForLists({}, {});
}

TEST_F(Observing, ProgressAloneIsNoNews) {
    start("org.example.a");
    observe();
    probe.waitForLists({"org.example.a"}, {});
    const std::size_t calls = probe.calls();
    const auto progress = registry().progress("org.example.a");
    progress->setTotalUnitCount(1'000);
    for (int units = 0; units < 100; ++units) {
        progress->setCompletedUnitCount(units);
    }
    start("org.example.b");
    probe.waitForLists({"org.example.a", "org.example.b"}, {});
    EXPECT_EQ(probe.calls(), calls + 1);
}

TEST_F(Observing, EveryObserverHearsItsOwnFirstLists) {
    observe();
    probe.waitForLists({}, {});
    Probe second;
    workspace().addObserver(&second);
    second.waitForLists({}, {});
    workspace().removeObserver(&second);
    EXPECT_EQ(probe.calls(), 1U);
}

TEST_F(Observing, InstallThatAPersonCancelsIsReported) {
    start("org.example.a");
    observe();
    probe.waitForLists({"org.example.a"}, {});
    const auto progress = registry().existingProgress("org.example.a");
    EXPECT_TRUE(registry().cancelInstall("org.example.a"));
    EXPECT_EQ(probe.waitForCancellation(), std::vector<std::string>{"org.example.a"});
    EXPECT_EQ(progress->installState(), PDInstallStateCanceled);
    EXPECT_FALSE(registry().application("org.example.a"));
    EXPECT_FALSE(registry().cancelInstall("org.example.a"));
    EXPECT_TRUE(removedApps()->empty());
}

TEST_F(Observing, PlaceholderThatAPersonRemovesIsACancelledInstall) {
    observe();
    ASSERT_TRUE(registry().uninstall("org.example.b", RemovalReason::person, RemovalScope::everything));
    EXPECT_EQ(probe.waitForCancellation(), std::vector<std::string>{"org.example.b"});
}

TEST_F(Observing, PlaceholderThatTheSyncRemovesIsNoCancelledInstall) {
    observe();
    ASSERT_TRUE(registry().uninstall("org.example.a", RemovalReason::sync, RemovalScope::everything));
    ASSERT_TRUE(registry().uninstall("org.example.b", RemovalReason::person, RemovalScope::everything));
    EXPECT_EQ(probe.waitForCancellation(), std::vector<std::string>{"org.example.b"}) << "the first that is told";
}

TEST_F(Observing, RunningInstallIsCancelledByAPerson) {
    observe();
    auto made = request(app("org.example.a").file("Name.app/large", std::string(3'000'000, 'x')).stored().bytes(),
                        "org.example.a");
    std::thread person;
    made.progress = [&](double) {
        if (!person.joinable()) {
            person = std::thread([this] { EXPECT_TRUE(registry().cancelInstall("org.example.a")); });
        }
        // Goes on only when the person's wish has arrived.
        while (registry().existingProgress("org.example.a")->installState() != PDInstallStateCanceled) {
            std::this_thread::yield();
        }
    };
    const auto failed = registry().installArchive(made);
    person.join();
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::cancelled));
    EXPECT_EQ(probe.waitForCancellation(), std::vector<std::string>{"org.example.a"});
    EXPECT_FALSE(registry().application("org.example.a"));
    EXPECT_EQ(containers().size(), 1U);
}

TEST_F(Observing, CancelledUpdateWithoutPlaceholderIsReportedWithTheInstalledVersion) {
    ASSERT_TRUE(install());
    observe();
    auto made = request(app(identifier, "2.0").file("Name.app/large", std::string(3'000'000, 'x')).stored().bytes());
    std::thread person;
    made.progress = [&](double) {
        if (!person.joinable()) {
            person = std::thread([this] { EXPECT_TRUE(registry().cancelInstall(identifier)); });
        }
        while (registry().existingProgress(identifier)->installState() != PDInstallStateCanceled) {
            std::this_thread::yield();
        }
    };
    EXPECT_FALSE(registry().installArchive(made));
    person.join();
    EXPECT_EQ(probe.waitForCancellation(), std::vector<std::string>{identifier});
    EXPECT_EQ(registry().application(identifier)->version, "1.0");
}

TEST_F(Observing, RemovalByAPersonEndsTheRunningInstall) {
    auto made = request(app("org.example.a").file("Name.app/large", std::string(3'000'000, 'x')).stored().bytes(),
                        "org.example.a");
    std::thread person;
    made.progress = [&](double) {
        if (!person.joinable()) {
            person = std::thread([this] {
                EXPECT_TRUE(registry().uninstall("org.example.a", RemovalReason::person, RemovalScope::everything));
            });
        }
        while (registry().existingProgress("org.example.a")->installState() != PDInstallStateCanceled) {
            std::this_thread::yield();
        }
    };
    EXPECT_FALSE(registry().installArchive(made));
    person.join();
    EXPECT_FALSE(registry().application("org.example.a"));
    EXPECT_TRUE(removedApps()->empty());
}

/// An observer whose first call waits until it is let go.
class SlowObserver final : public PDApplicationWorkspaceObserver {
  public:
    void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies&,
                                                     const PDApplicationProxies&) noexcept override {
        std::unique_lock lock(_mutex);
        _isRunning = true;
        _changed.notify_all();
        _changed.wait(lock, [this] { return _mayEnd; });
        _hasEnded = true;
    }
    void waitUntilRunning() {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [this] { return _isRunning; });
    }
    void letGo() {
        const std::lock_guard lock(_mutex);
        _mayEnd = true;
        _changed.notify_all();
    }
    bool hasEnded() {
        const std::lock_guard lock(_mutex);
        return _hasEnded;
    }

  private:
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _isRunning = false;
    bool _mayEnd = false;
    bool _hasEnded = false;
};

TEST_F(Observing, RemovingAnObserverWaitsForItsRunningCall) {
    SlowObserver slow;
    workspace().addObserver(&slow);
    slow.waitUntilRunning();
    std::thread remover([&] {
        workspace().removeObserver(&slow);
        EXPECT_TRUE(slow.hasEnded());
    });
    slow.letGo();
    remover.join();
}

TEST_F(Observing, RemovedObserverHearsNothingMore) {
    {
        const auto shortLived = std::make_unique<Probe>();
        workspace().addObserver(shortLived.get());
        workspace().removeObserver(shortLived.get());
    }
    observe();
    start("org.example.a");
    probe.waitForLists({"org.example.a"}, {});
}

TEST_F(Observing, ChangesAreToldAfterAPause) {
    observe();
    probe.waitForLists({}, {});
    const auto before = std::chrono::steady_clock::now();
    start("org.example.a");
    probe.waitForLists({"org.example.a"}, {});
    start("org.example.b");
    probe.waitForLists({"org.example.a", "org.example.b"}, {});
    EXPECT_GE(std::chrono::steady_clock::now() - before, Announcer::pause);
}

TEST_F(Observing, ObserverMayLookUpTheRegistry) {
    class Asking final : public PDApplicationWorkspaceObserver {
      public:
        explicit Asking(Registry& registry) : _registry(registry) {}
        void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies&,
                                                         const PDApplicationProxies&) noexcept override {
            found.set_value(_registry.applications().size());
        }
        std::promise<std::size_t> found;

      private:
        Registry& _registry;
    };
    Asking asking(registry());
    workspace().addObserver(&asking);
    EXPECT_EQ(asking.found.get_future().get(), 2U);
    workspace().removeObserver(&asking);
}

} // namespace
} // namespace appsync::device
