#include "tests/propertylist/BinaryFile.h"
#include "tests/propertylist/Expectations.h"

#include <cmath>
#include <limits>

namespace appsync {
namespace {

using Code = PropertyListErrorCode;
using namespace std::string_literals;

constexpr std::size_t firstObject = 8;

struct ObjectCase {
    const char* name;
    std::string object;
    Value value;
};

void PrintTo(const ObjectCase& tested, std::ostream* out) {
    *out << tested.name;
}

class BinaryObject : public testing::TestWithParam<ObjectCase> {};

TEST_P(BinaryObject, IsRead) {
    const Value read = mustRead(fileOf(GetParam().object));
    EXPECT_EQ(read.kind(), GetParam().value.kind());
    EXPECT_EQ(read, GetParam().value) << read.description();
}

const ObjectCase objectCases[] = {
    {"false", bytes({0x08}), false},
    {"true", bytes({0x09}), true},
    {"integerOf1Byte", bytes({0x10, 0xFF}), 255},
    {"integerOf2Bytes", bytes({0x11, 0xFF, 0xFE}), 65534},
    {"integerOf4Bytes", bytes({0x12, 0xFF, 0xFF, 0xFF, 0xFE}), 4294967294},
    {"integerOf8Bytes", bytes({0x13, 0, 0, 0, 1, 0, 0, 0, 2}), 4294967298},
    {"negativeInteger", bytes({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}), -2},
    {"smallestInteger", bytes({0x13, 0x80, 0, 0, 0, 0, 0, 0, 0}), std::numeric_limits<std::int64_t>::min()},
    {"largestUnsignedInteger", bytes({0x14}) + std::string(8, '\0') + std::string(8, '\xFF'),
     std::numeric_limits<std::uint64_t>::max()},
    {"smallIntegerOf16Bytes", bytes({0x14}) + std::string(15, '\0') + "\x07", 7},
    {"negativeIntegerOf16Bytes", bytes({0x14}) + std::string(16, '\xFF'), -1},
    {"realOf4Bytes", bytes({0x22, 0xBF, 0x40, 0, 0}), -0.75},
    {"realOf8Bytes", bytes({0x23, 0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A}), 0.1},
    {"infiniteReal", bytes({0x22, 0x7F, 0x80, 0, 0}), std::numeric_limits<double>::infinity()},
    {"date", bytes({0x33, 0xC0, 0x28, 0, 0, 0, 0, 0, 0}), Date{-12.0}},
    {"emptyData", bytes({0x40}), Data()},
    {"data", bytes({0x43, 0, 0xFF, 0x80}), Data("\x00\xFF\x80"s)},
    {"longData", bytes({0x4F, 0x10, 20}) + std::string(20, 'd'), Data(std::string(20, 'd'))},
    {"emptyText", bytes({0x50}), ""},
    {"asciiText", bytes({0x53}) + "abc", "abc"},
    {"asciiTextWithZeroByte", bytes({0x53, 'a', 0, 'b'}), "a\0b"s},
    {"asciiTextThatJustFitsACell", bytes({0x5E}) + "fourteen bytes", "fourteen bytes"},
    {"asciiTextThatDoesNot", bytes({0x5F, 0x10, 15}) + "fifteen bytes..", "fifteen bytes.."},
    {"shortAsciiTextWithLongCount", bytes({0x5F, 0x10, 2}) + "ab", "ab"},
    {"emptyTextWithLongCount", bytes({0x5F, 0x10, 0}), ""},
    {"asciiTextWithCountOf2Bytes", bytes({0x5F, 0x11, 1, 0}) + std::string(256, 'x'), std::string(256, 'x')},
    {"asciiTextWithCountOf8Bytes", bytes({0x5F, 0x13, 0, 0, 0, 0, 0, 0, 0, 3}) + "abc", "abc"},
    {"asciiTextWithCountOf16Bytes", bytes({0x5F, 0x14}) + bigEndian(0, 8) + bigEndian(3, 8) + "abc", "abc"},
    {"emptyUtf16Text", bytes({0x60}), ""},
    {"utf16TextOfAsciiCharacters", bytes({0x62, 0, 'h', 0, 'i'}), "hi"},
    {"utf16Text", bytes({0x63, 0, 0xE4, 0x20, 0xAC, 0x00, 'x'}), "\xC3\xA4\xE2\x82\xACx"},
    {"utf16SurrogatePair", bytes({0x62, 0xD8, 0x3D, 0xDE, 0x00}), "\xF0\x9F\x98\x80"},
    {"firstAndLastSurrogatePair", bytes({0x64, 0xD8, 0, 0xDC, 0, 0xDB, 0xFF, 0xDF, 0xFF}),
     "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
    {"longUtf16Text",
     bytes({0x6F, 0x10, 16}) +
         [] {
             std::string units;
             for (int i = 0; i < 16; ++i) {
                 units += bytes({0x00, 0xFC});
             }
             return units;
         }(),
     "\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC"
     "\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC\xC3\xBC"},
    {"emptyArray", bytes({0xA0}), Array{}},
    {"emptyDictionary", bytes({0xD0}), Dictionary{}},
};

template <class Case> std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, BinaryObject, testing::ValuesIn(objectCases), nameOf<ObjectCase>);

struct ObjectErrorCase {
    const char* name;
    std::string object;
    Code code;
    std::size_t offset;
};

void PrintTo(const ObjectErrorCase& tested, std::ostream* out) {
    *out << tested.name;
}

class WrongBinaryObject : public testing::TestWithParam<ObjectErrorCase> {};

TEST_P(WrongBinaryObject, IsRefused) {
    expectReadError(fileOf(GetParam().object), GetParam().code, firstObject + GetParam().offset);
}

const ObjectErrorCase objectErrorCases[] = {
    {"null", bytes({0x00}), Code::nullObject, 0},
    {"unknownSimpleObject", bytes({0x07}), Code::unsupportedObject, 0},
    {"fillByte", bytes({0x0F}), Code::unsupportedObject, 0},
    {"integerOf32Bytes", bytes({0x15}) + std::string(32, '\0'), Code::unsupportedObject, 0},
    {"integerBeyond64Bits", bytes({0x14, 0, 0, 0, 0, 0, 0, 0, 1}) + std::string(8, '\0'), Code::numberOutOfRange, 0},
    {"integerBelow64Bits", bytes({0x14}) + std::string(8, '\xFF') + std::string(8, '\0'), Code::numberOutOfRange, 0},
    {"cutInteger", bytes({0x13, 0, 0}), Code::invalidOffset, 0},
    {"realOf1Byte", bytes({0x20, 0}), Code::unsupportedObject, 0},
    {"cutShortReal", bytes({0x22, 0, 0}), Code::invalidOffset, 0},
    {"cutReal", bytes({0x23, 0, 0, 0, 0, 0, 0, 0}), Code::invalidOffset, 0},
    {"dateOf4Bytes", bytes({0x32, 0, 0, 0, 0}), Code::unsupportedObject, 0},
    {"dateThatIsNotANumber", bytes({0x33, 0x7F, 0xF8, 0, 0, 0, 0, 0, 0}), Code::invalidDate, 0},
    {"infiniteDate", bytes({0x33, 0xFF, 0xF0, 0, 0, 0, 0, 0, 0}), Code::invalidDate, 0},
    {"cutDate", bytes({0x33, 0}), Code::invalidOffset, 0},
    {"cutData", bytes({0x44, 1, 2, 3}), Code::invalidOffset, 0},
    {"cutShortText", bytes({0x53}) + "ab", Code::invalidOffset, 0},
    {"cutLongText", bytes({0x5F, 0x10, 16}) + "fifteen bytes..", Code::invalidOffset, 0},
    {"cutUtf16Text", bytes({0x62, 0, 'a', 0}), Code::invalidOffset, 0},
    {"markerWithoutCount", bytes({0x5F}), Code::invalidOffset, 0},
    {"countWithOnlyAMarker", bytes({0x5F, 0x10}), Code::invalidOffset, 1},
    {"countWithoutNumber", bytes({0x5F, 0x11, 0}), Code::invalidOffset, 1},
    {"countThatIsNoInteger", bytes({0x5F, 0x53}) + "abc", Code::unsupportedObject, 1},
    {"negativeCount", bytes({0x5F, 0x13}) + std::string(8, '\xFF'), Code::numberOutOfRange, 1},
    {"countBeyond64Bits", bytes({0x5F, 0x14, 1}) + std::string(15, '\0'), Code::numberOutOfRange, 1},
    {"countBeyondTheSignedRange", bytes({0x4F, 0x14}) + bigEndian(0, 8) + std::string(8, '\xFF'),
     Code::numberOutOfRange, 1},
    {"largestCountOfData", bytes({0x4F, 0x13, 0x7F}) + std::string(7, '\xFF'), Code::invalidOffset, 0},
    {"countTimesTwoOverflows", bytes({0x6F, 0x13, 0x7F}) + std::string(7, '\xFF'), Code::invalidOffset, 0},
    {"dictionaryCountOverflows", bytes({0xDF, 0x13, 0x7F}) + std::string(7, '\xFF'), Code::invalidOffset, 0},
    {"arrayWithoutReferences", bytes({0xA2, 0}), Code::invalidOffset, 0},
    {"shortTextThatIsNotAscii", bytes({0x53, 'a', 0x80, 'b'}), Code::invalidText, 0},
    {"lastByteOfShortTextIsNotAscii", bytes({0x52, 'a', 0xFF}), Code::invalidText, 0},
    {"longTextThatIsNotAscii", bytes({0x5F, 0x10, 20}) + std::string(19, 'a') + "\xC4", Code::invalidText, 0},
    {"lowSurrogateAlone", bytes({0x62, 0, 'a', 0xDC, 0}), Code::invalidText, 3},
    {"highSurrogateAtTheEnd", bytes({0x62, 0, 'a', 0xD8, 0}), Code::invalidText, 3},
    {"highSurrogateBeforeALetter", bytes({0x62, 0xDB, 0xFF, 0, 'a'}), Code::invalidText, 1},
    {"twoHighSurrogates", bytes({0x62, 0xD8, 0, 0xD8, 0}), Code::invalidText, 1},
    {"utf8Text", bytes({0x73}) + "abc", Code::unsupportedObject, 0},
    {"uid", bytes({0x80, 1}), Code::unsupportedObject, 0},
    {"unknownKind9", bytes({0x90}), Code::unsupportedObject, 0},
    {"orderedSet", bytes({0xB0}), Code::unsupportedObject, 0},
    {"set", bytes({0xC0}), Code::unsupportedObject, 0},
    {"unknownKindE", bytes({0xE0}), Code::unsupportedObject, 0},
    {"unknownKindF", bytes({0xF0}), Code::unsupportedObject, 0},
    {"referenceBeyondTheObjects", bytes({0xA1, 1}), Code::invalidReference, 1},
    {"arrayThatHoldsItself", bytes({0xA1, 0}), Code::referenceCycle, 1},
    {"dictionaryThatIsItsOwnKey", bytes({0xD1, 0, 0}), Code::referenceCycle, 1},
};

INSTANTIATE_TEST_SUITE_P(Kinds, WrongBinaryObject, testing::ValuesIn(objectErrorCases), nameOf<ObjectErrorCase>);

TEST(BinaryReader, ReadsANumberThatIsNone) {
    const Value value = mustRead(fileOf(bytes({0x22, 0x7F, 0xC0, 0, 0})));
    ASSERT_EQ(value.kind(), Value::Kind::real);
    EXPECT_TRUE(std::isnan(*value.real()));
}

TEST(BinaryReader, ReadsContainersWithEveryWidthOfOffsetsAndReferences) {
    const Value expected = Array{Dictionary{{"a", 1}, {"b", "two"}}, 1};
    for (std::size_t offsetWidth = 1; offsetWidth <= 8; ++offsetWidth) {
        for (std::size_t width = 1; width <= 8; ++width) {
            const auto reference = [&](std::uint64_t number) { return bigEndian(number, width); };
            BinaryFile file;
            file.offsetWidth = offsetWidth;
            file.referenceWidth = width;
            file.root = 5;
            file.objects = {bytes({0x51}) + "a",
                            bytes({0x51}) + "b",
                            bytes({0x10, 1}),
                            bytes({0x53}) + "two",
                            bytes({0xD2}) + reference(0) + reference(1) + reference(2) + reference(3),
                            bytes({0xA2}) + reference(4) + reference(2)};
            EXPECT_EQ(mustRead(file.file()), expected) << offsetWidth << " and " << width;
        }
    }
}

TEST(BinaryReader, KeepsTheOrderOfKeys) {
    BinaryFile file;
    file.objects = {bytes({0xD3, 3, 1, 2, 4, 4, 4}), bytes({0x51}) + "b", bytes({0x51}) + "c", bytes({0x51}) + "a",
                    bytes({0x09})};
    EXPECT_EQ(mustRead(file.file()).description(), "{a = 1; b = 1; c = 1;}");
}

TEST(BinaryReader, ReadsManyDictionariesWithTheSameKeysInTurn) {
    // Keys are taken over from the last dictionary with as many keys; here two sets of keys take turns.
    BinaryFile file;
    file.objects = {bytes({0xA4, 1, 2, 1, 3}), bytes({0xD2, 4, 5, 6, 7}), bytes({0xD2, 5, 4, 6, 7}),
                    bytes({0xD2, 4, 5, 7, 6}), bytes({0x51}) + "k",       bytes({0x5F, 0x10, 16}) + "a long key here.",
                    bytes({0x10, 1}),          bytes({0x10, 2})};
    const Dictionary first{{"k", 1}, {"a long key here.", 2}};
    const Dictionary second{{"a long key here.", 1}, {"k", 2}};
    const Dictionary third{{"k", 2}, {"a long key here.", 1}};
    EXPECT_EQ(mustRead(file.file()), Value(Array{first, second, first, third}));
}

TEST(BinaryReader, FindsEveryKeyOfALargeDictionary) {
    constexpr std::size_t count = 200;
    BinaryFile file;
    file.referenceWidth = 2;
    std::string keys;
    std::string values;
    for (std::size_t i = 0; i < count; ++i) {
        keys += bigEndian(2 + i, 2);
        values += bigEndian(1, 2);
    }
    const std::string dictionary = bytes({0xDF, 0x10, count}) + keys + values;
    file.objects = {bytes({0xA2, 0, 202, 0, 203}), bytes({0x10, 1})};
    for (std::size_t i = 0; i < count; ++i) {
        file.objects.push_back(bytes({0x53}) + std::to_string(100 + i));
    }
    file.objects.push_back(dictionary);
    file.objects.push_back(dictionary); // whose keys are taken over from the first one
    const Value list = mustRead(file.file());
    ASSERT_EQ(list.array()->size(), 2U);
    for (const Value& item : *list.array()) {
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_TRUE(item.dictionary()->truth(std::to_string(100 + i))) << i;
        }
        EXPECT_FALSE(item.dictionary()->contains("300"));
    }
}

TEST(BinaryReader, SharesWhatTheFileRefersToTwice) {
    BinaryFile file;
    file.objects = {bytes({0xA3, 1, 2, 1}), bytes({0xA1, 2}), bytes({0x5F, 0x10, 15}) + "fifteen bytes.."};
    Value list = mustRead(file.file());
    EXPECT_EQ(list, Value(Array{Array{"fifteen bytes.."}, "fifteen bytes..", Array{"fifteen bytes.."}}));
    // And yet a change of one is no change of the other.
    (*list.mutableArray())[0].mutableArray()->push_back(1);
    EXPECT_EQ((*list.array())[2], Value(Array{"fifteen bytes.."}));
}

TEST(BinaryReader, ReadsShortTextsHoweverOftenTheFileRefersToThem) {
    // They are read again for each reference, which must not count as if objects overlapped.
    for (const std::string& object : {bytes({0x67, 0, 0xE4, 0, 'a', 0, 'b', 0, 'c', 0, 'd', 0, 'e', 0, 'f'}),
                                      bytes({0x5F, 0x10, 14}) + "fourteen bytes", bytes({0x5E}) + "fourteen bytes"}) {
        BinaryFile file;
        constexpr std::size_t count = 20'000;
        file.objects = {bytes({0xAF, 0x11}) + bigEndian(count, 2) + std::string(count, '\x01'), object};
        const Value list = mustRead(file.file());
        ASSERT_EQ(list.array()->size(), count);
        EXPECT_EQ(list.array()->front(), list.array()->back());
    }
}

TEST(BinaryReader, RefusesKeysThatAreNoTexts) {
    for (const std::string& key : {bytes({0x10, 1}), bytes({0x09}), bytes({0xA0}), bytes({0x41, 'a'})}) {
        BinaryFile file;
        file.objects = {bytes({0xD1, 1, 1}), key};
        expectReadError(file.file(), Code::invalidKey, firstObject + 1);
    }
}

TEST(BinaryReader, RefusesTheSameKeyTwice) {
    BinaryFile file;
    file.objects = {bytes({0xD3, 1, 2, 1, 2, 2, 2}), bytes({0x51}) + "a", bytes({0x51}) + "b"};
    expectReadError(file.file(), Code::duplicateKey, firstObject + 3);
}

TEST(BinaryReader, RefusesEqualKeysFromDifferentObjects) {
    BinaryFile file;
    file.objects = {bytes({0xD2, 1, 2, 3, 3}), bytes({0x51}) + "a", bytes({0x61, 0}) + "a", bytes({0x09})};
    expectReadError(file.file(), Code::duplicateKey, firstObject + 2);
    const std::string key = "a key that is longer";
    file.objects = {bytes({0xD2, 1, 2, 3, 3}), bytes({0x5F, 0x10, 20}) + key, bytes({0x5F, 0x10, 20}) + key,
                    bytes({0x09})};
    expectReadError(file.file(), Code::duplicateKey, firstObject + 2);
}

TEST(BinaryReader, RefusesTheSameKeyTwiceInALargeDictionary) {
    BinaryFile file;
    std::string references;
    for (unsigned i = 0; i < 40; ++i) {
        references += static_cast<char>(i == 39 ? 4 : 1 + i);
    }
    file.objects = {bytes({0xDF, 0x10, 40}) + references + std::string(40, '\x01')};
    for (int i = 0; i < 39; ++i) {
        file.objects.push_back(bytes({0x52}) + std::to_string(10 + i));
    }
    expectReadError(file.file(), Code::duplicateKey, firstObject + 3 + 39);
}

TEST(BinaryReader, RefusesNullInsideContainersAndAsKey) {
    BinaryFile file;
    file.objects = {bytes({0xA2, 1, 2}), bytes({0x09}), bytes({0x00})};
    expectReadError(file.file(), Code::nullObject, file.offsetOf(2));
    file.objects = {bytes({0xD1, 2, 1}), bytes({0x09}), bytes({0x00})};
    expectReadError(file.file(), Code::nullObject, file.offsetOf(2));
}

} // namespace
} // namespace appsync
