#include "propertylist/Utf.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace appsync::propertylist {
namespace {

using namespace std::string_literals;

/// The obvious decoder, to compare with: where the first byte stands that is not part of a character.
std::size_t firstInvalid(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&](std::size_t k) -> std::uint32_t {
            return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0;
        };
        std::size_t length = 0;
        std::uint32_t character = 0;
        std::uint32_t smallest = 0;
        if (byte(0) < 0x80) {
            length = 1;
            character = byte(0);
        } else if ((byte(0) & 0xE0) == 0xC0) {
            length = 2;
            smallest = 0x80;
            character = byte(0) & 0x1F;
        } else if ((byte(0) & 0xF0) == 0xE0) {
            length = 3;
            smallest = 0x800;
            character = byte(0) & 0x0F;
        } else if ((byte(0) & 0xF8) == 0xF0) {
            length = 4;
            smallest = 0x10000;
            character = byte(0) & 0x07;
        } else {
            return i;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if ((byte(k) & 0xC0) != 0x80) {
                return i;
            }
            character = character << 6 | (byte(k) & 0x3F);
        }
        if (character < smallest || character > 0x10FFFF || (character >= 0xD800 && character < 0xE000)) {
            return i;
        }
        i += length;
    }
    return allValid;
}

TEST(Utf8, EveryTextOfUpToTwoBytesIsJudgedAsByTheObviousDecoder) {
    for (unsigned first = 0; first < 256; ++first) {
        const std::string one(1, static_cast<char>(first));
        ASSERT_EQ(invalidUtf8(one), firstInvalid(one));
        for (unsigned second = 0; second < 256; ++second) {
            const std::string two = one + static_cast<char>(second);
            ASSERT_EQ(invalidUtf8(two), firstInvalid(two)) << first << " " << second;
        }
    }
}

TEST(Utf8, LeadBytesWithEverySecondByteAreJudgedAsByTheObviousDecoder) {
    for (unsigned lead = 0xC0; lead < 256; ++lead) {
        for (unsigned second = 0; second < 256; ++second) {
            for (const char* tail : {"", "\x80", "\x80\x80", "\xBF\xBF", "\x80\x7F", "\xC0\x80", "\x80\x80\x80"}) {
                const std::string text = "abc"s + static_cast<char>(lead) + static_cast<char>(second) + tail;
                ASSERT_EQ(invalidUtf8(text), firstInvalid(text)) << lead << " " << second;
            }
        }
    }
}

TEST(Utf8, RandomBytesAreJudgedAsByTheObviousDecoder) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string pieces[] = {"a",
                                  "plain text ",
                                  "\xC3\xA4",
                                  "\xE2\x82\xAC",
                                  "\xED\x9F\xBF",
                                  "\xEE\x80\x80",
                                  "\xF0\x9F\x98\x80",
                                  "\xF4\x8F\xBF\xBF",
                                  "\xED\xA0\x80",
                                  "\xC0\x80",
                                  "\xFF",
                                  "\x80",
                                  "\xF4\x90\x80\x80",
                                  "\xE0\x9F\xBF",
                                  "\xF0\x8F\xBF\xBF",
                                  "\0"s};
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        for (std::size_t count = random() % 12; count > 0; --count) {
            text += pieces[random() % std::size(pieces)];
        }
        ASSERT_EQ(invalidUtf8(text), firstInvalid(text)) << testing::PrintToString(text);
    }
}

TEST(Utf8, AsciiIsFoundWhereverTheOtherByteStands) {
    for (std::size_t size = 0; size < 40; ++size) {
        EXPECT_TRUE(isAscii(std::string(size, 'x')));
        for (std::size_t i = 0; i < size; ++i) {
            std::string text(size, 'x');
            text[i] = '\x80';
            EXPECT_FALSE(isAscii(text)) << size << " " << i;
        }
    }
    EXPECT_TRUE(isAscii("\0\x7F"s));
}

std::string utf16Of(std::string_view utf8) {
    std::string out(utf16Length(utf8) * 2, '\0');
    EXPECT_EQ(writeUtf16(out.data(), utf8), out.data() + out.size());
    return out;
}

TEST(Utf16, EveryCharacterGoesThereAndBack) {
    for (std::uint32_t character = 0; character <= 0x10FFFF; ++character) {
        if (character >= 0xD800 && character < 0xE000) {
            continue;
        }
        std::string units;
        const auto append = [&](std::uint32_t unit) {
            units += static_cast<char>(unit >> 8);
            units += static_cast<char>(unit & 0xFF);
        };
        if (character < 0x10000) {
            append(character);
        } else {
            append(0xD800 + ((character - 0x10000) >> 10));
            append(0xDC00 + ((character - 0x10000) & 0x3FF));
        }
        std::string utf8;
        ASSERT_EQ(appendUtf8(utf8, units), allValid);
        ASSERT_EQ(invalidUtf8(utf8), allValid) << character;
        ASSERT_EQ(utf16Of(utf8), units) << character;
    }
}

TEST(Utf16, UnpairedSurrogatesAreFoundWhereTheyStand) {
    std::string out;
    EXPECT_EQ(appendUtf8(out, "\0a\xD8\0"s), 2U);
    EXPECT_EQ(appendUtf8(out, "\xDC\0\0a"s), 0U);
    EXPECT_EQ(appendUtf8(out, "\xDB\xFF\xDB\xFF\xDF\xFF"s), 0U);
    EXPECT_EQ(appendUtf8(out, "\xDB\xFF\xDF\xFF\xDF\xFF"s), 4U);
    EXPECT_EQ(appendUtf8(out, "\xD8\0\xE0\0"s), 0U);
    EXPECT_EQ(appendUtf8(out, "\xDC\0\xDC\0"s), 0U);
    EXPECT_EQ(appendUtf8(out, "\xDF\xFF\xDC\0"s), 0U);
    // What lies behind the text is none of its business.
    EXPECT_EQ(appendUtf8(out, std::string_view("\0a\xD8\0\xDC\0", 4)), 2U);
    EXPECT_EQ(appendUtf8(out, ""), allValid);
}

} // namespace
} // namespace appsync::propertylist
