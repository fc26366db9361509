// Texts that fit: what a picture shows of names that come from files, of which it draws what is printable
// (text/Printable.h).
#pragma once

#include <cairo.h>
#include <string>
#include <string_view>

namespace appsync::device {

/// The first character as a capital letter where ASCII has one; "?" when there is none.
[[nodiscard]] std::string firstLetter(std::string_view text);

/// The text if it is at most `width` units wide in the context's font, else as much of it as fits with "…".
[[nodiscard]] std::string shortened(cairo_t* context, std::string_view text, double width);

/// Draws the text centred around x, with its base line at y.
void showCentred(cairo_t* context, const std::string& text, double x, double y);

} // namespace appsync::device
