#include "propertylist/xml/XmlWriter.h"
#include "propertylist/Failure.h"
#include "tests/propertylist/Expectations.h"

#include <limits>

namespace appsync {
namespace {

using Code = PropertyListErrorCode;
using namespace std::string_literals;

std::string written(const Value& value) {
    return mustWrite(value, PropertyListFormat::xml);
}

std::string document(std::string_view content) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + std::string(content) +
           "\n</plist>\n";
}

TEST(XmlWriter, WritesScalars) {
    EXPECT_EQ(written(true), document("<true/>"));
    EXPECT_EQ(written(false), document("<false/>"));
    EXPECT_EQ(written(0), document("<integer>0</integer>"));
    EXPECT_EQ(written(std::numeric_limits<std::int64_t>::min()), document("<integer>-9223372036854775808</integer>"));
    EXPECT_EQ(written(std::numeric_limits<std::uint64_t>::max()), document("<integer>18446744073709551615</integer>"));
    EXPECT_EQ(written(0.1), document("<real>0.1</real>"));
    EXPECT_EQ(written(1e300), document("<real>1e+300</real>"));
    EXPECT_EQ(written(Date{60.5}), document("<date>2001-01-01T00:01:00Z</date>"));
    EXPECT_EQ(written(Data("foo")), document("<data>Zm9v</data>"));
    EXPECT_EQ(written(Data()), document("<data></data>"));
    EXPECT_EQ(written(""), document("<string></string>"));
    EXPECT_EQ(written("\xC3\xA4"), document("<string>\xC3\xA4</string>"));
}

TEST(XmlWriter, IndentsContainers) {
    EXPECT_EQ(written(Dictionary{{"b", Array{1, Array{}, Dictionary{}}}, {"a", "x"}}),
              document("<dict>\n"
                       "\t<key>b</key>\n"
                       "\t<array>\n"
                       "\t\t<integer>1</integer>\n"
                       "\t\t<array/>\n"
                       "\t\t<dict/>\n"
                       "\t</array>\n"
                       "\t<key>a</key>\n"
                       "\t<string>x</string>\n"
                       "</dict>"));
}

TEST(XmlWriter, WritesNoDocumentType) {
    EXPECT_EQ(written(smallSample()).find("DOCTYPE"), std::string::npos);
}

TEST(XmlWriter, EscapesWhatMeansSomethingInXml) {
    EXPECT_EQ(written("a&b<c>d\"e'f"), document("<string>a&amp;b&lt;c&gt;d\"e'f</string>"));
    EXPECT_EQ(written("]]>"), document("<string>]]&gt;</string>"));
    EXPECT_EQ(written("a\r\n\tb"), document("<string>a&#13;\n\tb</string>"));
    EXPECT_EQ(written(Dictionary{{"<&>", 1}}),
              document("<dict>\n\t<key>&lt;&amp;&gt;</key>\n\t<integer>1</integer>\n</dict>"));
}

TEST(XmlWriter, EveryCharacterThatXmlCanHoldIsReadBack) {
    std::string text;
    const auto append = [&](std::uint32_t c) {
        if (c < 0x80) {
            text += static_cast<char>(c);
        } else if (c < 0x800) {
            text += static_cast<char>(0xC0 | c >> 6);
            text += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            text += static_cast<char>(0xE0 | c >> 12);
            text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            text += static_cast<char>(0x80 | (c & 0x3F));
        }
    };
    for (std::uint32_t c = 0x20; c < 0xFFFE; ++c) {
        if (c < 0xD800 || c >= 0xE000) {
            append(c);
        }
    }
    text += "\t\n\r\r\n\n\r\xF0\x90\x80\x80\xF0\x9F\xBF\xBF\xF4\x8F\xBF\xBF";
    const Value value = Dictionary{{text, text}};
    EXPECT_EQ(mustRead(written(value)), value);
}

TEST(XmlWriter, ReplacesCharactersThatXmlCannotHold) {
    const auto text = [](std::string_view content) {
        return document("<string>" + std::string(content) + "</string>");
    };
    EXPECT_EQ(written("a\x01"
                      "b\x1F"),
              text("a\uFFFDb\uFFFD"));
    EXPECT_EQ(written("a\0b<"s), text("a\uFFFDb&lt;"));
    EXPECT_EQ(written("\xEF\xBF\xBE|\xEF\xBF\xBF"), text("\uFFFD|\uFFFD"));
    EXPECT_EQ(written("\xEF\xBF\xBD\xEF\xB7\x90"), text("\xEF\xBF\xBD\xEF\xB7\x90")); // U+FDD0 it can
    EXPECT_EQ(written("a\xFF\xE2\x82"
                      "b\xED\xA0\x80"),
              text("a\uFFFD\uFFFD\uFFFDb\uFFFD\uFFFD\uFFFD"));
}

TEST(XmlWriter, KeepsTheFirstOfTheKeysThatBecomeTheSame) {
    EXPECT_EQ(mustRead(written(Dictionary{{"a\x01", 1}, {"a\x02", 2}, {"a", 3}, {"a\uFFFD", 4}})),
              Value(Dictionary{{"a\uFFFD", 1}, {"a", 3}}));
}

TEST(XmlWriter, HandsTheTextOverPieceByPiece) {
    const Value list = Array(100'000, "a text of some length");
    std::string whole;
    std::size_t largest = 0;
    ErrorPtr error;
    EXPECT_TRUE(PropertyListCodec().writeXml(
        list,
        [&](std::string_view piece) {
            whole += piece;
            largest = std::max(largest, piece.size());
            return true;
        },
        &error));
    EXPECT_EQ(whole, written(list));
    EXPECT_LT(largest, 100'000U);
}

TEST(XmlWriter, StopsWhenNobodyTakesTheText) {
    int pieces = 0;
    EXPECT_TRUE(PropertyListCodec().writeXml(
        Array(100'000, "a text of some length"), [&](std::string_view) { return ++pieces < 2; }, nullptr));
    EXPECT_EQ(pieces, 2);
}

TEST(XmlWriter, MakesNoFileOfAListThatExpandsBeyondMeasure) {
    const Value list = Array(2000, std::string(100'000, 'x'));
    ErrorPtr error;
    EXPECT_FALSE(PropertyListCodec().dataWithPropertyList(list, PropertyListFormat::xml, &error));
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooLarge));
    std::size_t size = 0;
    const auto count = [&](std::string_view piece) {
        size += piece.size();
        return true;
    };
    EXPECT_TRUE(PropertyListCodec().writeXml(list, count, nullptr));
    EXPECT_GT(size, maxPropertyListXmlSize);
}

TEST(XmlWriter, RefusesWhatXmlCannotHold) {
    const auto refuse = [](const Value& value, Code code, std::string_view keyPath) {
        expectWriteError(value, PropertyListFormat::xml, code, keyPath);
    };
    refuse(Value(), Code::nullValue, "");
    refuse(Dictionary{{"a", Array{Dictionary{{"b", 1}, {"c", Value()}}}}}, Code::nullValue, "a[0].c");
    refuse(Array{std::numeric_limits<double>::quiet_NaN()}, Code::numberOutOfRange, "[0]");
    refuse(-std::numeric_limits<double>::infinity(), Code::numberOutOfRange, "");
    refuse(Array{Date{1e300}}, Code::invalidDate, "[0]");
    refuse(Date{std::numeric_limits<double>::quiet_NaN()}, Code::invalidDate, "");
}

TEST(XmlWriter, EndsWhenTheLimitIsReached) {
    Value doubled = Array{};
    for (int i = 0; i < 40; ++i) {
        doubled = Array{doubled, doubled};
    }
    for (const Value& value : {doubled, Value(std::string(20'000, 'x'))}) {
        try {
            static_cast<void>(propertylist::writeXml(value, 10'000));
            ADD_FAILURE() << "no error";
        } catch (const propertylist::Failure& failure) {
            EXPECT_EQ(failure.code, Code::tooLarge);
        }
    }
    EXPECT_EQ(propertylist::writeXml(true, document("<true/>").size()).bytes(), document("<true/>"));
    EXPECT_THROW(static_cast<void>(propertylist::writeXml(true, document("<true/>").size() - 1)),
                 propertylist::Failure);
}

TEST(XmlWriter, WritesUpToTheDepthLimit) {
    EXPECT_EQ(mustRead(written(nestedArrays(maxPropertyListDepth))), nestedArrays(maxPropertyListDepth));
    ErrorPtr error;
    for (const std::size_t depth : {maxPropertyListDepth + 1, std::size_t{100'000}}) {
        EXPECT_FALSE(PropertyListCodec().dataWithPropertyList(nestedArrays(depth), PropertyListFormat::xml, &error));
        EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooDeep));
    }
}

} // namespace
} // namespace appsync
