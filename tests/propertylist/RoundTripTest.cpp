// What is written is read back as it was, for values of every kind and shape.
#include "tests/propertylist/Expectations.h"

#include <bit>
#include <limits>
#include <random>

namespace appsync {
namespace {

/// Makes random values, with a liking for limits and for what was made before.
class RandomValues {
  public:
    explicit RandomValues(unsigned seed) : _random(seed) {}

    Value value(unsigned depth) {
        switch (below(depth == 0 ? 7 : 10)) {
        case 0: return below(2) == 0;
        case 1: return integer();
        case 2: return static_cast<std::uint64_t>(integer());
        case 3: return real();
        case 4:
            return Date{static_cast<double>(static_cast<std::int64_t>(_random() % 300'000'000'000) - 63'000'000'000)};
        case 5: return text();
        case 6: return Data(bytes());
        case 7:
        case 8: return array(depth - 1);
        default: return dictionary(depth - 1);
        }
    }

    std::string text() {
        if (!_texts.empty() && below(3) == 0) {
            return _texts[below(_texts.size())];
        }
        static constexpr std::string_view pieces[] = {
            "a",  "Z",   "0",   " ", "<", "&", "\n", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "com.example.",
            "\r", "]]>", "\x7F"};
        std::string out;
        for (std::size_t count = below(below(8) == 0 ? 300 : 20); count > 0; --count) {
            out += pieces[below(below(2) == 0 ? 3 : std::size(pieces))];
        }
        _texts.push_back(out);
        return out;
    }

  private:
    std::size_t below(std::size_t end) { return static_cast<std::size_t>(_random() % end); }

    std::int64_t integer() {
        const auto bits = static_cast<std::int64_t>(_random());
        return below(4) == 0 ? bits : bits >> below(64);
    }

    double real() {
        const auto number = std::bit_cast<double>(_random());
        return below(2) == 0 || !std::isfinite(number) ? static_cast<double>(integer()) / 8 : number;
    }

    std::string bytes() {
        std::string out(below(below(8) == 0 ? 500 : 20), '\0');
        for (char& byte : out) {
            byte = static_cast<char>(_random());
        }
        return out;
    }

    Value array(unsigned depth) {
        Array items;
        for (std::size_t count = below(below(8) == 0 ? 60 : 6); count > 0; --count) {
            items.push_back(!items.empty() && below(8) == 0 ? items[below(items.size())] : value(depth));
        }
        return items;
    }

    Value dictionary(unsigned depth) {
        Dictionary entries;
        for (std::size_t count = below(below(8) == 0 ? 60 : 6); count > 0; --count) {
            entries.set(text(), value(depth));
        }
        return entries;
    }

    std::mt19937_64 _random;
    std::vector<std::string> _texts;
};

TEST(RoundTrip, RandomValuesAreReadBackFromBothFormats) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomValues random(seed);
    for (int round = 0; round < 1500; ++round) {
        const Value value = random.value(5);
        const std::string binary = mustWrite(value, PropertyListFormat::binary);
        const std::string xml = mustWrite(value, PropertyListFormat::xml);
        const Value fromBinary = mustRead(binary);
        const Value fromXml = mustRead(xml);
        ASSERT_EQ(fromBinary, value) << round << ": " << value.description();
        ASSERT_EQ(fromXml, value) << round << ": " << value.description();
        // Order and kinds are kept as well, which equality does not ask for.
        ASSERT_EQ(fromBinary.description(), value.description());
        ASSERT_EQ(fromXml.description(), value.description());
        ASSERT_EQ(mustWrite(fromXml, PropertyListFormat::binary), binary);
        ASSERT_EQ(mustWrite(fromBinary, PropertyListFormat::xml), xml);
    }
}

TEST(RoundTrip, RandomDamageEndsInAValueOrAnError) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomValues values(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 1500; ++round) {
        const auto format = round % 3 == 0 ? PropertyListFormat::xml : PropertyListFormat::binary;
        std::string file = mustWrite(values.value(4), format);
        for (std::size_t changes = 1 + random() % 6; changes > 0; --changes) {
            file[random() % file.size()] = static_cast<char>(random() % 4 == 0 ? random() : random() % 16);
        }
        ASSERT_NO_FATAL_FAILURE(expectValueOrError(file));
    }
}

TEST(RoundTrip, KeepsEveryKindOfValue) {
    for (const auto format : {PropertyListFormat::binary, PropertyListFormat::xml}) {
        const Value read = mustRead(mustWrite(smallSample(), format));
        EXPECT_EQ(read, smallSample());
        EXPECT_EQ(read.description(), smallSample().description());
    }
}

TEST(RoundTrip, BinaryKeepsWhatXmlCannotHold) {
    const Value value =
        Array{Date{0.25}, std::string("\0\x01", 2), std::numeric_limits<double>::infinity(), Date{1e15}};
    EXPECT_EQ(mustRead(mustWrite(value, PropertyListFormat::binary)), value);
}

TEST(RoundTrip, XmlHoldsDatesInWholeSeconds) {
    EXPECT_EQ(mustRead(mustWrite(Date{0.25}, PropertyListFormat::xml)), Value(Date{0}));
}

TEST(RoundTrip, WhatIsReadCanBeChanged) {
    const Value original = Array{Dictionary{{"identifier", "a"}, {"operation", "install"}},
                                 Dictionary{{"identifier", "b"}, {"operation", "install"}}};
    Value list = mustRead(mustWrite(original, PropertyListFormat::binary));
    Dictionary* record = (*list.mutableArray())[1].mutableDictionary();
    record->set("operation", "INSTALLED");
    record->set("more", 1);
    EXPECT_TRUE(record->erase("identifier"));
    EXPECT_EQ(mustRead(mustWrite(list, PropertyListFormat::binary)).description(),
              "({identifier = a; operation = install;}, {operation = INSTALLED; more = 1;})");
}

TEST(RoundTrip, DictionariesCanBeTakenOutOfWhatIsRead) {
    const Value original = Array{Dictionary{{"inner", Dictionary{{"a", 1}, {"b", "a text that needs a box"}}}},
                                 Dictionary{{"inner", Dictionary{{"a", 2}, {"b", "another text that needs a box"}}}}};
    Value list = mustRead(mustWrite(original, PropertyListFormat::binary));
    Dictionary* outer = (*list.mutableArray())[0].mutableDictionary();
    Dictionary* inner = outer->find("inner")->mutableDictionary();
    Dictionary taken = std::move(*inner);
    EXPECT_TRUE(inner->empty()); // NOLINT: the state after a move is what is tested
    inner->set("c", 3);
    EXPECT_EQ(list.description(), "({inner = {c = 3;};}, {inner = {a = 2; b = another text that needs a box;};})");
    Dictionary takenAgain = std::move(taken);
    Dictionary* other = (*list.mutableArray())[1].mutableDictionary();
    *other = std::move(*other->find("inner")->mutableDictionary());
    EXPECT_EQ(list.description(), "({inner = {c = 3;};}, {a = 2; b = another text that needs a box;})");
    std::swap(takenAgain, *other);
    EXPECT_EQ(list.description(), "({inner = {c = 3;};}, {a = 1; b = a text that needs a box;})");
    list = Value();
    takenAgain.set("c", 4);
    EXPECT_EQ(Value(takenAgain).description(), "{a = 2; b = another text that needs a box; c = 4;}");
}

} // namespace
} // namespace appsync
