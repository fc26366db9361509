// What is shown of texts from outside.
#include "text/Printable.h"

#include <gtest/gtest.h>

namespace appsync {
namespace {

const std::string bad = "\uFFFD";

/// A character as UTF-8, also one that should not be.
std::string utf8(char32_t c) {
    const auto tail = [&](unsigned shift) { return std::string(1, static_cast<char>(0x80 | ((c >> shift) & 0x3F))); };
    if (c < 0x80) {
        return {static_cast<char>(c)};
    }
    if (c < 0x800) {
        return static_cast<char>(0xC0 | (c >> 6)) + tail(0);
    }
    if (c < 0x10000) {
        return static_cast<char>(0xE0 | (c >> 12)) + tail(6) + tail(0);
    }
    return static_cast<char>(0xF0 | (c >> 18)) + tail(12) + tail(6) + tail(0);
}

TEST(Printable, KeepsOrdinaryText) {
    for (const std::string text : {"", "a b", "aü日😀", "Карты", "مرحبا", "e\u0301", "\u00A0", "👩\u200D🔧",
                                   "می\u200Cخواهم", "\uE000", "~\u00A1"}) {
        EXPECT_EQ(printable(text), text);
    }
}

TEST(Printable, PutsBlanksForWhatSeparatesWordsAndLines) {
    EXPECT_EQ(printable("a\tb\nc\rd\v\f"), "a b c d  ");
    EXPECT_EQ(printable("a\u0085b\u2028c\u2029d"), "a b c d");
}

TEST(Printable, ReplacesWhatSteersATerminalOrTheOrderOfText) {
    EXPECT_EQ(printable("a\x1b[2Jb\x7f"), "a" + bad + "[2Jb" + bad);
    EXPECT_EQ(printable(std::string_view("\0a", 2)), bad + "a");
    const auto replaced = [](char32_t first, char32_t last) {
        for (char32_t c = first; c <= last; ++c) {
            EXPECT_EQ(printable(utf8(c)), bad) << std::hex << static_cast<unsigned>(c);
        }
    };
    replaced(0x00, 0x08);
    replaced(0x0E, 0x1F);
    replaced(0x7F, 0x84);
    replaced(0x86, 0x9F);
    replaced(0x61C, 0x61C);
    replaced(0x200B, 0x200B);
    replaced(0x200E, 0x200F);
    replaced(0x202A, 0x202E);
    replaced(0x2060, 0x2064);
    replaced(0x2066, 0x206F);
    replaced(0xFEFF, 0xFEFF);
    replaced(0xFFF9, 0xFFFB);
    replaced(0xE0001, 0xE0001);
    replaced(0xE0020, 0xE007F);
}

TEST(Printable, ReplacesWhatIsNoCharacter) {
    for (char32_t plane = 0; plane <= 0x10; ++plane) {
        EXPECT_EQ(printable(utf8((plane << 16) | 0xFFFE)), bad);
        EXPECT_EQ(printable(utf8((plane << 16) | 0xFFFF)), bad);
    }
    EXPECT_EQ(printable("\uFDD0\uFDEF"), bad + bad);
}

TEST(Printable, ReplacesEachByteThatIsNotUtf8) {
    EXPECT_EQ(printable("\xFF"), bad);
    EXPECT_EQ(printable("\xC3"), bad);
    EXPECT_EQ(printable("\xE6\x97"), bad + bad);
    EXPECT_EQ(printable("\xC0\x80"), bad + bad);           // a form that is too long
    EXPECT_EQ(printable("\xE0\x80\x80"), bad + bad + bad); // likewise
    EXPECT_EQ(printable("\xED\xA0\x80"), bad + bad + bad); // half of a pair
    EXPECT_EQ(printable("\xF4\x90\x80\x80"), bad + bad + bad + bad);
    EXPECT_EQ(printable("\xC2\x9B"), bad);
    EXPECT_EQ(printable("\x9B"
                        "2J"),
              bad + "2J");
}

TEST(Printable, EveryCharacterComesOutAsOne) {
    for (char32_t c = 0; c <= 0x10FFFF; ++c) {
        if (c < 0xD800 || c > 0xDFFF) {
            const std::string out = printable(utf8(c));
            std::string_view rest = out;
            ASSERT_TRUE(isPrintable(takeCharacter(rest))) << std::hex << static_cast<unsigned>(c);
            ASSERT_TRUE(rest.empty());
        }
    }
}

TEST(Printable, CutsLongTexts) {
    EXPECT_EQ(printable("日本語", 3), "日本語");
    EXPECT_EQ(printable("日本語", 2), "日本…");
    EXPECT_EQ(printable(std::string(201, 'x')), std::string(200, 'x') + "…");
    EXPECT_LT(printable(std::string(10'000'000, 'x')).size(), 210U);
    EXPECT_LT(printable(std::string(10'000'000, '\xFF')).size(), 610U);
}

TEST(DisplayWidth, CountsTheColumnsOfATerminal) {
    EXPECT_EQ(displayWidth(""), 0U);
    EXPECT_EQ(displayWidth("\xE2\x82\xAC 5"), 3U);
    EXPECT_EQ(displayWidth("日本"), 4U);
    EXPECT_EQ(displayWidth("e\u0301"), 1U);
    EXPECT_EQ(displayWidth("😀"), 2U);
    EXPECT_EQ(displayWidth(bad), 1U);
}

TEST(Fitted, CutsWhatTakesMoreColumns) {
    EXPECT_EQ(fitted("Kettle", 6), "Kettle");
    EXPECT_EQ(fitted("Kettle", 5), "Kett…");
    EXPECT_EQ(fitted("Kettle", 1), "…");
    EXPECT_EQ(fitted("Kettle", 0), "");
    EXPECT_EQ(fitted("", 0), "");
    EXPECT_EQ(fitted("日本語", 6), "日本語");
    EXPECT_EQ(fitted("日本語", 5), "日本…");
    EXPECT_EQ(fitted("日本語", 4), "日…") << "a wide character is not halved";
}

TEST(Fitted, CutsNothingInTwoThatIsSeenAsOne) {
    EXPECT_EQ(fitted("ae\u0301bc", 3), "ae\u0301…");
    EXPECT_EQ(fitted("ae\u0301bc", 2), "a…");
    const std::string mechanic = "👩\u200D🔧";
    EXPECT_EQ(fitted(mechanic + "abc", 6), mechanic + "a…");
    EXPECT_EQ(fitted(mechanic + "abc", 4), "…");
}

} // namespace
} // namespace appsync
