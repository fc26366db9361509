// What the registry tells its observers, when, and until when.
#include "tests/contract/Apps.h"

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

namespace appsync::contract {
namespace {

using Names = std::vector<std::string>;

Names namesOf(const PDApplicationProxies& applications) {
    Names names;
    for (const PDApplicationProxyPtr& application : applications) {
        names.push_back(application->bundleIdentifier());
    }
    return names;
}

/// Keeps what it is told. `Base` is either of the two that an observer may derive from.
template <class Base> class Listener final : public Base {
  public:
    void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies& prioritized,
                                                     const PDApplicationProxies& paused) noexcept override {
        _tell([&] {
            _prioritized = namesOf(prioritized);
            _paused = namesOf(paused);
            ++_lists;
        });
        during();
    }
    void applicationInstallsDidCancel(const PDApplicationProxies& applications) noexcept override {
        _tell([&] { _cancelled.push_back(namesOf(applications)); });
    }

    [[nodiscard]] testing::AssertionResult waitForLists(const Names& prioritized, const Names& paused) {
        return _wait([&] { return _lists > 0 && _prioritized == prioritized && _paused == paused; },
                     "the lists of installs: under way " + testing::PrintToString(prioritized) + ", paused " +
                         testing::PrintToString(paused));
    }
    [[nodiscard]] testing::AssertionResult waitForCancel(const Names& applications) {
        return _wait([&] { return std::ranges::find(_cancelled, applications) != _cancelled.end(); },
                     "the cancel of " + testing::PrintToString(applications));
    }
    [[nodiscard]] testing::AssertionResult isToldAnything() {
        return _wait([&] { return _lists > 0; }, "the first lists of installs");
    }
    [[nodiscard]] std::thread::id thread() {
        const std::lock_guard lock(_mutex);
        return _thread;
    }
    [[nodiscard]] int lists() {
        const std::lock_guard lock(_mutex);
        return _lists;
    }
    /// Runs within each call with lists.
    std::function<void()> during = [] {};

  private:
    void _tell(const std::function<void()>& note) {
        EXPECT_EQ(_running.fetch_add(1), 0) << "one call at a time";
        {
            const std::lock_guard lock(_mutex);
            note();
            _thread = std::this_thread::get_id();
            _told.notify_all();
        }
        _running.fetch_sub(1);
    }
    [[nodiscard]] testing::AssertionResult _wait(const std::function<bool()>& condition, const std::string& awaited) {
        std::unique_lock lock(_mutex);
        return awaitOn(_told, lock, condition, awaited);
    }

    std::atomic<int> _running = 0;
    std::mutex _mutex;
    std::condition_variable _told;
    Names _prioritized;
    Names _paused;
    std::vector<Names> _cancelled;
    int _lists = 0;
    std::thread::id _thread;
};
using Observer = Listener<PDApplicationWorkspaceObserverProtocol>;
using Query = Listener<PDApplicationWorkspaceObserver>;

/// Has an observer listen, at most as long as this lives.
class Listening {
  public:
    Listening(const Apps& apps, PDApplicationWorkspaceObserverProtocol& observer) : _apps(apps), _observer(&observer) {
        _apps.workspace().addObserver(_observer);
    }
    ~Listening() { end(); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
    void end() {
        if (auto* observer = std::exchange(_observer, nullptr)) {
            _apps.workspace().removeObserver(observer);
        }
    }

  private:
    const Apps& _apps;
    PDApplicationWorkspaceObserverProtocol* _observer;
};

} // namespace

TEST_P(RegistryObserverContract, EveryNewObserverIsToldTheListsOnAThreadOfTheRegistryAlsoWhenTheyAreEmpty) {
    const Apps apps(device(), platform());
    Observer first;
    Query second;
    const Listening firstListens(apps, first);
    EXPECT_TRUE(first.waitForLists({}, {}));
    const Listening secondListens(apps, second);
    EXPECT_TRUE(second.waitForLists({}, {}));
    EXPECT_NE(first.thread(), std::this_thread::get_id());
    EXPECT_NE(second.thread(), std::this_thread::get_id());
}

TEST_P(RegistryObserverContract, AnObserverThatIsAddedAgainIsToldAgain) {
    const Apps apps(device(), platform());
    for (int time = 0; time < 3; ++time) {
        Query query;
        Listening listening(apps, query);
        ASSERT_TRUE(query.isToldAnything());
        listening.end();
        EXPECT_EQ(query.lists(), 1) << "once, while nothing changes";
    }
}

TEST_P(RegistryObserverContract, InstallsUnderWayAreToldAndSoAreThosePaused) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    ASSERT_TRUE(apps.installPlaceholder(B));
    Observer observer;
    const Listening observerListens(apps, observer);
    EXPECT_TRUE(observer.waitForLists({}, {}));
    apps.progress(A)->setInstallState(PDInstallStateActive);
    EXPECT_TRUE(observer.waitForLists({A}, {}));
    apps.progress(B)->setInstallState(PDInstallStatePaused);
    EXPECT_TRUE(observer.waitForLists({A}, {B}));
    Query late;
    const Listening lateListens(apps, late);
    EXPECT_TRUE(late.waitForLists({A}, {B})) << "a new observer is told how things stand";
    const auto progress = apps.progress(A);
    progress->setInstallState(PDInstallStateFailed);
    EXPECT_TRUE(observer.waitForLists({}, {B}));
    EXPECT_TRUE(late.waitForLists({}, {B}));
}

TEST_P(RegistryObserverContract, ACancelByAPersonIsToldAndEndsTheInstall) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.install(A));
    ASSERT_TRUE(apps.installPlaceholder(A));
    const auto progress = apps.progress(A);
    Observer observer;
    const Listening observerListens(apps, observer);
    device().cancelByPerson(A);
    EXPECT_TRUE(observer.waitForCancel({A}));
    EXPECT_EQ(progress->installState(), PDInstallStateCanceled);
    EXPECT_FALSE(apps.appOrPlaceholder(A)->isPlaceholder()) << "the installed version stays";
}

TEST_P(RegistryObserverContract, RemovingAnObserverWaitsForARunningCallAndNoneFollows) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    Signal inside("a call of the observer");
    Signal proceed("the removal of the observer");
    Signal left("the end of the call");
    std::atomic<bool> hasLeft = false;
    Observer observer;
    observer.during = [&] {
        inside.raise();
        EXPECT_TRUE(proceed.wait());
        hasLeft = true;
        left.raise();
    };
    Listening listening(apps, observer);
    ASSERT_TRUE(inside.wait());
    std::thread helper([&] { proceed.raise(); });
    listening.end();
    EXPECT_TRUE(hasLeft);
    helper.join();
    EXPECT_TRUE(left.wait());
    const int told = observer.lists();
    Query witness;
    const Listening witnessListens(apps, witness);
    apps.progress(A)->setInstallState(PDInstallStateActive);
    EXPECT_TRUE(witness.waitForLists({A}, {}));
    EXPECT_EQ(observer.lists(), told);
}

TEST_P(RegistryObserverContract, AnObserverMayUseTheRegistryWithinACall) {
    const Apps apps(device(), platform());
    ASSERT_TRUE(apps.installPlaceholder(A));
    Signal looked("a call of the observer");
    Observer observer;
    observer.during = [&] {
        EXPECT_TRUE(apps.workspace().applicationIsInstalled(A));
        EXPECT_EQ(apps.visited(PDBundleTypeAll), Names{A + "?"});
        looked.raise();
    };
    const Listening observerListens(apps, observer);
    EXPECT_TRUE(looked.wait());
}

TEST_P(RegistryObserverContract, ObserversMayComeAndGoOnSeveralThreads) {
    const Apps apps(device(), platform());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&apps, thread] {
            for (int i = 0; i < 20; ++i) {
                Query query;
                const Listening listening(apps, query);
                if ((i + thread) % 2 == 0) {
                    ASSERT_TRUE(query.isToldAnything());
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace appsync::contract
