#include "propertylist/binary/BinaryWriter.h"
#include "propertylist/Failure.h"
#include "tests/propertylist/BinaryFile.h"
#include "tests/propertylist/Expectations.h"

#include <limits>

namespace appsync {
namespace {

using Code = PropertyListErrorCode;
using namespace std::string_literals;

std::string written(const Value& value) {
    return mustWrite(value, PropertyListFormat::binary);
}

struct ScalarCase {
    const char* name;
    Value value;
    std::string object;
};

void PrintTo(const ScalarCase& scalar, std::ostream* out) {
    *out << scalar.name;
}

class BinaryScalar : public testing::TestWithParam<ScalarCase> {};

TEST_P(BinaryScalar, IsWrittenInTheShortestForm) {
    BinaryFile file;
    file.objects = {GetParam().object};
    file.offsetWidth = 1;
    EXPECT_EQ(written(GetParam().value), file.file());
}

const ScalarCase scalarCases[] = {
    {"false", false, bytes({0x08})},
    {"true", true, bytes({0x09})},
    {"zero", 0, bytes({0x10, 0})},
    {"largestOf1Byte", 255, bytes({0x10, 0xFF})},
    {"smallestOf2Bytes", 256, bytes({0x11, 1, 0})},
    {"largestOf2Bytes", 65'535, bytes({0x11, 0xFF, 0xFF})},
    {"smallestOf4Bytes", 65'536, bytes({0x12, 0, 1, 0, 0})},
    {"largestOf4Bytes", 4'294'967'295, bytes({0x12, 0xFF, 0xFF, 0xFF, 0xFF})},
    {"smallestOf8Bytes", 4'294'967'296, bytes({0x13, 0, 0, 0, 1, 0, 0, 0, 0})},
    {"largestInteger", std::numeric_limits<std::int64_t>::max(), bytes({0x13, 0x7F}) + std::string(7, '\xFF')},
    {"smallestInteger", std::numeric_limits<std::int64_t>::min(), bytes({0x13, 0x80}) + std::string(7, '\0')},
    {"minusOne", -1, bytes({0x13}) + std::string(8, '\xFF')},
    {"smallUnsigned", std::uint64_t{7}, bytes({0x10, 7})},
    {"firstUnsignedBeyondSigned", std::uint64_t{1} << 63,
     bytes({0x14}) + bigEndian(0, 8) + bytes({0x80}) + std::string(7, '\0')},
    {"real", 0.1, bytes({0x23, 0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A})},
    {"date", Date{-12.0}, bytes({0x33, 0xC0, 0x28, 0, 0, 0, 0, 0, 0})},
    {"emptyData", Data(), bytes({0x40})},
    {"data", Data("\x00\xFF"s), bytes({0x42, 0, 0xFF})},
    {"dataOf15Bytes", Data(std::string(15, 'd')), bytes({0x4F, 0x10, 15}) + std::string(15, 'd')},
    {"emptyText", "", bytes({0x50})},
    {"textOf14Bytes", "fourteen bytes", bytes({0x5E}) + "fourteen bytes"},
    {"textOf15Bytes", "fifteen bytes..", bytes({0x5F, 0x10, 15}) + "fifteen bytes.."},
    {"textOf255Bytes", std::string(255, 'x'), bytes({0x5F, 0x10, 255}) + std::string(255, 'x')},
    {"textWithZeroByte", "a\0b"s, bytes({0x53, 'a', 0, 'b'})},
    {"shortTextBeyondAscii", "\xC3\xA4x", bytes({0x62, 0, 0xE4, 0, 'x'})},
    {"textBeyondTheFirstPlane", "\xF0\x9F\x98\x80", bytes({0x62, 0xD8, 0x3D, 0xDE, 0})},
    {"longTextBeyondAscii", "abcdefghijklmn\xE2\x82\xAC",
     bytes({0x6F, 0x10, 15, 0,   'a', 0,   'b', 0,   'c', 0,   'd', 0,   'e', 0,   'f',  0,   'g',
            0,    'h',  0,  'i', 0,   'j', 0,   'k', 0,   'l', 0,   'm', 0,   'n', 0x20, 0xAC})},
};

template <class Case> std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, BinaryScalar, testing::ValuesIn(scalarCases), nameOf<ScalarCase>);

TEST(BinaryWriter, WritesLongTextsWithWideCounts) {
    const std::string file = written(std::string(70'000, 'x'));
    EXPECT_EQ(file.substr(8, 6), bytes({0x5F, 0x12}) + bigEndian(70'000, 4));
    EXPECT_EQ(mustRead(file), Value(std::string(70'000, 'x')));
}

TEST(BinaryWriter, WritesScalarsFirstAndOnlyOnce) {
    const Value value = Array{Dictionary{{"a", "b"}, {"b", 1}}, "a", std::uint64_t{1}, Array{}, 1};
    BinaryFile file;
    file.offsetWidth = 1;
    file.objects = {bytes({0x51}) + "a",       bytes({0x10, 1}), bytes({0x51}) + "b",
                    bytes({0xD2, 0, 2, 2, 1}), bytes({0xA0}),    bytes({0xA5, 3, 0, 1, 4, 1})};
    file.root = 5;
    // Which number a scalar gets follows from the walk; what counts is that each is there once and all is read back.
    const std::string out = written(value);
    EXPECT_EQ(out.size(), file.file().size());
    EXPECT_EQ(mustRead(out), value);
}

TEST(BinaryWriter, WritesEqualScalarsOnceButTellsKindsApart) {
    const std::string longText(40, 'q');
    const Value value = Array{longText,
                              Text(longText),
                              Data(longText),
                              Data(std::string(longText)),
                              1,
                              std::uint64_t{1},
                              1.0,
                              true,
                              Date{1},
                              "1",
                              Data("1"),
                              1,
                              1.0,
                              true,
                              Date{1},
                              "1",
                              Data("1")};
    const std::string file = written(value);
    constexpr std::uint64_t scalars = 8;
    EXPECT_EQ(file.substr(file.size() - 24, 8), bigEndian(scalars + 1, 8));
    EXPECT_EQ(mustRead(file), value);
}

TEST(BinaryWriter, TellsZerosAndNumbersThatAreNoneApart) {
    const std::string file = written(Array{0.0, -0.0, 0, false, ""});
    EXPECT_EQ(file.substr(file.size() - 24, 8), bigEndian(6, 8));
}

std::size_t referenceWidthOf(const std::string& file) {
    return static_cast<unsigned char>(file[file.size() - 25]);
}

std::size_t offsetWidthOf(const std::string& file) {
    return static_cast<unsigned char>(file[file.size() - 26]);
}

Value numbersBelow(int count) {
    Array items;
    for (int i = 0; i < count; ++i) {
        items.push_back(i);
    }
    return items;
}

TEST(BinaryWriter, UsesTheSmallestWidthOfReferences) {
    EXPECT_EQ(referenceWidthOf(written(numbersBelow(255))), 1U); // 256 objects with the array
    EXPECT_EQ(referenceWidthOf(written(numbersBelow(256))), 2U); // the last of 257 has number 256
    EXPECT_EQ(referenceWidthOf(written(numbersBelow(65'535))), 2U);
    EXPECT_EQ(referenceWidthOf(written(numbersBelow(65'536))), 3U);
    for (const int count : {255, 256, 65'535, 65'536}) {
        EXPECT_EQ(mustRead(written(numbersBelow(count))), numbersBelow(count));
    }
}

TEST(BinaryWriter, UsesTheSmallestWidthOfOffsets) {
    // A text, and behind it the array, whose offset is the largest one.
    const auto fileWithLastOffset = [](std::size_t offset) {
        const std::size_t head = offset - 8 <= 258 ? 3 : offset - 8 <= 65'539 ? 4 : 6;
        return written(Array{std::string(offset - 8 - head, 'x')});
    };
    EXPECT_EQ(offsetWidthOf(fileWithLastOffset(255)), 1U);
    EXPECT_EQ(offsetWidthOf(fileWithLastOffset(256)), 2U);
    EXPECT_EQ(offsetWidthOf(fileWithLastOffset(65'535)), 2U);
    EXPECT_EQ(offsetWidthOf(fileWithLastOffset(65'536)), 3U);
    for (const std::size_t offset : {255U, 256U, 65'535U, 65'536U}) {
        EXPECT_TRUE(mustRead(fileWithLastOffset(offset)).array()) << offset;
    }
}

TEST(BinaryWriter, IsDeterministic) {
    const auto make = [] {
        Array list;
        for (int i = 0; i < 300; ++i) {
            list.push_back(Dictionary{{"identifier", "com.example.application" + std::to_string(i)},
                                      {"name", std::to_string(i % 7)},
                                      {"size", i}});
        }
        return Value(list);
    };
    const std::string file = written(make());
    EXPECT_EQ(written(make()), file);
    EXPECT_EQ(written(mustRead(file)), file);
}

TEST(BinaryWriter, WritesSharedContainersAsOftenAsTheyAreHeld) {
    const Value shared = Array{1, 2, 3};
    const Value twice = Array{shared, shared};
    const Value copied = Array{Array{1, 2, 3}, Array{1, 2, 3}};
    EXPECT_EQ(written(twice), written(copied));
}

TEST(BinaryWriter, WritesDictionariesWithTheSameKeysInTurn) {
    const Value list = Array{Dictionary{{"a", 1}, {"a key that is longer", 2}},
                             Dictionary{{"a key that is longer", 1}, {"a", 2}},
                             Dictionary{{"a", 3}, {"a key that is longer", 4}},
                             Dictionary{{"a", 5}},
                             Dictionary{{"a", 6}, {"a key that is longeR", 7}},
                             Dictionary{},
                             Dictionary{}};
    const Value read = mustRead(written(list));
    EXPECT_EQ(read.description(), list.description());
}

TEST(BinaryWriter, WritesDictionariesOfAnySize) {
    for (const int size : {1, 14, 15, 16, 17, 31, 32, 33, 100, 1000}) {
        Dictionary entries;
        for (int i = 0; i < size; ++i) {
            entries.set("key" + std::to_string(i), Array{i, Dictionary{{"n", i}}});
        }
        const Value list = Array{entries, entries};
        EXPECT_EQ(mustRead(written(list)).description(), list.description()) << size;
    }
}

TEST(BinaryWriter, RefusesNullAndNamesWhereItIs) {
    expectWriteError(Value(), PropertyListFormat::binary, Code::nullValue, "");
    expectWriteError(Array{1, Value()}, PropertyListFormat::binary, Code::nullValue, "[1]");
    expectWriteError(Dictionary{{"a", Array{Dictionary{{"b", 1}, {"c", Value()}}}}}, PropertyListFormat::binary,
                     Code::nullValue, "a[0].c");
}

TEST(BinaryWriter, RefusesTextsThatAreNotUtf8) {
    const std::string longText = "a text that is longer than a cell\x80";
    expectWriteError("\xFF", PropertyListFormat::binary, Code::invalidText, "");
    expectWriteError(Array{longText}, PropertyListFormat::binary, Code::invalidText, "[0]");
    expectWriteError(Dictionary{{"a", 1}, {"\xC3", 1}}, PropertyListFormat::binary, Code::invalidText, "\"?\"");
}

TEST(BinaryWriter, RefusesDatesThatAreNoPointInTime) {
    expectWriteError(Array{Date{std::numeric_limits<double>::quiet_NaN()}}, PropertyListFormat::binary,
                     Code::invalidDate, "[0]");
    expectWriteError(Date{std::numeric_limits<double>::infinity()}, PropertyListFormat::binary, Code::invalidDate, "");
}

TEST(BinaryWriter, NamesThePlaceInALongArray) {
    Array items(100, Value(1));
    items[77] = Value();
    expectWriteError(items, PropertyListFormat::binary, Code::nullValue, "[77]");
}

/// That it can be read again, though each of its texts and data is in it far fewer times than it is used.
void expectReadable(const Value& value, std::size_t usedBytes) {
    const std::string file = written(value);
    EXPECT_EQ(mustRead(file), value);
    EXPECT_LT(file.size(), usedBytes / 10);
}

TEST(BinaryWriter, RepeatsWhatWouldBeReferredToTooOftenToBeReadAgain) {
    constexpr std::size_t count = 3000;
    constexpr std::size_t size = 20'000;
    const std::string text(size, 'k');
    expectReadable(Array(count, Value(text)), count * size);
    expectReadable(Array(count, Value(Data(text))), count * size);
    const Dictionary record{{text, true}, {"short", text}};
    expectReadable(Array(count, record), 2 * count * size);
    Array records;
    for (std::size_t i = 0; i < count; ++i) { // equal keys that share nothing
        records.push_back(Dictionary{{text, true}});
    }
    expectReadable(records, count * size);
}

TEST(BinaryWriter, WritesManyReferencesToOneTextInTimeInProportion) {
    expectReadable(Array(2'000'000, Value(std::string(100, 'x'))), 200'000'000);
}

/// A value that shares its parts and would be written as 2 to the power of `levels` arrays.
Value doubled(int levels) {
    Value value = Array{};
    for (int i = 0; i < levels; ++i) {
        value = Array{value, value};
    }
    return value;
}

TEST(BinaryWriter, EndsWhenTheLimitIsReached) {
    for (const Value& value : {doubled(40), Value(std::string(20'000, 'x')), Value(Array(10'001, Value(1)))}) {
        try {
            static_cast<void>(propertylist::writeBinary(value, 10'000));
            ADD_FAILURE() << "no error";
        } catch (const propertylist::Failure& failure) {
            EXPECT_EQ(failure.code, Code::tooLarge);
        }
    }
    const std::string file = written(doubled(8));
    EXPECT_EQ(propertylist::writeBinary(doubled(8), file.size() + 7).bytes(), file);
}

TEST(BinaryWriter, WritesUpToTheDepthLimit) {
    EXPECT_EQ(mustRead(written(nestedArrays(maxPropertyListDepth))), nestedArrays(maxPropertyListDepth));
    ErrorPtr error;
    for (const std::size_t depth : {maxPropertyListDepth + 1, std::size_t{100'000}}) {
        EXPECT_FALSE(PropertyListCodec().dataWithPropertyList(nestedArrays(depth), PropertyListFormat::binary, &error));
        EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooDeep));
    }
}

} // namespace
} // namespace appsync
