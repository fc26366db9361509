// Pictures in memory: cairo surfaces behind `Image`, read from and written as PNG.
#pragma once

#include "platform/Icons.h"

#include <cairo.h>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace appsync::device {

struct CairoRelease {
    void operator()(cairo_t* context) const noexcept { cairo_destroy(context); }
    void operator()(cairo_surface_t* surface) const noexcept { cairo_surface_destroy(surface); }
    void operator()(cairo_pattern_t* pattern) const noexcept { cairo_pattern_destroy(pattern); }
};
using CairoContext = std::unique_ptr<cairo_t, CairoRelease>;
using CairoSurface = std::unique_ptr<cairo_surface_t, CairoRelease>;
using CairoPattern = std::unique_ptr<cairo_pattern_t, CairoRelease>;

/// The longest side, in pixels, that a picture read from a file may have.
inline constexpr std::uint32_t maxPictureSide = 2048;

/// The picture in the bytes of a PNG, which are untrusted: memory is bounded by `maxPictureSide` and the size of
/// the bytes. Null when they hold none, are cut short or the picture is too large.
[[nodiscard]] CairoSurface surfaceFromPNG(std::string_view bytes);

/// The bytes of a PNG; nullopt when the surface is in an error state or was not made with `makeSurface`.
[[nodiscard]] std::optional<Data> pngFromSurface(cairo_surface_t* surface);

/// A transparent surface of so many pixels.
[[nodiscard]] CairoSurface makeSurface(int width, int height);

/// Adds the outline of a rectangle with round corners to the path.
void roundedRectangle(cairo_t* context, double x, double y, double width, double height, double radius);

class CairoImage final : public Image {
  public:
    explicit CairoImage(CairoSurface surface) : _surface(std::move(surface)) {}
    [[nodiscard]] cairo_surface_t* surface() const noexcept { return _surface.get(); }

  private:
    CairoSurface _surface;
};

/// Encodes as "public.png", one image each.
class PNGDestinations final : public ImageDestinationClass {
  public:
    /// Null unless `type` is "public.png" and `count` is 1.
    [[nodiscard]] std::unique_ptr<ImageDestination> destinationWithType_count(std::string_view type,
                                                                              std::size_t count) noexcept override;
};

} // namespace appsync::device
