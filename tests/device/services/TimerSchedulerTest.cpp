#include "device/services/TimerScheduler.h"

#include "concurrency/Semaphore.h"
#include "tests/concurrency/NoMoreThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>

namespace appsync::device {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(TimerScheduler, RunsATaskNotBeforeItsDelayHasPassed) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    Semaphore ran;
    Clock::time_point time;
    const auto asked = Clock::now();
    auto task = scheduler.runAfter(30ms, [&] {
        time = Clock::now();
        ran.signal();
    });
    ran.wait();
    EXPECT_GE(time - asked, 30ms);
}

TEST(TimerScheduler, RunsATaskWhoseHandleWasDropped) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    Semaphore ran;
    (void)scheduler.runAfter(0ms, [&] { ran.signal(); });
    ran.wait();
}

TEST(TimerScheduler, RunsTheTaskThatIsDueFirstFirst) {
    TimerScheduler scheduler(1);
    ASSERT_TRUE(scheduler.start());
    Semaphore ran;
    std::string order;
    (void)scheduler.runAfter(60ms, [&] {
        order += 'b';
        ran.signal();
    });
    (void)scheduler.runAfter(1ms, [&] {
        order += 'a';
        ran.signal();
    });
    ran.wait();
    ran.wait();
    EXPECT_EQ(order, "ab");
}

TEST(TimerScheduler, RunsSeveralTasksAtOnce) {
    TimerScheduler scheduler(3);
    ASSERT_TRUE(scheduler.start());
    std::latch together(3); // passed only when all three are inside
    Semaphore ran;
    for (int i = 0; i < 3; ++i) {
        (void)scheduler.runAfter(0ms, [&] {
            together.arrive_and_wait();
            ran.signal();
        });
    }
    for (int i = 0; i < 3; ++i) {
        ran.wait();
    }
}

TEST(TimerScheduler, TakesBackATaskThatWaits) {
    std::atomic<int> runs = 0;
    {
        TimerScheduler scheduler;
        ASSERT_TRUE(scheduler.start());
        const auto task = scheduler.runAfter(24h, [&] { ++runs; });
        EXPECT_TRUE(task->cancel());
        EXPECT_TRUE(task->cancel()) << "a second time it is still true that the task never runs";
    }
    EXPECT_EQ(runs, 0);
}

TEST(TimerScheduler, TakesBackATaskThatIsDueButHasNoFreeWorker) {
    TimerScheduler scheduler(1);
    ASSERT_TRUE(scheduler.start());
    Semaphore started;
    Semaphore proceed;
    (void)scheduler.runAfter(0ms, [&] {
        started.signal();
        proceed.wait();
    });
    started.wait();
    std::atomic<int> runs = 0;
    const auto waiting = scheduler.runAfter(0ms, [&] { ++runs; });
    Semaphore last;
    (void)scheduler.runAfter(0ms, [&] { last.signal(); });
    EXPECT_TRUE(waiting->cancel());
    proceed.signal();
    last.wait();
    EXPECT_EQ(runs, 0);
}

TEST(TimerScheduler, CancelWaitsForARunningTaskAndAnswersFalse) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    Semaphore started;
    Semaphore cancelling;
    std::atomic<bool> ended = false;
    const auto task = scheduler.runAfter(0ms, [&] {
        started.signal();
        cancelling.wait();
        ended = true;
    });
    started.wait();
    std::thread helper([&] { cancelling.signal(); });
    EXPECT_FALSE(task->cancel());
    EXPECT_TRUE(ended);
    helper.join();
}

TEST(TimerScheduler, CancelAnswersFalseAfterTheTaskHasRun) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    Semaphore ran;
    const auto task = scheduler.runAfter(0ms, [&] { ran.signal(); });
    ran.wait();
    EXPECT_FALSE(task->cancel());
}

TEST(TimerScheduler, ATaskMayCancelItself) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    Semaphore handed;
    Semaphore ran;
    std::shared_ptr<ScheduledTask> task;
    bool answer = true;
    task = scheduler.runAfter(0ms, [&] {
        handed.wait();
        answer = task->cancel();
        ran.signal();
    });
    handed.signal();
    ran.wait();
    EXPECT_FALSE(answer);
}

TEST(TimerScheduler, WhatATaskHoldsIsGoneOnceItWasCancelled) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = held;
    const auto task = scheduler.runAfter(24h, [held = std::move(held)] {});
    EXPECT_FALSE(watch.expired());
    EXPECT_TRUE(task->cancel());
    EXPECT_TRUE(watch.expired());
}

TEST(TimerScheduler, TheEndDropsWhatWaitsAndWaitsForWhatRuns) {
    std::atomic<int> dropped = 0;
    std::atomic<bool> ended = false;
    std::shared_ptr<ScheduledTask> waiting;
    Semaphore started;
    {
        TimerScheduler scheduler;
        ASSERT_TRUE(scheduler.start());
        waiting = scheduler.runAfter(24h, [&] { ++dropped; });
        (void)scheduler.runAfter(0ms, [&] {
            started.signal();
            ended = true;
        });
        started.wait();
    }
    EXPECT_TRUE(ended);
    EXPECT_EQ(dropped, 0);
    EXPECT_TRUE(waiting->cancel()) << "a handle may outlive the scheduler";
}

TEST(TimerScheduler, AcceptsDelaysThatTheClockCannotHold) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    Semaphore ran;
    const auto never = scheduler.runAfter(std::chrono::milliseconds::max(), [] {});
    (void)scheduler.runAfter(std::chrono::milliseconds::min(), [&] { ran.signal(); });
    ran.wait();
    EXPECT_TRUE(never->cancel());
}

TEST(TimerScheduler, RunsEachOfManyTasksOnceWhileOthersAreCancelled) {
    std::atomic<int> runs = 0;
    int taken = 0;
    constexpr int count = 500;
    Semaphore ran;
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    std::vector<std::shared_ptr<ScheduledTask>> tasks;
    for (int i = 0; i < count; ++i) {
        tasks.push_back(scheduler.runAfter(std::chrono::milliseconds(i % 5), [&] {
            ++runs;
            ran.signal();
        }));
    }
    for (int i = 0; i < count; i += 2) {
        taken += tasks[static_cast<std::size_t>(i)]->cancel() ? 1 : 0;
    }
    for (int i = 0; i < count - taken; ++i) {
        ran.wait();
    }
    EXPECT_EQ(runs + taken, count);
}

TEST(TimerScheduler, RunsATaskAlsoWhereTheSystemHasNoFurtherThreadForIt) {
    TimerScheduler scheduler;
    ASSERT_TRUE(scheduler.start());
    const NoMoreThreads noMore;
    Semaphore ran;
    (void)scheduler.runAfter(0ms, [&] { ran.signal(); });
    ran.wait();
}

TEST(TimerScheduler, SaysThatTheSystemHasNoThreadForIt) {
    TimerScheduler scheduler;
    const NoMoreThreads noMore;
    const auto started = scheduler.start();
    EXPECT_TRUE(isError(started.error(), posixErrorDomain, EAGAIN));
    EXPECT_NE(errorText(started.error()).find("the scheduler"), std::string::npos) << errorText(started.error());
}

} // namespace
} // namespace appsync::device
