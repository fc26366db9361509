#include "device/drawing/ScreenText.h"

#include "text/Printable.h"

#include <pango/pangocairo.h>

namespace appsync::device {

namespace {

/// No name that fits on a screen has more characters.
constexpr std::size_t maxNameLength = 80;

struct ObjectRelease {
    void operator()(PangoLayout* layout) const noexcept { g_object_unref(layout); }
    void operator()(PangoFontMap* fonts) const noexcept { g_object_unref(fonts); }
    void operator()(PangoFontDescription* font) const noexcept { pango_font_description_free(font); }
};

int unitsOf(double length) {
    return static_cast<int>(length * PANGO_SCALE);
}

} // namespace

std::string firstLetter(std::string_view text) {
    std::string_view rest = text;
    if (!rest.empty()) {
        (void)takeCharacter(rest);
    }
    std::string letter = printable(text.substr(0, text.size() - rest.size()));
    if (letter.empty() || letter == " ") {
        return "?";
    }
    if (letter[0] >= 'a' && letter[0] <= 'z') {
        letter[0] = static_cast<char>(letter[0] - 'a' + 'A');
    }
    return letter;
}

/// With fonts of its own: those that all of a process share would be kept until its end.
ScreenText::ScreenText(cairo_t* context) : _context(context) {
    const std::unique_ptr<PangoFontMap, ObjectRelease> fonts(pango_cairo_font_map_new());
    _fonts.reset(pango_font_map_create_context(fonts.get()));
    pango_context_set_round_glyph_positions(_fonts.get(), FALSE); // as far apart in a small folder as on the screen
}

void ScreenText::Release::operator()(PangoContext* fonts) const noexcept {
    g_object_unref(fonts);
}

std::size_t ScreenText::show(std::string_view text, const Font& font, double x, double y, double width) const {
    pango_cairo_update_context(_context, _fonts.get());
    const std::unique_ptr<PangoLayout, ObjectRelease> layout(pango_layout_new(_fonts.get()));
    const std::unique_ptr<PangoFontDescription, ObjectRelease> description(pango_font_description_new());
    pango_font_description_set_family_static(description.get(), "Sans");
    pango_font_description_set_weight(description.get(), font.isBold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    pango_font_description_set_absolute_size(description.get(), font.size * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), description.get());
    pango_layout_set_single_paragraph_mode(layout.get(), TRUE);
    pango_layout_set_alignment(layout.get(), PANGO_ALIGN_CENTER);
    pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_END);
    pango_layout_set_width(layout.get(), unitsOf(width));
    const std::string shown = printable(text, maxNameLength);
    pango_layout_set_text(layout.get(), shown.data(), static_cast<int>(shown.size()));
    cairo_move_to(_context, x - width / 2,
                  y - static_cast<double>(pango_layout_get_baseline(layout.get())) / PANGO_SCALE);
    pango_cairo_show_layout(_context, layout.get());
    return static_cast<std::size_t>(pango_layout_get_unknown_glyphs_count(layout.get()));
}

} // namespace appsync::device

// The fonts' libraries keep what they have read until the end of the process, and read it on threads of their own,
// whose order the sanitizers cannot see in libraries that are not built with them. They ask these functions; nothing
// else does.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {
__attribute__((visibility("default"))) const char* __lsan_default_options();
__attribute__((visibility("default"))) const char* __lsan_default_suppressions();
__attribute__((visibility("default"))) const char* __tsan_default_suppressions();
const char* __lsan_default_options() {
    return "print_suppressions=0";
}
const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\nleak:libpango\nleak:libglib-2.0\n";
}
const char* __tsan_default_suppressions() {
    return "race:libfontconfig\nrace:libpango\nrace:libglib-2.0\nrace:libgobject-2.0\nrace:libharfbuzz\nrace:"
           "libfreetype\n";
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
