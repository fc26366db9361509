#include "device/root/DiskRoom.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace appsync::device {
namespace {

class Room : public testing::Test {
  protected:
    std::atomic<std::uint64_t> free = 100;
    DiskRoom room{[this] { return std::optional<std::uint64_t>(free); }};
    std::stop_source source;
};

TEST_F(Room, IsPromisedAsLongAsThereIsSome) {
    DiskRoom::Share one(room);
    DiskRoom::Share other(room);
    EXPECT_EQ(one.take(60, {}), std::nullopt);
    EXPECT_EQ(other.take(40, {}), std::nullopt);
}

TEST_F(Room, IsMissedByWhoNeedsMoreThanThereIsWithoutOthers) {
    DiskRoom::Share share(room);
    EXPECT_EQ(share.take(101, {}), 100u);
    DiskRoom::Share other(room);
    EXPECT_EQ(other.take(100, {}), std::nullopt) << "who missed it has none";
}

TEST_F(Room, IsWaitedForAsLongAsOthersHaveSome) {
    std::atomic<bool> isGivenBack = false;
    std::optional<DiskRoom::Share> first(std::in_place, room);
    ASSERT_EQ(first->take(60, {}), std::nullopt);
    std::jthread waiting([&] {
        DiskRoom::Share share(room);
        EXPECT_EQ(share.take(50, {}), std::nullopt);
        EXPECT_TRUE(isGivenBack);
    });
    isGivenBack = true;
    first.reset();
}

TEST_F(Room, ThatOthersHaveUsedUpIsMissedAfterThem) {
    std::optional<DiskRoom::Share> first(std::in_place, room);
    ASSERT_EQ(first->take(60, {}), std::nullopt);
    std::jthread waiting([&] {
        DiskRoom::Share share(room);
        EXPECT_EQ(share.take(50, {}), 40u);
    });
    free = 40;
    first.reset();
}

TEST_F(Room, IsNotWaitedForByWhoIsCancelled) {
    DiskRoom::Share first(room);
    ASSERT_EQ(first.take(60, {}), std::nullopt);
    std::jthread waiting([&] {
        DiskRoom::Share share(room);
        EXPECT_EQ(share.take(50, source.get_token()), 100u);
    });
    source.request_stop();
}

TEST(UnknownRoom, IsPromisedToAll) {
    DiskRoom room([] { return std::optional<std::uint64_t>(); });
    DiskRoom::Share share(room);
    EXPECT_EQ(share.take(std::uint64_t{1} << 60, {}), std::nullopt);
}

} // namespace
} // namespace appsync::device
