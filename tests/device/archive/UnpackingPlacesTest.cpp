// Who may unpack at the same time.
#include "ExtractionFixture.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stop_token>
#include <string>
#include <thread>

namespace appsync::device {
namespace {

/// Returns when the thread of this number, which may be about to be known, waits for something.
void waitUntilItWaits(const std::atomic<pid_t>& thread) {
    std::string state;
    while (state != "S") {
        std::this_thread::yield();
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string name; // "(...)", without a space in it
        file >> state >> name >> state;
    }
}

TEST(UnpackingPlaces, AreAsManyAsThereShallBe) {
    UnpackingPlaces places(2);
    std::stop_source cancelled;
    cancelled.request_stop();
    const auto first = places.take({});
    auto second = places.take({});
    EXPECT_FALSE(places.take(cancelled.get_token()));
    second.reset();
    EXPECT_TRUE(places.take({}));
}

TEST(UnpackingPlaces, LeaveTheLastOneToWhoComesNext) {
    UnpackingPlaces places(3);
    const auto first = places.take({});
    const auto second = places.takeSpare();
    EXPECT_TRUE(second);
    EXPECT_FALSE(places.takeSpare());
    EXPECT_TRUE(places.take({}));
}

TEST(UnpackingPlaces, OneThatIsGivenBackGoesToWhoWaits) {
    UnpackingPlaces places(1);
    auto first = places.take({});
    std::atomic<pid_t> waiting = 0;
    std::jthread other([&] {
        waiting = ::gettid();
        EXPECT_TRUE(places.take({}));
    });
    waitUntilItWaits(waiting);
    first.reset();
}

TEST(UnpackingPlaces, WaitingForOneCanBeCancelled) {
    UnpackingPlaces places(1);
    const auto taken = places.take({});
    std::stop_source cancellation;
    std::atomic<pid_t> waiting = 0;
    std::jthread other([&] {
        waiting = ::gettid();
        EXPECT_FALSE(places.take(cancellation.get_token()));
    });
    waitUntilItWaits(waiting);
    cancellation.request_stop();
}

TEST(UnpackingPlaces, HandOnTheirMemoryAsLongAsSomebodyUnpacks) {
    UnpackingPlaces places(2);
    auto first = places.take({});
    auto second = places.take({});
    second->memory().content.grow(1);
    second.reset();
    const auto third = places.take({});
    EXPECT_TRUE(third->memory().content.data());
}

TEST(UnpackingPlaces, KeepNoMemoryWhenNobodyUnpacks) {
    UnpackingPlaces places(2);
    places.take({})->memory().content.grow(1);
    EXPECT_FALSE(places.take({})->memory().content.data());
}

TEST_F(ExtractionTest, InstallThatWaitsForAPlaceCanBeCancelled) {
    places.emplace(1);
    const auto taken = places->take({});
    std::stop_source cancellation;
    request.cancel = cancellation.get_token();
    const std::atomic<pid_t> waiting = ::gettid();
    std::jthread person([&] {
        waitUntilItWaits(waiting);
        cancellation.request_stop();
    });
    EXPECT_EQ(refusalOf(app().bytes()), code(InstallerError::cancelled));
    EXPECT_FALSE(exists("Name.app"));
}

} // namespace
} // namespace appsync::device
