// Which of two versions is the older one.
#include "desktop/Version.h"

#include <gtest/gtest.h>

#include <string>

namespace appsync::desktop {
namespace {

enum class Order { older, same, none };

struct Pair {
    const char* a;
    const char* b;
    Order order; // of the first to the second
};

class Versions : public testing::TestWithParam<Pair> {};

TEST_P(Versions, AreComparedByTheirNumbers) {
    const auto& [a, b, order] = GetParam();
    const auto there = compareVersions(a, b);
    const auto back = compareVersions(b, a);
    switch (order) {
    case Order::older:
        EXPECT_TRUE(there < 0);
        EXPECT_TRUE(back > 0);
        break;
    case Order::same:
        EXPECT_TRUE(there == 0);
        EXPECT_TRUE(back == 0);
        break;
    case Order::none:
        EXPECT_EQ(there, std::partial_ordering::unordered);
        EXPECT_EQ(back, std::partial_ordering::unordered);
        break;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Versions,
                         testing::Values(Pair{"1.0", "1.1", Order::older}, Pair{"1.9", "1.10", Order::older},
                                         Pair{"1.2", "1.2.1", Order::older}, Pair{"1", "2", Order::older},
                                         Pair{"09", "10", Order::older}, Pair{"0", "0.0.1", Order::older},
                                         Pair{"", "1", Order::older}, Pair{"1.5", "2.beta", Order::older},
                                         Pair{"99999999999999999999998", "99999999999999999999999", Order::older},
                                         Pair{"99999999999999999999999", "100000000000000000000000", Order::older},
                                         Pair{"1.0", "1.0", Order::same}, Pair{"1.0", "1.0.0", Order::same},
                                         Pair{"1", "1.", Order::same}, Pair{"01.2", "1.02", Order::same},
                                         Pair{"1..2", "1.0.2", Order::same}, Pair{"", "", Order::same},
                                         Pair{"beta", "beta", Order::same}, Pair{"1.0b", "1.0b.0", Order::same},
                                         Pair{"1.0", "1.0b", Order::none}, Pair{"1.beta", "1.alpha", Order::none},
                                         Pair{"-1", "1", Order::none}, Pair{" 1", "1", Order::none}));

} // namespace
} // namespace appsync::desktop
