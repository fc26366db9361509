// What the records of a zip archive say.
#include "archive/ZipRecords.h"

#include <gtest/gtest.h>

#include <string>

namespace appsync::zip {
namespace {

std::string number(std::uint64_t value, int bytes) {
    std::string out;
    for (int byte = 0; byte < bytes; ++byte) {
        out += static_cast<char>(value >> 8 * byte & 0xff);
    }
    return out;
}

TEST(ZipRecordsTest, DescriptorHasFourForms) {
    const std::string signature = "PK\7\10";
    const std::string narrow = number(0x12345678, 4) + number(70, 4) + number(90'000, 4);
    const std::string wide = number(0x12345678, 4) + number(70, 8) + number(90'000, 8);
    for (const std::string& form : {narrow, wide, signature + narrow, signature + wide}) {
        EXPECT_TRUE(isDescriptor(form, 0x12345678, {70, 90'000}));
        EXPECT_TRUE(isDescriptor(form + "PK\3\4", 0x12345678, {70, 90'000}));
        EXPECT_FALSE(isDescriptor(form, 0x12345679, {70, 90'000}));
        EXPECT_FALSE(isDescriptor(form, 0x12345678, {71, 90'000}));
        EXPECT_FALSE(isDescriptor(form, 0x12345678, {70, 90'001}));
        EXPECT_FALSE(isDescriptor(form.substr(0, form.size() - 1), 0x12345678, {70, 90'000}));
    }
    EXPECT_FALSE(isDescriptor("", 0, {}));
}

TEST(ZipRecordsTest, DescriptorMayBeginWithAChecksumThatLooksLikeASignature) {
    EXPECT_TRUE(isDescriptor(number(0x08074b50, 4) + number(70, 4) + number(90, 4), 0x08074b50, {70, 90}));
}

TEST(ZipRecordsTest, SizesThatDoNotFitStandInTheExtraBytes) {
    const std::string other = number(0x5455, 2) + number(1, 2) + "x";
    const std::string extra = other + number(1, 2) + number(16, 2) + number(5'000'000'000, 8) + number(4'000, 8);
    Sizes sizes{0xffffffff, 0xffffffff};
    EXPECT_TRUE(readSizes64(extra, sizes));
    EXPECT_EQ(sizes, (Sizes{4'000, 5'000'000'000}));
    sizes = {70, 0xffffffff};
    EXPECT_TRUE(readSizes64(extra, sizes));
    EXPECT_EQ(sizes, (Sizes{70, 5'000'000'000}));
    sizes = {70, 90};
    EXPECT_TRUE(readSizes64(extra, sizes));
    EXPECT_EQ(sizes, (Sizes{70, 90}));
    sizes = {0xffffffff, 0xffffffff};
    EXPECT_FALSE(readSizes64(number(1, 2) + number(8, 2) + number(5, 8), sizes));
}

TEST(ZipRecordsTest, ExtraBytesAreFieldsOrZeros) {
    const std::string field = number(0x5455, 2) + number(1, 2) + "x";
    Sizes sizes;
    for (const std::string& good :
         {std::string(), field, field + field, field + std::string(3, '\0'), std::string(9, '\0')}) {
        EXPECT_TRUE(readSizes64(good, sizes)) << testing::PrintToString(good);
    }
    for (const std::string& bad : {std::string("x"), field + "xyz", field.substr(0, 4)}) {
        EXPECT_FALSE(readSizes64(bad, sizes)) << testing::PrintToString(bad);
    }
}

TEST(ZipRecordsTest, RecordThatIsCutOffIsNone) {
    const std::string header = "PK\3\4" + std::string(26, '\0');
    EXPECT_TRUE(readLocalHeader(header));
    EXPECT_FALSE(readLocalHeader(header.substr(0, 29)));
    const std::string record = "PK\1\2" + std::string(24, '\0') + number(1, 2) + std::string(16, '\0');
    std::string_view rest = record;
    EXPECT_FALSE(takeEntryRecord(rest)) << "its name is missing";
    const std::string whole = record + "nPK";
    rest = whole;
    const auto taken = takeEntryRecord(rest);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->name, "n");
    EXPECT_EQ(rest, "PK");
}

} // namespace
} // namespace appsync::zip
