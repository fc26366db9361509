// Who hears the coordinator's reports, when and how.
#include "concurrency/Semaphore.h"
#include "tests/device/coordinator/CoordinatorTest.h"

#include <thread>

namespace appsync::device {
namespace {

class InstallObserversTest : public testing::Test {
  protected:
    ~InstallObserversTest() override { undelivered.wait(); }

    std::shared_ptr<KXAppInstallObserver> connect(Reports& reports, const std::set<KXClientIdentifier>& clients = {3}) {
        return observers.initWithMachServiceName_forClients_delegate(observerServiceName, clients, &reports);
    }
    void report(KXClientIdentifier creator, std::uint64_t number, KXAppInstallObserverDelegate* observer = nullptr,
                const std::string& app = A) {
        observers.report(app, creator, observer, [number](KXAppInstallObserverDelegate& delegate) {
            delegate.promiseDidBeginFulfillmentWithIdentifier(number);
        });
    }

    Group undelivered;
    InstallObservers observers{undelivered};
    Reports first;
    Reports second;
};

TEST_F(InstallObserversTest, ConnectsToItsOwnServiceWithADelegateOnly) {
    EXPECT_EQ(observers.initWithMachServiceName_forClients_delegate("com.example.other", {3}, &first), nullptr);
    EXPECT_EQ(observers.initWithMachServiceName_forClients_delegate(observerServiceName, {3}, nullptr), nullptr);
    EXPECT_NE(connect(first), nullptr);
}

TEST_F(InstallObserversTest, ReportsGoToTheConnectionsForTheCreatorInTheirOrder) {
    const auto one = connect(first, {3, 7});
    const auto two = connect(second, {1});
    for (std::uint64_t i = 0; i < 50; ++i) {
        report(i % 2 ? 3 : 1, i);
    }
    report(7, 50);
    undelivered.wait();
    Lines expected;
    for (int i = 1; i < 50; i += 2) {
        expected.push_back("promise " + std::to_string(i));
    }
    expected.push_back("promise 50");
    EXPECT_EQ(first.lines(), expected);
    EXPECT_EQ(second.lines().size(), 25U);
}

TEST_F(InstallObserversTest, TwoConnectionsForOneClientBothHear) {
    const auto one = connect(first);
    const auto two = connect(second);
    report(3, 1);
    undelivered.wait();
    EXPECT_EQ(first.lines().size(), 1U);
    EXPECT_EQ(second.lines().size(), 1U);
}

TEST_F(InstallObserversTest, ReportsWithoutAConnectionWaitForTheNext) {
    report(3, 1);
    report(1, 2);
    undelivered.wait();
    const auto one = connect(first);
    report(3, 3);
    undelivered.wait();
    EXPECT_EQ(first.lines(), (Lines{"promise 1", "promise 3"}));
    const auto two = connect(second, {1});
    undelivered.wait();
    EXPECT_EQ(second.lines(), Lines{"promise 2"});
}

TEST_F(InstallObserversTest, OfTooManyWaitingReportsTheOldestGo) {
    for (std::uint64_t i = 0; i < maxHeldReports + 10; ++i) {
        report(3, i);
    }
    undelivered.wait();
    const auto one = connect(first);
    undelivered.wait();
    ASSERT_EQ(first.lines().size(), maxHeldReports);
    EXPECT_EQ(first.lines().front(), "promise 10");
}

TEST_F(InstallObserversTest, ACoordinatorsObserverIsToldThroughTheConnectionAndOnce) {
    auto one = connect(first);
    report(3, 1, &second);
    report(3, 2, &first);
    undelivered.wait();
    EXPECT_EQ(first.lines(), (Lines{"promise 1", "promise 2"}));
    EXPECT_EQ(second.lines(), Lines{"promise 1"});
    const auto two = connect(second);
    report(3, 3, &second);
    undelivered.wait();
    EXPECT_EQ(first.lines().back(), "promise 3");
    EXPECT_EQ(second.lines(), (Lines{"promise 1", "promise 3"}));
}

TEST_F(InstallObserversTest, AnObserverIsToldOnceThroughSeveralConnections) {
    const auto one = connect(first);
    const auto two = connect(first);
    report(3, 1, &second);
    undelivered.wait();
    EXPECT_EQ(first.lines().size(), 2U);
    EXPECT_EQ(second.lines().size(), 1U);
}

TEST_F(InstallObserversTest, DroppingAConnectionWaitsForItsRunningCallAndNoneFollows) {
    Semaphore inside;
    Semaphore proceed;
    std::atomic<bool> hasLeft = false;
    first.during = [&](const std::string& line) {
        if (line == "promise 1") {
            inside.signal();
            proceed.wait();
            hasLeft = true;
        }
    };
    auto one = connect(first);
    report(3, 1);
    inside.wait();
    std::thread helper([&] { proceed.signal(); });
    one.reset();
    EXPECT_TRUE(hasLeft);
    report(3, 2);
    helper.join();
    undelivered.wait();
    EXPECT_EQ(first.lines(), Lines{"promise 1"});
}

TEST_F(InstallObserversTest, CallsAboutOtherAppsDoNotWaitForOne) {
    Semaphore others;
    first.during = [&](const std::string& line) {
        if (line == "promise 1") {
            EXPECT_TRUE(others.wait(std::chrono::minutes(1)));
        } else if (line != "promise 2") {
            others.signal();
        }
    };
    const auto one = connect(first);
    report(3, 1, nullptr, A);
    report(3, 2, nullptr, A);
    report(3, 3, nullptr, B);
    undelivered.wait();
    Lines lines = first.lines();
    EXPECT_EQ(std::erase(lines, "promise 3"), 1U);
    EXPECT_EQ(lines, (Lines{"promise 1", "promise 2"}));
}

TEST_F(InstallObserversTest, SaysWhenSomebodyHasBeenTold) {
    std::atomic<int> told = 0;
    const auto call = [](KXAppInstallObserverDelegate& delegate) { delegate.shouldPrioritizeAppWithBundleID("a"); };
    observers.report(A, 3, nullptr, call, [&] { ++told; });
    undelivered.wait();
    EXPECT_EQ(told, 0);
    const auto one = connect(first);
    const auto two = connect(second);
    observers.report(A, 3, nullptr, call, [&] { ++told; });
    undelivered.wait();
    EXPECT_EQ(told, 2);
}

TEST_F(InstallObserversTest, ADelegateMayDropItsConnectionWithinACall) {
    auto one = connect(first);
    first.during = [&](const std::string&) { one.reset(); };
    report(3, 1);
    undelivered.wait();
    EXPECT_EQ(first.lines().size(), 1U);
}

TEST_F(InstallObserversTest, OtherTasksRunAfterTheReportsMadeBefore) {
    const auto one = connect(first);
    std::size_t before = 0;
    report(3, 1);
    observers.run(A, [&] { before = first.lines().size(); });
    undelivered.wait();
    EXPECT_EQ(before, 1U);
}

TEST_F(CoordinatorTest, ReportsOfOneClientsCoordinatorsDoNotReachAnother) {
    const auto made = lookUp(classes().initiatingCoordinators, A, true, KXClientCorbin);
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->hasPlaceholder(A));
    EXPECT_TRUE(reports.lines().empty());
}

TEST_F(CoordinatorTest, ADelegateMayUseTheCoordinatorWithinACall) {
    reports.during = [this](const std::string& line) {
        if (line.starts_with("placeholder")) {
            deliver({find(A), find(A)->appAssetPromiseWithError(nullptr), nullptr, {}}, makeArchive(A));
        }
    };
    (void)prepare(A);
    coordinator->waitUntilIdle();
    EXPECT_TRUE(registry->isInstalled(A)) << "what a delegate sets off counts as not idle";
    EXPECT_EQ(reports.lines(), (Lines{"placeholder " + A, "promise 1", "completed " + A}));
}

TEST_F(CoordinatorTest, AnObserverNamedOnTheCoordinatorIsTold) {
    Reports own;
    const auto made = lookUp(classes().initiatingCoordinators, A, true);
    made->setObserver(&own);
    ASSERT_TRUE(made->setPlaceholderPromise_error(makePlaceholder(A), nullptr));
    coordinator->waitUntilIdle();
    EXPECT_EQ(own.lines(), Lines{"placeholder " + A});
    EXPECT_EQ(reports.lines(), Lines{"placeholder " + A});
}

} // namespace
} // namespace appsync::device
