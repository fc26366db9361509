#include "device/drawing/CairoImage.h"

#include <bit>
#include <cstring>
#include <numbers>
#include <png.h>
#include <string>
#include <vector>

namespace appsync::device {

namespace {

constexpr std::string_view pngSignature("\x89PNG\r\n\x1a\n", 8);
constexpr std::size_t chunkFrame = 12; // length, type and checksum around a chunk's content

std::uint32_t bigEndian(std::string_view bytes) {
    std::uint32_t number = 0;
    for (const char byte : bytes.substr(0, 4)) {
        number = number << 8 | static_cast<unsigned char>(byte);
    }
    return number;
}

bool isSizeAllowed(std::string_view header) {
    if (header.size() != 13) {
        return false;
    }
    const std::uint32_t width = bigEndian(header);
    const std::uint32_t height = bigEndian(header.substr(4));
    return width >= 1 && height >= 1 && width <= maxPictureSide && height <= maxPictureSide;
}

/// The chunks that say what the picture looks like. The decoder never sees the others: compressed texts and profiles,
/// which can unfold to any size.
std::optional<std::string> essentialChunks(std::string_view bytes) {
    if (!bytes.starts_with(pngSignature)) {
        return std::nullopt;
    }
    std::string kept(pngSignature);
    std::string_view rest = bytes.substr(pngSignature.size());
    bool isFirst = true;
    while (rest.size() >= chunkFrame) {
        const std::uint32_t length = bigEndian(rest);
        if (length > rest.size() - chunkFrame) {
            return std::nullopt;
        }
        const std::string_view chunk = rest.substr(0, length + chunkFrame);
        const std::string_view type = chunk.substr(4, 4);
        if (isFirst != (type == "IHDR") || (isFirst && !isSizeAllowed(chunk.substr(8, length)))) {
            return std::nullopt;
        }
        isFirst = false;
        if (type == "IHDR" || type == "PLTE" || type == "tRNS" || type == "IDAT" || type == "IEND") {
            kept += chunk;
        }
        if (type == "IEND") {
            return kept;
        }
        rest.remove_prefix(chunk.size());
    }
    return std::nullopt;
}

cairo_status_t readBytes(void* closure, unsigned char* out, unsigned int length) {
    auto& rest = *static_cast<std::string_view*>(closure);
    if (rest.size() < length) {
        return CAIRO_STATUS_READ_ERROR;
    }
    std::memcpy(out, rest.data(), length);
    rest.remove_prefix(length);
    return CAIRO_STATUS_SUCCESS;
}

/// One pixel as the encoder wants it: a surface holds colours multiplied by their opacity, a file does not.
std::uint32_t withPlainColours(std::uint32_t pixel) {
    const std::uint32_t opacity = pixel >> 24;
    if (opacity == 255 || opacity == 0) {
        return pixel;
    }
    std::uint32_t plain = opacity << 24;
    for (int shift = 0; shift < 24; shift += 8) {
        plain |= ((pixel >> shift & 255U) * 255 + opacity / 2) / opacity << shift;
    }
    return plain;
}

std::vector<std::uint32_t> pixelsOf(cairo_surface_t* surface, std::size_t width, std::size_t height) {
    std::vector<std::uint32_t> pixels(width * height);
    const unsigned char* row = cairo_image_surface_get_data(surface);
    for (std::size_t y = 0; y < height; ++y, row += cairo_image_surface_get_stride(surface)) {
        std::memcpy(&pixels[y * width], row, width * sizeof(std::uint32_t));
    }
    for (std::uint32_t& pixel : pixels) {
        pixel = withPlainColours(pixel);
    }
    return pixels;
}

class PNGDestination final : public ImageDestination {
  public:
    void addImage(const std::shared_ptr<Image>& image) noexcept override {
        _image = std::dynamic_pointer_cast<CairoImage>(image);
        ++_added;
    }
    [[nodiscard]] std::optional<Data> finalize() noexcept override {
        return _added == 1 && _image ? pngFromSurface(_image->surface()) : std::nullopt;
    }

  private:
    std::shared_ptr<CairoImage> _image;
    int _added = 0;
};

} // namespace

CairoSurface surfaceFromPNG(std::string_view bytes) {
    const auto chunks = essentialChunks(bytes);
    if (!chunks) {
        return nullptr;
    }
    std::string_view rest = *chunks;
    CairoSurface surface(cairo_image_surface_create_from_png_stream(readBytes, &rest));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
        return nullptr;
    }
    return surface;
}

std::optional<Data> pngFromSurface(cairo_surface_t* surface) {
    cairo_surface_flush(surface);
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS ||
        cairo_image_surface_get_format(surface) != CAIRO_FORMAT_ARGB32) {
        return std::nullopt;
    }
    // Encoded with the PNG library itself: cairo's own encoder knows no faster compression, and takes five times as
    // long.
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(cairo_image_surface_get_width(surface));
    image.height = static_cast<png_uint_32>(cairo_image_surface_get_height(surface));
    image.format = std::endian::native == std::endian::little ? PNG_FORMAT_BGRA : PNG_FORMAT_ARGB;
    image.flags = PNG_IMAGE_FLAG_FAST;
    const auto pixels = pixelsOf(surface, image.width, image.height);
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::string bytes(size, '\0');
    const int written = png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels.data(), 0, nullptr);
    png_image_free(&image);
    if (!written) {
        return std::nullopt;
    }
    bytes.resize(size);
    return Data(std::move(bytes));
}

CairoSurface makeSurface(int width, int height) {
    return CairoSurface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
}

void roundedRectangle(cairo_t* context, double x, double y, double width, double height, double radius) {
    constexpr double quarter = std::numbers::pi / 2;
    cairo_new_sub_path(context);
    cairo_arc(context, x + width - radius, y + radius, radius, -quarter, 0);
    cairo_arc(context, x + width - radius, y + height - radius, radius, 0, quarter);
    cairo_arc(context, x + radius, y + height - radius, radius, quarter, 2 * quarter);
    cairo_arc(context, x + radius, y + radius, radius, 2 * quarter, 3 * quarter);
    cairo_close_path(context);
}

std::unique_ptr<ImageDestination> PNGDestinations::destinationWithType_count(std::string_view type,
                                                                             std::size_t count) noexcept {
    return type == "public.png" && count == 1 ? std::make_unique<PNGDestination>() : nullptr;
}

} // namespace appsync::device
