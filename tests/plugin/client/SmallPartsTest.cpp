// The client's small parts: identifier sets and pending retries.
#include "plugin/client/IdentifierSet.h"
#include "plugin/client/PendingRetries.h"
#include "tests/inmemory/World.h"

#include <gtest/gtest.h>

namespace appsync {
namespace {

using namespace std::chrono_literals;

TEST(IdentifierSets, HoldEachIdentifierOnceInTheOrderOfAdding) {
    IdentifierSet set;
    set.add("b");
    set.add("a");
    set.add("b");
    EXPECT_EQ(set.all(), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(set.count(), 2u);
    EXPECT_TRUE(set.contains("a"));
    set.remove("b");
    set.remove("unknown");
    EXPECT_FALSE(set.contains("b"));
    EXPECT_EQ(set.all(), std::vector<std::string>{"a"});
    set.removeAll();
    EXPECT_EQ(set.count(), 0u);
}

class Retries : public testing::Test {
  protected:
    inmemory::World world;
    int ran = 0;
};

TEST_F(Retries, RunWhenTheirTimeHasCome) {
    PendingRetries retries(world.clock);
    retries.runAfter(10s, [this] { ++ran; });
    retries.runAfter(20s, [this] { ran += 10; });
    world.clock.advance(9999ms);
    EXPECT_EQ(ran, 0);
    world.clock.advance(1ms);
    EXPECT_EQ(ran, 1);
    world.clock.advance(10s);
    EXPECT_EQ(ran, 11);
}

TEST_F(Retries, AreDroppedTogether) {
    {
        PendingRetries retries(world.clock);
        retries.runAfter(10s, [this] { ++ran; });
        retries.runAfter(20s, [this] { ++ran; });
        world.clock.advance(10s);
    }
    world.clock.advance(10s);
    EXPECT_EQ(ran, 1);
}

/// Runs a task before it answers, as a scheduler on another thread may.
class HastyScheduler final : public Scheduler {
  public:
    std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds, std::function<void()> task) noexcept override {
        task();
        return std::make_shared<Done>(cancels);
    }
    int cancels = 0;

  private:
    struct Done final : ScheduledTask {
        explicit Done(int& count) : cancelCount(count) {}
        bool cancel() noexcept override {
            ++cancelCount;
            return false;
        }
        int& cancelCount;
    };
};

TEST_F(Retries, MayRunBeforeTheSchedulerHasAnswered) {
    HastyScheduler scheduler;
    {
        PendingRetries retries(scheduler);
        retries.runAfter(1s, [this] { ++ran; });
    }
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(scheduler.cancels, 0);
}

TEST_F(Retries, MayBeDroppedBeforeTheSchedulerHasAnswered) {
    HastyScheduler scheduler;
    PendingRetries retries(scheduler);
    retries.runAfter(1s, [&retries, this] {
        retries.dropAll();
        ++ran;
    });
    EXPECT_EQ(ran, 1);
    retries.dropAll();
    EXPECT_EQ(scheduler.cancels, 0);
}

} // namespace
} // namespace appsync
