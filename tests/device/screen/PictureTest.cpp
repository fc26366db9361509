#include "device/drawing/Picture.h"
#include "device/drawing/ScreenText.h"
#include "device/screen/DeviceIconRenderer.h"
#include "tests/device/drawing/Pixels.h"

#include <gtest/gtest.h>

#include <cmath>

namespace appsync::device {
namespace {

// Where the first icon stands.
constexpr int IconLeft = (screenWidth - 4 * iconSide) / 5;
constexpr int IconTop = 128;

class Fonts final : public testing::Environment {
  public:
    void TearDown() override { releaseFonts(); }
};
[[maybe_unused]] testing::Environment* const fonts = testing::AddGlobalTestEnvironment(new Fonts);

CairoSurface draw(const ScreenContents& contents) {
    const auto bytes = drawHomeScreen(contents);
    EXPECT_TRUE(bytes);
    // Larger than what is read from files.
    struct Rest {
        std::string_view bytes;
    } rest{bytes->bytes()};
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
    EXPECT_EQ(drawHomeScreen(contents)->bytes(), drawHomeScreen(contents)->bytes());
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

TEST(ScreenText, ATextThatIsTooWideIsShortenedToWhatFits) {
    const CairoSurface surface = makeSurface(10, 10);
    const CairoContext context(cairo_create(surface.get()));
    cairo_set_font_size(context.get(), 20);
    const auto widthOf = [&](const std::string& text) {
        cairo_text_extents_t extents;
        cairo_text_extents(context.get(), text.c_str(), &extents);
        return extents.x_advance;
    };
    EXPECT_EQ(shortened(context.get(), "Notes", widthOf("Notes")), "Notes");
    const std::string cut = shortened(context.get(), "Übersicht über alles", widthOf("Übersicht ü…"));
    EXPECT_EQ(cut, "Übersicht ü…");
    EXPECT_EQ(shortened(context.get(), "Übersicht über alles", widthOf("Übersicht …")), "Übersicht…");
    EXPECT_EQ(shortened(context.get(), "Wide", 1), "…");
    const std::string endless = shortened(context.get(), std::string(1'000'000, 'i'), 1e9);
    EXPECT_TRUE(endless.ends_with("…"));
    EXPECT_LT(endless.size(), 100U);
}

} // namespace
} // namespace appsync::device
