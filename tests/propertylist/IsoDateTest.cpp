#include "propertylist/xml/IsoDate.h"

#include <gtest/gtest.h>

#include <limits>

namespace appsync::propertylist {
namespace {

struct DateCase {
    double seconds;
    const char* text;
};

constexpr DateCase dateCases[] = {
    {0, "2001-01-01T00:00:00Z"},
    {1, "2001-01-01T00:00:01Z"},
    {-1, "2000-12-31T23:59:59Z"},
    {86'399, "2001-01-01T23:59:59Z"},
    {86'400, "2001-01-02T00:00:00Z"},
    {59 * 86'400 + 3723, "2001-03-01T01:02:03Z"},
    {-366 * 86'400.0, "2000-01-01T00:00:00Z"},
    {-306 * 86'400.0, "2000-03-01T00:00:00Z"},
    {-307 * 86'400.0, "2000-02-29T00:00:00Z"},
    {-978'307'200, "1970-01-01T00:00:00Z"},
    {-63'113'904'000, "0001-01-01T00:00:00Z"},
    {252'423'993'599, "9999-12-31T23:59:59Z"},
};

TEST(IsoDate, WritesAndReadsPointsInTime) {
    for (const auto& [seconds, text] : dateCases) {
        EXPECT_EQ(textFromDate(Date{seconds}), text);
        EXPECT_EQ(dateFromText(text), Date{seconds}) << text;
    }
}

TEST(IsoDate, RoundsDown) {
    EXPECT_EQ(textFromDate(Date{0.999}), "2001-01-01T00:00:00Z");
    EXPECT_EQ(textFromDate(Date{-0.001}), "2000-12-31T23:59:59Z");
    EXPECT_EQ(textFromDate(Date{252'423'993'599.5}), "9999-12-31T23:59:59Z");
}

TEST(IsoDate, RefusesToWriteWhatHasNotFourDigits) {
    for (const double seconds :
         {-63'113'904'000.5, 252'423'993'600.0, 1e300, -1e300, std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_FALSE(textFromDate(Date{seconds})) << seconds;
    }
}

TEST(IsoDate, RefusesOtherForms) {
    for (const char* text :
         {"", "2001", "2001-01-01", "2001-01-01T00:00:00", "2001-01-01T00:00:00z", "2001-01-01 00:00:00Z",
          "2001-01-01T00:00:00.5Z", "2001-01-01T00:00:00+00:00", "2001/01/01T00:00:00Z", "2001-1-01T00:00:00ZZ",
          "20010101T000000Z    ", " 2001-01-01T00:00:00Z", "2001-01-01T00:00:00Z ", "-001-01-01T00:00:00Z",
          "+001-01-01T00:00:00Z", "2001-01-01T0a:00:00Z", "2001-01-01T00-00:00Z", "2001-01-01T00:00-00Z"}) {
        EXPECT_FALSE(dateFromText(text)) << text;
    }
}

TEST(IsoDate, RefusesDaysAndTimesThatDoNotExist) {
    for (const char* text :
         {"0000-01-01T00:00:00Z", "2001-00-01T00:00:00Z", "2001-13-01T00:00:00Z", "2001-01-00T00:00:00Z",
          "2001-01-32T00:00:00Z", "2001-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2001-04-31T00:00:00Z",
          "2001-01-01T24:00:00Z", "2001-01-01T00:60:00Z", "2001-01-01T00:00:60Z"}) {
        EXPECT_FALSE(dateFromText(text)) << text;
    }
}

} // namespace
} // namespace appsync::propertylist
