#include "device/drawing/Picture.h"

#include "device/drawing/CairoImage.h"
#include "device/drawing/ScreenText.h"
#include "device/screen/AppBundles.h"

#include <algorithm>
#include <numbers>

namespace appsync::device {

namespace {

constexpr int columns = 4;
constexpr double side = iconSide;
constexpr double corner = side * iconCorner;
constexpr double columnGap = (screenWidth - columns * side) / (columns + 1);
constexpr double topOfGrid = 128;
constexpr double rowHeight = 186;
constexpr double labelDrop = 32; // from an icon's lower edge to its name's base line
constexpr double labelWidth = side + columnGap - 10;
constexpr double labelSize = 22;
constexpr double statusLine = 46; // base line of the status line
constexpr double fullTurn = 2 * std::numbers::pi;

struct Point {
    double x;
    double y;
};

/// The middle of an icon, seen from the upper left of its screen.
Point middleOf(std::size_t place) {
    const auto column = static_cast<double>(place % columns);
    const std::size_t line = place / columns;
    const auto row = static_cast<double>(line);
    return {columnGap + side / 2 + column * (side + columnGap), topOfGrid + side / 2 + row * rowHeight};
}

/// A page as it is spread over screens.
std::vector<ScreenPage> screensOf(const ScreenContents& contents) {
    std::vector<ScreenPage> screens;
    for (const ScreenPage& page : contents.pages) {
        for (std::size_t first = 0; first < page.size() && screens.size() < maxScreens; first += placesPerScreen) {
            const auto begin = page.begin() + static_cast<std::ptrdiff_t>(first);
            const auto count = std::min(placesPerScreen, page.size() - first);
            screens.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(count));
        }
    }
    if (screens.empty()) {
        screens.emplace_back();
    }
    return screens;
}

class Pen {
  public:
    /// `unknownNames` gets the names with characters that no font has.
    Pen(cairo_t* context, std::vector<std::string>& unknownNames)
        : _context(context), _text(context), _unknownNames(unknownNames) {}

    void drawScreen(const ScreenPage& screen, std::size_t number, std::size_t count, bool isSyncing) {
        _drawWallpaper();
        _drawStatusLine(isSyncing);
        for (std::size_t i = 0; i < screen.size(); ++i) {
            const Point middle = middleOf(i);
            if (const auto* icon = std::get_if<ScreenIcon>(&screen[i])) {
                _drawIcon(*icon, middle, 1);
                _drawLabel(icon->name, middle, icon->isPlaceholder || icon->isDemoted ? 0.75 : 1);
            } else {
                const auto& folder = std::get<ScreenFolder>(screen[i]);
                _drawFolder(folder, middle);
                _drawLabel(folder.name, middle, 1);
            }
        }
        _drawPageDots(number, count);
    }

  private:
    void _white(double opacity) { cairo_set_source_rgba(_context, 1, 1, 1, opacity); }
    void _black(double opacity) { cairo_set_source_rgba(_context, 0, 0, 0, opacity); }

    void _glow(Point middle, double radius, double red, double green, double blue, double opacity) {
        const CairoPattern light(cairo_pattern_create_radial(middle.x, middle.y, 0, middle.x, middle.y, radius));
        cairo_pattern_add_color_stop_rgba(light.get(), 0, red, green, blue, opacity);
        cairo_pattern_add_color_stop_rgba(light.get(), 1, red, green, blue, 0);
        cairo_set_source(_context, light.get());
        cairo_paint(_context);
    }

    void _drawWallpaper() {
        const CairoPattern sky(cairo_pattern_create_linear(0, 0, screenWidth * 0.4, screenHeight));
        cairo_pattern_add_color_stop_rgb(sky.get(), 0.0, 0.10, 0.13, 0.33);
        cairo_pattern_add_color_stop_rgb(sky.get(), 0.5, 0.24, 0.27, 0.56);
        cairo_pattern_add_color_stop_rgb(sky.get(), 0.8, 0.53, 0.40, 0.62);
        cairo_pattern_add_color_stop_rgb(sky.get(), 1.0, 0.87, 0.58, 0.56);
        cairo_set_source(_context, sky.get());
        cairo_paint(_context);
        _glow({screenWidth * 0.85, screenHeight * 0.12}, 620, 0.35, 0.62, 0.95, 0.45);
        _glow({screenWidth * 0.1, screenHeight * 0.62}, 560, 0.20, 0.75, 0.75, 0.30);
        _glow({screenWidth * 0.75, screenHeight * 1.0}, 640, 1.00, 0.80, 0.55, 0.35);
    }

    void _drawStatusLine(bool isSyncing) {
        for (int bar = 0; bar < 4; ++bar) {
            const double height = 8 + bar * 5;
            roundedRectangle(_context, 36 + bar * 10, statusLine - height, 7, height, 2);
        }
        _white(0.95);
        cairo_fill(_context);
        _drawBattery(screenWidth - 88, statusLine - 21);
        if (!isSyncing) {
            return;
        }
        _white(1);
        _text.show("Syncing\xE2\x80\xA6", {26, true}, screenWidth / 2.0 + 18, statusLine - 1, screenWidth / 2.0);
        _drawSyncArrows({screenWidth / 2.0 - 72, statusLine - 11});
    }

    void _drawBattery(double x, double y) {
        cairo_set_line_width(_context, 2);
        roundedRectangle(_context, x, y, 44, 21, 6);
        _white(0.6);
        cairo_stroke(_context);
        roundedRectangle(_context, x + 46, y + 7, 3, 7, 1.5);
        cairo_fill(_context);
        _white(0.95);
        roundedRectangle(_context, x + 3, y + 3, 31, 15, 3);
        cairo_fill(_context);
    }

    /// Two arrows that chase each other around a circle.
    void _drawSyncArrows(Point middle) {
        constexpr double radius = 10;
        cairo_set_line_width(_context, 3);
        for (const double start : {0.0, fullTurn / 2}) {
            const double end = start + fullTurn * 0.36;
            cairo_new_sub_path(_context);
            cairo_arc(_context, middle.x, middle.y, radius, start, end);
            cairo_stroke(_context);
            cairo_save(_context);
            cairo_translate(_context, middle.x, middle.y);
            cairo_rotate(_context, end);
            cairo_move_to(_context, radius - 5, -1);
            cairo_line_to(_context, radius + 5, -1);
            cairo_line_to(_context, radius, 6);
            cairo_close_path(_context);
            cairo_fill(_context);
            cairo_restore(_context);
        }
    }

    void _drawLabel(const std::string& name, Point middle, double opacity) {
        const double base = middle.y + side / 2 + labelDrop;
        _black(0.35 * opacity);
        _text.show(name, {labelSize, false}, middle.x, base + 1.5, labelWidth);
        _white(opacity);
        if (_text.show(name, {labelSize, false}, middle.x, base, labelWidth) != 0) {
            _unknownNames.push_back(name);
        }
    }

    /// An icon around a point, `scale` times its size.
    void _drawIcon(const ScreenIcon& icon, Point middle, double scale) {
        cairo_save(_context);
        cairo_translate(_context, middle.x, middle.y);
        cairo_scale(_context, scale, scale);
        cairo_translate(_context, -side / 2, -side / 2);
        _drawShadow();
        if (const auto* picture = dynamic_cast<const CairoImage*>(icon.icon.get())) {
            cairo_set_source_surface(_context, picture->surface(), 0, 0);
            cairo_paint(_context);
        } else {
            _drawTile(icon.name);
        }
        if (icon.isDemoted) {
            _drawAway();
        } else if (icon.isPlaceholder) {
            roundedRectangle(_context, 0, 0, side, side, corner);
            _black(0.5);
            cairo_fill(_context);
        }
        if (!icon.isDemoted && (icon.isPlaceholder || icon.isUpdating)) {
            _drawProgress(icon.progress);
        }
        cairo_restore(_context);
    }

    void _drawShadow() {
        for (int spread = 4; spread >= 1; --spread) {
            roundedRectangle(_context, -spread, 2 - spread, side + 2 * spread, side + 2 * spread, corner + spread);
            _black(0.05);
            cairo_fill(_context);
        }
    }

    void _drawTile(const std::string& name) {
        const CairoPattern grey(cairo_pattern_create_linear(0, 0, 0, side));
        cairo_pattern_add_color_stop_rgb(grey.get(), 0, 0.66, 0.69, 0.75);
        cairo_pattern_add_color_stop_rgb(grey.get(), 1, 0.46, 0.49, 0.56);
        roundedRectangle(_context, 0, 0, side, side, corner);
        cairo_set_source(_context, grey.get());
        cairo_fill(_context);
        _white(0.92);
        _text.show(firstLetter(name), {64, true}, side / 2, side / 2 + 23, side);
    }

    /// As something that is not here but can be fetched.
    void _drawAway() {
        constexpr double middle = side / 2;
        constexpr double reach = side * 0.17;
        roundedRectangle(_context, 0, 0, side, side, corner);
        _white(0.55);
        cairo_fill(_context);
        cairo_set_line_width(_context, 8);
        cairo_set_line_cap(_context, CAIRO_LINE_CAP_ROUND);
        cairo_set_line_join(_context, CAIRO_LINE_JOIN_ROUND);
        cairo_move_to(_context, middle, middle - reach);
        cairo_line_to(_context, middle, middle + reach);
        cairo_move_to(_context, middle - reach * 0.75, middle + reach * 0.25);
        cairo_line_to(_context, middle, middle + reach);
        cairo_line_to(_context, middle + reach * 0.75, middle + reach * 0.25);
        _black(0.6);
        cairo_stroke(_context);
        cairo_set_line_cap(_context, CAIRO_LINE_CAP_BUTT);
    }

    void _drawProgress(double progress) {
        constexpr double radius = side * 0.29;
        cairo_set_line_width(_context, 8);
        cairo_set_line_cap(_context, CAIRO_LINE_CAP_ROUND);
        cairo_new_sub_path(_context);
        cairo_arc(_context, side / 2, side / 2, radius, 0, fullTurn);
        _black(0.3);
        cairo_stroke_preserve(_context);
        _white(0.3);
        cairo_stroke(_context);
        const double part = progress >= 0 ? std::min(progress, 1.0) : 0; // also for what is not a number
        if (part > 0) {
            cairo_new_sub_path(_context);
            cairo_arc(_context, side / 2, side / 2, radius, -fullTurn / 4, (part - 0.25) * fullTurn);
            _white(0.95);
            cairo_stroke(_context);
        }
        cairo_set_line_cap(_context, CAIRO_LINE_CAP_BUTT);
    }

    void _drawFolder(const ScreenFolder& folder, Point middle) {
        roundedRectangle(_context, middle.x - side / 2, middle.y - side / 2, side, side, corner);
        _white(0.28);
        cairo_fill(_context);
        constexpr double step = 34;
        for (std::size_t i = 0; i < std::min<std::size_t>(folder.icons.size(), 9); ++i) {
            const double column = static_cast<double>(i % 3) - 1;
            const std::size_t line = i / 3;
            const double row = static_cast<double>(line) - 1;
            _drawIcon(folder.icons[i], {middle.x + column * step, middle.y + row * step}, 28 / side);
        }
    }

    void _drawPageDots(std::size_t number, std::size_t count) {
        constexpr double step = 28;
        const double first = screenWidth / 2.0 - step * static_cast<double>(count - 1) / 2;
        for (std::size_t i = 0; i < count; ++i) {
            cairo_arc(_context, first + step * static_cast<double>(i), screenHeight - 46, 7, 0, fullTurn);
            _white(i == number ? 0.95 : 0.4);
            cairo_fill(_context);
        }
    }

    cairo_t* _context;
    ScreenText _text;
    std::vector<std::string>& _unknownNames;
};

} // namespace

std::optional<HomeScreenPicture> drawHomeScreen(const ScreenContents& contents) {
    const auto screens = screensOf(contents);
    const int count = static_cast<int>(screens.size());
    const CairoSurface surface = makeSurface(count * screenWidth + (count - 1) * screenGap, screenHeight);
    const CairoContext context(cairo_create(surface.get()));
    cairo_set_source_rgb(context.get(), 0.06, 0.06, 0.09);
    cairo_paint(context.get());
    std::vector<std::string> unknownNames;
    Pen pen(context.get(), unknownNames);
    for (std::size_t i = 0; i < screens.size(); ++i) {
        cairo_save(context.get());
        cairo_translate(context.get(), static_cast<double>(i) * (screenWidth + screenGap), 0);
        cairo_rectangle(context.get(), 0, 0, screenWidth, screenHeight);
        cairo_clip(context.get());
        pen.drawScreen(screens[i], i, screens.size(), contents.isSyncing);
        cairo_restore(context.get());
    }
    if (cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) {
        return std::nullopt;
    }
    auto png = pngFromSurface(surface.get());
    return png ? std::optional(HomeScreenPicture{std::move(*png), std::move(unknownNames)}) : std::nullopt;
}

} // namespace appsync::device
