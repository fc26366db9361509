// Pictures for tests, and a look at their pixels.
#pragma once

#include "device/drawing/CairoImage.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace appsync::device {

/// The bytes of a PNG of one colour.
inline std::string makePNG(int width, int height, double red, double green, double blue) {
    const CairoSurface surface = makeSurface(width, height);
    const CairoContext context(cairo_create(surface.get()));
    cairo_set_source_rgb(context.get(), red, green, blue);
    cairo_paint(context.get());
    return std::string(pngFromSurface(surface.get())->bytes());
}

/// Opacity, red, green and blue, from the upper to the lower byte.
inline std::uint32_t pixelAt(cairo_surface_t* surface, int x, int y) {
    cairo_surface_flush(surface);
    std::uint32_t pixel = 0;
    std::memcpy(&pixel, cairo_image_surface_get_data(surface) + y * cairo_image_surface_get_stride(surface) + x * 4,
                sizeof pixel);
    return pixel;
}

inline int redOf(std::uint32_t pixel) {
    return static_cast<int>(pixel >> 16 & 0xFFU);
}

/// How bright a rectangle is on average, 0 to 255.
inline double brightness(cairo_surface_t* surface, int left, int top, int width, int height) {
    double sum = 0;
    for (int y = top; y < top + height; ++y) {
        for (int x = left; x < left + width; ++x) {
            const std::uint32_t pixel = pixelAt(surface, x, y);
            sum += redOf(pixel) + static_cast<int>(pixel >> 8 & 0xFFU) + static_cast<int>(pixel & 0xFFU);
        }
    }
    return sum / (3.0 * width * height);
}

} // namespace appsync::device
