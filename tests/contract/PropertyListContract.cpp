// Property lists: what is written is read again, in both formats, and what is none is refused.
#include "platform/PropertyListSerialization.h"
#include "tests/contract/Rules.h"

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

namespace appsync::contract {
namespace {

constexpr PropertyListFormat formats[] = {PropertyListFormat::binary, PropertyListFormat::xml};

Value everyKind() {
    return Dictionary{
        {"true", true},
        {"false", false},
        {"least", std::numeric_limits<std::int64_t>::min()},
        {"greatest", std::numeric_limits<std::uint64_t>::max()},
        {"real", 0.1},
        {"date", Date{-86'400}},
        {"string", "a <b> & \"c\"\n\xc3\xa4"},
        {"empty", ""},
        {"data", Data(std::string("\0\x01\xff", 3))},
        {"array", Array{1, "2", Array{}}},
        {"dictionary", Dictionary{{"", Dictionary{}}}},
    };
}

} // namespace

TEST_P(PropertyListContract, WhatIsWrittenIsReadAgainInBothFormats) {
    for (const PropertyListFormat format : formats) {
        ErrorPtr error;
        const auto bytes = platform().propertyLists.dataWithPropertyList(everyKind(), format, &error);
        ASSERT_TRUE(bytes) << textOf(error);
        const auto read = platform().propertyLists.propertyListWithData(bytes->bytes(), &error);
        ASSERT_TRUE(read) << textOf(error);
        EXPECT_EQ(*read, everyKind()) << read->description();
        EXPECT_EQ(error, nullptr);
    }
}

TEST_P(PropertyListContract, TheFormatsAreThoseThatWereAskedFor) {
    const Value list(Array{"a"});
    const auto binary = platform().propertyLists.dataWithPropertyList(list, PropertyListFormat::binary, nullptr);
    const auto xml = platform().propertyLists.dataWithPropertyList(list, PropertyListFormat::xml, nullptr);
    ASSERT_TRUE(binary && xml);
    EXPECT_TRUE(binary->bytes().starts_with("bplist00"));
    EXPECT_TRUE(xml->bytes().starts_with("<?xml"));
}

TEST_P(PropertyListContract, AListOfOneValueIsAPropertyListToo) {
    for (const PropertyListFormat format : formats) {
        for (const Value& value : {Value("text"), Value(7), Value(true), Value(Array{})}) {
            const auto bytes = platform().propertyLists.dataWithPropertyList(value, format, nullptr);
            ASSERT_TRUE(bytes) << value.description();
            EXPECT_EQ(platform().propertyLists.propertyListWithData(bytes->bytes(), nullptr), value);
        }
    }
}

TEST_P(PropertyListContract, WhatTheFormatsCannotExpressIsRefused) {
    for (const PropertyListFormat format : formats) {
        for (const Value& value : {Value(), Value(Array{1, Value()}), Value(Dictionary{{"a", Value()}})}) {
            ErrorPtr error;
            EXPECT_FALSE(platform().propertyLists.dataWithPropertyList(value, format, &error)) << value.description();
            EXPECT_NE(error, nullptr);
            EXPECT_FALSE(platform().propertyLists.dataWithPropertyList(value, format, nullptr));
        }
    }
}

TEST_P(PropertyListContract, BytesThatAreNoPropertyListAreRefused) {
    const std::string whole(
        platform().propertyLists.dataWithPropertyList(everyKind(), PropertyListFormat::binary, nullptr)->bytes());
    for (const std::string& bytes : {std::string(), std::string("text"), std::string("bplist00"),
                                     whole.substr(0, whole.size() / 2), std::string("<plist><array>"),
                                     std::string("<?xml version=\"1.0\"?><plist><dict><key>a</key></dict></plist>")}) {
        ErrorPtr error;
        EXPECT_FALSE(platform().propertyLists.propertyListWithData(bytes, &error)) << bytes;
        EXPECT_NE(error, nullptr) << bytes;
        EXPECT_FALSE(platform().propertyLists.propertyListWithData(bytes, nullptr));
    }
}

TEST_P(PropertyListContract, ListsThatClaimMoreThanTheyHoldCostNoMore) {
    // An array that says to have 2^40 entries, and entities that would grow beyond all bounds.
    const std::string greedy("bplist00\xaf\x13\x00\x00\x01\x00\x00\x00\x00\x00\x08\x00\x00\x00\x00\x00\x00\x01\x01\x00"
                             "\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                             "\x12",
                             52);
    EXPECT_FALSE(platform().propertyLists.propertyListWithData(greedy, nullptr));
    std::string entities = "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a0 \"xxxxxxxxxxxxxxxx\">";
    for (int level = 1; level <= 12; ++level) {
        const std::string inner = "&a" + std::to_string(level - 1) + ";";
        entities += "<!ENTITY a" + std::to_string(level) + " \"";
        for (int i = 0; i < 16; ++i) {
            entities += inner;
        }
        entities += "\">";
    }
    const auto read =
        platform().propertyLists.propertyListWithData(entities + "]><plist><string>&a12;</string></plist>", nullptr);
    EXPECT_TRUE(!read || read->string().value_or("").size() < 100'000);
}

TEST_P(PropertyListContract, WhatWasReadMayBeChangedFreely) {
    const auto bytes = platform().propertyLists.dataWithPropertyList(everyKind(), PropertyListFormat::binary, nullptr);
    ASSERT_TRUE(bytes);
    auto first = platform().propertyLists.propertyListWithData(bytes->bytes(), nullptr);
    const auto second = first;
    ASSERT_TRUE(first && first->dictionary());
    first->mutableDictionary()->set("new", 1);
    first->mutableDictionary()->find("array")->mutableArray()->push_back("more");
    EXPECT_EQ(*second, everyKind());
    EXPECT_TRUE(first->dictionary()->contains("new"));
}

TEST_P(PropertyListContract, SeveralThreadsMayReadAndWriteAtOnce) {
    std::vector<std::thread> threads;
    for (const PropertyListFormat format : {formats[0], formats[1], formats[0], formats[1]}) {
        threads.emplace_back([this, format] {
            for (int i = 0; i < 50; ++i) {
                const auto bytes = platform().propertyLists.dataWithPropertyList(everyKind(), format, nullptr);
                EXPECT_EQ(platform().propertyLists.propertyListWithData(bytes->bytes(), nullptr), everyKind());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace appsync::contract
