#include "propertylist/xml/Base64.h"

#include <gtest/gtest.h>

#include <random>

namespace appsync::propertylist {
namespace {

std::string encoded(std::string_view bytes) {
    std::string out;
    appendBase64(out, bytes);
    return out;
}

TEST(Base64, WritesPaddedGroups) {
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
    EXPECT_EQ(encoded("\xFB\xFF\xBF"), "+/+/");
}

TEST(Base64, AppendsToWhatIsThere) {
    std::string out = "<";
    appendBase64(out, "foo");
    EXPECT_EQ(out, "<Zm9v");
}

TEST(Base64, ReadsGroupsAndSkipsWhiteSpace) {
    EXPECT_EQ(bytesFromBase64(""), "");
    EXPECT_EQ(bytesFromBase64(" \t\r\n"), "");
    EXPECT_EQ(bytesFromBase64("Zg=="), "f");
    EXPECT_EQ(bytesFromBase64("Zm8="), "fo");
    EXPECT_EQ(bytesFromBase64("\n\tZm9v\n\tYm Fy\n"), "foobar");
    EXPECT_EQ(bytesFromBase64("Z g = ="), "f");
}

TEST(Base64, RefusesWhatIsNoPaddedBase64) {
    for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "Zm8", "Zm8==", "Zm9v=", "=", "====", "Zm9vY",
                             "Zg==Zg==", "Zm-v", "Zm_v", "Zm9v!", "Z\x01g=", "\xC3\xA4", "=Zg="}) {
        EXPECT_FALSE(bytesFromBase64(text)) << text;
    }
}

TEST(Base64, RandomBytesGoThereAndBack) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (std::size_t size = 0; size < 200; ++size) {
        std::string bytes;
        for (std::size_t i = 0; i < size; ++i) {
            bytes += static_cast<char>(random());
        }
        EXPECT_EQ(encoded(bytes).size(), (size + 2) / 3 * 4);
        EXPECT_EQ(bytesFromBase64(encoded(bytes)), bytes);
    }
}

} // namespace
} // namespace appsync::propertylist
