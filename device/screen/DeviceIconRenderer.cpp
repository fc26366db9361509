#include "device/screen/DeviceIconRenderer.h"

#include "archive/EntryPath.h"
#include "device/drawing/CairoImage.h"
#include "device/screen/AppBundles.h"
#include "platform/FileSystem.h"

#include <algorithm>

namespace appsync::device {

namespace {

/// The middle square of the picture, in the icon's size, cut to its shape.
CairoSurface drawIcon(cairo_surface_t* picture) {
    const double width = cairo_image_surface_get_width(picture);
    const double height = cairo_image_surface_get_height(picture);
    const double scale = iconSide / std::min(width, height);
    CairoSurface icon = makeSurface(iconSide, iconSide);
    const CairoContext context(cairo_create(icon.get()));
    roundedRectangle(context.get(), 0, 0, iconSide, iconSide, iconSide * iconCorner);
    cairo_translate(context.get(), (iconSide - width * scale) / 2, (iconSide - height * scale) / 2);
    cairo_scale(context.get(), scale, scale);
    cairo_set_source_surface(context.get(), picture, 0, 0);
    cairo_pattern_t* source = cairo_get_source(context.get());
    cairo_pattern_set_filter(source, CAIRO_FILTER_GOOD);
    cairo_pattern_set_extend(source, CAIRO_EXTEND_PAD);
    cairo_fill(context.get());
    return icon;
}

} // namespace

std::shared_ptr<Image> DeviceIconRenderer::YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(
    const std::shared_ptr<Bundle>& bundle) noexcept {
    const auto app = std::dynamic_pointer_cast<AppBundle>(bundle);
    const auto name = app ? app->objectForInfoDictionaryKey("BXBundleIconFile") : std::nullopt;
    const auto file = name ? name->string() : std::nullopt;
    if (!file || !isSafePath(*file, {})) {
        return nullptr;
    }
    return iconFromFile(app->path() + "/" + std::string(*file));
}

std::shared_ptr<Image> DeviceIconRenderer::iconFromFile(const std::string& path) noexcept {
    const auto information = _files.attributesOfItem(path, nullptr);
    if (!information || information->size > maxIconFileSize) {
        return nullptr;
    }
    const auto bytes = _files.readFile(path, nullptr);
    const CairoSurface picture = bytes ? surfaceFromPNG(bytes->bytes()) : nullptr;
    if (!picture) {
        return nullptr;
    }
    return std::make_shared<CairoImage>(drawIcon(picture.get()));
}

} // namespace appsync::device
