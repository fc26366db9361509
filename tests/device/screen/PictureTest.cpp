#include "device/drawing/Picture.h"
#include "device/drawing/ScreenText.h"
#include "device/screen/AppBundles.h"
#include "tests/device/drawing/Pixels.h"

#include <gtest/gtest.h>

#include <cmath>

namespace appsync::device {
namespace {

// Where the first icon stands.
constexpr int IconLeft = (screenWidth - 4 * iconSide) / 5;
constexpr int IconTop = 128;

CairoSurface draw(const ScreenContents& contents) {
    const auto drawn = drawHomeScreen(contents);
    EXPECT_TRUE(drawn);
    // Larger than what is read from files.
    struct Rest {
        std::string_view bytes;
    } rest{drawn->png.bytes()};
    const auto read = [](void* closure, unsigned char* out, unsigned length) {
        auto& left = static_cast<Rest*>(closure)->bytes;
        std::memcpy(out, left.data(), length);
        left.remove_prefix(length);
        return CAIRO_STATUS_SUCCESS;
    };
    return CairoSurface(cairo_image_surface_create_from_png_stream(read, &rest));
}

ScreenContents one(const ScreenIcon& icon) {
    return {{{icon}}, false};
}

std::shared_ptr<Image> whiteIcon() {
    CairoSurface surface = makeSurface(iconSide, iconSide);
    const CairoContext context(cairo_create(surface.get()));
    cairo_set_source_rgb(context.get(), 1, 1, 1);
    cairo_paint(context.get());
    return std::make_shared<CairoImage>(std::move(surface));
}

double iconBrightness(const ScreenIcon& icon) {
    return brightness(draw(one(icon)).get(), IconLeft, IconTop, iconSide, iconSide);
}

TEST(Picture, OneScreenHasTheSizeOfAHandheldsScreen) {
    const CairoSurface picture = draw({});
    EXPECT_EQ(cairo_image_surface_get_width(picture.get()), screenWidth);
    EXPECT_EQ(cairo_image_surface_get_height(picture.get()), screenHeight);
}

TEST(Picture, TheSameContentsGiveTheSameBytes) {
    ScreenContents contents = one({"Name", whiteIcon(), true, 0.4});
    contents.isSyncing = true;
    EXPECT_EQ(drawHomeScreen(contents)->png.bytes(), drawHomeScreen(contents)->png.bytes());
}

TEST(Picture, PagesStandSideBySideAndAFullPageGoesOnOnTheNextScreen) {
    const auto widthOf = [](const std::vector<std::size_t>& pages) {
        ScreenContents contents;
        for (const std::size_t places : pages) {
            contents.pages.emplace_back(places, ScreenIcon{"a", nullptr, false, 0, false});
        }
        return cairo_image_surface_get_width(draw(contents).get());
    };
    const auto screens = [](int count) { return count * screenWidth + (count - 1) * screenGap; };
    EXPECT_EQ(widthOf({placesPerScreen}), screens(1));
    EXPECT_EQ(widthOf({placesPerScreen + 1}), screens(2));
    EXPECT_EQ(widthOf({1, 1, 1}), screens(3));
    EXPECT_EQ(widthOf({placesPerScreen * 100}), screens(maxScreens));
    EXPECT_EQ(widthOf({0}), screens(1));
}

TEST(Picture, AnInstalledAppsIconIsDrawnAsItIs) {
    EXPECT_EQ(iconBrightness({"a", whiteIcon(), false, 0, false}), 255);
}

TEST(Picture, APlaceholderIsDimmedAndItsRingFillsWithTheProgress) {
    const double none = iconBrightness({"a", whiteIcon(), true, 0});
    const double half = iconBrightness({"a", whiteIcon(), true, 0.5});
    const double whole = iconBrightness({"a", whiteIcon(), true, 1});
    EXPECT_LT(none, 160);
    EXPECT_GT(half, none + 2);
    EXPECT_GT(whole, half + 2);
}

TEST(Picture, AnUpdateShowsItsProgressWithoutBeingDimmed) {
    const double none = iconBrightness({"a", whiteIcon(), false, 0, true});
    const double whole = iconBrightness({"a", whiteIcon(), false, 1, true});
    EXPECT_GT(none, 200);
    EXPECT_LT(none, 255);
    EXPECT_GT(whole, none);
}

TEST(Picture, OddProgressIsDrawnAsNoneOrAll) {
    EXPECT_EQ(iconBrightness({"a", whiteIcon(), true, std::nan("")}), iconBrightness({"a", whiteIcon(), true, 0}));
    EXPECT_EQ(iconBrightness({"a", whiteIcon(), true, -3}), iconBrightness({"a", whiteIcon(), true, 0}));
    EXPECT_EQ(iconBrightness({"a", whiteIcon(), true, 7}), iconBrightness({"a", whiteIcon(), true, 1}));
}

TEST(Picture, AnAppWithoutAnIconGetsATileWithItsFirstLetter) {
    const CairoSurface tile = draw(one({"I", nullptr}));
    const CairoSurface other = draw(one({"M", nullptr}));
    const CairoSurface empty = draw({});
    const auto iconOf = [](const CairoSurface& picture) {
        return brightness(picture.get(), IconLeft, IconTop, iconSide, iconSide);
    };
    EXPECT_NE(iconOf(tile), iconOf(empty));
    EXPECT_GT(iconOf(other), iconOf(tile)) << "the wider letter covers more of the tile";
}

TEST(Picture, ASyncUnderWayIsWrittenInTheStatusLineOnly) {
    ScreenContents contents;
    const CairoSurface quiet = draw(contents);
    contents.isSyncing = true;
    const CairoSurface syncing = draw(contents);
    EXPECT_GT(brightness(syncing.get(), 250, 10, 250, 50), brightness(quiet.get(), 250, 10, 250, 50) + 5);
    for (int y = 70; y < screenHeight; y += 7) {
        ASSERT_EQ(pixelAt(syncing.get(), 300, y), pixelAt(quiet.get(), 300, y));
    }
}

TEST(Picture, AFolderShowsNineOfItsIcons) {
    const auto brightnessOf = [](std::size_t icons) {
        const ScreenFolder folder{"F", std::vector<ScreenIcon>(icons, ScreenIcon{"a", whiteIcon()})};
        return brightness(draw({{{folder}}, false}).get(), IconLeft, IconTop, iconSide, iconSide);
    };
    EXPECT_LT(brightnessOf(1), brightnessOf(8));
    EXPECT_LT(brightnessOf(8), brightnessOf(9));
    EXPECT_EQ(brightnessOf(9), brightnessOf(30));
}

TEST(Picture, NamesOfAnyKindAreDrawn) {
    for (const std::string& name :
         {std::string("\xFF\xFE\xC0"), std::string(100'000, 'W'), std::string("\0x\n", 3),
          std::string("Übersicht Карты 日本語"), std::string(), std::string("\uFDD0"), std::string("a\uFFFF"),
          std::string("\U0010FFFE"), std::string("\xED\xA0\x80"), std::string("\u202Eabc\u2066\u200F"),
          std::string("\u0085\u009B"), std::string("\u0301\u0301")}) {
        EXPECT_TRUE(drawHomeScreen(one({name, nullptr}))) << name.substr(0, 20);
    }
}

TEST(ScreenText, TheFirstLetterIsACapital) {
    EXPECT_EQ(firstLetter("mail"), "M");
    EXPECT_EQ(firstLetter("Über"), "Ü");
    EXPECT_EQ(firstLetter(""), "?");
    EXPECT_EQ(firstLetter("\n"), "?");
    EXPECT_EQ(firstLetter("7"), "7");
    EXPECT_EQ(firstLetter("\uFFFF"), "\uFFFD");
    EXPECT_EQ(firstLetter("\xE6\x97"), "\uFFFD");
}

TEST(Picture, ADemotedAppLooksOtherwiseThanOneThatWaits) {
    ScreenIcon icon{.name = "a", .icon = whiteIcon(), .isPlaceholder = true};
    const double waiting = iconBrightness(icon);
    icon.isDemoted = true;
    EXPECT_GT(iconBrightness(icon), waiting + 20);
    EXPECT_LT(iconBrightness(icon), 255);
    const double demoted = iconBrightness(icon);
    icon.progress = 0.5;
    EXPECT_EQ(iconBrightness(icon), demoted) << "it has no ring";
}

TEST(Picture, NamesTheNamesThatNoFontHas) {
    const std::string unknown = "\U000F0000\U000F0001"; // for private use, which no font of the machine has
    EXPECT_EQ(drawHomeScreen(one({unknown, nullptr}))->unknownNames, std::vector{unknown});
    EXPECT_EQ(drawHomeScreen(one({"Notes", nullptr}))->unknownNames, std::vector<std::string>());
}

/// Where a text leaves its marks: the first and the last column, and how many pixels, in all and in the left half.
struct Marks {
    int first = -1;
    int last = -1;
    int count = 0;
    int left = 0;
};

Marks marksOf(std::string_view text, double width) {
    constexpr int columns = 400;
    constexpr int rows = 60;
    const CairoSurface surface = makeSurface(columns, rows);
    const CairoContext context(cairo_create(surface.get()));
    (void)ScreenText(context.get()).show(text, {20, false}, columns / 2.0, 40, width);
    Marks marks;
    for (int x = 0; x < columns; ++x) {
        for (int y = 0; y < rows; ++y) {
            if (pixelAt(surface.get(), x, y) != 0) {
                marks.first = marks.first < 0 ? x : marks.first;
                marks.last = x;
                ++marks.count;
                marks.left += x < columns / 2 ? 1 : 0;
            }
        }
    }
    return marks;
}

TEST(ScreenText, StandsInTheMiddle) {
    const Marks marks = marksOf("Notes", 300);
    EXPECT_NEAR((marks.first + marks.last) / 2.0, 200, 4);
}

TEST(ScreenText, ATextThatIsTooWideIsCutToWhatFits) {
    const int whole = marksOf("Übersicht", 390).last - marksOf("Übersicht", 390).first;
    const std::string longer = "Übersicht über alles, was es gibt";
    for (const double width : {60.0, 100.0, 200.0}) {
        const Marks marks = marksOf(longer, width);
        EXPECT_LE(marks.last - marks.first, width);
        EXPECT_GT(marks.last - marks.first, width - 30);
    }
    EXPECT_EQ(marksOf("Übersicht", whole + 6).count, marksOf("Übersicht", 390).count) << "what fits is not cut";
    EXPECT_LE(marksOf(std::string(1'000'000, 'i'), 100).last, 250);
}

TEST(ScreenText, LettersAreJoined) {
    const std::string letter = "\u0628"; // has another form at each place of a word
    EXPECT_NE(marksOf(letter + letter + letter, 300).count, 3 * marksOf(letter, 300).count);
    const std::string apart = letter + "\u200C" + letter + "\u200C" + letter; // the same letters, kept apart
    EXPECT_LT(marksOf(letter + letter + letter, 300).count, marksOf(apart, 300).count);
}

TEST(ScreenText, RunsInItsDirection) {
    const std::string word = "\u05E9\u05DC\u05D5\u05DD"; // from the right to the left
    const Marks behind = marksOf(word + "------", 300);
    EXPECT_LT(behind.left, behind.count / 2) << "what stands behind the word is to the left of it";
    const Marks before = marksOf("------" + word, 300);
    EXPECT_GT(before.left, before.count / 2);
}

} // namespace
} // namespace appsync::device
