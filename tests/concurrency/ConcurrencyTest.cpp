// The small concurrency pieces.
#include "concurrency/AllCores.h"
#include "concurrency/CallGate.h"
#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "concurrency/Semaphore.h"
#include "concurrency/SerialQueue.h"
#include "concurrency/SharedTurns.h"
#include "tests/concurrency/NoMoreThreads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

namespace appsync {
namespace {

TEST(Semaphore, GivesWhatWasSignalled) {
    Semaphore semaphore;
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait());
    EXPECT_FALSE(semaphore.wait(std::chrono::milliseconds(0)));
}

TEST(Semaphore, BeginsWithItsCount) {
    Semaphore semaphore(2);
    EXPECT_TRUE(semaphore.wait(std::chrono::milliseconds(0)));
    EXPECT_TRUE(semaphore.wait(std::chrono::milliseconds(0)));
    EXPECT_FALSE(semaphore.wait(std::chrono::milliseconds(0)));
}

TEST(Semaphore, WakesAWaiterOnAnotherThread) {
    Semaphore asked;
    Semaphore answered;
    std::jthread other([&] {
        asked.wait();
        answered.signal();
    });
    asked.signal();
    EXPECT_TRUE(answered.wait());
}

TEST(Group, WaitsForEveryEntry) {
    Group group;
    group.wait();
    std::atomic<int> ended = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        group.enter();
        threads.emplace_back([&] {
            ++ended;
            group.leave();
        });
    }
    group.wait();
    EXPECT_EQ(ended, 4);
    EXPECT_EQ(group.count(), 0u);
}

TEST(SerialQueue, RunsOneTaskAtATime) {
    SerialQueue queue("label");
    int sum = 0;
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&] {
                for (int i = 0; i < 1000; ++i) {
                    queue.sync([&] { ++sum; });
                }
            });
        }
    }
    EXPECT_EQ(queue.sync([&] { return sum; }), 4000);
    EXPECT_EQ(queue.label(), "label");
}

TEST(OperationQueue, RunsAtMostItsLimitAtOnce) {
    constexpr int limit = 3;
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    std::latch allRun(limit);
    Group group;
    OperationQueue queue(limit);
    for (int i = 0; i < 20; ++i) {
        group.enter();
        queue.addOperation([&, i] {
            const int now = ++running;
            int seen = most;
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            if (i < limit) {
                allRun.arrive_and_wait(); // passes only when the first three run at the same time
            }
            --running;
            group.leave();
        });
    }
    group.wait();
    EXPECT_EQ(most, limit);
}

TEST(OperationQueue, BeginsOperationsInTheirOrder) {
    std::vector<int> order;
    Group group;
    OperationQueue queue(1);
    for (int i = 0; i < 10; ++i) {
        group.enter();
        queue.addOperation([&, i] {
            order.push_back(i);
            group.leave();
        });
    }
    group.wait();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(OperationQueue, ReleasesWhatAnOperationHoldsBeforeTheNextBegins) {
    Group group;
    OperationQueue queue(1);
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    bool wasReleased = false;
    group.enter();
    queue.addOperation([held = std::move(held)] {});
    queue.addOperation([&] {
        wasReleased = watched.expired();
        group.leave();
    });
    group.wait();
    EXPECT_TRUE(wasReleased);
}

TEST(OperationQueue, ItsEndWaitsForTheRunning) {
    Semaphore began;
    std::atomic<bool> mayEnd = false;
    std::atomic<bool> ended = false;
    std::jthread releaser;
    {
        OperationQueue queue(2);
        queue.addOperation([&] {
            began.signal();
            mayEnd.wait(false);
            ended = true;
        });
        began.wait();
        releaser = std::jthread([&] {
            mayEnd = true;
            mayEnd.notify_one();
        });
    }
    EXPECT_TRUE(ended);
}

TEST(OperationQueue, StoppingWaitsForTheRunningAndDropsTheRest) {
    Semaphore began;
    Semaphore mayEnd;
    std::atomic<bool> ended = false;
    std::atomic<bool> secondRan = false;
    OperationQueue queue(1);
    queue.addOperation([&] {
        began.signal();
        mayEnd.wait();
        ended = true;
    });
    // The running operation may end only when the waiting one has been dropped.
    std::shared_ptr<void> releaser(nullptr, [&](void*) { mayEnd.signal(); });
    queue.addOperation([&, held = std::move(releaser)] { secondRan = true; });
    began.wait();
    queue.stop();
    EXPECT_TRUE(ended);
    EXPECT_FALSE(secondRan);
    EXPECT_FALSE(queue.addOperation([] {}));
}

TEST(OperationQueue, RunsAnOperationAtOnceWhereNoThreadCanBeStarted) {
    OperationQueue queue(2);
    const NoMoreThreads noMore;
    std::thread::id runner;
    EXPECT_TRUE(queue.addOperation([&] { runner = std::this_thread::get_id(); }));
    EXPECT_EQ(runner, std::this_thread::get_id());
}

TEST(OperationQueue, LeavesAnOperationToTheThreadsThatItHasWhereNoFurtherOneCanBeStarted) {
    OperationQueue queue(2);
    Semaphore begun;
    Semaphore goOn;
    Semaphore done;
    queue.addOperation([&] {
        begun.signal();
        goOn.wait();
    });
    begun.wait();
    const NoMoreThreads noMore;
    EXPECT_TRUE(queue.addOperation([&] { done.signal(); }));
    goOn.signal();
    EXPECT_TRUE(done.wait(std::chrono::minutes(1)));
}

TEST(OperationQueue, HasAThreadForEveryOperationOnceItWasStarted) {
    OperationQueue queue(2);
    ASSERT_TRUE(queue.start());
    const NoMoreThreads noMore;
    EXPECT_TRUE(queue.start()) << "there is one already";
    std::thread::id runner;
    Semaphore done;
    queue.addOperation([&] {
        runner = std::this_thread::get_id();
        done.signal();
    });
    done.wait();
    EXPECT_NE(runner, std::this_thread::get_id());
}

TEST(OperationQueue, IsNotStartedWhereNoThreadCanBe) {
    OperationQueue queue(2);
    const NoMoreThreads noMore;
    EXPECT_FALSE(queue.start());
}

TEST(ForEachNumber, CallsOnceWithEach) {
    std::vector<std::atomic<int>> calls(100);
    forEachNumber(calls.size(), [&](std::size_t number) { ++calls[number]; });
    EXPECT_TRUE(std::ranges::all_of(calls, [](const auto& count) { return count == 1; }));
    forEachNumber(0, [](std::size_t /*number*/) { FAIL(); });
}

TEST(ForEachNumber, CallsOnSeveralThreadsAtOnce) {
    std::latch all(3);
    forEachNumber(
        3, [&](std::size_t /*number*/) { all.arrive_and_wait(); }, 3); // for ever with fewer
}

TEST(ForEachNumber, CallsOnItsOwnThreadWhereNoOtherCanBeStarted) {
    int calls = 0;
    const NoMoreThreads noMore;
    forEachNumber(
        3, [&](std::size_t /*number*/) { ++calls; }, 3);
    EXPECT_EQ(calls, 3);
}

TEST(CallGate, PassesCallsUntilItIsClosed) {
    CallGate gate;
    int calls = 0;
    EXPECT_TRUE(gate.pass([&] { ++calls; }));
    EXPECT_TRUE(gate.pass([&] { ++calls; }));
    gate.close();
    EXPECT_FALSE(gate.pass([&] { ++calls; }));
    gate.close();
    EXPECT_EQ(calls, 2);
}

/// A call on a thread of its own, which ends when somebody has closed the gate.
class RunningCall {
  public:
    explicit RunningCall(CallGate& gate)
        : _thread([&gate, this] {
              gate.pass([&] {
                  _begun.signal();
                  while (gate.pass([] {})) {
                      std::this_thread::yield();
                  }
                  mayEnd.wait();
                  hasEnded = true;
              });
          }) {
        _begun.wait();
    }
    Semaphore mayEnd;
    std::atomic<bool> hasEnded = false;

  private:
    Semaphore _begun;
    std::jthread _thread;
};

TEST(CallGate, ClosingWaitsForTheRunningCall) {
    CallGate gate;
    RunningCall call(gate);
    call.mayEnd.signal();
    gate.close();
    EXPECT_TRUE(call.hasEnded);
}

TEST(CallGate, EveryoneWhoClosesWaits) {
    CallGate gate;
    RunningCall call(gate);
    std::jthread first([&] { gate.close(); });
    std::jthread second([&] {
        gate.close();
        EXPECT_TRUE(call.hasEnded);
    });
    call.mayEnd.signal();
}

TEST(CallGate, ACallMayCloseItsOwnGate) {
    CallGate gate;
    gate.pass([&] { gate.close(); });
    EXPECT_FALSE(gate.pass([] {}));
}

TEST(CallGate, ACallThatClosesItWaitsForTheOthers) {
    CallGate gate;
    RunningCall other(gate);
    other.mayEnd.signal();
    gate.pass([&] {
        gate.close();
        EXPECT_TRUE(other.hasEnded);
    });
}

TEST(CallGate, ACallMayPassAgainFromWithinItself) {
    CallGate gate;
    int depth = 0;
    gate.pass([&] {
        ++depth;
        EXPECT_TRUE(gate.pass([&] { ++depth; }));
        gate.close();
        EXPECT_FALSE(gate.pass([&] { ++depth; }));
    });
    EXPECT_EQ(depth, 2);
}

TEST(SharedTurns, ServeOneWhoIsAloneOnItsThread) {
    SharedTurns<int> turns;
    int own = 7;
    int count = 0;
    for (int i = 0; i < 2; ++i) {
        turns.join(own, [&, caller = std::this_thread::get_id()](const std::vector<int*>& turn) {
            EXPECT_EQ(turn, std::vector<int*>{&own});
            EXPECT_EQ(std::this_thread::get_id(), caller);
            ++count;
        });
    }
    EXPECT_EQ(count, 2);
}

TEST(SharedTurns, ServeTogetherThoseWhoCameDuringATurn) {
    using Turn = std::vector<int*>;
    std::vector<std::size_t> sizes;
    // How far the others have come when the first turn ends is the machine's choice: give them more time each round.
    for (int patience = 1; sizes != std::vector<std::size_t>{1, 2}; patience *= 2) {
        ASSERT_LT(patience, 1 << 24) << "nobody has shared a turn";
        SharedTurns<int> turns;
        sizes.clear();
        std::atomic<int> coming = 0;
        std::vector<std::jthread> others;
        const auto come = [&] {
            int own = 0;
            ++coming;
            turns.join(own, [&](const Turn& turn) {
                sizes.push_back(turn.size());
                for (int* request : turn) {
                    ++*request;
                }
            });
            EXPECT_EQ(own, 1); // served once, and before it goes on
        };
        int first = 0;
        turns.join(first, [&](const Turn& turn) {
            sizes.push_back(turn.size());
            others.emplace_back(come);
            others.emplace_back(come);
            while (coming < 2) {
                std::this_thread::yield();
            }
            for (int i = 0; i < patience; ++i) {
                std::this_thread::yield();
            }
        });
    }
}

TEST(SharedTurns, AreWorkedOneAtATime) {
    SharedTurns<const int> turns;
    int served = 0; // guarded by the turns alone
    constexpr int threads = 4;
    constexpr int times = 500;
    {
        std::vector<std::jthread> callers;
        for (int thread = 0; thread < threads; ++thread) {
            callers.emplace_back([&] {
                for (int i = 0; i < times; ++i) {
                    turns.join(i,
                               [&](const std::vector<const int*>& turn) { served += static_cast<int>(turn.size()); });
                }
            });
        }
    }
    EXPECT_EQ(served, threads * times);
}

} // namespace
} // namespace appsync
