#include "device/screen/AppBundles.h"
#include "propertylist/Codec.h"
#include "tests/device/drawing/Pixels.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

namespace appsync::device {
namespace {

class IconTest : public testing::Test {
  protected:
    IconTest() { device.files().createDirectory(app, true, std::nullopt, nullptr); }

    void writeInfo(const Dictionary& info) {
        const auto bytes = propertyLists.dataWithPropertyList(info, PropertyListFormat::xml, nullptr);
        write("Info.plist", bytes->bytes());
    }
    void write(const std::string& name, std::string_view bytes) {
        ASSERT_TRUE(device.files().createFile(app + "/" + name, bytes, {}));
    }
    [[nodiscard]] std::shared_ptr<Bundle> bundle() {
        return bundles.bundleWithURL(*FileURL::fileURLWithPath(app, true));
    }
    [[nodiscard]] std::shared_ptr<CairoImage> render() {
        return std::dynamic_pointer_cast<CairoImage>(
            renderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(bundle()));
    }
    /// Whether an icon file that has this name in the Info file is drawn.
    [[nodiscard]] bool isDrawn(const Value& name) {
        writeInfo(Dictionary{{"BXBundleIconFile", name}});
        return render() != nullptr;
    }

    const std::string app = "/var/mobile/Test.app";
    OpenRoot device;
    PropertyListCodec propertyLists;
    AppBundles bundles{device.files(), propertyLists};
    DeviceIconRenderer renderer{device.files()};
};

TEST_F(IconTest, ABundleAnswersValuesOfItsInfoFile) {
    writeInfo(Dictionary{{"BXBundleDisplayName", "Name"}, {"n", 5}});
    const auto read = bundle();
    EXPECT_EQ(read->objectForInfoDictionaryKey("BXBundleDisplayName"), Value("Name"));
    EXPECT_EQ(read->objectForInfoDictionaryKey("n"), Value(5));
    EXPECT_FALSE(read->objectForInfoDictionaryKey("missing"));
}

TEST_F(IconTest, ABundleWithoutAReadableInfoFileIsEmpty) {
    EXPECT_FALSE(bundle()->objectForInfoDictionaryKey("a"));
    write("Info.plist", "no property list");
    EXPECT_FALSE(bundle()->objectForInfoDictionaryKey("a"));
    write("Info.plist", propertyLists.dataWithPropertyList(Array{1}, PropertyListFormat::binary, nullptr)->bytes());
    EXPECT_FALSE(bundle()->objectForInfoDictionaryKey("a"));
}

TEST_F(IconTest, WhereThereIsNoFolderThereIsNoBundle) {
    EXPECT_EQ(bundles.bundleWithURL(*FileURL::fileURLWithPath("/var/mobile/None.app", true)), nullptr);
    write("file", "x");
    EXPECT_EQ(bundles.bundleWithURL(*FileURL::fileURLWithPath(app + "/file", true)), nullptr);
}

TEST_F(IconTest, AnIconIsDrawnInTheDevicesSizeWithRoundCorners) {
    write("Icon.png", makePNG(180, 180, 1, 0, 0));
    writeInfo(Dictionary{{"BXBundleIconFile", "Icon.png"}});
    const auto icon = render();
    ASSERT_TRUE(icon);
    EXPECT_EQ(cairo_image_surface_get_width(icon->surface()), iconSide);
    EXPECT_EQ(cairo_image_surface_get_height(icon->surface()), iconSide);
    EXPECT_EQ(pixelAt(icon->surface(), iconSide / 2, iconSide / 2), 0xFFFF0000U);
    EXPECT_EQ(pixelAt(icon->surface(), iconSide / 2, 0), 0xFFFF0000U) << "no border is lighter than the icon";
    for (const int x : {0, iconSide - 1}) {
        for (const int y : {0, iconSide - 1}) {
            EXPECT_EQ(pixelAt(icon->surface(), x, y), 0U) << x << ", " << y;
        }
    }
}

TEST_F(IconTest, SmallAndOblongPicturesFillTheIcon) {
    for (const auto& [width, height] : {std::pair(1, 1), std::pair(20, 200), std::pair(200, 20), std::pair(64, 64)}) {
        write("Icon.png", makePNG(width, height, 0, 1, 0));
        writeInfo(Dictionary{{"BXBundleIconFile", "Icon.png"}});
        const auto icon = render();
        ASSERT_TRUE(icon) << width << "x" << height;
        EXPECT_EQ(pixelAt(icon->surface(), iconSide / 2, 1), 0xFF00FF00U) << width << "x" << height;
        EXPECT_EQ(pixelAt(icon->surface(), 1, iconSide / 2), 0xFF00FF00U) << width << "x" << height;
    }
}

TEST_F(IconTest, TheNamedFileIsTakenFromWithinTheAppOnly) {
    const std::string png = makePNG(4, 4, 1, 1, 1);
    write("Icon.png", png);
    ASSERT_TRUE(device.files().createDirectory(app + "/Images", false, std::nullopt, nullptr));
    write("Images/Icon.png", png);
    ASSERT_TRUE(device.files().createFile("/var/mobile/Outside.png", png, {}));
    EXPECT_TRUE(isDrawn("Icon.png"));
    EXPECT_TRUE(isDrawn("Images/Icon.png"));
    EXPECT_FALSE(isDrawn("../Outside.png"));
    EXPECT_FALSE(isDrawn("Images/../../Outside.png"));
    EXPECT_FALSE(isDrawn("/var/mobile/Outside.png"));
    EXPECT_FALSE(isDrawn(".."));
    EXPECT_FALSE(isDrawn(""));
    EXPECT_FALSE(isDrawn("None.png"));
    EXPECT_FALSE(isDrawn("Images"));
    EXPECT_FALSE(isDrawn(5));
}

TEST_F(IconTest, WithoutANameOrABundleThereIsNoIcon) {
    write("Icon.png", makePNG(4, 4, 1, 1, 1));
    EXPECT_EQ(render(), nullptr);
    EXPECT_EQ(renderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(nullptr), nullptr);
}

TEST_F(IconTest, ABrokenOrTooLargeIconFileIsNoIcon) {
    write("Icon.png", makePNG(4, 4, 1, 1, 1).substr(0, 30));
    EXPECT_FALSE(isDrawn("Icon.png"));
    std::string large = makePNG(4, 4, 1, 1, 1);
    large.resize(maxIconFileSize + 1, '\0');
    write("Icon.png", large);
    EXPECT_FALSE(isDrawn("Icon.png"));
    large.resize(maxIconFileSize);
    write("Icon.png", large);
    EXPECT_TRUE(isDrawn("Icon.png")) << "what follows the end of a picture does not matter";
}

} // namespace
} // namespace appsync::device
