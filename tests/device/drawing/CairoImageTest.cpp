#include "device/drawing/CairoImage.h"
#include "tests/device/drawing/Pixels.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

namespace appsync::device {
namespace {

std::string bigEndian(std::uint32_t number) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(number >> shift & 0xFFU);
    }
    return bytes;
}

std::string chunk(const std::string& type, const std::string& content) {
    const std::string checked = type + content;
    const auto sum = ::crc32(0, reinterpret_cast<const Bytef*>(checked.data()), static_cast<uInt>(checked.size()));
    return bigEndian(static_cast<std::uint32_t>(content.size())) + checked + bigEndian(static_cast<std::uint32_t>(sum));
}

std::string header(std::uint32_t width, std::uint32_t height) {
    return chunk("IHDR", bigEndian(width) + bigEndian(height) + std::string("\x08\x06\0\0\0", 5));
}

const std::string signature("\x89PNG\r\n\x1a\n", 8);

std::string deflated(const std::string& bytes) {
    uLongf size = ::compressBound(static_cast<uLong>(bytes.size()));
    std::string out(size, '\0');
    ::compress(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(bytes.data()),
               static_cast<uLong>(bytes.size()));
    out.resize(size);
    return out;
}

TEST(CairoImage, ReadsBackWhatItWrites) {
    const CairoSurface drawn = makeSurface(3, 2);
    {
        const CairoContext context(cairo_create(drawn.get()));
        cairo_set_source_rgba(context.get(), 1, 0.5, 0, 0.5);
        cairo_rectangle(context.get(), 0, 0, 2, 1);
        cairo_fill(context.get());
        cairo_set_source_rgb(context.get(), 0, 0, 1);
        cairo_rectangle(context.get(), 2, 1, 1, 1);
        cairo_fill(context.get());
    }
    const auto bytes = pngFromSurface(drawn.get());
    ASSERT_TRUE(bytes);
    const CairoSurface read = surfaceFromPNG(bytes->bytes());
    ASSERT_TRUE(read);
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 3; ++x) {
            EXPECT_EQ(pixelAt(read.get(), x, y), pixelAt(drawn.get(), x, y)) << x << ", " << y;
        }
    }
}

TEST(CairoImage, AnyPrefixOfAPictureIsNone) {
    const std::string whole = makePNG(8, 8, 0.2, 0.4, 0.6);
    ASSERT_TRUE(surfaceFromPNG(whole));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(surfaceFromPNG(std::string_view(whole).substr(0, length))) << length;
    }
}

TEST(CairoImage, ReadsUpToTheLargestSizeAndNoFurther) {
    const auto isRead = [](std::uint32_t width, std::uint32_t height) {
        const std::string rows(std::size_t{height} * (1 + std::size_t{width} * 4), '\0');
        return surfaceFromPNG(signature + header(width, height) + chunk("IDAT", deflated(rows)) + chunk("IEND", "")) !=
               nullptr;
    };
    EXPECT_TRUE(isRead(maxPictureSide, 1));
    EXPECT_TRUE(isRead(1, maxPictureSide));
    EXPECT_FALSE(isRead(maxPictureSide + 1, 1));
    EXPECT_FALSE(isRead(1, maxPictureSide + 1));
    EXPECT_FALSE(isRead(0, 1));
    EXPECT_FALSE(isRead(1, 0));
}

TEST(CairoImage, RefusesHugeSizesWithoutReservingThem) {
    const std::string huge = signature + header(0x7FFFFFFF, 0x7FFFFFFF) + chunk("IDAT", "x") + chunk("IEND", "");
    EXPECT_FALSE(surfaceFromPNG(huge));
}

TEST(CairoImage, ASecondHeaderDoesNotChangeTheSize) {
    const std::string twice =
        signature + header(1, 1) + header(60'000, 60'000) + chunk("IDAT", "x") + chunk("IEND", "");
    EXPECT_FALSE(surfaceFromPNG(twice));
    EXPECT_FALSE(surfaceFromPNG(signature + chunk("gAMA", "\0\0\0\1") + header(1, 1) + chunk("IEND", "")));
}

TEST(CairoImage, ChunksThatUnfoldToAnySizeAreNotUnfolded) {
    const std::string picture = makePNG(4, 4, 1, 0, 0);
    const std::size_t afterHeader = signature.size() + header(4, 4).size();
    const std::string bomb = chunk("zTXt", std::string("Comment\0\0", 9) + deflated(std::string(50'000'000, 'x'))) +
                             chunk("iCCP", std::string("p\0\0", 3) + deflated(std::string(50'000'000, 'y')));
    std::string laden = picture;
    laden.insert(afterHeader, bomb);
    const CairoSurface read = surfaceFromPNG(laden);
    ASSERT_TRUE(read);
    EXPECT_EQ(pixelAt(read.get(), 1, 1), 0xFFFF0000U);
}

TEST(CairoImage, AChunkLongerThanTheFileEndsTheReading) {
    EXPECT_FALSE(surfaceFromPNG(signature + header(1, 1) + bigEndian(0xFFFFFFFF) + "IDATxxxxxxxx"));
    EXPECT_FALSE(surfaceFromPNG(signature));
    EXPECT_FALSE(surfaceFromPNG("GIF89a"));
}

TEST(CairoImage, DamagedPicturesNeverDoHarm) {
    const std::string whole = makePNG(16, 16, 0.9, 0.1, 0.5);
    constexpr unsigned seed = 20'010;
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; ++round) {
        std::string damaged = whole;
        for (int change = 0; change < 3; ++change) {
            damaged[random() % damaged.size()] = static_cast<char>(random() & 0xFFU);
        }
        const CairoSurface read = surfaceFromPNG(damaged);
        if (read) {
            EXPECT_LE(cairo_image_surface_get_width(read.get()), static_cast<int>(maxPictureSide)) << seed;
        }
    }
}

TEST(CairoImage, ASurfaceInAnErrorStateHasNoBytes) {
    const CairoSurface broken(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, -1, 5));
    EXPECT_FALSE(pngFromSurface(broken.get()));
    const CairoSurface other(cairo_image_surface_create(CAIRO_FORMAT_A8, 5, 5));
    EXPECT_FALSE(pngFromSurface(other.get()));
}

TEST(PNGDestinations, KnowOneTypeAndOneImage) {
    PNGDestinations destinations;
    EXPECT_EQ(destinations.destinationWithType_count("public.jpeg", 1), nullptr);
    EXPECT_EQ(destinations.destinationWithType_count("public.png", 2), nullptr);
    EXPECT_EQ(destinations.destinationWithType_count("public.png", 0), nullptr);
    EXPECT_NE(destinations.destinationWithType_count("public.png", 1), nullptr);
}

TEST(PNGDestinations, EncodeTheImageThatWasAdded) {
    PNGDestinations destinations;
    const auto destination = destinations.destinationWithType_count("public.png", 1);
    destination->addImage(std::make_shared<CairoImage>(makeSurface(5, 7)));
    const auto bytes = destination->finalize();
    ASSERT_TRUE(bytes);
    const CairoSurface read = surfaceFromPNG(bytes->bytes());
    EXPECT_EQ(cairo_image_surface_get_width(read.get()), 5);
    EXPECT_EQ(cairo_image_surface_get_height(read.get()), 7);
}

class ForeignImage final : public Image {};

TEST(PNGDestinations, HaveNoBytesWithoutExactlyOneImageOfThisDevice) {
    PNGDestinations destinations;
    EXPECT_FALSE(destinations.destinationWithType_count("public.png", 1)->finalize());
    const auto none = destinations.destinationWithType_count("public.png", 1);
    none->addImage(nullptr);
    EXPECT_FALSE(none->finalize());
    const auto foreign = destinations.destinationWithType_count("public.png", 1);
    foreign->addImage(std::make_shared<ForeignImage>());
    EXPECT_FALSE(foreign->finalize());
    const auto twice = destinations.destinationWithType_count("public.png", 1);
    twice->addImage(std::make_shared<CairoImage>(makeSurface(1, 1)));
    twice->addImage(std::make_shared<CairoImage>(makeSurface(1, 1)));
    EXPECT_FALSE(twice->finalize());
}

} // namespace
} // namespace appsync::device
