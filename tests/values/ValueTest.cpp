#include "values/Error.h"
#include "values/PropertyList.h"

#include <gtest/gtest.h>

#include <limits>

namespace appsync {
namespace {

using Kind = Value::Kind;
using namespace std::string_literals;

const std::string shortText = "fourteen bytes";
const std::string longText = "fifteen bytes..";

TEST(Text, HoldsTextsOfAnyLength) {
    for (const std::size_t length : {0U, 1U, 13U, 14U, 15U, 16U, 100U, 100'000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(Text(text).view(), text);
        EXPECT_EQ(Text(text), Text(std::string(text)));
        EXPECT_FALSE(Text(text + "a") == Text(text + "b"));
    }
    EXPECT_EQ(Text().view(), "");
    EXPECT_EQ(Text("a\0b"s).view(), "a\0b"s);
    EXPECT_FALSE(Text("a\0b"s) == Text("a"));
}

TEST(Text, CopiesOutliveTheirOriginal) {
    for (const std::string& text : {shortText, longText}) {
        Text copy;
        {
            const Text original(text);
            copy = original;
            EXPECT_EQ(original.view(), text);
        }
        EXPECT_EQ(copy.view(), text);
        copy = *&copy;
        EXPECT_EQ(copy.view(), text);
    }
}

TEST(Text, IsEmptyAfterItWasMovedAndCanBeUsedAgain) {
    for (const std::string& text : {shortText, longText}) {
        Text original(text);
        const Text taken(std::move(original));
        EXPECT_EQ(taken.view(), text);
        EXPECT_EQ(original.view(), ""); // NOLINT: the state after a move is what is tested
        EXPECT_TRUE(original == Text());
        original = taken;
        EXPECT_EQ(original.view(), text);
        Text other = std::move(original);
        original = std::move(other);
        EXPECT_EQ(original.view(), text);
    }
}

TEST(Data, HoldsBytesAndSharesThem) {
    const Data data("a\0b"s);
    const Data copy = data;
    EXPECT_EQ(copy.bytes(), "a\0b"s);
    EXPECT_EQ(copy.bytes().data(), data.bytes().data());
    EXPECT_EQ(copy.size(), 3U);
    EXPECT_TRUE(copy == data);
    EXPECT_FALSE(copy == Data("a"));
    EXPECT_TRUE(Data().empty());
    EXPECT_FALSE(data.empty());
}

TEST(Data, IsEmptyAfterItWasMovedAndCanBeUsedAgain) {
    Data original(longText);
    const Data taken(std::move(original));
    EXPECT_EQ(taken.bytes(), longText);
    EXPECT_TRUE(original.empty()); // NOLINT: the state after a move is what is tested
    original = taken;
    EXPECT_EQ(original.bytes(), longText);
}

TEST(Value, KnowsItsKind) {
    EXPECT_EQ(Value().kind(), Kind::null);
    EXPECT_EQ(Value(true).kind(), Kind::boolean);
    EXPECT_EQ(Value(1).kind(), Kind::integer);
    EXPECT_EQ(Value(1U).kind(), Kind::unsignedInteger);
    EXPECT_EQ(Value(1.0).kind(), Kind::real);
    EXPECT_EQ(Value(Date{1}).kind(), Kind::date);
    EXPECT_EQ(Value(shortText).kind(), Kind::string);
    EXPECT_EQ(Value(longText).kind(), Kind::string);
    EXPECT_EQ(Value("literal").kind(), Kind::string);
    EXPECT_EQ(Value(Text("text")).kind(), Kind::string);
    EXPECT_EQ(Value(Data()).kind(), Kind::data);
    EXPECT_EQ(Value(Array{}).kind(), Kind::array);
    EXPECT_EQ(Value(Dictionary{}).kind(), Kind::dictionary);
    EXPECT_TRUE(Value().isNull());
    EXPECT_FALSE(Value(false).isNull());
}

TEST(Value, AnswersNothingWhenItIsOfAnotherKind) {
    const Value values[] = {Value(), true, 1, 1U, 1.0, Date{1}, shortText, longText, Data("a"), Array{1}, Dictionary{}};
    for (const Value& value : values) {
        const Kind kind = value.kind();
        const bool isNumber = kind == Kind::integer || kind == Kind::unsignedInteger || kind == Kind::real;
        EXPECT_EQ(value.string().has_value(), kind == Kind::string);
        EXPECT_EQ(value.text().has_value(), kind == Kind::string);
        EXPECT_EQ(value.data().has_value(), kind == Kind::data);
        EXPECT_EQ(value.date().has_value(), kind == Kind::date);
        EXPECT_EQ(value.truth().has_value(), kind == Kind::boolean || isNumber);
        EXPECT_EQ(value.integer().has_value(), isNumber && kind != Kind::real);
        EXPECT_EQ(value.unsignedInteger().has_value(), isNumber && kind != Kind::real);
        EXPECT_EQ(value.real().has_value(), isNumber);
        EXPECT_EQ(value.array() != nullptr, kind == Kind::array);
        EXPECT_EQ(value.dictionary() != nullptr, kind == Kind::dictionary);
        Value changing = value;
        EXPECT_EQ(changing.mutableArray() != nullptr, kind == Kind::array);
        EXPECT_EQ(changing.mutableDictionary() != nullptr, kind == Kind::dictionary);
    }
}

TEST(Value, AnswersWhatItHolds) {
    EXPECT_EQ(Value(longText).string(), longText);
    EXPECT_EQ(Value(longText).text()->view(), longText);
    EXPECT_EQ(Value(Data(longText)).data()->bytes(), longText);
    EXPECT_EQ(Value(Date{-1.5}).date(), Date{-1.5});
    EXPECT_EQ(Value(true).truth(), true);
    EXPECT_EQ(Value(false).truth(), false);
    EXPECT_EQ(Value(2).truth(), true);
    EXPECT_EQ(Value(0U).truth(), false);
    EXPECT_EQ(Value(0.5).truth(), true);
    EXPECT_EQ(Value(-0.0).truth(), false);
    EXPECT_EQ(Value(-3).real(), -3.0);
    EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).real(), 18446744073709551616.0);
}

TEST(Value, AnswersWholeNumbersWithinTheRangeOfTheResult) {
    constexpr auto largestSigned = std::numeric_limits<std::int64_t>::max();
    constexpr auto largest = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(Value(-1).integer(), -1);
    EXPECT_EQ(Value(-1).unsignedInteger(), std::nullopt);
    EXPECT_EQ(Value(largestSigned).unsignedInteger(), static_cast<std::uint64_t>(largestSigned));
    EXPECT_EQ(Value(largest).unsignedInteger(), largest);
    EXPECT_EQ(Value(largest).integer(), std::nullopt);
    EXPECT_EQ(Value(5U).integer(), 5);
}

TEST(Value, IsNullAfterItWasMovedAndCanBeUsedAgain) {
    for (const Value& original : {Value(shortText), Value(longText), Value(Array{1}), Value(Dictionary{{"a", 1}})}) {
        Value source = original;
        Value target = std::move(source);
        EXPECT_EQ(target, original);
        EXPECT_TRUE(source.isNull()); // NOLINT: the state after a move is what is tested
        source = target;
        EXPECT_EQ(source, original);
    }
}

TEST(Value, CopiesAreIndependent) {
    Value original = Dictionary{{"list", Array{1, Dictionary{{"name", longText}}}}};
    const Value before = original;
    Value copy = original;
    Array& list = *copy.mutableDictionary()->find("list")->mutableArray();
    list.push_back(2);
    list[1].mutableDictionary()->set("name", "other");
    EXPECT_EQ(original, before);
    EXPECT_EQ(original.description(), "{list = (1, {name = fifteen bytes..;});}");
    EXPECT_EQ(copy.description(), "{list = (1, {name = other;}, 2);}");
    original.mutableDictionary()->erase("list");
    EXPECT_EQ(copy.description(), "{list = (1, {name = other;}, 2);}");
    EXPECT_EQ(before.description(), "{list = (1, {name = fifteen bytes..;});}");
}

TEST(Value, ChangesStorageInPlaceWhenItIsNotShared) {
    Value value = Array{1, 2, 3};
    const Array* storage = value.array();
    EXPECT_EQ(value.mutableArray(), storage);
    const Value copy = value;
    EXPECT_EQ(copy.array(), storage);
    EXPECT_NE(value.mutableArray(), storage);
}

TEST(Value, SharesOneLevelOnlyWhenItIsChanged) {
    const Value inner = Array{1, 2, 3};
    Value outer = Array{inner, 1};
    Value copy = outer;
    copy.mutableArray()->push_back(4);
    EXPECT_EQ((*copy.array())[0].array(), inner.array());
}

TEST(Value, ComparesKindAndContent) {
    EXPECT_TRUE(Value() == Value());
    EXPECT_TRUE(Value(5) == Value(5U));
    EXPECT_TRUE(Value(5U) == Value(5));
    EXPECT_FALSE(Value(-1) == Value(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_FALSE(Value(std::numeric_limits<std::uint64_t>::max()) == Value(-1));
    EXPECT_TRUE(Value(std::uint64_t{1} << 63) == Value(std::uint64_t{1} << 63));
    EXPECT_FALSE(Value(std::uint64_t{1} << 63) == Value((std::uint64_t{1} << 63) + 1));
    EXPECT_FALSE(Value(1) == Value(1.0));
    EXPECT_FALSE(Value(1.0) == Value(1));
    EXPECT_FALSE(Value(1) == Value(true));
    EXPECT_FALSE(Value(0) == Value());
    EXPECT_FALSE(Value(1.0) == Value(Date{1}));
    EXPECT_FALSE(Value("a") == Value(Data("a")));
    EXPECT_TRUE(Value(longText) == Value(longText));
    EXPECT_FALSE(Value(longText) == Value(longText + "x"));
    EXPECT_FALSE(Value(true) == Value(false));
    EXPECT_FALSE(Value(Date{1}) == Value(Date{2}));
    EXPECT_FALSE(Value(Data("a")) == Value(Data("b")));
}

TEST(Value, ComparesContainersDeeply) {
    EXPECT_TRUE(Value(Array{1, Array{"a", 2U}}) == Value(Array{1U, Array{"a", 2}}));
    EXPECT_FALSE(Value(Array{1, 2}) == Value(Array{2, 1}));
    EXPECT_FALSE(Value(Array{1, 2}) == Value(Array{1}));
    EXPECT_FALSE(Value(Array{1}) == Value(Array{1, 2}));
    EXPECT_FALSE(Value(Array{}) == Value(Dictionary{}));
    EXPECT_TRUE(Value(Dictionary{{"a", 1}, {"b", 2}}) == Value(Dictionary{{"b", 2}, {"a", 1}}));
    EXPECT_FALSE(Value(Dictionary{{"a", 1}}) == Value(Dictionary{{"a", 2}}));
    EXPECT_FALSE(Value(Dictionary{{"a", 1}}) == Value(Dictionary{{"b", 1}}));
    EXPECT_FALSE(Value(Dictionary{{"a", 1}}) == Value(Dictionary{{"a", 1}, {"b", 2}}));
}

TEST(Value, DescribesItselfOnOneLine) {
    EXPECT_EQ(Value().description(), "(null)");
    EXPECT_EQ(Value(true).description(), "1");
    EXPECT_EQ(Value(false).description(), "0");
    EXPECT_EQ(Value(-42).description(), "-42");
    EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).description(), "18446744073709551615");
    EXPECT_EQ(Value(0.5).description(), "0.5");
    EXPECT_EQ(Value(Date{12.5}).description(), "12.5");
    EXPECT_EQ(Value("a \"b\"").description(), "a \"b\"");
    EXPECT_EQ(Value(Data("12345")).description(), "<5 bytes>");
    EXPECT_EQ(Value(Array{}).description(), "()");
    EXPECT_EQ(Value(Array{1, "a", Array{true, Value()}}).description(), "(1, a, (1, (null)))");
    EXPECT_EQ(Value(Dictionary{}).description(), "{}");
    EXPECT_EQ(Value(Dictionary{{"k", "v"}}).description(), "{k = v;}");
    EXPECT_EQ(Value(Dictionary{{"k", "v"}, {"l", Dictionary{{"m", 1}}}}).description(), "{k = v; l = {m = 1;};}");
    std::string out = "list: ";
    Description description(out);
    Value(Array{1, 2}).appendDescription(description);
    EXPECT_EQ(out, "list: (1, 2)");
}

TEST(Value, DescribesNoMoreThanTheLimit) {
    const std::string mark = "... (cut after " + std::to_string(maxDescriptionSize) + " bytes)";
    const std::string longest(maxDescriptionSize, 'x');
    EXPECT_EQ(Value(longest).description(), longest);
    EXPECT_EQ(Value(longest + "x").description(), longest + mark);
    EXPECT_EQ(Value(Array{longest, 1}).description(), "(" + longest.substr(1) + mark);
    EXPECT_EQ(Value(Array{longest.substr(2)}).description(), "(" + longest.substr(2) + ")");
    EXPECT_EQ(Value(Dictionary{{"k", longest}, {"l", 1}}).description(), "{k = " + longest.substr(5) + mark);
    EXPECT_EQ(Value(longest.substr(1) + "\xE2\x82\xAC").description(), longest.substr(1) + mark); // no half characters
}

TEST(Value, DescribesWhatExpandsBeyondMeasureInNoTime) {
    Value value = std::string(std::size_t{1} << 20, 'x');
    for (int i = 0; i < 200; ++i) { // a description of all of it would never end
        value = Array{value, Dictionary{{"", value}}};
    }
    EXPECT_LT(value.description().size(), maxDescriptionSize + 100);
    EXPECT_LT(Error("Domain", 1, {{"list", value}}).description().size(), maxDescriptionSize + 100);
}

/// `depth` containers in one another, arrays and dictionaries in turn.
Value nested(std::size_t depth) {
    Value value = 1;
    for (std::size_t i = 0; i < depth; ++i) {
        if (i % 3 == 0) {
            Dictionary outer;
            outer.set("inner", std::move(value));
            outer.set("other", longText);
            value = std::move(outer);
        } else {
            Array outer;
            outer.push_back(i);
            outer.push_back(std::move(value));
            value = std::move(outer);
        }
    }
    return value;
}

TEST(Value, AnyDepthIsDestroyedDescribedAndCompared) {
    constexpr std::size_t depth = 1'000'000;
    Value value = nested(depth);
    const Value copy = value;
    EXPECT_TRUE(value == copy);
    EXPECT_FALSE(value == nested(depth));
    EXPECT_NE(value.description().find("..."), std::string::npos);
    EXPECT_EQ(nested(500).description().find("..."), std::string::npos);
    EXPECT_TRUE(nested(500) == nested(500));
    value = Value();
}

TEST(Value, DestroysWideAndDeepValuesAlike) {
    Array list;
    for (int i = 0; i < 50; ++i) {
        list.push_back(nested(300));
        list.push_back(list.front());
    }
    Value value = list;
    list.clear();
    const Value kept = (*value.array())[99];
    value = 1;
    EXPECT_TRUE(kept == nested(300));
}

} // namespace
} // namespace appsync
