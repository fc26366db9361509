// Texts that fit: what a picture shows of names that come from files, of which it draws what is printable
// (text/Printable.h).
#pragma once

#include <cairo.h>
#include <cstddef>
#include <memory>
#include <pango/pango.h>
#include <string>
#include <string_view>

namespace appsync::device {

/// The first character as a capital letter where ASCII has one; "?" when there is none.
[[nodiscard]] std::string firstLetter(std::string_view text);

struct Font {
    double size;
    bool isBold;
};

/// Draws with one cairo context, which must outlive it. Letters are joined and run in their direction, and come from
/// whatever font of the machine has them.
class ScreenText {
  public:
    explicit ScreenText(cairo_t* context);

    /// Centred around x, with its base line at y; what is wider than `width` units is cut with "…". Returns how many
    /// characters no font has, for which boxes are drawn.
    std::size_t show(std::string_view text, const Font& font, double x, double y, double width) const;

  private:
    struct Release {
        void operator()(PangoContext* fonts) const noexcept;
    };

    cairo_t* _context;
    std::unique_ptr<PangoContext, Release> _fonts;
};

} // namespace appsync::device
